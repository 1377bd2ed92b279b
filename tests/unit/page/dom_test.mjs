// SPDX-License-Identifier: Apache-2.0
// Elements and texts: what came from the network is shown as text, whatever it is.
import assert from "node:assert/strict";
import { test } from "node:test";
import { byId, clock, Element, part, storage } from "./fake_browser.mjs";

const dom = await part("dom");

test("texts of the network show what would not be seen, and have an end", () => {
  assert.equal(dom.printable("a\u202eb\u0007\u200b\u00ad\ufeff"), "a⟨202E⟩b⟨0007⟩⟨200B⟩⟨00AD⟩⟨FEFF⟩");
  assert.equal(dom.printable("y".repeat(240)), "y".repeat(240));
  assert.equal(dom.printable("y".repeat(241)), `${"y".repeat(240)}… (241 characters)`);
  assert.equal(dom.printable(7), "7");
  assert.equal(dom.printable("ä <b>\u4e2d"), "ä <b>\u4e2d");
});

test("elements have attributes, listeners and children", () => {
  let clicks = 0;
  const made = dom.el("p", { class: "a b", hidden: true, title: false, lang: undefined, click: () => ++clicks }, "text", dom.el("b", {},
    "<i>"));
  assert.equal(made.tagName, "P");
  assert.ok(made.hidden && made.classList.contains("b"));
  assert.deepEqual([...made.attributes.keys()], ["class", "hidden"]);
  assert.equal(made.textContent, "text<i>");
  made.fire("click");
  assert.equal(clicks, 1);
});

test("a text or a state that is there is not set again", () => {
  const sets = [];
  const watched = new Proxy({ textContent: "a", hidden: false }, {
    set: (target, name, value) => {
      sets.push([name, value]);
      target[name] = value;
      return true;
    },
  });
  dom.setText(watched, "a");
  dom.setText(watched, "b");
  dom.setHidden(watched, false);
  dom.setHidden(watched, true);
  assert.deepEqual(sets, [["textContent", "b"], ["hidden", true]]);
});

test("children are made once, kept in order and taken away", () => {
  const parent = new Element("ul");
  let made = 0;
  const show = (list) => dom.keep(parent, list, ({ key }) => key, () => {
    ++made;
    return new Element("li");
  }, (element, { text }) => dom.setText(element, text));
  const texts = () => parent.children.map(({ textContent }) => textContent).join();
  show([{ key: 1, text: "a" }, { key: 2, text: "b" }]);
  const [first] = parent.children;
  show([{ key: 3, text: "c" }, { key: 2, text: "B" }, { key: 1, text: "A" }]);
  assert.equal(texts(), "c,B,A");
  assert.equal(parent.children[2], first);
  assert.equal(made, 3);
  show([{ key: 1, text: "z" }]);
  assert.equal(texts(), "z");
  show([]);
  assert.equal(texts(), "");
  show([{ key: 2, text: "b" }]);
  assert.equal(made, 4, "what was taken away is made again");
});

test("settings are kept by the browser, or as long as the page", () => {
  assert.equal(dom.remembered("x", "other"), "other");
  storage.set("x", "stored");
  assert.equal(dom.remembered("x", "other"), "stored");
  dom.remember("x", "mine");
  assert.equal(storage.get("x"), "mine");
  const { getItem, setItem } = localStorage;
  localStorage.getItem = localStorage.setItem = () => {
    throw new Error("no storage");
  };
  dom.remember("y", "kept");
  assert.equal(dom.remembered("y", "other"), "kept");
  assert.equal(dom.remembered("z", "other"), "other");
  Object.assign(localStorage, { getItem, setItem });
});

test("screen readers hear the newest change, at most one in two seconds", () => {
  const heard = [];
  Object.defineProperty(byId("announcer"), "textContent", { set: (text) => heard.push(text) });
  clock.pass(5000);
  dom.announce("first");
  clock.pass(0);
  dom.announce("second");
  clock.pass(1000);
  dom.announce("third");
  clock.pass(999);
  assert.deepEqual(heard, ["first"]);
  clock.pass(1);
  assert.deepEqual(heard, ["first", "third"]);
  clock.pass(5000);
  assert.deepEqual(heard, ["first", "third"]);
});
