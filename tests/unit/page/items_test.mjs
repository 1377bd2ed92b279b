// SPDX-License-Identifier: Apache-2.0
// The items of a message as the table, the readout and the marking show them.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { byId, part } from "./fake_browser.mjs";

const { Dictionary, Items } = await part("items");
const dictionary = new Dictionary();
const plotted = [];
const items = new Items(dictionary, (tag) => plotted.push(tag));
const TABLE = [
  { tag: 2, name: "Time", key: "time", unit: "us", kind: "time" }, { tag: 3, name: "Mission ID", key: "mission_id", unit: "",
    kind: "text" },
  { tag: 5, name: "Heading", key: "heading", unit: "deg", kind: "number" }, { tag: 13, name: "Latitude", key: "sensor_lat", unit: "deg",
    kind: "number" },
  { tag: 48, name: "Security", key: "security", unit: "", kind: "set" }];
const AT = Date.UTC(2024, 4, 1, 12, 0, 0, 250) * 1000;

// What is shown: the cells of each row.
const rows = () => byId("items").tBodies[0].children.map((row) => row.cells.map((cell) => cell.textContent));
const show = (message) => items.show("a", { time_us: AT, length: 100, checksum: "ok", ...message });
const find = (words) => {
  byId("item-filter").value = words;
  byId("item-filter").fire("input");
};
const raw = (isOn) => byId("raw").fire("change", { target: { checked: isOn } });

items.show("a", { time_us: AT, items: [{ tag: 5, value: 1 }] });
const before = [byId("items").hidden, byId("items-empty").hidden];

beforeEach(() => {
  dictionary.load({ items: TABLE });
  find("");
  raw(false);
  show({ items: [] });
});

test("nothing is shown before the dictionary is there", () => {
  assert.deepEqual(before, [true, false]);
  assert.deepEqual([byId("items").hidden, byId("items-empty").hidden], [false, true]);
});

test("the dictionary knows what can be plotted", () => {
  assert.equal(dictionary.get(3).name, "Mission ID");
  assert.ok(dictionary.isPlottable(5));
  for (const tag of [2, 3, 48, 99]) assert.ok(!dictionary.isPlottable(tag), tag);
});

test("the items of an event are made whole", () => {
  assert.deepEqual(dictionary.expand({ 2: AT, 3: "M", 5: 1.5, 99: 7 }), [
    { tag: 2, name: "Time", key: "time", unit: "us", value: AT, text: "2024-05-01 12:00:00.250" },
    { tag: 3, name: "Mission ID", key: "mission_id", unit: "", value: "M", text: "M" },
    { tag: 5, name: "Heading", key: "heading", unit: "deg", value: 1.5 },
    { tag: 99, name: undefined, key: undefined, unit: undefined, value: 7 }]);
});

test("values have the form of their kind", () => {
  show({ items: [{ ...TABLE[0], text: "2024-05-01T12:00:00.250000Z" }, { ...TABLE[1], text: "a\u0007" }, { ...TABLE[2], value: -1.23456 },
    { ...TABLE[3], value: 45.12345678 }, { tag: 7, name: "Code", value: 3, text: "three", unit: "m" }, { tag: 8, state: "out of range",
      value: 1 },
    { tag: 9, name: "Raw", value: null, raw: "0102" }, { tag: 10, name: "None", value: null }, { tag: 11, name: "Flag", value: true }] });
  assert.deepEqual(rows().map(([tag, name, value]) => [tag, name, value]), [
    ["2", "Time", "2024-05-01 12:00:00.250"], ["3", "Mission ID", "a⟨0007⟩"], ["5", "Heading", "−1.235°"], ["13", "Latitude", "45.123457°"],
    ["7", "Code", "three\u202fm"], ["8", "Not in the standard", "out of range"], ["9", "Raw", "0102"], ["10", "None", "–"], ["11",
      "Flag", "true"]]);
  const bad = byId("items").tBodies[0].children.map((row) => row.cells[2].classList.contains("bad"));
  assert.deepEqual(bad, [false, false, false, false, false, true, false, false, false]);
});

test("the elements of a set follow it, and each item that comes twice has a row", () => {
  const set = { ...TABLE[4], value: [{ tag: 1, name: "Classification", text: "SECRET" }, { tag: 1, name: "Again", text: "x" }] };
  show({ items: [set, { ...TABLE[2], value: 1 }, { ...TABLE[2], value: 2 }] });
  assert.deepEqual(rows().map(([tag, name, value]) => `${tag} ${name} ${value}`),
    ["48 Security ", "1 Classification SECRET", "1 Again x", "5 Heading 1°", "5 Heading 2°"]);
  assert.deepEqual(byId("items").tBodies[0].children.map((row) => row.classList.contains("element")), [false, true, true, false, false]);
  assert.equal(byId("marking").textContent, "SECRET");
  assert.ok(!byId("marking").hidden);
  show({ items: [{ tag: 1, text: "SECRET", value: "x" }, { tag: 73, value: [{ tag: 1, text: "1" }] }] });
  assert.ok(byId("marking").hidden);
});

test("items with numbers have a button for their plot", () => {
  show({ items: [{ ...TABLE[2], value: 1 }, { ...TABLE[1], value: "x" }, { tag: 48, value: [{ tag: 5, value: 1 }] }] });
  const buttons = byId("items").tBodies[0].children.map((row) => row.lastChild.children.length);
  assert.deepEqual(buttons, [1, 0, 0, 0]);
  const button = byId("items").tBodies[0].children[0].lastChild.firstChild;
  assert.equal(button.getAttribute("aria-label"), "Plot Heading");
  button.fire("click");
  assert.deepEqual(plotted, [5]);
});

test("items are found by their number, name and key", () => {
  show({ items: TABLE.map((item) => ({ ...item, value: 1 })) });
  for (const [words, wanted] of [["LATI", ["13"]], [" mission_ID ", ["3"]], ["4", ["48"]], ["", ["2", "3", "5", "13", "48"]], ["zz", []]]) {
    find(words);
    assert.deepEqual(rows().map(([tag]) => tag), wanted, words);
  }
});

test("bytes are shown on demand", () => {
  const message = { items: [{ ...TABLE[2], value: 1, raw: "0102" }], raw: "060E2B34" };
  show(message);
  assert.equal(rows().length, 1);
  raw(true);
  assert.deepEqual(rows().map((cells) => cells[1]), ["Heading01 02", "Whole message06 0E 2B 34"]);
  assert.equal(rows()[1][2], "");
  show({ items: message.items });
  assert.equal(rows().length, 1);
});

test("the head says when and what, and what is wrong", () => {
  const note = byId("detail-time");
  const said = (message) => {
    show(message);
    return [note.textContent, note.classList.contains("bad")];
  };
  assert.deepEqual(said({}), ["12:00:00.250 UTC · 100 bytes", false]);
  assert.deepEqual(said({ checksum: "bad" }), ["12:00:00.250 UTC · 100 bytes · wrong checksum", true]);
  assert.deepEqual(said({ checksum: "missing" }), ["12:00:00.250 UTC · 100 bytes · no checksum", true]);
  assert.deepEqual(said({ checksum: "misplaced" }), ["12:00:00.250 UTC · 100 bytes · misplaced checksum", true]);
  assert.deepEqual(said({ checksum: "ok", error: "cut" }), ["12:00:00.250 UTC · 100 bytes · cut", true]);
  assert.deepEqual(said({ st0601: false, checksum: "bad" }), ["12:00:00.250 UTC · 100 bytes · not ST 0601", true]);
  assert.deepEqual(said({ length: undefined }), ["12:00:00.250 UTC", false]);
  items.show("a", null);
  assert.equal(note.textContent, "");
  assert.equal(byId("detail-name").textContent, "a");
  items.show("", null);
  assert.equal(byId("detail-name").textContent, "Values");
});

test("the readout has places and numbers at a glance", () => {
  const readout = (seen) => {
    show({ seen, items: [] });
    return byId("readout").children.map((entry) => [entry.firstChild.textContent, entry.lastChild.textContent,
      entry.classList.contains("wide")]);
  };
  const empty = readout(undefined);
  assert.deepEqual(empty.map(([title]) => title), ["Altitude", "Heading", "Ground speed", "Sensor azimuth", "Sensor elevation",
    "Slant range"]);
  assert.deepEqual(new Set(empty.map(([, text]) => text)), new Set(["–"]));
  const place = { latitude: 1, longitude: -2 };
  assert.deepEqual(readout({ platform: { ...place, altitude: 1500.4, ellipsoid_height: 1 }, frame_center: place, target: place,
    heading: 90.25,
    ground_speed: 51.6, azimuth: -3.21, elevation: -45, slant_range: 1234.5 }), [
    ["Position", "1.00000°\u202fN\u20032.00000°\u202fW", true], ["Frame centre", "1.00000°\u202fN\u20032.00000°\u202fW", true],
    ["Target", "1.00000°\u202fN\u20032.00000°\u202fW", true], ["Altitude", "1500\u202fm", false], ["Heading", "90.3°", false],
    ["Ground speed", "52\u202fm/s", false], ["Sensor azimuth", "−3.2°", false], ["Sensor elevation", "−45.0°", false],
    ["Slant range", "1235\u202fm", false]]);
  assert.equal(readout({ platform: { ...place, ellipsoid_height: 12 } })[1][1], "12\u202fm");
});
