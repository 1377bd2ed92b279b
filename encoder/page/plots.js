// SPDX-License-Identifier: Apache-2.0
// Plots of items over time, one canvas each.
import { byId, el, keep, remember, remembered, setHidden, setText } from "./dom.js";
import { get, sourcePath } from "./feed.js";
import { clock, short, unitText, withUnit } from "./format.js";
import { colour, onThemeChange, sourceColour } from "./theme.js";

const MOST_PLOTS = 8;
const HEIGHT = 96;
const LEFT = 58;
const BOTTOM = 18;
const TOP = 8;
const RIGHT = 10;

function savedTags() {
  return remembered("plots", "15 5").split(" ").map(Number).filter((tag) => tag > 0).slice(0, MOST_PLOTS);
}

// The points of a series from `from` on, and their least and greatest value.
function extent(series, from) {
  let first = 0;
  while (first < series.length && series.times[first] < from) ++first;
  let low = Infinity;
  let high = -Infinity;
  for (let i = first; i < series.length; ++i) {
    low = Math.min(low, series.values[i]);
    high = Math.max(high, series.values[i]);
  }
  return { first, low, high };
}

// Round numbers between two values: at most four.
function ticks(low, high) {
  const span = high - low || 1;
  const power = 10 ** Math.floor(Math.log10(span / 3));
  const step = [1, 2, 5, 10].map((times) => times * power).find((size) => span / size <= 4) ?? power * 10;
  const values = [];
  for (let i = Math.ceil(low / step - 1e-9); i * step <= high + step * 1e-9 && values.length < 6; ++i) values.push(i * step);
  return values;
}

function drawAxes(context, frame) {
  context.font = "11px system-ui, sans-serif";
  context.fillStyle = colour("--muted");
  context.strokeStyle = colour("--line");
  context.lineWidth = 1;
  context.textAlign = "right";
  context.textBaseline = "middle";
  for (const value of frame.ticks) {
    const y = Math.round(frame.y(value)) + 0.5;
    context.beginPath();
    context.moveTo(LEFT, y);
    context.lineTo(frame.width - RIGHT, y);
    context.stroke();
    context.fillText(short(value, 6), LEFT - 6, y);
  }
  context.textBaseline = "alphabetic";
  const parts = frame.width > 520 ? 4 : 2;
  for (let i = 0; i <= parts; ++i) {
    const time = frame.from + (frame.to - frame.from) * i / parts;
    context.textAlign = i === 0 ? "left" : i === parts ? "right" : "center";
    context.fillText(clock(time, 0), frame.x(time), HEIGHT - 4);
  }
}

// Angles that go from 359 to 1 degree are not joined, and neither are values with a pause between them.
function drawLine(context, series, first, frame, isAngle, ink) {
  context.beginPath();
  let isDown = false;
  for (let i = first; i < series.length; ++i) {
    const isJump = i > first && ((isAngle && Math.abs(series.values[i] - series.values[i - 1]) > 180) ||
      series.times[i] - series.times[i - 1] > 5e6);
    const x = frame.x(series.times[i]);
    const y = frame.y(series.values[i]);
    if (isDown && !isJump) context.lineTo(x, y);
    else context.moveTo(x, y);
    isDown = true;
  }
  context.strokeStyle = ink;
  context.lineWidth = 1.6;
  context.lineJoin = "round";
  context.stroke();
}

function drawCursor(context, series, first, frame, at, unit) {
  let nearest = first;
  for (let i = first; i < series.length; ++i) {
    if (Math.abs(series.times[i] - at) < Math.abs(series.times[nearest] - at)) nearest = i;
  }
  if (nearest >= series.length) return "";
  const x = frame.x(series.times[nearest]);
  context.strokeStyle = colour("--muted");
  context.beginPath();
  context.moveTo(x, TOP);
  context.lineTo(x, HEIGHT - BOTTOM);
  context.stroke();
  context.fillStyle = colour("--ink");
  context.beginPath();
  context.arc(x, frame.y(series.values[nearest]), 3, 0, 2 * Math.PI);
  context.fill();
  return `${clock(series.times[nearest])}: ${withUnit(short(series.values[nearest], 3), unit)}`;
}

export class Plots {
  constructor(dictionary) {
    this.dictionary = dictionary;
    this.tags = savedTags();
    this.seconds = 300;
    this.asked = new Set();
    this.cursor = null;  // part of the width, 0 to 1
    this.isLive = true;
    byId("plot-item").addEventListener("change", (event) => {
      if (event.target.value !== "") this.add(Number(event.target.value));
      event.target.value = "";
    });
    byId("plot-span").addEventListener("change", (event) => {
      this.seconds = Number(event.target.value);
    });
    onThemeChange(() => {
      this.drawn = null;
    });
  }

  add(tag) {
    if (this.tags.includes(tag)) return;
    this.tags.push(tag);
    if (this.tags.length > MOST_PLOTS) this.tags.shift();
    this.save();
  }

  remove(tag) {
    this.tags = this.tags.filter((each) => each !== tag);
    this.save();
    byId("plot-item").focus();
  }

  save() {
    remember("plots", this.tags.join(" "));
  }

  // The items of this source that have numbers, for the list of what can be added.
  fillChoice(source) {
    const tags = [...source.series.keys()].filter((tag) => this.dictionary.isPlottable(tag)).sort((a, b) => a - b);
    keep(byId("plot-item"), ["", ...tags], (tag) => tag, (tag) => el("option", { value: String(tag) },
      tag === "" ? "Choose…" : `${tag} ${this.dictionary.get(tag).name}`), () => {});
  }

  // Asks for what was received before this page was opened.
  async fetchHistory(source, tag) {
    const key = `${source.name}/${tag}`;
    if (!this.isLive || this.asked.has(key)) return;
    this.asked.add(key);
    try {
      const answer = await get(sourcePath(source.name, "/history", { item: tag, seconds: 600, points: 3000 }));
      const points = answer.series.find((series) => series.tag === tag)?.points ?? [];
      if (points.length === 0) return;
      source.pushNumber(tag, ...points[points.length - 1]);
      source.series.get(tag).prepend(points);
    } catch {
      this.asked.delete(key);
    }
  }

  update(source, nowUs, isLive) {
    this.isLive = isLive;
    setHidden(byId("plots-empty"), this.tags.length > 0);
    if (source === undefined) return;
    this.fillChoice(source);
    keep(byId("plots"), this.tags, (tag) => tag, (tag) => this.make(tag), (element, tag) => this.draw(element, source, tag, nowUs));
  }

  make(tag) {
    const name = this.dictionary.get(tag)?.name ?? `Item ${tag}`;
    const canvas = el("canvas", { role: "img", tabindex: "0", height: String(HEIGHT),
      pointermove: (event) => this.point(event.offsetX / event.target.clientWidth),
      pointerleave: () => this.point(null),
      blur: () => this.point(null),
      keydown: (event) => this.step(event) });
    return el("figure", { class: "plot" },
      el("figcaption", {}, el("span", { class: "plot-name" }, name), el("span", { class: "plot-value number" }),
        el("button", { type: "button", class: "plain", "aria-label": `Remove the plot of ${name}`, click: () => this.remove(tag) }, "Remove")),
      canvas);
  }

  point(part) {
    this.cursor = part;
  }

  step(event) {
    const steps = { ArrowLeft: -0.02, ArrowRight: 0.02, Home: -1, End: 1 };
    if (!(event.key in steps)) return;
    event.preventDefault();
    this.cursor = Math.max(0, Math.min(1, (this.cursor ?? 1) + steps[event.key]));
  }

  draw(element, source, tag, nowUs) {
    this.fetchHistory(source, tag);
    const item = this.dictionary.get(tag);
    const canvas = element.lastChild;
    const width = canvas.parentElement.clientWidth;
    const ratio = Math.min(2, devicePixelRatio || 1);
    if (canvas.width !== Math.round(width * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = HEIGHT * ratio;
    }
    const context = canvas.getContext("2d");
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, HEIGHT);
    const series = source.series.get(tag);
    const from = nowUs - this.seconds * 1e6;
    const { first, low, high } = series === undefined ? { first: 0, low: Infinity, high: -Infinity } : extent(series, from);
    setText(element.querySelector(".plot-name"), item === undefined ? `Item ${tag}` : item.name);
    if (!(low <= high)) {
      setText(element.querySelector(".plot-value"), "no values");
      canvas.setAttribute("aria-label", "No values in this time");
      return;
    }
    const isAngle = item?.max === 360;
    const frame = makeFrame(low, high, from, nowUs, width, isAngle);
    drawAxes(context, frame);
    drawLine(context, series, first, frame, isAngle, sourceColour(source.slot));
    const newest = withUnit(short(series.values[series.length - 1], 3), item?.unit);
    const at = this.cursor === null ? "" : drawCursor(context, series, first, frame, frame.timeAt(this.cursor * width), item?.unit);
    setText(element.querySelector(".plot-value"), at === "" ? newest : at);
    const label = `${item?.name ?? tag}: now ${newest}, between ${short(low, 2)} and ${short(high, 2)} ${unitText(item?.unit)}`;
    if (canvas.getAttribute("aria-label") !== label) canvas.setAttribute("aria-label", label);
  }
}

// `isAngle`: a full turn, once the values are on both sides of it.
function makeFrame(low, high, from, to, width, isAngle) {
  const least = Math.max(Math.abs(high) * 1e-6, 1e-6);
  const margin = Math.max((high - low) * 0.08, least);
  const isTurn = isAngle && high - low > 180;
  const [bottom, top] = isTurn ? [0, 360] : [low - margin, high + margin];
  return {
    ticks: isTurn ? [0, 90, 180, 270, 360] : ticks(bottom, top),
    low: bottom, high: top, from, to, width,
    x: (time) => LEFT + (time - from) / (to - from) * (width - LEFT - RIGHT),
    y: (value) => TOP + (top - value) / (top - bottom) * (HEIGHT - TOP - BOTTOM),
    timeAt: (x) => from + (x - LEFT) / (width - LEFT - RIGHT) * (to - from),
  };
}
