// SPDX-License-Identifier: Apache-2.0
// The log, newest first.
import { byId, el, keep, printable, setHidden, setText } from "./dom.js";
import { clock } from "./format.js";

const MOST_ROWS = 200;

export class Log {
  constructor() {
    this.body = byId("log").tBodies[0];
    this.troubles = 0;  // since the pane was looked at last
  }

  // Called for each new line.
  note(line, isVisible) {
    if (!isVisible && (line.level === "warning" || line.level === "error")) ++this.troubles;
  }

  update(model, isVisible) {
    if (isVisible) this.troubles = 0;
    const mark = byId("log-count");
    setHidden(mark, this.troubles === 0);
    setText(mark, this.troubles > 0 ? String(this.troubles) : "");
    if (!isVisible) return;
    const lines = model.lines.slice(-MOST_ROWS).reverse();
    setHidden(byId("log-empty"), lines.length > 0);
    setHidden(byId("log"), lines.length === 0);
    keep(this.body, lines, ({ id }) => id, (line) => this.make(line), () => {});
  }

  make(line) {
    const level = printable(line.level ?? "notice");
    const text = line.module ? `${line.module}: ${line.text}` : line.text;
    return el("tr", { "data-level": level }, el("td", { class: "number" }, clock(line.time_us)), el("td", { class: "level" }, level),
      el("td", { class: "text" }, el("bdi", {}, printable(text))));
  }
}
