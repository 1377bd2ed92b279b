// SPDX-License-Identifier: Apache-2.0
// The items of one message: the values that matter at a glance, and the table of all of them.
import { byId, el, keep, printable, setHidden, setText } from "./dom.js";
import { clock, dateAndClock, fixed, hexPairs, latitude, longitude, short, withUnit } from "./format.js";
import { isPlace } from "./geometry.js";

// Names, units and kinds of items by tag; filled from /api/v1/items.
export class Dictionary {
  constructor() {
    this.items = new Map();
  }

  load({ items }) {
    for (const item of items) this.items.set(item.tag, item);
  }

  get(tag) {
    return this.items.get(tag);
  }

  isPlottable(tag) {
    return this.items.get(tag)?.kind === "number";
  }

  // The items of an event, where they are tag and value, like those of a whole message.
  expand(compact) {
    return Object.entries(compact).map(([key, value]) => {
      const tag = Number(key);
      const item = this.items.get(tag);
      const whole = { tag, name: item?.name, key: item?.key, unit: item?.unit, value };
      if (item?.kind === "time" && typeof value === "number") whole.text = dateAndClock(value, 3);
      if (typeof value === "string") whole.text = value;
      return whole;
    });
  }
}

const PLACE = /_(lat|lon)\d?$/;
const TIME = /^(\d{4}-\d\d-\d\d)T(\d\d:\d\d:\d\d(?:\.\d{1,3})?)\d*Z$/;

function valueText(item) {
  if (item.state) return item.state;
  if (Array.isArray(item.value)) return "";
  const time = TIME.exec(item.text ?? "");
  if (time !== null) return `${time[1]} ${time[2]}`;
  if (typeof item.text === "string") return withUnit(printable(item.text), item.unit);
  if (typeof item.value === "number") return withUnit(short(item.value, PLACE.test(item.key ?? "") ? 6 : 3), item.unit);
  if (item.value !== null && item.value !== undefined) return withUnit(printable(item.value), item.unit);
  return item.raw ? printable(item.raw) : "–";
}

// One row for each item; the elements of a set follow it.
function rowsOf(items) {
  const rows = [];
  const seen = new Map();
  const add = (item, key, depth) => {
    const times = seen.get(key) ?? 0;
    seen.set(key, times + 1);
    rows.push({ item, key: times === 0 ? key : `${key}#${times}`, depth });
  };
  for (const item of items) {
    add(item, String(item.tag), 0);
    if (!Array.isArray(item.value)) continue;
    for (const element of item.value) add(element, `${item.tag}.${element.tag}`, 1);
  }
  return rows;
}

const PLACES = [["Position", "platform"], ["Frame centre", "frame_center"], ["Target", "target"]];

function readoutOf(seen) {
  const entries = [];
  for (const [title, key] of PLACES) {
    const place = seen[key];
    if (!isPlace(place)) continue;
    entries.push({ title, text: `${latitude(place.latitude)}\u2003${longitude(place.longitude)}`, isWide: true });
  }
  const height = seen.platform?.altitude ?? seen.platform?.ellipsoid_height;
  const numbers = [["Altitude", height, "m", 0], ["Heading", seen.heading, "deg", 1], ["Ground speed", seen.ground_speed, "m/s", 0],
    ["Sensor azimuth", seen.azimuth, "deg", 1], ["Sensor elevation", seen.elevation, "deg", 1],
    ["Slant range", seen.slant_range, "m", 0]];
  for (const [title, value, unit, digits] of numbers) {
    entries.push({ title, text: Number.isFinite(value) ? withUnit(fixed(value, digits), unit) : "–", isWide: false });
  }
  return entries;
}

const CHECKSUMS = new Map([["ok", ""], ["bad", "wrong checksum"], ["missing", "no checksum"], ["misplaced", "misplaced checksum"]]);

export class Items {
  // `plot` is called with the tag of an item whose plot is wanted.
  constructor(dictionary, plot) {
    this.dictionary = dictionary;
    this.plot = plot;
    this.body = byId("items").tBodies[0];
    this.showsRaw = false;
    this.shown = null;
    byId("raw").addEventListener("change", (event) => {
      this.showsRaw = event.target.checked;
      this.render();
    });
    byId("item-filter").addEventListener("input", () => this.render());
  }

  // Shows a message: {seen, items, checksum, time_us, length, raw, error}, or null. Nothing is shown before the dictionary is
  // there, because rows are made once.
  show(name, message) {
    this.shown = this.dictionary.items.size > 0 ? message ?? null : null;
    setText(byId("detail-name"), name === "" ? "Values" : printable(name));
    this.render();
  }

  render() {
    const message = this.shown;
    setHidden(byId("items-empty"), message !== null);
    setHidden(byId("items"), message === null);
    this.renderTime(message);
    keep(byId("readout"), readoutOf(message?.seen ?? {}), ({ title }) => title,
      ({ title, isWide }) => el("div", { class: isWide ? "wide" : false }, el("dt", {}, title), el("dd", { class: "number" })),
      (element, { text }) => setText(element.lastChild, text));
    const items = message?.items ?? [];
    this.renderMarking(items);
    const words = byId("item-filter").value.trim().toLowerCase();
    const rows = rowsOf(items).filter(({ item }) => words === "" ||
      `${item.tag} ${item.name ?? ""} ${item.key ?? ""}`.toLowerCase().includes(words));
    if (this.showsRaw && typeof message?.raw === "string") rows.push({ item: { name: "Whole message", raw: message.raw }, key: "raw", depth: 0 });
    keep(this.body, rows, ({ key }) => key, (row) => this.makeRow(row), (element, row) => this.updateRow(element, row));
  }

  renderTime(message) {
    const parts = [];
    if (message !== null) {
      parts.push(`${clock(message.time_us)} UTC`);
      if (Number.isFinite(message.length)) parts.push(`${message.length} bytes`);
      const checksum = message.st0601 === false ? "not ST 0601" : CHECKSUMS.get(message.checksum) ?? "";
      if (checksum !== "") parts.push(checksum);
      if (message.error) parts.push(printable(message.error));
    }
    const note = byId("detail-time");
    setText(note, parts.join(" · "));
    note.classList.toggle("bad", parts.length > 2);
  }

  // The classification, if the message has one, stands above everything else.
  renderMarking(items) {
    const set = items.find(({ tag, value }) => tag === 48 && Array.isArray(value));
    const marking = set?.value.find(({ tag }) => tag === 1)?.text ?? "";
    const element = byId("marking");
    setHidden(element, marking === "");
    setText(element, printable(marking));
  }

  makeRow({ item, depth }) {
    const tag = item.tag;
    const row = el("tr", { class: depth > 0 ? "element" : false },
      el("td", { class: "number right tag" }, tag === undefined ? "" : String(tag)),
      el("td", {}, el("bdi"), el("code", { class: "raw", hidden: true })),
      el("td", { class: "number right value" }, el("bdi")),
      el("td"));
    if (depth === 0 && this.dictionary.isPlottable(tag)) {
      const name = printable(item.name ?? `item ${tag}`);
      row.lastChild.append(el("button", { type: "button", class: "plot-button", "aria-label": `Plot ${name}`, title: `Plot ${name}`,
        click: () => this.plot(tag) }));
    }
    return row;
  }

  updateRow(row, { item }) {
    const [, name, value] = row.cells;
    setText(name.firstChild, printable(item.name ?? "Not in the standard"));
    setText(value.firstChild, item.key === undefined && item.name === "Whole message" ? "" : valueText(item));
    value.classList.toggle("bad", item.state !== undefined);
    const raw = name.lastChild;
    const bytes = this.showsRaw && typeof item.raw === "string" ? hexPairs(item.raw) : "";
    setHidden(raw, bytes === "");
    setText(raw, bytes);
  }
}
