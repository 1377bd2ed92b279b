// SPDX-License-Identifier: Apache-2.0
// What the page knows, and that all of it is bounded.
import assert from "node:assert/strict";
import { test } from "node:test";
import { part } from "./fake_browser.mjs";

const { COLOURS, Model, Source } = await part("model");
const place = (latitude, longitude) => ({ latitude, longitude });

test("a source keeps its last message, and what was seen last", () => {
  const source = new Source("a", 3);
  assert.equal(source.slot, 3);
  source.push({ time_us: 1, seen: { heading: 7 } });
  source.push({ time_us: 2, id: 5 });
  assert.equal(source.message.id, 5);
  assert.deepEqual(source.seen, { heading: 7 });
  assert.equal(source.arrived, 2);
});

test("numbers become histories, which are not too dense", () => {
  const source = new Source("a", 0);
  for (const time_us of [0, 89999, 90000, 90001, 180000]) source.push({ time_us, items: { 5: time_us, 3: "text", 6: null } });
  const series = source.series.get(5);
  assert.deepEqual([...series.times.subarray(0, series.length)], [0, 90000, 180000]);
  assert.deepEqual([...series.values.subarray(0, series.length)], [0, 90000, 180000]);
  assert.equal(series.lastTime, 180000);
  assert.deepEqual([...source.series.keys()], [5]);
});

test("a history takes what was before it, and nothing twice", () => {
  const source = new Source("a", 0);
  source.pushNumber(5, 300, 3);
  const series = source.series.get(5);
  series.push(400, 4);
  series.prepend([[100, 1], [200, 2], [300, 33], [350, 34]]);
  assert.deepEqual([...series.times.subarray(0, series.length)], [100, 200, 300, 400]);
  assert.deepEqual([...series.values.subarray(0, series.length)], [1, 2, 3, 4]);
  series.push(400, 5);
  series.push(399, 5);
  assert.equal(series.length, 4);
});

test("a history is bounded and keeps the newest", () => {
  const source = new Source("a", 0);
  for (let i = 0; i < 20000; ++i) source.pushNumber(5, i * 100000, i);
  const series = source.series.get(5);
  assert.ok(series.length > 3000 && series.length <= 6000, series.length);
  assert.equal(series.lastTime, 1999900000);
  assert.equal(series.values[series.length - 1], 19999);
  for (let i = 1; i < series.length; ++i) assert.equal(series.values[i], series.values[i - 1] + 1);
});

test("a path has the places that are apart, in the order of their times", () => {
  const { track } = new Source("a", 0);
  track.push(place(0, 0), 10);
  track.push(place(0, 0.00001), 20);  // a metre away
  track.push(place(0, 0.001), 10);    // not later
  track.push(place(0, 0.002), 30);
  assert.deepEqual(track.xs.map((x) => Math.round((x - 0.5) * 360 * 1000)), [0, 2]);
  assert.deepEqual(track.ys, [0.5, 0.5]);
  assert.equal(track.lastTime, 30);
});

test("a path over the antimeridian goes on", () => {
  const { track } = new Source("a", 0);
  [179.9, -179.9, 179.95].forEach((longitude, i) => track.push(place(1, longitude), i + 1));
  assert.deepEqual(track.xs.map((x) => Number(x.toFixed(5))), [0.99972, 1.00028, 0.99986]);
});

test("a path is bounded and keeps the newest", () => {
  const { track } = new Source("a", 0);
  for (let i = 1; i <= 20000; ++i) track.push(place(i % 2, i / 1000), i);
  assert.ok(track.xs.length > 2900 && track.xs.length <= 4000, track.xs.length);
  assert.equal(track.xs.length, track.ys.length);
  assert.ok(Math.abs(track.xs[track.xs.length - 1] - (20 / 360 + 0.5)) < 1e-9);
});

test("the message of a frame is the last one that is not later", () => {
  const source = new Source("a", 0);
  for (let i = 0; i < 5; ++i) source.push({ time_us: i, id: i, presentation: 10 + i });
  source.push({ time_us: 9, id: 9 });
  assert.equal(source.messageAt(9.9), null);
  assert.equal(source.messageAt(10).id, 0);
  assert.equal(source.messageAt(12.9995).id, 3, "the clock of a video is no finer than a millisecond");
  assert.equal(source.messageAt(12.99).id, 2);
  assert.equal(source.messageAt(99).id, 4);
  source.push({ time_us: 10, id: 10, presentation: 13.5 });
  assert.equal(source.frames.length, 6, "a little earlier");
  source.push({ time_us: 11, id: 11, presentation: 1 });
  assert.deepEqual(source.frames.map(({ id }) => id), [11], "another run of the stream");
});

test("messages of frames are bounded", () => {
  const source = new Source("a", 0);
  for (let i = 0; i < 5000; ++i) source.push({ time_us: i, id: i, presentation: i });
  assert.ok(source.frames.length > 600 && source.frames.length <= 900);
  assert.equal(source.messageAt(4999).id, 4999);
});

test("a source that begins anew has forgotten all but its report", () => {
  const source = new Source("a", 0);
  source.report = { name: "a" };
  source.push({ time_us: 1, seen: { platform: place(1, 2) }, items: { 5: 1 }, presentation: 1 });
  assert.equal(source.track.xs.length, 1);
  source.forget();
  assert.deepEqual([source.message, source.seen, source.track.xs, source.track.ys, source.track.last, source.series.size,
    source.frames.length],
    [null, {}, [], [], null, 0, 0]);
  assert.equal(source.track.lastTime, 0);
  assert.deepEqual(source.report, { name: "a" });
});

test("reports add sources and take them away", () => {
  const model = new Model();
  model.pushReports([{ name: "a" }, { name: "b", messages: 1 }]);
  const kept = model.source("b");
  model.pushReports([{ name: "b", messages: 2 }, { name: "c" }]);
  assert.deepEqual([...model.sources.keys()], ["b", "c"]);
  assert.equal(model.source("b"), kept);
  assert.equal(kept.report.messages, 2);
  assert.equal(model.changes, 2);
});

test("sources have colours of their own, as long as there are some", () => {
  const model = new Model();
  model.pushReports([{ name: "a" }, { name: "b" }, { name: "c" }]);
  model.pushReports([{ name: "b" }, { name: "c" }]);
  model.pushReports([{ name: "b" }, { name: "c" }, { name: "d" }]);
  assert.deepEqual([...model.sources.values()].map(({ slot }) => slot), [1, 2, 0]);
  const many = new Model();
  many.pushReports(Array.from({ length: 2 * COLOURS + 1 }, (_, i) => ({ name: `s${i}` })));
  assert.deepEqual([...many.sources.values()].map(({ slot }) => slot),
    Array.from({ length: 2 * COLOURS + 1 }, (_, i) => i % COLOURS));
});

test("messages go to their source", () => {
  const model = new Model();
  model.pushMessage({ source: "a", time_us: 1, id: 1 });
  model.pushMessage({ source: "b", time_us: 1, id: 2 });
  assert.equal(model.source("a").message.id, 1);
  assert.equal(model.source("b").message.id, 2);
  assert.equal(model.changes, 2);
});

test("lines come once, in their order, and the newest stay", () => {
  const model = new Model();
  assert.ok(model.pushLine({ id: 3, text: "x" }));
  assert.ok(!model.pushLine({ id: 3, text: "x" }));
  assert.ok(!model.pushLine({ id: 2, text: "x" }));
  for (let id = 4; id <= 1000; ++id) model.pushLine({ id, text: "x" });
  assert.ok(model.lines.length >= 400 && model.lines.length <= 500);
  assert.equal(model.lines[model.lines.length - 1].id, 1000);
});

test("sensors are known by their sources, and bounded", () => {
  const model = new Model();
  model.pushSensor({ source: "b", uid: "s" });
  for (let i = 0; i < 100; ++i) model.pushSensor({ source: "a", uid: `s${i % 80}` });
  assert.equal(model.sensors.get("a").size, 64);
  assert.deepEqual([...model.sensors.get("b")], ["s"]);
});

test("another run of the program begins anew, without a hole in the paths", () => {
  const model = new Model();
  model.pushReports([{ name: "a" }]);
  model.pushMessage({ source: "a", time_us: 1, seen: { platform: place(1, 2) }, items: { 5: 1 }, presentation: 1 });
  model.pushLine({ id: 9, text: "x" });
  model.pushSensor({ source: "a", uid: "s" });
  model.forgetRun();
  const source = model.source("a");
  assert.deepEqual([source.message, source.report, source.frames.length, model.lines.length, model.sensors.size], [null, null, 0, 0, 0]);
  assert.equal(source.track.xs.length, 1);
  assert.equal(source.series.size, 1);
  assert.ok(model.pushLine({ id: 1, text: "x" }));
});
