// SPDX-License-Identifier: Apache-2.0
// What the page knows: sources with their last message, path and histories, and lines of the log. All of it is bounded.
import { distance, isPlace, turned, worldX, worldY } from "./geometry.js";

const MOST_TRACK_POINTS = 4000;
const MOST_SERIES_POINTS = 6000;
const SERIES_SPACING_US = 90000;
const MOST_FRAMES = 900;
const MOST_LINES = 500;
export const COLOURS = 8;

// Pairs of numbers; the oldest half is dropped when it is full.
class Series {
  constructor() {
    this.times = new Float64Array(256);
    this.values = new Float64Array(256);
    this.length = 0;
  }

  push(timeUs, value) {
    if (this.length > 0 && timeUs <= this.times[this.length - 1]) return;
    if (this.length === this.times.length) this.makeRoom();
    this.times[this.length] = timeUs;
    this.values[this.length] = value;
    ++this.length;
  }

  makeRoom() {
    if (this.length >= MOST_SERIES_POINTS) {
      const half = this.length >> 1;
      this.times.copyWithin(0, half);
      this.values.copyWithin(0, half);
      this.length -= half;
      return;
    }
    for (const name of ["times", "values"]) {
      const grown = new Float64Array(Math.min(MOST_SERIES_POINTS, this.length * 2));
      grown.set(this[name]);
      this[name] = grown;
    }
  }

  get lastTime() {
    return this.length === 0 ? -Infinity : this.times[this.length - 1];
  }

  // Puts older points before those that are there.
  prepend(points) {
    const first = this.length === 0 ? Infinity : this.times[0];
    const older = points.filter(([timeUs]) => timeUs < first);
    const times = Array.from(this.times.subarray(0, this.length));
    const values = Array.from(this.values.subarray(0, this.length));
    this.length = 0;
    for (const [timeUs, value] of older) this.push(timeUs, value);
    times.forEach((timeUs, index) => this.push(timeUs, values[index]));
  }
}

// A path in world coordinates; x goes on beyond 0 and 1 where the path crosses the antimeridian.
class Track {
  constructor() {
    this.clear();
  }

  clear() {
    this.xs = [];
    this.ys = [];
    this.last = null;
    this.lastTime = 0;
  }

  push(place, timeUs) {
    let { longitude } = place;
    if (this.last !== null) {
      const isNear = distance(this.last, place) < 3;
      if (isNear || timeUs <= this.lastTime) return;
      longitude = this.last.longitude + turned(longitude - this.last.longitude);
    }
    this.xs.push(worldX(longitude));
    this.ys.push(worldY(place.latitude));
    this.last = { latitude: place.latitude, longitude };
    this.lastTime = timeUs;
    if (this.xs.length > MOST_TRACK_POINTS) {
      this.xs.splice(0, MOST_TRACK_POINTS / 4);
      this.ys.splice(0, MOST_TRACK_POINTS / 4);
    }
  }
}
export class Source {
  constructor(name, slot) {
    this.name = name;
    this.slot = slot;  // of its colour
    this.report = null;
    this.message = null;  // the last one
    this.seen = {};       // of the last message that says where something is
    this.track = new Track();
    this.series = new Map();  // of numbers, by tag
    this.frames = [];         // messages with a presentation time, in its order
    this.arrived = 0;
  }

  // Begins anew, for a replay that goes back.
  forget() {
    this.message = null;
    this.seen = {};
    this.track.clear();
    this.series.clear();
    this.frames.length = 0;
  }

  push(message) {
    ++this.arrived;
    this.message = message;
    if (message.seen !== undefined) this.seen = message.seen;
    if (isPlace(this.seen.platform)) this.track.push(this.seen.platform, message.time_us);
    for (const [tag, value] of Object.entries(message.items ?? {})) {
      if (typeof value === "number") this.pushNumber(Number(tag), message.time_us, value);
    }
    if (Number.isFinite(message.presentation)) this.pushFrame(message);
  }

  pushNumber(tag, timeUs, value) {
    let series = this.series.get(tag);
    if (series === undefined) {
      series = new Series();
      this.series.set(tag, series);
    }
    if (timeUs - series.lastTime >= SERIES_SPACING_US) series.push(timeUs, value);
  }

  pushFrame(message) {
    const { frames } = this;
    if (frames.length > 0 && message.presentation < frames[frames.length - 1].presentation - 1) frames.length = 0;
    frames.push(message);
    if (frames.length > MOST_FRAMES) frames.splice(0, MOST_FRAMES / 4);
  }

  // Returns the last message that is not later than this time of the video, or null.
  messageAt(seconds) {
    const { frames } = this;
    let from = 0;
    let to = frames.length;
    while (from < to) {
      const middle = (from + to) >> 1;
      if (frames[middle].presentation <= seconds + 0.001) from = middle + 1;
      else to = middle;
    }
    return from === 0 ? null : frames[from - 1];
  }
}

export class Model {
  constructor() {
    this.sources = new Map();
    this.lines = [];
    this.lastLine = 0;
    this.sensors = new Map();  // of Cursor-on-Target, by source
    this.changes = 0;
  }

  source(name) {
    let source = this.sources.get(name);
    if (source === undefined) {
      source = new Source(name, this.freeSlot());
      this.sources.set(name, source);
    }
    return source;
  }

  // Returns the first of the colours that the fewest sources have.
  freeSlot() {
    const uses = new Array(COLOURS).fill(0);
    for (const { slot } of this.sources.values()) ++uses[slot];
    return uses.indexOf(Math.min(...uses));
  }

  pushMessage(message) {
    this.source(message.source).push(message);
    ++this.changes;
  }

  pushReports(reports) {
    const names = new Set();
    for (const report of reports) {
      names.add(report.name);
      this.source(report.name).report = report;
    }
    for (const name of this.sources.keys()) {
      if (!names.has(name)) this.sources.delete(name);
    }
    ++this.changes;
  }

  pushLine(line) {
    if (line.id <= this.lastLine) return false;
    this.lastLine = line.id;
    this.lines.push(line);
    if (this.lines.length > MOST_LINES) this.lines.splice(0, MOST_LINES / 5);
    return true;
  }

  pushSensor(sensor) {
    const known = this.sensors.get(sensor.source) ?? new Set();
    if (known.size < 64) known.add(sensor.uid);
    this.sensors.set(sensor.source, known);
  }

  // The program was started anew: its numbers of lines and events begin again. Paths stay, so that a restart leaves no hole.
  forgetRun() {
    this.lines.length = 0;
    this.lastLine = 0;
    this.sensors.clear();
    for (const source of this.sources.values()) {
      source.message = null;
      source.report = null;
      source.frames.length = 0;
    }
  }
}
