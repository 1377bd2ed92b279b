// SPDX-License-Identifier: Apache-2.0
// The video of a stream, appended piece by piece to a media source, and the time of the frame that is shown.
import { byId, el, keep, printable, setHidden, setText } from "./dom.js";
import { fixed } from "./format.js";

const HELD_SECONDS = 30;  // kept behind the shown frame
const MOST_BEHIND = 2.5;  // seconds behind the newest frame, after which the player catches up
const AIM_BEHIND = 0.7;
const LONGEST_PAUSE_MS = 8000;

export class Video {
  constructor() {
    this.element = byId("video");
    this.streams = [];
    this.name = "";
    this.attempt = null;
    this.pauseMs = 1000;
    this.shown = NaN;  // presentation time of the shown frame
    byId("stream").addEventListener("change", (event) => this.play(event.target.value));
    const note = (_, frame) => {
      this.shown = frame.mediaTime;
      this.element.requestVideoFrameCallback(note);
    };
    this.element.requestVideoFrameCallback?.(note);
  }

  setStreams(streams) {
    this.streams = streams;
    setHidden(byId("video-area"), streams.length === 0);
    const choice = byId("stream");
    setHidden(choice, streams.length < 2);
    keep(choice, streams, ({ name }) => name, ({ name }) => el("option", { value: name }, printable(name)), () => {});
    if (streams.length === 0) this.stop();
    else if (!streams.some(({ name }) => name === this.name)) this.play(streams[0].name);
  }

  stop() {
    this.attempt?.abort();
    this.attempt = null;
    this.name = "";
    this.shown = NaN;
  }

  play(name) {
    this.stop();
    this.name = name;
    this.attempt = new AbortController();
    this.run(this.streams.find((stream) => stream.name === name), this.attempt.signal);
  }

  // Whether a frame is shown, and its time.
  get frameTime() {
    if (this.name === "" || this.element.readyState < 2) return NaN;
    return Number.isFinite(this.shown) && Math.abs(this.shown - this.element.currentTime) < 0.5 ? this.shown : this.element.currentTime;
  }

  // Plays the stream until it is stopped; after an end or a fault it begins anew.
  async run(stream, signal) {
    while (!signal.aborted) {
      try {
        await this.playOnce(stream, signal);
        this.say("The stream ended; waiting for it to come back.");
      } catch (error) {
        if (signal.aborted) return;
        this.say(`No video: ${printable(error.message)}. Trying again.`);
      }
      await new Promise((resolve) => setTimeout(resolve, this.pauseMs));
      if (signal.aborted) return;
      this.pauseMs = Math.min(LONGEST_PAUSE_MS, this.pauseMs * 1.6);
    }
  }

  say(text) {
    setText(byId("video-note"), text);
  }

  async playOnce(stream, signal) {
    const Kind = window.ManagedMediaSource ?? window.MediaSource;
    if (Kind === undefined || !Kind.isTypeSupported(stream.mime)) throw new Error(`this browser cannot play ${stream.mime}`);
    const response = await fetch(stream.url, { signal });
    if (!response.ok) throw new Error(`HTTP status ${response.status}`);
    const media = new Kind();
    if (window.ManagedMediaSource) this.element.disableRemotePlayback = true;
    const address = URL.createObjectURL(media);
    try {
      this.element.src = address;
      await once(media, "sourceopen", signal);
      const buffer = media.addSourceBuffer(stream.mime);
      await this.pump(response.body.getReader(), buffer, signal);
    } finally {
      URL.revokeObjectURL(address);
    }
  }

  async pump(reader, buffer, signal) {
    try {
      for (;;) {
        const { value, done } = await reader.read();
        if (done || signal.aborted) return;
        if (this.element.error) throw new Error(this.element.error.message || "the player stopped");
        buffer.appendBuffer(value);
        await once(buffer, "updateend", signal);
        this.pauseMs = 1000;
        await this.trim(buffer, signal);
        this.catchUp(buffer);
      }
    } finally {
      reader.cancel().catch(() => {});
    }
  }

  async trim(buffer, signal) {
    const { buffered } = buffer;
    const end = this.element.currentTime - HELD_SECONDS;
    if (buffered.length === 0 || buffered.start(0) >= end - 5) return;
    buffer.remove(0, end);
    await once(buffer, "updateend", signal);
  }

  // Begins at the newest frames, and returns to them when the player was held up; a user who paused is left alone.
  catchUp(buffer) {
    const { buffered } = buffer;
    if (buffered.length === 0) return;
    const newest = buffered.end(buffered.length - 1);
    const first = buffered.start(buffered.length - 1);
    const { currentTime } = this.element;
    const isOutside = currentTime < first || currentTime > newest;
    const hasStarted = this.element.played.length > 0;
    if (this.element.paused && hasStarted && !isOutside) return;
    if (isOutside || newest - currentTime > MOST_BEHIND) this.element.currentTime = Math.max(first, newest - AIM_BEHIND);
    if (!hasStarted || isOutside) this.element.play().catch(() => this.say("Press play to start the video."));
  }

  // Says how well the shown metadata fits the frame.
  tell(message) {
    if (!Number.isFinite(this.frameTime)) return;
    if (message === null) {
      this.say("No metadata for the shown frame.");
      return;
    }
    const difference = (message.presentation - this.frameTime) * 1000;
    this.say(`Message ${fixed(Math.abs(difference), 0)}\u202fms ${difference > 0 ? "after" : "before"} the shown frame`);
  }
}

function once(target, event, signal) {
  return new Promise((resolve, reject) => {
    const clean = () => {
      target.removeEventListener(event, good);
      target.removeEventListener("error", bad);
      signal.removeEventListener("abort", bad);
    };
    const good = () => {
      clean();
      resolve();
    };
    const bad = () => {
      clean();
      reject(new Error("the player refused the stream"));
    };
    target.addEventListener(event, good);
    target.addEventListener("error", bad);
    signal.addEventListener("abort", bad);
  });
}
