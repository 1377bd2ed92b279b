// SPDX-License-Identifier: Apache-2.0
// The replay of a recording: what it asks for, and what it shows at a time.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { answers, asked, byId, clock, part, settle, signals } from "./fake_browser.mjs";

const { Replay } = await part("replay");
const START = Date.UTC(2024, 4, 1, 12, 0, 0) * 1000;
const POINTS = [0, 1, 2, 4].map((second) => ({ time_us: START + second * 1e6,
  seen: { heading: 10 * second, platform: { latitude: second, longitude: 7, altitude: 100 }, frame_center: { latitude: 1,
    longitude: 2 } } }));
const RECORDINGS = [{ name: "a b.klv" }, { name: "c.klv" }];

let told;
let changes;
let replay;
beforeEach(async () => {
  told = [];
  changes = 0;
  asked.length = 0;
  answers.clear();
  answers.set("/api/v1/recordings/a%20b.klv/message", (path) => ({ path }));
  answers.set("/api/v1/recordings/a%20b.klv", () => ({ points: POINTS }));
  answers.set("/api/v1/recordings/c.klv", () => ({ points: [] }));
  answers.set("/api/v1/recordings", () => ({ recordings: RECORDINGS }));
  byId("recording").value = "a b.klv";
  byId("speed").value = "1";
  byId("replay").listeners.clear();
  for (const id of ["recording", "play", "moment"]) byId(id).listeners.clear();
  replay = new Replay(() => ++changes, (text) => told.push(text));
});

const source = () => replay.model.sources.get("a b");
const said = () => told[told.length - 1];
async function enter() {
  await replay.enter();
  await settle();
}

test("a recording is shown from its beginning", async () => {
  await enter();
  assert.deepEqual(byId("recording").children.map((option) => option.textContent), ["a b.klv", "c.klv"]);
  assert.equal(asked[1], "/api/v1/recordings/a%20b.klv?points=2000");
  assert.equal(replay.source, "a b");
  assert.equal(changes, 1);
  assert.equal(source().message.time_us, START);
  assert.equal(byId("moment-text").textContent, "2024-05-01 12:00:00.0");
  assert.equal(byId("moment").getAttribute("aria-valuetext"), "2024-05-01 12:00:00.0");
  assert.ok(!byId("replay").hidden && !byId("play").disabled && !byId("moment").disabled && !byId("speed").disabled);
  assert.equal(said(), "");
});

test("the slider goes forth and back", async () => {
  await enter();
  byId("moment").value = "500";
  byId("moment").fire("input");
  assert.equal(replay.timeUs, START + 2e6);
  assert.equal(source().track.xs.length, 3);
  assert.equal(source().series.get(5).length, 3);
  byId("moment").value = "250";
  byId("moment").fire("input");
  assert.equal(source().track.xs.length, 2, "what is later is not there");
  assert.equal(source().message.time_us, START + 1e6);
  byId("moment").value = "1000";
  byId("moment").fire("input");
  assert.equal(source().track.xs.length, 4);
  assert.equal(source().seen.heading, 40);
});

test("the numbers of the overview have the tags of their items", async () => {
  answers.set("/api/v1/recordings/a%20b.klv", () => ({ points: [{ time_us: START, seen: { heading: 1, pitch: 2, roll: 3,
    platform: { latitude: 4, longitude: 5, altitude: 6 }, horizontal_view: 7, vertical_view: 8, slant_range: 9,
    frame_center: { latitude: 10, longitude: 11, altitude: 12 }, ground_speed: 13 } }] }));
  await enter();
  const numbers = Object.fromEntries([...source().series].map(([tag, series]) => [tag, series.values[0]]));
  assert.deepEqual(numbers, { 5: 1, 6: 2, 7: 3, 13: 4, 14: 5, 15: 6, 16: 7, 17: 8, 21: 9, 23: 10, 24: 11, 25: 12, 56: 13 });
  assert.equal(byId("moment").value, 0, "it has one moment");
});

test("it plays at the chosen speed and stops at the end", async () => {
  await enter();
  byId("play").fire("click");
  assert.equal(byId("play").textContent, "Pause");
  replay.tick(clock.now + 1000);
  assert.equal(replay.timeUs, START + 1e6);
  assert.equal(byId("moment").value, 250);
  byId("speed").value = "2";
  replay.tick(clock.now + 2000);
  assert.equal(replay.timeUs, START + 3e6);
  replay.tick(clock.now + 9000);
  assert.equal(replay.timeUs, START + 4e6);
  assert.ok(!replay.isPlaying);
  assert.equal(byId("play").textContent, "Play");
  byId("play").fire("click");
  assert.equal(replay.timeUs, START, "once more from its beginning");
  assert.ok(replay.isPlaying);
  byId("play").fire("click");
  assert.ok(!replay.isPlaying);
  byId("play").fire("click");
  byId("moment").value = "500";
  byId("moment").fire("input");
  assert.ok(!replay.isPlaying, "who moves the slider stops it");
});

test("the message of the moment is asked for now and then, one at a time", async () => {
  await enter();
  const questions = () => asked.filter((path) => path.includes("/message"));
  replay.tick(251);
  replay.tick(600);
  assert.deepEqual(questions(), [`/api/v1/recordings/a%20b.klv/message?time=${START}&raw=1`]);
  await settle();
  assert.match(replay.message.path, /\/message/);
  replay.tick(1000);
  assert.equal(questions().length, 1, "it is there");
  replay.seek(START + 1e6);
  replay.tick(501);
  assert.equal(questions().length, 1, "not so soon");
  replay.tick(502);
  assert.equal(questions().length, 2);
  await settle();
  replay.tick(2000);
  assert.equal(questions().length, 2);
});

test("what cannot be read is said", async () => {
  answers.set("/api/v1/recordings/a%20b.klv/message", () => 404);
  await enter();
  replay.tick(300);
  await settle();
  assert.equal(said(), "The message cannot be read: HTTP status 404.");
  answers.set("/api/v1/recordings/a%20b.klv", () => 404);
  await replay.load("a b.klv");
  assert.equal(said(), "a b.klv cannot be read: HTTP status 404.");
  assert.ok(byId("play").disabled);
  answers.set("/api/v1/recordings", () => 500);
  await replay.enter();
  assert.equal(said(), "The recordings cannot be listed: HTTP status 500.");
});

test("recordings that are not there or empty are said", async () => {
  byId("recording").value = "c.klv";
  await enter();
  assert.equal(byId("moment-text").textContent, "no messages");
  assert.ok(byId("play").disabled);
  replay.tick(1000);
  byId("play").fire("click");
  assert.ok(!replay.isPlaying);
  answers.set("/api/v1/recordings", () => ({ recordings: [] }));
  await replay.enter();
  assert.match(said(), /^There are no recordings: switch recording on/);
  answers.set("/api/v1/recordings", () => ({ recordings: RECORDINGS }));
  await replay.enter();
  assert.equal(said(), "");
});

test("another recording takes the place of one that is on its way", async () => {
  await enter();
  const first = replay.load("a b.klv");
  const second = replay.load("c.klv");
  await Promise.all([first, second]);
  assert.equal(replay.name, "c.klv");
  assert.equal(replay.points.length, 0);
  assert.equal(changes, 1, "the first was not shown");
  byId("recording").fire("change", { target: { value: "a b.klv" } });
  await settle();
  assert.equal(replay.points.length, 4);
});

test("who leaves leaves nothing behind", async () => {
  await enter();
  replay.tick(300);
  replay.leave();
  assert.ok(signals.at(-1).aborted, "nobody waits for the message any more");
  await settle();
  assert.ok(byId("replay").hidden);
  assert.deepEqual([replay.isActive, replay.points.length, replay.message, replay.model.sources.size, said()], [false, 0, null, 0, ""]);
  const submit = byId("replay").fire("submit");
  assert.ok(submit.isPrevented, "the form is not sent");
  const late = replay.enter();
  replay.leave();
  await late;
  assert.equal(replay.points.length, 0);
  assert.equal(replay.name, "", "nothing was loaded");
});
