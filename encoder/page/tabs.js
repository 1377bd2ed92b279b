// SPDX-License-Identifier: Apache-2.0
// Tabs with the keys that screen readers announce: arrows, Home, End.
import { byId, remember, remembered } from "./dom.js";

const NAMES = ["sources", "plots", "log"];

export class Tabs {
  constructor() {
    this.current = "";
    for (const name of NAMES) {
      const tab = byId(`tab-${name}`);
      tab.addEventListener("click", () => this.show(name));
      tab.addEventListener("keydown", (event) => this.move(event, name));
    }
    const saved = remembered("tab", NAMES[0]);
    this.show(NAMES.includes(saved) ? saved : NAMES[0]);
  }

  show(name) {
    this.current = name;
    remember("tab", name);
    for (const each of NAMES) {
      const tab = byId(`tab-${each}`);
      tab.setAttribute("aria-selected", String(each === name));
      tab.tabIndex = each === name ? 0 : -1;
      byId(`panel-${each}`).hidden = each !== name;
    }
  }

  move(event, name) {
    const at = NAMES.indexOf(name);
    const targets = { ArrowRight: at + 1, ArrowLeft: at - 1, Home: 0, End: NAMES.length - 1 };
    if (!(event.key in targets)) return;
    event.preventDefault();
    const next = NAMES[(targets[event.key] + NAMES.length) % NAMES.length];
    this.show(next);
    byId(`tab-${next}`).focus();
  }
}
