// SPDX-License-Identifier: Apache-2.0
// The log and the tabs.
import assert from "node:assert/strict";
import { test } from "node:test";
import { byId, part, storage } from "./fake_browser.mjs";

const { Log } = await part("log");
const { Tabs } = await part("tabs");
const { remember } = await part("dom");
const AT = Date.UTC(2024, 4, 1, 12, 0, 0, 250) * 1000;
const line = (id, more = {}) => ({ id, time_us: AT, level: "notice", text: `line ${id}`, ...more });
const rows = () => byId("log").tBodies[0].children.map((row) => row.cells.map((cell) => cell.textContent));

test("the log shows the newest lines first, and no more than two hundred", () => {
  const log = new Log();
  log.update({ lines: [] }, true);
  assert.deepEqual([byId("log").hidden, byId("log-empty").hidden], [true, false]);
  log.update({ lines: [line(1), line(2, { level: "error", module: "NET", text: "a\u0007" }), line(3, { level: undefined })] }, true);
  assert.deepEqual([byId("log").hidden, byId("log-empty").hidden], [false, true]);
  assert.deepEqual(rows(), [["12:00:00.250", "notice", "line 3"], ["12:00:00.250", "error", "NET: a⟨0007⟩"], ["12:00:00.250", "notice",
    "line 1"]]);
  assert.equal(byId("log").tBodies[0].children[1].dataset.level, "error");
  log.update({ lines: Array.from({ length: 300 }, (_, i) => line(i + 1)) }, true);
  assert.equal(rows().length, 200);
  assert.equal(rows()[199][2], "line 101");
});

test("warnings and errors are counted until somebody looks", () => {
  const log = new Log();
  const mark = () => [byId("log-count").hidden, byId("log-count").textContent];
  log.note(line(1, { level: "warning" }), false);
  log.note(line(2, { level: "error" }), false);
  log.note(line(3), false);
  log.note(line(4, { level: "error" }), true);
  log.update({ lines: [] }, false);
  assert.deepEqual(mark(), [false, "2"]);
  log.update({ lines: [] }, true);
  assert.deepEqual(mark(), [true, ""]);
});

test("tabs are moved through by keys, and remembered", () => {
  storage.set("tab", "plots");
  const tabs = new Tabs();
  const shown = () => ["sources", "plots", "log"].filter((name) => !byId(`panel-${name}`).hidden);
  assert.deepEqual(shown(), ["plots"]);
  const press = (name, key) => byId(`tab-${name}`).fire("keydown", { key }).isPrevented;
  for (const [from, key, to] of [["plots", "ArrowRight", "log"], ["log", "ArrowRight", "sources"], ["sources", "ArrowLeft", "log"],
    ["log", "Home", "sources"], ["sources", "End", "log"], ["log", "ArrowLeft", "plots"]]) {
    assert.ok(press(from, key));
    assert.deepEqual(shown(), [to], `${key} from ${from}`);
    assert.equal(document.activeElement, byId(`tab-${to}`));
    assert.equal(tabs.current, to);
    assert.equal(storage.get("tab"), to);
  }
  assert.ok(!press("plots", "x"));
  assert.deepEqual(shown(), ["plots"]);
  byId("tab-sources").fire("click");
  assert.deepEqual(["sources", "plots", "log"].map((name) => [byId(`tab-${name}`).getAttribute("aria-selected"),
    byId(`tab-${name}`).tabIndex]),
    [["true", 0], ["false", -1], ["false", -1]]);
  remember("tab", "nonsense");
  assert.equal(new Tabs().current, "sources");
});
