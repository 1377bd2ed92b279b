// SPDX-License-Identifier: Apache-2.0
// Plots: which there are, what they draw, and what they say about it.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { answers, asked, byId, part, settle, storage } from "./fake_browser.mjs";

const { Plots } = await part("plots");
const { Dictionary } = await part("items");
const { Source } = await part("model");
const NOW = Date.UTC(2024, 4, 1, 12, 0, 0) * 1000;
const dictionary = new Dictionary();
dictionary.load({ items: [{ tag: 5, name: "Heading", unit: "deg", kind: "number", max: 360 }, { tag: 15, name: "Altitude", unit: "m",
  kind: "number" },
  { tag: 3, name: "Mission", kind: "text" }] });

let plots;
let source;
beforeEach(() => {
  answers.clear();
  asked.length = 0;
  for (const id of ["plot-item", "plot-span"]) byId(id).listeners.clear();
  byId("plots").textContent = "";
  byId("plots").keptChildren = undefined;
});

// A source whose item has these values, so many seconds before now.
function begin(tag, points, saved = String(tag)) {
  if (plots === undefined) storage.set("plots", saved);
  plots = new Plots(dictionary);
  plots.tags = saved.split(" ").map(Number);
  source = new Source("a", 2);
  for (const [seconds, value] of points) source.pushNumber(tag, NOW - seconds * 1e6, value);
}

// Draws, and returns what the first plot says and what was called on its canvas.
function draw() {
  const context = byId("plots").children[0]?.lastChild.getContext();
  if (context !== undefined) context.calls.length = 0;
  plots.update(source, NOW, false);
  const figure = byId("plots").children[0];
  const { calls } = figure.lastChild.getContext();
  return { value: figure.querySelector(".plot-value").textContent, name: figure.querySelector(".plot-name").textContent,
    label: figure.lastChild.getAttribute("aria-label"), calls, canvas: figure.lastChild,
    texts: calls.filter(([name]) => name === "fillText").map(([, text]) => text) };
}

test("the plots that were chosen last are there again", () => {
  storage.set("plots", "15 5 x -1 1 2 3 4 6 7 8");
  assert.deepEqual(new Plots(dictionary).tags, [15, 5, 1, 2, 3, 4, 6, 7]);
});

test("plots are added and removed, eight at most", () => {
  begin(5, []);
  for (const tag of [5, 15, 1, 2, 3, 4, 6, 7, 8]) plots.add(tag);
  assert.deepEqual(plots.tags, [15, 1, 2, 3, 4, 6, 7, 8]);
  assert.equal(storage.get("plots"), "15 1 2 3 4 6 7 8");
  plots.remove(3);
  assert.deepEqual(plots.tags, [15, 1, 2, 4, 6, 7, 8]);
  assert.equal(document.activeElement, byId("plot-item"));
  byId("plot-item").value = "99";
  byId("plot-item").fire("change");
  assert.equal(plots.tags.at(-1), 99);
  assert.equal(byId("plot-item").value, "");
  byId("plot-item").fire("change");
  assert.deepEqual(plots.tags, [15, 1, 2, 4, 6, 7, 8, 99], "nothing was chosen");
  plots.add(15);
  assert.deepEqual(plots.tags, [15, 1, 2, 4, 6, 7, 8, 99], "it is there");
});

test("items with numbers of the source can be chosen", () => {
  begin(15, [[1, 1]]);
  source.pushNumber(5, NOW, 1);
  source.pushNumber(99, NOW, 1);
  draw();
  assert.deepEqual(byId("plot-item").children.map((option) => option.textContent), ["Choose…", "5 Heading", "15 Altitude"]);
  assert.ok(byId("plots-empty").hidden);
  plots.tags = [];
  plots.update(source, NOW, false);
  assert.ok(!byId("plots-empty").hidden);
});

test("a plot says its newest value and its range", () => {
  begin(15, [[500, -99], [299, 100], [10, 300.5], [1, 200]]);
  const { value, name, label, canvas } = draw();
  assert.equal(value, "200\u202fm");
  assert.equal(name, "Altitude");
  assert.equal(label, "Altitude: now 200\u202fm, between 100 and 300.5 m");
  assert.equal(canvas.width, 600);
  byId("plot-span").fire("change", { target: { value: "600" } });
  assert.match(draw().label, /between −99 and 300.5/);
});

test("a plot without values says so", () => {
  begin(15, [[500, 1]]);
  assert.deepEqual([draw().value, draw().label, draw().texts], ["no values", "No values in this time", []]);
  begin(99, []);
  assert.equal(draw().name, "Item 99");
});

test("the lines of a plot are at round numbers and times", () => {
  begin(15, [[100, 0], [0, 100]]);
  assert.deepEqual(draw().texts, ["0", "50", "100", "11:55:00", "11:56:15", "11:57:30", "11:58:45", "12:00:00"]);
  begin(15, [[100, 7], [0, 7]]);
  const { texts, calls } = draw();
  assert.ok(texts.includes("7"), texts.join());
  assert.ok(calls.filter(([name]) => name === "moveTo").every(([, x, y]) => Number.isFinite(x) && Number.isFinite(y)));
  begin(15, [[100, 0.001], [0, 0.004]]);
  assert.deepEqual(draw().texts.slice(0, -5), ["0.001", "0.002", "0.003", "0.004"]);
  draw().canvas.parentElement.clientWidth = 400;
  assert.equal(draw().texts.length, 4 + 3, "a narrow plot has fewer times");
});

test("the ends of a plot are where its numbers are", () => {
  begin(15, [[3, 0], [0, 100]]);
  const { calls } = draw();
  const line = calls.slice(calls.findIndex(([name, text]) => name === "fillText" && text === "12:00:00"));
  const [, x0, y0] = line.find(([name]) => name === "moveTo");
  const [, x1, y1] = line.find(([name]) => name === "lineTo");
  assert.deepEqual([x0, x1].map((x) => x.toFixed(2)), [(58 + 0.99 * 532).toFixed(2), "590.00"]);
  assert.ok(Math.abs(y0 - (8 + 108 / 116 * 70)) < 1e-6 && Math.abs(y1 - (8 + 8 / 116 * 70)) < 1e-6, `${y0} ${y1}`);
});

const moves = ({ calls }) => {
  const from = calls.findLastIndex(([name]) => name === "beginPath");
  return calls.slice(from).filter(([name]) => name === "moveTo").length;
};

test("a line is broken by a pause, and where an angle goes round", () => {
  begin(15, [[20, 1], [15, 2], [9.5, 3], [9, 350], [8, 1]]);
  assert.equal(moves(draw()), 2, "a pause of more than five seconds");
  begin(5, [[4, 350], [3, 10], [2, 20], [1, 190]]);
  const round = draw();
  assert.equal(moves(round), 2);
  assert.deepEqual(round.texts.slice(0, 5), ["0", "90", "180", "270", "360"]);
  begin(5, [[4, 10], [3, 20]]);
  assert.notDeepEqual(draw().texts.slice(0, 5), ["0", "90", "180", "270", "360"]);
});

test("the value at the pointer or at the keys' place is said", () => {
  begin(15, [[300, 1], [150, 2], [0, 3]]);
  const { canvas } = draw();
  canvas.clientWidth = 600;
  canvas.fire("pointermove", { offsetX: 330 });
  assert.equal(draw().value, "11:57:30.000: 2\u202fm");
  canvas.fire("pointerleave");
  assert.equal(draw().value, "3\u202fm");
  const press = (key) => canvas.fire("keydown", { key }).isPrevented;
  assert.ok(press("Home"));
  assert.equal(draw().value, "11:55:00.000: 1\u202fm");
  assert.ok(press("End"));
  assert.equal(plots.cursor, 1);
  press("ArrowRight");
  assert.equal(plots.cursor, 1);
  press("ArrowLeft");
  assert.equal(plots.cursor, 0.98);
  assert.ok(!press("x"));
  canvas.fire("blur");
  assert.equal(plots.cursor, null);
  press("ArrowLeft");
  assert.equal(plots.cursor, 0.98, "from the end on");
});

test("what came before the page is asked for once", async () => {
  begin(15, [[1, 5]]);
  answers.set("/api/v1/sources/a/history", () => ({ series: [{ tag: 15, points: [[NOW - 3e6, 1], [NOW - 2e6, 2]] }] }));
  plots.update(source, NOW, true);
  plots.update(source, NOW, true);
  await settle();
  assert.deepEqual(asked, ["/api/v1/sources/a/history?item=15&seconds=600&points=3000"]);
  const series = source.series.get(15);
  assert.deepEqual([...series.values.subarray(0, series.length)], [1, 2, 5]);
  plots.asked.clear();
  answers.clear();
  plots.update(source, NOW, true);
  await settle();
  assert.equal(plots.asked.size, 0, "what was not answered is asked for again");
  asked.length = 0;
  plots.update(source, NOW, false);
  assert.deepEqual(asked, [], "a replay has no history");
});

test("a history without points changes nothing", async () => {
  begin(15, []);
  answers.set("/api/v1/sources/a/history", () => ({ series: [] }));
  plots.update(source, NOW, true);
  await settle();
  assert.equal(source.series.size, 0);
  assert.equal(plots.asked.size, 1, "it is not asked for again");
  begin(15, []);
  answers.set("/api/v1/sources/a/history", () => ({ series: [{ tag: 15, points: [[NOW - 3e6, 1], [NOW - 2e6, 2]] }] }));
  plots.update(source, NOW, true);
  await settle();
  assert.equal(source.series.get(15).length, 2, "a source that has sent nothing since");
});
