// SPDX-License-Identifier: Apache-2.0
// The sensors of Cursor-on-Target that sources have discovered, and the points that they look at.
import { el, keep, printable, setHidden, setText } from "./dom.js";
import { latitude, longitude } from "./format.js";
import { isPlace } from "./geometry.js";

// Returns the sensors of a source: { uid, place } with the newest place that is known, or null.
export function sensorsOf(source, model) {
  return (source.report?.sensors ?? []).map(({ uid, place }) => ({ uid, place: newest(uid, model) ?? (isPlace(place) ? place : null) }));
}

// The last message of a source of Cursor-on-Target may be newer than the statistics.
function newest(uid, model) {
  for (const { report, seen } of model.sources.values()) {
    if (report?.sensors !== undefined && seen.sensor === uid && isPlace(seen.frame_center)) return seen.frame_center;
  }
  return null;
}

// Returns each sensor with a place once, with the source that has discovered it first.
export function placedSensors(model) {
  const placed = new Map();
  for (const source of model.sources.values()) {
    for (const { uid, place } of sensorsOf(source, model)) {
      if (place !== null && !placed.has(uid)) placed.set(uid, { uid, place, source });
    }
  }
  return [...placed.values()];
}

// The list of a source's sensors in the table of sources. A button moves the map to what the sensor looks at.
export class SensorList {
  // `show` is called with the UID of a sensor and its place.
  constructor(show) {
    this.show = show;
  }

  make() {
    return el("ul", { class: "sensors" });
  }

  // `more` are UIDs that events have told since the statistics.
  fill(list, source, model, more) {
    const sensors = sensorsOf(source, model);
    const known = new Set(sensors.map(({ uid }) => uid));
    for (const uid of more) {
      if (!known.has(uid)) sensors.push({ uid, place: null });
    }
    keep(list, sensors, ({ uid }) => uid, ({ uid }) => this.makeEntry(uid), (entry, { place }) => {
      const [name, button] = entry.children;
      entry.place = place;
      setHidden(name, place !== null);
      setHidden(button, place === null);
      if (place !== null) setText(button.lastChild, `${latitude(place.latitude)} ${longitude(place.longitude)}`);
    });
  }

  makeEntry(uid) {
    const entry = el("li", {}, el("bdi", {}, printable(uid)));
    entry.append(el("button", { type: "button", class: "plain", click: () => this.show(uid, entry.place) },
      el("span", { class: "unseen" }, "Show on the map: "), el("bdi", {}, printable(uid)), " ", el("span", { class: "number place" })));
    return entry;
  }
}
