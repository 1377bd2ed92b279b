// SPDX-License-Identifier: Apache-2.0
// Numbers, times and places as text.
import assert from "node:assert/strict";
import { test } from "node:test";
import { part } from "./fake_browser.mjs";

const format = await part("format");
const NOON = Date.UTC(2026, 4, 1, 12, 30, 11, 240) * 1000;

test("counts are grouped and whole", () => {
  assert.equal(format.count(1234567), "1,234,567");
  assert.equal(format.count(0.6), "1");
  for (const none of [undefined, null, NaN, Infinity]) assert.equal(format.count(none), "–");
});

test("numbers have their digits and a real minus sign", () => {
  assert.equal(format.fixed(-1.25, 1), "−1.3");
  assert.equal(format.fixed(2, 2), "2.00");
  assert.equal(format.fixed(NaN, 2), "–");
  assert.equal(format.short(-2.5), "−2.5");
  assert.equal(format.short(1 / 3), "0.333");
  assert.equal(format.short(1 / 3, 6), "0.333333");
  assert.equal(format.short(4.0001), "4");
  assert.equal(format.short(undefined), "–");
});

test("units stand behind a narrow space, degrees without", () => {
  assert.equal(format.withUnit("5", "deg"), "5°");
  assert.equal(format.withUnit("5", "degC"), "5\u202f°C");
  assert.equal(format.withUnit("5", "deg/s"), "5\u202f°/s");
  assert.equal(format.withUnit("5", "m"), "5\u202fm");
  assert.equal(format.withUnit("5", ""), "5");
  assert.equal(format.withUnit("5", undefined), "5");
  assert.equal(format.unitText("m/s"), "m/s");
  assert.equal(format.rate(2.25), "2.3\u202f/s");
  assert.equal(format.rate(undefined), "–");
});

test("ages have the unit that fits them", () => {
  const wanted = [[NaN, "never"], [0.99, "now"], [1, "1\u202fs ago"], [89.9, "89\u202fs ago"], [90, "1\u202fmin ago"], [5399,
    "89\u202fmin ago"],
    [5400, "1\u202fh ago"], [172799, "47\u202fh ago"], [172800, "2 days ago"]];
  for (const [seconds, text] of wanted) assert.equal(format.age(seconds), text);
});

test("times are those of UTC", () => {
  assert.equal(format.clock(NOON), "12:30:11.240");
  assert.equal(format.clock(NOON, 1), "12:30:11.2");
  assert.equal(format.clock(NOON, 0), "12:30:11");
  assert.equal(format.clock(NaN), "–");
  assert.equal(format.dateAndClock(NOON), "2026-05-01 12:30:11.240");
  assert.equal(format.dateAndClock(NOON, 0), "2026-05-01 12:30:11");
  assert.equal(format.dateAndClock(undefined), "–");
});

test("places name their half of the world", () => {
  assert.equal(format.latitude(45.123456), "45.12346°\u202fN");
  assert.equal(format.latitude(-0.5, 1), "0.5°\u202fS");
  assert.equal(format.latitude(0, 0), "0°\u202fN");
  assert.equal(format.longitude(7), "7.00000°\u202fE");
  assert.equal(format.longitude(-7, 0), "7°\u202fW");
  assert.equal(format.latitude(NaN), "–");
  assert.equal(format.longitude(undefined), "–");
});

test("lines of the graticule say no more than their step needs", () => {
  const wanted = [[-60.5, 1800, true, "60°30′S"], [24.7525, 1, false, "24°45′09″E"], [0, 3600, true, "0°"], [-180, 36000, false, "180°"],
    [180, 36000, false, "180°"], [45, 3600, true, "45°N"], [45, 3600, false, "45°E"], [-45, 3600, false, "45°W"],
    [1.0001389, 0.5, true, "1°00′00.5″N"], [10 + 5 / 60, 60, true, "10°05′N"], [59.9999999, 3600, true, "60°N"]];
  for (const [value, step, isLatitude, text] of wanted) assert.equal(format.graticuleText(value, step, isLatitude), text);
});

test("bytes stand in pairs", () => {
  assert.equal(format.hexPairs("060E2B34"), "06 0E 2B 34");
  assert.equal(format.hexPairs("06"), "06");
  assert.equal(format.hexPairs(""), "");
});
