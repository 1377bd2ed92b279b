// SPDX-License-Identifier: Apache-2.0
// Light, dark, or as the system has it; and the colours of the style sheet for canvases.
import { byId, remember, remembered } from "./dom.js";

const NAMES = ["auto", "light", "dark"];
const listeners = new Set();
const cache = new Map();

export function onThemeChange(listener) {
  listeners.add(listener);
}

function tellAll() {
  cache.clear();
  for (const listener of listeners) listener();
}

function apply(name) {
  const root = document.documentElement;
  if (name === "auto") delete root.dataset.theme;
  else root.dataset.theme = name;
  byId("theme").textContent = `Theme: ${name}`;
  tellAll();
}

export function startTheme() {
  let current = NAMES.includes(remembered("theme", "auto")) ? remembered("theme", "auto") : "auto";
  apply(current);
  byId("theme").addEventListener("click", () => {
    current = NAMES[(NAMES.indexOf(current) + 1) % NAMES.length];
    remember("theme", current);
    apply(current);
  });
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", tellAll);
}

// Returns what a custom property of the style sheet is now, as a colour that a canvas understands.
export function colour(name) {
  let value = cache.get(name);
  if (value === undefined) {
    const probe = document.createElement("span");
    probe.style.color = `var(${name})`;
    document.body.append(probe);
    value = getComputedStyle(probe).color;
    probe.remove();
    cache.set(name, value);
  }
  return value;
}

export function sourceColour(slot) {
  return colour(`--source-${slot}`);
}
