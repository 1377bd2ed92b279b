// SPDX-License-Identifier: Apache-2.0
// The chips that choose a source, and the table of all of them.
import { announce, byId, el, keep, printable, setHidden, setText } from "./dom.js";
import { age, count, rate } from "./format.js";
import { SensorList } from "./sensors.js";

const QUIET_SECONDS = 5;

// What a source is doing, in one word and one of the classes of the style sheet.
export function stateOf(source, isLost = false) {
  const report = source.report;
  if (report === null || isLost) return { kind: "waiting", text: "not known" };
  if (report.state === "waiting") return { kind: "waiting", text: "waiting" };
  if (report.state !== "open") return { kind: "bad", text: report.state };
  if (report.last_message_age_s === null || report.last_message_age_s === undefined) return { kind: "waiting", text: "no message yet" };
  if (report.last_message_age_s > QUIET_SECONDS) return { kind: "waiting", text: "quiet" };
  return { kind: "good", text: "receiving" };
}

function stateMark(kind) {
  return el("span", { class: "mark", "data-state": kind, "aria-hidden": "true" });
}

export class Chips {
  constructor(pick) {
    this.pick = pick;
    this.area = byId("chips");
    this.list = el("div", { class: "chip-list" });
    this.area.append(this.list);
  }

  update(model, selected, isLost) {
    setHidden(byId("no-sources"), model.sources.size > 0);
    keep(this.list, model.sources.values(), ({ name }) => name, (source) => this.make(source), (label, source) => {
      const input = label.firstChild;
      if (input.checked !== (source.name === selected)) input.checked = source.name === selected;
      const state = stateOf(source, isLost);
      const more = label.lastChild.lastChild;
      if (source.report === null) setText(more, "");
      else setText(more, state.kind === "good" ? rate(source.report.rate_per_s) : state.text);
      label.lastChild.dataset.state = source.report === null ? "good" : state.kind;
    });
  }

  make(source) {
    const input = el("input", { type: "radio", name: "source", class: "unseen", change: () => this.pick(source.name) });
    return el("label", { class: "chip" }, input, el("span", { class: "chip-body" },
      el("span", { class: `swatch source-${source.slot}`, "aria-hidden": "true" }),
      el("bdi", { class: "chip-name" }, printable(source.name)), el("span", { class: "chip-more number" })));
  }
}

function detected(value) {
  return value === undefined || value === null || value.value < 0 ? "–" : String(value.value);
}

function relayText(relay) {
  const sent = `${printable(relay.destination)}: ${count(relay.messages)} sent`;
  if (!(relay.errors > 0)) return sent;
  return `${sent}, ${count(relay.errors)} errors${relay.last_error ? ` (${printable(relay.last_error)})` : ""}`;
}

export class SourceTable {
  // `showSensor` is called with the UID and the place of a sensor that was chosen.
  constructor(showSensor) {
    this.sensors = new SensorList(showSensor);
    this.body = byId("sources").tBodies[0];
    this.told = new Map();
  }

  update(model, isLost) {
    keep(this.body, model.sources.values(), ({ name }) => name, (source) => this.make(source),
      (row, source) => this.fill(row, source, model, isLost));
    if (!isLost) this.tell(model);
  }

  make(source) {
    const name = el("th", { scope: "row" }, el("span", { class: `swatch source-${source.slot}`, "aria-hidden": "true" }),
      el("bdi", {}, printable(source.name)), el("span", { class: "kind" }));
    const state = el("td", { class: "state" }, stateMark("waiting"), el("span"));
    const numbers = Array.from({ length: 6 }, () => el("td", { class: "number right" }));
    return el("tr", {}, name, state, ...numbers, el("td", { class: "relays" }, el("ul")), el("td", {}, this.sensors.make()));
  }

  fill(row, source, model, isLost) {
    const report = source.report ?? {};
    const statistics = report.statistics ?? {};
    const [name, state, perSecond, messages, faults, last, ttl, tos, relays, sensors] = row.cells;
    setText(name.lastChild, [report.input, report.data].filter(Boolean).join(", "));
    const { kind, text } = stateOf(source, isLost);
    if (state.firstChild.dataset.state !== kind) state.firstChild.dataset.state = kind;
    setText(state.lastChild, text);
    setText(perSecond, rate(isLost ? NaN : report.rate_per_s));
    setText(messages, count(report.messages));
    setText(faults, count(report.faults));
    faults.classList.toggle("bad", report.faults > 0);
    setText(last, isLost ? "–" : age(report.last_message_age_s ?? NaN));
    setText(ttl, detected(statistics.ttl));
    setText(tos, detected(statistics.tos));
    keep(relays.firstChild, statistics.relays ?? [], ({ destination }) => destination, () => el("li"), (item, relay) => {
      setText(item, relayText(relay));
      item.classList.toggle("bad", relay.errors > 0);
    });
    this.sensors.fill(sensors.firstChild, source, model, model.sensors.get(source.name) ?? []);
  }

  // Tells changes of state to screen readers; the first state of a source is no change.
  tell(model) {
    for (const source of model.sources.values()) {
      const { text } = stateOf(source);
      const before = this.told.get(source.name);
      this.told.set(source.name, text);
      if (before !== undefined && before !== text) announce(`Source ${printable(source.name)}: ${text}`);
    }
  }
}
