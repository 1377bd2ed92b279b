// SPDX-License-Identifier: Apache-2.0
// The chips that choose a source, and the table of all of them.
import assert from "node:assert/strict";
import { test } from "node:test";
import { byId, clock, part } from "./fake_browser.mjs";

const { Chips, SourceTable, stateOf } = await part("sources");
const { Model } = await part("model");
const OPEN = { name: "a", state: "open", last_message_age_s: 1, rate_per_s: 2.5, input: "udp", data: "klv", messages: 1234, faults: 0 };

test("the state of a source is one word", () => {
  const wanted = [[null, "waiting", "not known"], [{ state: "waiting" }, "waiting", "waiting"], [{ state: "closed" }, "bad", "closed"],
    [{ state: "open", last_message_age_s: null }, "waiting", "no message yet"], [{ state: "open" }, "waiting", "no message yet"],
    [{ state: "open", last_message_age_s: 5 }, "good", "receiving"], [{ state: "open", last_message_age_s: 5.1 }, "waiting", "quiet"]];
  for (const [report, kind, text] of wanted) assert.deepEqual(stateOf({ report }), { kind, text });
  assert.deepEqual(stateOf({ report: OPEN }, true), { kind: "waiting", text: "not known" });
});

test("chips choose a source", () => {
  const picked = [];
  const chips = new Chips((name) => picked.push(name));
  const model = new Model();
  chips.update(model, "", false);
  assert.ok(!byId("no-sources").hidden);
  model.pushReports([OPEN, { ...OPEN, name: "b", last_message_age_s: 60 }]);
  model.source("c");
  chips.update(model, "b", false);
  assert.ok(byId("no-sources").hidden);
  const labels = byId("chips").lastChild.children;
  assert.deepEqual(labels.map((label) => label.firstChild.checked), [false, true, false]);
  assert.deepEqual(labels.map((label) => label.lastChild.textContent), ["a2.5\u202f/s", "bquiet", "c"]);
  assert.deepEqual(labels.map((label) => label.lastChild.dataset.state), ["good", "waiting", "good"]);
  assert.ok(labels[1].lastChild.firstChild.classList.contains("source-1"));
  chips.update(model, "a", true);
  assert.deepEqual(labels.map((label) => label.firstChild.checked), [true, false, false]);
  assert.equal(labels[0].lastChild.textContent, "anot known");
  labels[1].firstChild.fire("change");
  assert.deepEqual(picked, ["b"]);
});

test("the table has a row for each source", () => {
  const table = new SourceTable(() => {});
  const model = new Model();
  const relays = [{ destination: "239.1.1.1:5", messages: 1000, errors: 0 }, { destination: "b:6", messages: 1, errors: 2,
    last_error: "full\u0007" },
    { destination: "c:7", messages: 1, errors: 1 }];
  model.pushReports([{ ...OPEN, faults: 3, statistics: { ttl: { value: 16 }, tos: { value: -1 }, relays } }]);
  const rows = () => byId("sources").tBodies[0].children.map((row) => row.cells.map((cell) => cell.textContent));
  table.update(model, false);
  const sent = "239.1.1.1:5: 1,000 sentb:6: 1 sent, 2 errors (full⟨0007⟩)c:7: 1 sent, 1 errors";
  assert.deepEqual(rows(), [["audp, klv", "receiving", "2.5\u202f/s", "1,234", "3", "1\u202fs ago", "16", "–", sent, ""]]);
  const row = byId("sources").tBodies[0].children[0];
  assert.ok(row.cells[4].classList.contains("bad"));
  assert.deepEqual(row.cells[8].firstChild.children.map((item) => item.classList.contains("bad")), [false, true, true]);
  assert.equal(row.cells[1].firstChild.dataset.state, "good");
  table.update(model, true);
  assert.deepEqual(rows()[0].slice(1, 6), ["not known", "–", "1,234", "3", "–"]);
  model.pushReports([{ ...OPEN, last_message_age_s: null }]);
  table.update(model, false);
  assert.deepEqual(rows()[0].slice(1), ["no message yet", "2.5\u202f/s", "1,234", "0", "never", "–", "–", "", ""]);
  assert.ok(!row.cells[4].classList.contains("bad"));
});

test("the table lists what sensors are told of before the statistics have them", () => {
  const table = new SourceTable(() => {});
  const model = new Model();
  model.pushReports([OPEN]);
  model.pushSensor({ source: "a", uid: "told" });
  table.update(model, false);
  assert.equal(byId("sources").tBodies[0].children[0].cells[9].firstChild.children.length, 1);
});

test("changes of state are told to screen readers, but no first state and no lost connection", () => {
  const heard = () => {
    clock.pass(3000);
    const text = byId("announcer").textContent;
    byId("announcer").textContent = "";
    return text;
  };
  heard();
  const table = new SourceTable(() => {});
  const model = new Model();
  model.pushReports([OPEN]);
  table.update(model, false);
  assert.equal(heard(), "");
  table.update(model, true);
  assert.equal(heard(), "");
  model.pushReports([{ ...OPEN, last_message_age_s: 9 }]);
  table.update(model, false);
  assert.equal(heard(), "Source a: quiet");
  table.update(model, false);
  assert.equal(heard(), "");
});
