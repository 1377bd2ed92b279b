// SPDX-License-Identifier: Apache-2.0
// The replay of a recording: a model of its own, filled up to the chosen time.
import { byId, el, keep, printable, setHidden, setText } from "./dom.js";
import { get } from "./feed.js";
import { dateAndClock } from "./format.js";
import { Model } from "./model.js";

const MOST_POINTS = 2000;
const STEPS = 1000;
const ASK_MS = 250;

// Numbers that a point of the overview has without its message, by tag.
function numbersOf(seen) {
  const numbers = { 5: seen.heading, 6: seen.pitch, 7: seen.roll, 13: seen.platform?.latitude, 14: seen.platform?.longitude,
    15: seen.platform?.altitude, 16: seen.horizontal_view, 17: seen.vertical_view, 21: seen.slant_range,
    23: seen.frame_center?.latitude, 24: seen.frame_center?.longitude, 25: seen.frame_center?.altitude, 56: seen.ground_speed };
  return Object.fromEntries(Object.entries(numbers).filter(([, value]) => Number.isFinite(value)));
}

function recordingPath(name, rest, query) {
  return `/api/v1/recordings/${encodeURIComponent(name)}${rest}?${new URLSearchParams(query)}`;
}

export class Replay {
  // `changed` is called when another recording is shown; `say` with what went wrong, or "".
  constructor(changed, say) {
    this.changed = changed;
    this.say = say;
    this.isActive = false;
    this.clear();
    byId("replay").addEventListener("submit", (event) => event.preventDefault());
    byId("recording").addEventListener("change", (event) => this.load(event.target.value));
    byId("play").addEventListener("click", () => this.setPlaying(!this.isPlaying));
    byId("moment").addEventListener("input", (event) => {
      this.setPlaying(false);
      this.seek(this.from + (this.to - this.from) * Number(event.target.value) / STEPS);
    });
  }

  clear() {
    this.model = new Model();
    this.name = "";
    this.source = "";
    this.points = [];
    this.next = 0;  // index of the first point that is later than the time
    this.from = 0;
    this.to = 0;
    this.timeUs = 0;
    this.message = null;
    this.isPlaying = false;
    this.asked = 0;
    this.asking = null;
  }

  async enter() {
    this.isActive = true;
    setHidden(byId("replay"), false);
    this.enable(false);
    try {
      const { recordings } = await get("/api/v1/recordings");
      if (!this.isActive) return;
      const choice = byId("recording");
      keep(choice, recordings, ({ name }) => name, ({ name }) => el("option", { value: name }, printable(name)), () => {});
      if (recordings.length === 0) {
        this.say("There are no recordings: switch recording on in the configuration of a source.");
        return;
      }
      this.say("");
      await this.load(choice.value);
    } catch (error) {
      this.say(`The recordings cannot be listed: ${printable(error.message)}.`);
    }
  }

  leave() {
    this.isActive = false;
    this.asking?.abort();
    setHidden(byId("replay"), true);
    this.clear();
    this.say("");
  }

  enable(isEnabled) {
    for (const id of ["play", "moment", "speed"]) byId(id).disabled = !isEnabled;
  }

  async load(name) {
    this.clear();
    this.name = name;
    this.enable(false);
    setText(byId("moment-text"), "loading…");
    try {
      const answer = await get(recordingPath(name, "", { points: MOST_POINTS }));
      if (!this.isActive || this.name !== name) return;
      this.points = answer.points;
    } catch (error) {
      this.say(`${printable(name)} cannot be read: ${printable(error.message)}.`);
      return;
    }
    if (this.points.length === 0) {
      setText(byId("moment-text"), "no messages");
      return;
    }
    this.say("");
    this.source = name.replace(/\.[^.]*$/, "");
    this.from = this.points[0].time_us;
    this.to = this.points[this.points.length - 1].time_us;
    this.enable(true);
    this.seek(this.from);
    this.changed();
  }

  setPlaying(isPlaying) {
    this.isPlaying = isPlaying && this.points.length > 0;
    if (this.isPlaying && this.timeUs >= this.to) this.seek(this.from);
    this.lastTick = performance.now();
    setText(byId("play"), this.isPlaying ? "Pause" : "Play");
  }

  // Shows another time. Backwards the model is filled anew.
  seek(timeUs) {
    if (timeUs < this.timeUs) {
      this.model.sources.get(this.source)?.forget();
      this.next = 0;
    }
    this.timeUs = timeUs;
    while (this.next < this.points.length && this.points[this.next].time_us <= timeUs) {
      const { time_us, seen } = this.points[this.next];
      this.model.pushMessage({ source: this.source, time_us, seen, items: numbersOf(seen) });
      ++this.next;
    }
    this.showTime();
  }

  showTime() {
    const slider = byId("moment");
    const text = dateAndClock(this.timeUs, 1);
    setText(byId("moment-text"), text);
    slider.setAttribute("aria-valuetext", text);
    if (document.activeElement !== slider || this.isPlaying) {
      slider.value = this.to > this.from ? Math.round((this.timeUs - this.from) / (this.to - this.from) * STEPS) : 0;
    }
  }

  // Called for each frame of the page.
  tick(now) {
    if (!this.isActive || this.points.length === 0) return;
    if (this.isPlaying) {
      const passed = (now - this.lastTick) * 1000 * Number(byId("speed").value);
      this.lastTick = now;
      this.seek(Math.min(this.to, this.timeUs + Math.max(0, passed)));
      if (this.timeUs >= this.to) this.setPlaying(false);
    }
    if (this.shownTime !== this.timeUs && now - this.asked > ASK_MS && this.asking === null) this.ask(now);
  }

  // Asks for the whole message of this time; one question at a time.
  async ask(now) {
    this.asked = now;
    const wanted = this.timeUs;
    this.asking = new AbortController();
    try {
      const message = await get(recordingPath(this.name, "/message", { time: Math.round(wanted), raw: 1 }), this.asking.signal);
      if (!this.isActive) return;
      this.message = message;
      this.shownTime = wanted;
    } catch (error) {
      if (this.isActive) this.say(`The message cannot be read: ${printable(error.message)}.`);
    } finally {
      this.asking = null;
    }
  }
}
