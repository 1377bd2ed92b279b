// SPDX-License-Identifier: Apache-2.0
// Elements and texts. What came from the network becomes text nodes only, never markup.

export function byId(id) {
  return document.getElementById(id);
}

// Makes an element. Keys of `attributes` with a function are event listeners; false and undefined leave one out.
export function el(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes)) {
    if (typeof value === "function") element.addEventListener(key, value);
    else if (value !== false && value !== undefined) element.setAttribute(key, value === true ? "" : value);
  }
  element.append(...children);
  return element;
}

// Changes a text only if it is another one, so that nothing is laid out or read again without need.
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function setHidden(element, isHidden) {
  if (element.hidden !== isHidden) element.hidden = isHidden;
}

// Characters that would change the order or the look of what stands around them: controls, marks of direction, characters
// without width.
const UNSEEN = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/g;
const MOST_SHOWN = 240;

// Returns a text of the network for people: unseen characters by their numbers, and not more than fits.
export function printable(text) {
  const whole = String(text);
  const shown = whole.length > MOST_SHOWN ? whole.slice(0, MOST_SHOWN) : whole;
  const plain = shown.replace(UNSEEN, (character) =>
    `⟨${character.codePointAt(0).toString(16).toUpperCase().padStart(4, "0")}⟩`);
  return whole.length > MOST_SHOWN ? `${plain}… (${whole.length} characters)` : plain;
}

// Keeps the children of `parent` in step with `list`: one element for each key, made once, changed by `update`, in order.
export function keep(parent, list, keyOf, make, update) {
  const known = parent.keptChildren ?? (parent.keptChildren = new Map());
  const wanted = new Set();
  let previous = null;
  for (const entry of list) {
    const key = keyOf(entry);
    wanted.add(key);
    let element = known.get(key);
    if (element === undefined) {
      element = make(entry);
      known.set(key, element);
    }
    const place = previous === null ? parent.firstChild : previous.nextSibling;
    if (place !== element) parent.insertBefore(element, place);
    update(element, entry);
    previous = element;
  }
  for (const [key, element] of known) {
    if (wanted.has(key)) continue;
    element.remove();
    known.delete(key);
  }
}

// Settings of this browser; without storage they last as long as the page.
const memory = new Map();

export function remember(key, value) {
  memory.set(key, value);
  try {
    localStorage.setItem(key, value);
  } catch {
    // Storage is switched off or full.
  }
}

export function remembered(key, otherwise) {
  if (memory.has(key)) return memory.get(key);
  try {
    return localStorage.getItem(key) ?? otherwise;
  } catch {
    return otherwise;
  }
}

let lastAnnounced = 0;

// Tells users of screen readers about a change of state: at most one in two seconds, the newest.
let waiting = null;
export function announce(text) {
  const now = performance.now();
  clearTimeout(waiting);
  const delay = Math.max(0, lastAnnounced + 2000 - now);
  waiting = setTimeout(() => {
    lastAnnounced = performance.now();
    byId("announcer").textContent = text;
  }, delay);
}

export const calmMotion = matchMedia("(prefers-reduced-motion: reduce)");
