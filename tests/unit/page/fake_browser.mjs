// SPDX-License-Identifier: Apache-2.0
// As much of a browser as the parts of the page need that compute, fill tables and ask: elements with the identifiers of
// index.html, a clock that the test turns, answers that the test gives. Nothing is laid out or drawn.
import { copyFileSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";

const PAGE = fileURLToPath(new URL("../../../encoder/page/", import.meta.url));

// --- Elements

class Text {
  constructor(text) {
    this.textContent = text;
  }

  remove() {
    this.parentElement?.removeChild(this);
  }
}

class Classes {
  constructor() {
    this.names = new Set();
  }

  toggle(name, isOn) {
    if (isOn) this.names.add(name);
    else this.names.delete(name);
  }

  contains(name) {
    return this.names.has(name);
  }
}

// Canvases note what is drawn: the names of functions with their arguments, and the properties that are set.
function makeContext() {
  const calls = [];
  const answers = { measureText: (text) => ({ width: text.length * 6 }), createLinearGradient: () => ({ addColorStop: () => {} }) };
  return new Proxy({ calls }, {
    get: (target, name) => (name in target ? target[name] : (...given) => {
      calls.push([name, ...given]);
      return answers[name]?.(...given);
    }),
    set: (target, name, value) => {
      target[name] = value;
      calls.push([name, value]);
      return true;
    },
  });
}

export class Element {
  constructor(tag = "div") {
    this.tagName = tag.toUpperCase();
    this.childNodes = [];
    this.attributes = new Map();
    this.listeners = new Map();
    this.classList = new Classes();
    this.dataset = {};
    this.style = {};
    this.hidden = false;
    this.value = "";
    this.clientWidth = 600;
  }

  get children() {
    return this.childNodes.filter((child) => child instanceof Element);
  }

  get firstChild() {
    return this.childNodes[0] ?? null;
  }

  get lastChild() {
    return this.childNodes[this.childNodes.length - 1] ?? null;
  }

  get nextSibling() {
    const siblings = this.parentElement.childNodes;
    return siblings[siblings.indexOf(this) + 1] ?? null;
  }

  get textContent() {
    return this.childNodes.map((child) => child.textContent).join("");
  }

  set textContent(text) {
    this.childNodes = [];
    if (text !== "") this.append(text);
  }

  get cells() {
    return this.children;
  }

  append(...children) {
    for (const child of children) this.insertBefore(typeof child === "object" ? child : new Text(String(child)), null);
  }

  insertBefore(child, next) {
    child.parentElement?.removeChild(child);
    const at = next === null ? this.childNodes.length : this.childNodes.indexOf(next);
    this.childNodes.splice(at, 0, child);
    child.parentElement = this;
  }

  removeChild(child) {
    this.childNodes.splice(this.childNodes.indexOf(child), 1);
    child.parentElement = null;
  }

  remove() {
    this.parentElement?.removeChild(this);
  }

  setAttribute(name, value) {
    this.attributes.set(name, value);
    if (name === "hidden") this.hidden = true;
    if (name === "class") this.classList.names = new Set(value.split(" "));
    if (name === "value") this.value = value;
    if (name.startsWith("data-")) this.dataset[name.slice(5)] = value;
  }

  getAttribute(name) {
    return this.attributes.get(name) ?? null;
  }

  // Finds by a class.
  querySelector(selector) {
    for (const child of this.children) {
      const found = child.classList.contains(selector.slice(1)) ? child : child.querySelector(selector);
      if (found !== null) return found;
    }
    return null;
  }

  addEventListener(kind, listener) {
    this.listeners.set(kind, [...this.listeners.get(kind) ?? [], listener]);
  }

  removeEventListener(kind, listener) {
    this.listeners.set(kind, (this.listeners.get(kind) ?? []).filter((each) => each !== listener));
  }

  // Tells the listeners of this element alone.
  fire(kind, more = {}) {
    const event = { target: this, isPrevented: false, ...more };
    event.preventDefault = () => {
      event.isPrevented = true;
    };
    for (const listener of this.listeners.get(kind) ?? []) listener(event);
    return event;
  }

  focus() {
    document.activeElement = this;
  }

  getContext() {
    this.context ??= makeContext();
    return this.context;
  }
}

// --- Page

function addElements(page) {
  const html = readFileSync(join(PAGE, "index.html"), "utf8");
  for (const [, tag, rest] of html.matchAll(/<([a-z0-9]+)([^>]*\sid="[^>]*)>/g)) {
    const element = new Element(tag);
    const id = / id="([^"]*)"/.exec(rest)[1];
    if (/ hidden/.test(rest)) element.hidden = true;
    if (/ checked/.test(rest)) element.checked = true;
    element.textContent = new RegExp(`id="${id}"[^>]*>([^<]*)<`).exec(html)[1];
    if (tag === "table") element.tBodies = [new Element("tbody")];
    page.set(id, element);
  }
}

class FakeClock {
  constructor() {
    this.now = 1000;
    this.timers = new Map();
    this.last = 0;
  }

  start(action, delay, every) {
    this.timers.set(++this.last, { action, at: this.now + delay, every });
    return this.last;
  }

  // Lets time go by, with the timers that are due in their order.
  pass(milliseconds) {
    const end = this.now + milliseconds;
    for (;;) {
      const due = [...this.timers].filter(([, timer]) => timer.at <= end).sort((a, b) => a[1].at - b[1].at)[0];
      if (due === undefined) break;
      const [id, timer] = due;
      this.now = Math.max(this.now, timer.at);
      if (timer.every === undefined) this.timers.delete(id);
      else timer.at += timer.every;
      timer.action();
    }
    this.now = end;
  }
}

export const clock = new FakeClock();
export const storage = new Map();
export const elements = new Map();
addElements(elements);

globalThis.document = {
  activeElement: null,
  documentElement: new Element("html"),
  body: new Element("body"),
  createElement: (tag) => new Element(tag),
  getElementById: (id) => elements.get(id) ?? null,
};
globalThis.window = globalThis;
globalThis.localStorage = {
  getItem: (key) => storage.get(key) ?? null,
  setItem: (key, value) => storage.set(key, String(value)),
};
globalThis.matchMedia = () => ({ matches: false, addEventListener: () => {} });
globalThis.getComputedStyle = (element) => ({ color: element.style.color });
globalThis.devicePixelRatio = 1;
globalThis.Path2D = class {};
globalThis.addEventListener = (kind, listener) => document.body.addEventListener(kind, listener);
AbortSignal.any ??= (signals) => signals[0];
AbortSignal.timeout = () => new AbortController().signal;
const realTimeout = globalThis.setTimeout;
globalThis.setTimeout = (action, delay = 0) => clock.start(action, delay);
globalThis.setInterval = (action, delay) => clock.start(action, delay, delay);
globalThis.clearTimeout = (id) => clock.timers.delete(id);
Object.defineProperty(performance, "now", { value: () => clock.now });

// What the program answers: a function of the path, or of its beginning, that returns an object or throws a status.
export const answers = new Map();
export const asked = [];
export const signals = [];
globalThis.fetch = async (path, { signal } = {}) => {
  asked.push(path);
  signals.push(signal);
  const found = [...answers].find(([begin]) => path.startsWith(begin));
  if (signal?.aborted) throw new Error("aborted");
  if (found === undefined) return { ok: false, status: 404, json: async () => ({ error: { text: `no ${path}` } }) };
  const answer = found[1](path);
  if (typeof answer === "number") return { ok: false, status: answer, json: async () => { throw new Error("no JSON"); } };
  return { ok: true, status: 200, json: async () => answer };
};

// Lets everything happen that waits for an answer.
export async function settle() {
  for (let i = 0; i < 10; ++i) await new Promise((resolve) => realTimeout(resolve, 0));
}

export function byId(id) {
  return elements.get(id);
}

// --- Parts

// The files are no modules for Node where they are, because nothing beside them says so.
const folder = mkdtempSync(join(tmpdir(), "page_"));
process.on("exit", () => rmSync(folder, { recursive: true }));
writeFileSync(join(folder, "package.json"), '{"type": "module"}');
for (const name of readdirSync(PAGE)) {
  if (name.endsWith(".js")) copyFileSync(join(PAGE, name), join(folder, name));
}

// Returns what a part of the page exports.
export function part(name) {
  return import(pathToFileURL(join(folder, `${name}.js`)));
}
