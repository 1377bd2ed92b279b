// SPDX-License-Identifier: Apache-2.0
// What the map shows and where it goes, with a map library that only notes what it is told.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { byId, Element, part, storage } from "./fake_browser.mjs";

const SIZE = { x: 600, y: 400 };
const WORLD = 256 * 2 ** 5;  // pixels at the zoom of these tests
const point = (x, y) => ({ x, y, add: (other) => point(x + other.x, y + other.y), distanceTo: (other) => Math.hypot(x - other.x,
  y - other.y) });

// Half a degree north and east of 0, 0 in the middle of a view.
class FakeMap {
  constructor() {
    this.listeners = new Map();
    this.calls = [];
    this.layers = new Set();
    this.zoom = 5;
    this.origin = point(WORLD / 2 - SIZE.x / 2, WORLD / 2 - SIZE.y / 2);
    for (const name of ["panTo", "fitBounds", "setView"]) this[name] = (...given) => this.calls.push([name, ...given]);
  }

  on(kind, listener) {
    this.listeners.set(kind, listener);
  }

  getContainer() {
    return byId("map");
  }

  createPane() {
    return new Element();
  }

  getSize() {
    return SIZE;
  }

  getZoom() {
    return this.zoom;
  }

  hasLayer(layer) {
    return this.layers.has(layer);
  }

  getPixelOrigin() {
    return this.origin;
  }

  // A degree is 50 pixels.
  latLngToContainerPoint([latitude, longitude]) {
    return point(SIZE.x / 2 + longitude * 50, SIZE.y / 2 - latitude * 50);
  }

  invalidateSize() {}
}

class Layer {
  static extend(methods) {
    const { options } = methods;
    const Made = class extends this {
      constructor(given) {
        super();
        this.options = { ...options, ...given };
      }
    };
    Object.assign(Made.prototype, methods);
    delete Made.prototype.options;
    return Made;
  }

  addTo(map) {
    this._map = map;
    this._zoom = map.zoom;
    this._bounds = { min: point(0, 0), getSize: () => SIZE };
    map.layers.add(this);
    this._initContainer?.();
    this._update?.();
    return this;
  }

  remove() {
    this._map?.layers.delete(this);
  }

  _update() {}
}

const control = { addTo: () => control, addAttribution: () => {} };
globalThis.L = {
  GridLayer: Layer,
  Renderer: Layer,
  DomUtil: { create: (tag) => new Element(tag), setPosition: () => {}, remove: () => {} },
  map: () => new FakeMap(),
  control: { zoom: () => control, scale: () => control, attribution: () => control },
  latLngBounds: (points) => points,
  tileLayer: (template, options) => Object.assign(new Layer(), { template, options }),
};
globalThis.ResizeObserver = class {
  observe() {}
};

const { LiveMap } = await part("map");
const { Model } = await part("model");
const { drawNames } = await part("symbols");
const place = (latitude, longitude) => ({ latitude, longitude });

let live;
let model;
let picked;
beforeEach(() => {
  storage.set("follow", "yes");
  for (const id of ["map", "follow", "fit", "tiles"]) byId(id).listeners.clear();
  picked = [];
  live = new LiveMap((name) => picked.push(name));
  model = new Model();
  live.setFollowing(true);
  live.map.calls.length = 0;
});

// Shows the sources with what is seen of each.
function show(sources, selected = "") {
  model.pushReports(Object.keys(sources).map((name) => ({ name })));
  for (const [name, seen] of Object.entries(sources)) model.pushMessage({ source: name, time_us: 1, seen });
  live.show(model, selected);
  live.moving._container.getContext().calls.length = 0;
  live.update();
  const { calls } = live.moving._container.getContext();
  return { calls, texts: calls.filter(([name]) => name === "fillText").map(([, text]) => text) };
}
const told = () => live.map.calls.map(([name]) => name);

test("the view is made for all places, and anew for each one that is added", () => {
  show({ a: {} });
  assert.ok(!byId("map-empty").hidden);
  assert.deepEqual(told(), []);
  show({ a: { platform: place(1, 2), frame_center: place(3, 4), target: place(5, 6) } });
  assert.ok(byId("map-empty").hidden);
  assert.deepEqual(live.map.calls, [["fitBounds", [[1, 2], [3, 4], [5, 6]], { padding: [70, 70], maxZoom: 13, animate: false }]]);
  show({ a: { platform: place(1, 2) } });
  assert.equal(told().length, 1);
  model.pushReports([{ name: "a", sensors: [{ uid: "s", place: place(7, 8) }] }]);
  live.update();
  assert.deepEqual(live.map.calls[1][1], [[1, 2], [7, 8]]);
  live.show(new Model(), "");
  live.show(model, "");
  live.update();
  assert.equal(told().length, 3, "another model is another view");
});

test("a view that the user has chosen stays", () => {
  const moves = [() => live.map.listeners.get("dragstart")(), () => byId("map").fire("wheel"), () => byId("map").fire("keydown",
    { key: "+" })];
  for (const move of moves) {
    live.isMoved = false;
    move();
    show({ [`s${picked.length}`]: { platform: place(1, 2) } });
    assert.deepEqual(told().filter((name) => name === "fitBounds"), []);
  }
  live.isMoved = false;
  byId("map").fire("keydown", { key: "Tab" });
  assert.ok(!live.isMoved, "who only passes by has chosen nothing");
});

test("the selected platform is kept in the middle part of the view", () => {
  const follow = (latitude, longitude) => {
    show({ a: { platform: place(latitude, longitude) } }, "a");
    const found = live.map.calls.filter(([name]) => name === "panTo");
    live.map.calls.length = 0;
    return found;
  };
  follow(0, 0);
  assert.deepEqual(follow(2.3, 3.5), [], "near enough");
  assert.deepEqual(follow(2.5, 0), [["panTo", [2.5, 0], { animate: false }]]);
  assert.equal(follow(0, -3.7).length, 1);
  byId("follow").fire("click");
  assert.equal(byId("follow").getAttribute("aria-pressed"), "false");
  assert.equal(storage.get("follow"), "no");
  assert.deepEqual(follow(2.5, 0), []);
  byId("follow").fire("click");
  assert.equal(live.map.calls.length, 1, "it goes there at once");
  follow(0, 0);
  live.setFollowing(true);
  assert.deepEqual(live.map.calls, [["panTo", [0, 0], { animate: true }]], "and into the middle");
  live.map._animatingZoom = true;
  live.map.calls.length = 0;
  assert.deepEqual(follow(0, -3.7), [], "not on its way to another zoom");
});

test("nothing is followed before there is a view", () => {
  model.pushMessage({ source: "a", time_us: 1, seen: { platform: place(5, 5) } });
  live.show(model, "a");
  live.setFollowing(true);
  byId("fit").listeners.get("click").at(-1)();
  assert.deepEqual(told(), ["fitBounds"]);
  live.show(new Model(), "");
  live.showAll();
  assert.equal(told().length, 1, "there is nothing to show");
});

test("who does not follow is not led the next time either", () => {
  live.setFollowing(false);
  assert.ok(!new LiveMap(() => {}).isFollowing);
});

test("who drags the map or uses the arrows does not follow any more", () => {
  live.map.listeners.get("dragstart")();
  assert.ok(!live.isFollowing);
  live.setFollowing(true);
  byId("map").fire("keydown", { key: "+" });
  assert.ok(live.isFollowing);
  byId("map").fire("keydown", { key: "ArrowLeft" });
  assert.ok(!live.isFollowing);
  live.setFollowing(true);
  show({ a: { platform: place(1, 1) } });
  live.map.calls.length = 0;
  byId("fit").fire("click");
  assert.ok(!live.isFollowing);
  assert.deepEqual(told(), ["fitBounds"]);
});

test("a chosen place is shown near enough", () => {
  live.goTo(place(1, 2));
  assert.deepEqual(live.map.calls, [["setView", [1, 2], 13, { animate: true }]]);
  assert.ok(!live.isFollowing && live.isMoved);
  live.map.zoom = 15;
  live.goTo(place(1, 2));
  assert.equal(live.map.calls[1][2], 15);
});

test("the nearest platform is picked, if it is near", () => {
  show({ a: { platform: place(0, 0) }, b: { platform: place(0, 0.4) }, c: {} });
  const click = (x, y) => live.map.listeners.get("click")({ containerPoint: point(300 + x, 200 + y) });
  click(0, 5);
  click(15, 0);
  click(-27, 0);
  click(-28, 0);
  assert.deepEqual(picked, ["a", "b", "a"]);
});

test("the user's tiles are shown and hidden", () => {
  Object.defineProperty(Element.prototype, "innerHTML", { configurable: true, get() {
    return this.textContent.replaceAll("<", "&lt;");
  } });
  live.useTiles("", "");
  assert.ok(byId("tiles").hidden && live.tiles === undefined);
  live.useTiles("http://a/{z}/{x}/{y}", "<b>Own</b>");
  assert.equal(live.tiles.options.attribution, "&lt;b>Own&lt;/b>");
  assert.equal(live.tiles.options.maxZoom, 19);
  const state = () => [live.map.hasLayer(live.tiles), byId("tiles").getAttribute("aria-pressed"), storage.get("tiles")];
  assert.deepEqual(state(), [true, "true", "yes"]);
  byId("tiles").fire("click");
  assert.deepEqual(state(), [false, "false", "no"]);
  assert.ok(!byId("tiles").hidden);
  const next = new LiveMap(() => {});
  next.useTiles("http://a/{z}/{x}/{y}", "");
  assert.ok(!next.map.hasLayer(next.tiles), "the choice is remembered");
  const { tiles } = live;
  live.useTiles("http://b/{z}/{x}/{y}", "");
  assert.equal(live.tiles, tiles);
});

// --- Drawing

test("names stand beside their platforms, the selected one first, and sensors behind", () => {
  model.pushReports([{ name: "a", sensors: [{ uid: "s\u0007", place: place(-1, 1) }] }, { name: "b" }, { name: "c" }]);
  model.pushMessage({ source: "a", time_us: 1, seen: { platform: place(1, 1) } });
  model.pushMessage({ source: "b", time_us: 1, seen: { platform: place(0, 0) } });
  live.show(model, "a");
  live.update();
  const { calls } = live.moving._container.getContext();
  const texts = calls.filter(([name]) => name === "fillText");
  assert.deepEqual(texts.map(([, text]) => text), ["a", "b", "s⟨0007⟩"]);
  assert.deepEqual(texts[1].slice(2), [319, 204]);
  assert.deepEqual(texts[2].slice(2).map(Math.round), [Math.round(319 + WORLD / 360), Math.round(204 + WORLD / 360)]);
  const fonts = calls.filter(([name]) => name === "font").map(([, font]) => font.slice(0, 3));
  assert.deepEqual(fonts, ["600", "500", "500"]);
});

test("a platform with a heading is turned, one without is a disc", () => {
  const turn = (seen) => show({ a: { platform: place(0, 0), ...seen } }, "a").calls.find(([name]) => name === "rotate")?.[1];
  assert.equal(turn({ heading: 90 }), Math.PI / 2);
  assert.equal(turn({ course: 180 }), Math.PI);
  assert.equal(turn({ heading: 0, course: 180 }), 0);
  assert.equal(turn({}), undefined);
});

test("the line of sight is dashed, and fades where it has no end", () => {
  const sight = (seen) => {
    const { calls } = show({ a: { platform: place(0, 0), ...seen } });
    return [calls.some(([name, dash]) => name === "setLineDash" && dash[0] === 7), calls.some(([name]) => name === "createLinearGradient")];
  };
  assert.deepEqual(sight({}), [false, false]);
  assert.deepEqual(sight({ azimuth: 90 }), [true, true]);
  assert.deepEqual(sight({ frame_center: place(1, 1) }), [true, false]);
});

test("the ground in the picture is dashed if it is a guess", () => {
  const corners = [place(1, -1), place(1, 1), place(-1, 1), place(-1, -1)];
  const dashes = (seen) => show({ a: { platform: place(0, 0), ...seen } }).calls.filter(([name,
    dash]) => name === "setLineDash" && dash[0] === 4).length;
  assert.equal(dashes({ corners }), 0);
  assert.equal(dashes({ frame_center: place(1, 1), azimuth: 0 }), 0);
  model.pushMessage({ source: "a", time_us: 2, seen: { platform: place(0, 0), frame_center: place(1, 1), azimuth: 0 },
    items: { 96: 1000 } });
  live.moving._container.getContext().calls.length = 0;
  live.update();
  const { calls } = live.moving._container.getContext();
  assert.deepEqual(calls.filter(([name]) => name === "setLineDash").map(([, dash]) => dash), [[4, 4], [], [7, 5], []],
    "from the width that the message tells");
  model.pushMessage({ source: "a", time_us: 3, seen: { platform: place(0, 0), frame_center: place(1, 1), azimuth: 0 },
    items: { 22: 1000 } });
  calls.length = 0;
  live.update();
  assert.ok(calls.some(([name, dash]) => name === "setLineDash" && dash[0] === 4));
});

test("a path is drawn in the copy of the world that is in view", () => {
  for (const longitude of [0, 1, 1.0001, 2, 2.0001]) {
    model.pushMessage({ source: "a", time_us: longitude * 10 + 1, seen: { platform: place(0, longitude + 360) } });
  }
  live.show(model, "");
  live.update();
  const path = live.moving._container.getContext().calls;
  const xs = path.slice(0, path.findIndex(([name]) => name === "stroke")).filter(([name]) => /To$/.test(name)).map(([,
    x]) => Math.round(x));
  const wanted = [0, 1, 2, 2].map((degrees) => Math.round(300 + degrees * WORLD / 360));
  assert.deepEqual(xs, wanted, "points that fall together are one, but the last one is always there");
});

// The straight lines of a shape, as differences from a place.
function lines(calls, x, y) {
  return calls.filter(([name]) => /^(moveTo|lineTo|rect)$/.test(name)).map(([name, px, py, ...more]) => [name, Math.round(px - x),
    Math.round(py - y), ...more]);
}
const has = (found, wanted) => wanted.every((line) => found.some((each) => JSON.stringify(each) === JSON.stringify(line)));

test("centre, target and sensor have shapes of their own", () => {
  const x = 300 + WORLD / 360;
  const cross = [["moveTo", 3, 0], ["lineTo", 9, 0], ["moveTo", -3, 0], ["lineTo", -9, 0], ["moveTo", 0, 3], ["lineTo", 0, 9], ["moveTo",
    0, -3], ["lineTo", 0, -9]];
  const diamond = [["moveTo", 0, -8], ["lineTo", 8, 0], ["lineTo", 0, 8], ["lineTo", -8, 0]];
  const shape = (seen) => lines(show({ a: { platform: place(0, 0), ...seen } }).calls, x, 200);
  assert.ok(has(shape({ frame_center: place(0, 1) }), cross));
  assert.ok(has(shape({ target: place(0, 1) }), diamond));
  assert.ok(!has(shape({}), diamond.slice(0, 2)) && !has(shape({}), cross.slice(0, 2)));
  model.pushReports([{ name: "a", sensors: [{ uid: "s", place: place(0, 1) }] }]);
  const { calls } = live.moving._container.getContext();
  calls.length = 0;
  live.update();
  assert.ok(has(lines(calls, x, 200), [["rect", -6, -6, 12, 12]]));
});

test("the selected source is larger", () => {
  const look = (selected) => {
    const { calls } = show({ a: { platform: place(0, 0), heading: 1 }, b: { platform: place(5, 5) } }, selected);
    return [calls.find(([name]) => name === "scale").slice(1), calls.find(([name]) => name === "arc")[3]];
  };
  assert.deepEqual(look("a"), [[1.25, 1.25], 6.5]);
  assert.deepEqual(look("b"), [[1, 1], 8]);
  const width = (selected) => {
    model.pushMessage({ source: "a", time_us: 9, seen: { platform: place(0, 1), heading: 1 } });
    return show({ a: { platform: place(0, 2) } }, selected).calls.filter(([name]) => name === "lineWidth")[1][1];
  };
  assert.deepEqual([width("a"), width("b")], [2.5, 1.75]);
});

test("what belongs together stays together over the antimeridian", () => {
  live.map.origin = point(WORLD - SIZE.x / 2, WORLD / 2 - SIZE.y / 2);
  const corners = [place(1, 179), place(1, -179), place(-1, -179), place(-1, 179)];
  const { calls } = show({ a: { corners } });
  const xs = lines(calls, 300, 200).map(([, x]) => x);
  assert.deepEqual(xs, [-23, 23, 23, -23, -23, 23], "the ground, and once more its upper edge");
  live.map.origin = point(WORLD / 2 - SIZE.x / 2, WORLD / 2 - SIZE.y / 2);
  calls.length = 0;
  live.update();
  assert.deepEqual(lines(calls, 300 + WORLD / 2, 200).map(([, x]) => x), xs, "also on the other side of the world");
});

test("the graticule has lines with their degrees, where nothing covers them", () => {
  const draw = (x = 0, y = 0) => {
    live.map.origin = point(WORLD / 2 - SIZE.x / 2 + x, WORLD / 2 - SIZE.y / 2 + y);
    const { calls } = live.grid._container.getContext();
    calls.length = 0;
    live.grid.redraw();
    return { calls, texts: calls.filter(([name]) => name === "fillText").map(([, text]) => text) };
  };
  const { calls, texts } = draw();
  assert.deepEqual(texts, ["5°W", "0°", "5°E", "5°S", "0°"]);
  assert.equal(calls.filter(([name]) => name === "lineTo").length, 5 + 3);
  assert.deepEqual(draw(0, -20).texts, ["5°W", "0°", "5°E", "0°"]);
  assert.deepEqual(draw(WORLD / 2).texts.slice(0, 3), ["175°E", "180°", "175°W"]);
  live.map._animatingZoom = true;
  assert.deepEqual(draw().calls, [], "nothing is drawn on the way to another zoom");
});

test("countries that have room for their names have them, unless there are tiles", () => {
  const at = { y: 0.5, width: 0.1 };
  live.names = [{ ...at, name: "Here", x: 0.5 }, { ...at, name: "Turned", x: 1.5 }, { ...at, name: "Small", x: 0.5, width: 0.008 },
    { ...at, name: "Long".repeat(10), x: 0.5, width: 0.02 }, { ...at, name: "Away", x: 0.6 }, { ...at, name: "South", x: 0.5, y: 0.6 }];
  const shown = () => {
    const { calls } = live.grid._container.getContext();
    calls.length = 0;
    live.grid.redraw();
    return calls.filter(([name, text]) => name === "fillText" && !text.includes("°")).map(([, text]) => text);
  };
  assert.deepEqual(shown(), ["Here", "Turned"]);
  live.tiles = L.tileLayer("", {});
  assert.deepEqual(shown(), ["Here", "Turned"]);
  live.map.layers.add(live.tiles);
  assert.deepEqual(shown(), []);
});

test("names of the network are shown as text", () => {
  assert.deepEqual(show({ "a\u0007": { platform: place(0, 0) } }).texts, ["a⟨0007⟩"]);
});

test("names that would cover another one move, and in a crowd some are left out", () => {
  const context = new Element("canvas").getContext();
  const name = (x, y, text) => ({ x, y, text, isSelected: false, ink: "" });
  drawNames(context, [...Array.from({ length: 8 }, (_, i) => name(0, 100, `n${i}`)), name(500, 100, "far"), name(-500, 100, "near"),
    name(0, 300, "l".repeat(40))]);
  const drawn = context.calls.filter(([call]) => call === "fillText").map(([, text, x, y]) => [text, x, y]);
  assert.deepEqual(drawn, [["n0", 19, 104], ["n1", 19, 119], ["n2", 19, 89], ["n3", 19, 134], ["n4", 19, 74], ["n5", 19, 149],
    ["far", 519, 104], ["near", -481, 104], [`${"l".repeat(31)}…`, 19, 304]]);
});
