// SPDX-License-Identifier: Apache-2.0
// The sensors of Cursor-on-Target: which are known, where they look, and how the table lists them.
import assert from "node:assert/strict";
import { test } from "node:test";
import { Element, part } from "./fake_browser.mjs";

const { SensorList, placedSensors, sensorsOf } = await part("sensors");
const { Model } = await part("model");
const old = { latitude: 1, longitude: 1 };
const fresh = { latitude: 2, longitude: 2 };

function modelOf(...reports) {
  const model = new Model();
  model.pushReports(reports);
  return model;
}

test("a sensor looks where the newest message says, or else the statistics", () => {
  const model = modelOf({ name: "a", sensors: [{ uid: "s", place: old }, { uid: "t" }, { uid: "u", place: { latitude: 1 } }] },
    { name: "b", sensors: [] }, { name: "klv" });
  const known = () => sensorsOf(model.source("a"), model).map(({ uid, place }) => [uid, place]);
  assert.deepEqual(known(), [["s", old], ["t", null], ["u", null]]);
  model.pushMessage({ source: "klv", time_us: 1, seen: { sensor: "s", frame_center: fresh } });
  assert.deepEqual(known()[0], ["s", old], "another kind of source has no sensors by their UIDs");
  model.pushMessage({ source: "b", time_us: 1, seen: { sensor: "s" } });
  model.pushMessage({ source: "a", time_us: 1, seen: { sensor: "s" } });
  assert.deepEqual(known()[0], ["s", old], "no place");
  model.pushMessage({ source: "b", time_us: 2, seen: { sensor: "s", frame_center: fresh } });
  assert.deepEqual(known(), [["s", fresh], ["t", null], ["u", null]]);
  assert.deepEqual(sensorsOf(model.source("klv"), model), []);
  model.source("a").report = null;
  assert.deepEqual(sensorsOf(model.source("a"), model), []);
});

test("each sensor with a place is on the map once, with the source that has found it first", () => {
  const model = modelOf({ name: "a", sensors: [{ uid: "s", place: old }, { uid: "t" }] },
    { name: "b", sensors: [{ uid: "s", place: fresh }, { uid: "t", place: fresh }] });
  assert.deepEqual(placedSensors(model).map(({ uid, place, source }) => [uid, place, source.name]), [["s", old, "a"], ["t", fresh, "b"]]);
});

test("the table lists the sensors, with a button for those that have a place", () => {
  const shown = [];
  const list = new SensorList((uid, place) => shown.push([uid, place]));
  const model = modelOf({ name: "a", sensors: [{ uid: "s\u0007", place: old }, { uid: "t" }] });
  const made = list.make();
  list.fill(made, model.source("a"), model, ["s\u0007", "t", "told"]);
  assert.deepEqual(made.children.map((entry) => entry.children.map(({ hidden }) => hidden)), [[true, false], [false, true], [false, true]]);
  assert.deepEqual(made.children.map((entry) => entry.firstChild.textContent), ["s⟨0007⟩", "t", "told"]);
  const button = made.children[0].lastChild;
  assert.equal(button.textContent, "Show on the map: s⟨0007⟩ 1.00000°\u202fN 1.00000°\u202fE");
  button.fire("click");
  assert.deepEqual(shown, [["s\u0007", old]]);
  model.pushReports([{ name: "a", sensors: [{ uid: "t", place: fresh }] }]);
  list.fill(made, model.source("a"), model, []);
  assert.equal(made.children.length, 1);
  made.children[0].lastChild.fire("click");
  assert.deepEqual(shown[1], ["t", fresh], "the place is that of the moment");
  assert.ok(made instanceof Element);
});
