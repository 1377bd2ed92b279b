// SPDX-License-Identifier: Apache-2.0
// The player of a stream: what it asks for, how far behind it stays, and what it says.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { answers, asked, byId, clock, Element, part, settle } from "./fake_browser.mjs";

const { Video } = await part("video");
const FLIGHT = { name: "flight", url: "/stream/flight.mp4", mime: "video/mp4; codecs=\"avc1.42c01f\"" };
const OTHER = { ...FLIGHT, name: "other", url: "/stream/other.mp4" };
const note = () => byId("video-note").textContent;

let video;
let shown;  // the callback of a shown frame
let asks;   // how often it was asked for
beforeEach(() => {
  clock.timers.clear();
  answers.clear();
  asked.length = asks = 0;
  const element = byId("video");
  Object.assign(element, { currentTime: 0, readyState: 4, paused: false, played: { length: 1 }, error: null, plays: 0,
    requestVideoFrameCallback: (callback) => {
      shown = callback;
      ++asks;
    },
    play: async () => {
      ++element.plays;
    } });
  byId("stream").listeners.clear();
  video = new Video();
});

// What a source buffer holds.
function bufferOf(...ranges) {
  const buffer = new Element("buffer");
  buffer.removed = [];
  buffer.buffered = { length: ranges.length, start: (i) => ranges[i][0], end: (i) => ranges[i][1] };
  buffer.remove = (from, to) => {
    buffer.removed.push([from, to]);
    clock.start(() => buffer.fire("updateend"), 0);
  };
  return buffer;
}

test("the player goes with the streams", async () => {
  video.setStreams([]);
  assert.ok(byId("video-area").hidden);
  video.setStreams([FLIGHT]);
  assert.deepEqual([byId("video-area").hidden, byId("stream").hidden, video.name], [false, true, "flight"]);
  const { attempt } = video;
  video.setStreams([FLIGHT, OTHER]);
  assert.equal(video.attempt, attempt, "what plays goes on");
  assert.ok(!byId("stream").hidden);
  assert.deepEqual(byId("stream").children.map(({ value }) => value), ["flight", "other"]);
  byId("stream").fire("change", { target: { value: "other" } });
  assert.ok(attempt.signal.aborted);
  assert.equal(video.name, "other");
  video.setStreams([FLIGHT]);
  assert.equal(video.name, "flight", "the one that plays is gone");
  const last = video.attempt;
  video.setStreams([]);
  assert.ok(last.signal.aborted);
  assert.deepEqual([video.attempt, video.name], [null, ""]);
  await settle();
});

test("the time is that of the shown frame", () => {
  assert.ok(Number.isNaN(video.frameTime), "nothing plays");
  video.name = "flight";
  video.element.currentTime = 7.2;
  assert.equal(video.frameTime, 7.2);
  shown(0, { mediaTime: 7.16 });
  assert.equal(video.frameTime, 7.16);
  assert.equal(asks, 2, "the next one is asked for");
  video.element.currentTime = 7.67;
  assert.equal(video.frameTime, 7.67, "half a second away it is of another place");
  video.element.readyState = 1;
  assert.ok(Number.isNaN(video.frameTime));
});

test("the player begins at the newest frames and returns to them", () => {
  const { element } = video;
  const at = (time, ...ranges) => {
    element.currentTime = time;
    video.catchUp(bufferOf(...ranges));
    return element.currentTime;
  };
  element.played.length = 0;
  element.paused = true;
  assert.equal(at(0, [100, 105]), 104.3);
  assert.equal(element.plays, 1);
  element.played.length = 1;
  element.paused = false;
  assert.equal(at(103, [100, 105]), 103, "two seconds behind are fine");
  assert.equal(at(102.4, [100, 105]), 104.3);
  assert.equal(element.plays, 1);
  assert.equal(at(102, [100, 105], [200, 200.3]), 200, "at the beginning of what there is, if that is short");
  assert.equal(element.plays, 2);
  assert.equal(at(300, [100, 105]), 104.3, "another run of the stream");
  element.paused = true;
  assert.equal(at(101, [100, 105]), 101, "a user who paused is left alone");
  assert.equal(at(99, [100, 105]), 104.3, "unless the frames are gone");
  assert.equal(at(5), 5);
});

test("a browser that does not play by itself asks for help", async () => {
  video.element.played.length = 0;
  video.element.play = async () => {
    throw new Error("not allowed");
  };
  video.catchUp(bufferOf([0, 1]));
  await settle();
  assert.equal(note(), "Press play to start the video.");
});

test("frames that are long gone are given up", async () => {
  video.element.currentTime = 100;
  for (const [begin, removed] of [[64.9, [[0, 70]]], [65, []], [99, []]]) {
    const buffer = bufferOf([begin, 101]);
    const done = video.trim(buffer, new AbortController().signal);
    clock.pass(0);
    await done;
    assert.deepEqual(buffer.removed, removed);
  }
  await video.trim(bufferOf(), new AbortController().signal);
});

test("it is said how well the message fits the frame", () => {
  video.name = "flight";
  video.element.currentTime = 10;
  video.tell({ presentation: 10.04 });
  assert.equal(note(), "Message 40\u202fms after the shown frame");
  video.tell({ presentation: 9.9 });
  assert.equal(note(), "Message 100\u202fms before the shown frame");
  video.tell(null);
  assert.equal(note(), "No metadata for the shown frame.");
  video.say("as it was");
  video.element.readyState = 0;
  video.tell({ presentation: 1 });
  assert.equal(note(), "as it was");
});

test("a stream that cannot be played is tried again, after longer and longer pauses", async () => {
  globalThis.MediaSource = class {
    static isTypeSupported(type) {
      return type === FLIGHT.mime;
    }
  };
  video.setStreams([{ ...FLIGHT, mime: "x/\u0007" }]);
  await settle();
  assert.equal(note(), "No video: this browser cannot play x/⟨0007⟩. Trying again.");
  assert.deepEqual(asked, []);
  answers.set("/stream/flight.mp4", () => 503);
  video.stop();
  video.setStreams([FLIGHT]);
  await settle();
  assert.equal(note(), "No video: HTTP status 503. Trying again.");
  const pauses = [];
  for (let i = 0; i < 7; ++i) {
    const [timer] = clock.timers.values();
    pauses.push(Math.round(timer.at - clock.now));
    clock.pass(timer.at - clock.now);
    await settle();
  }
  assert.equal(asked.length, 8);
  assert.deepEqual(pauses, [1000, 1600, 2560, 4096, 6554, 8000, 8000]);
  video.stop();
  clock.pass(9000);
  await settle();
  const count = asked.length;
  clock.pass(20000);
  await settle();
  assert.equal(asked.length, count, "who stops it asks no more");
});

// What the player is made of in a browser, noting what is done with it.
class FakePlayer {
  constructor(pieces) {
    this.appended = [];
    this.revoked = [];
    this.cancelled = 0;
    this.isBusy = false;
    this.opens = true;
    this.buffer = bufferOf([0, 1]);
    this.buffer.appendBuffer = (piece) => {
      assert.ok(!this.isBusy, "one piece after the other");
      this.isBusy = true;
      this.appended.push(piece);
      clock.start(() => {
        this.isBusy = false;
        this.buffer.fire("updateend");
      }, 0);
    };
    const { buffer } = this;
    globalThis.MediaSource = class extends Element {
      static isTypeSupported() {
        return true;
      }

      addSourceBuffer(type) {
        assert.equal(type, FLIGHT.mime);
        return buffer;
      }
    };
    URL.createObjectURL = (media) => {
      this.media = media;
      if (this.opens) clock.start(() => media.fire("sourceopen"), 0);
      return "blob:1";
    };
    URL.revokeObjectURL = (address) => this.revoked.push(address);
    const read = async () => {
      await this.arrival;
      return { value: pieces.shift(), done: pieces.length === 0 && this.appended.length === 3 };
    };
    const cancel = async () => {
      ++this.cancelled;
    };
    globalThis.fetch = async () => ({ ok: true, body: { getReader: () => ({ read, cancel }) } });
  }

  async run(rounds = 10) {
    for (let i = 0; i < rounds; ++i) {
      await settle();
      clock.pass(0);
    }
    await settle();
  }
}

test("pieces are appended one after the other until the stream ends", async () => {
  const player = new FakePlayer([[1], [2], [3]]);
  video.pauseMs = 5000;
  video.setStreams([FLIGHT]);
  await player.run();
  assert.deepEqual(player.appended, [[1], [2], [3]]);
  assert.equal(video.element.src, "blob:1");
  assert.deepEqual(player.revoked, ["blob:1"]);
  assert.equal(player.cancelled, 1);
  assert.equal(note(), "The stream ended; waiting for it to come back.");
  assert.equal(video.pauseMs, 1000, "after pieces a pause is short again");
  video.stop();
});

test("a stream that is left is not read further, and nothing is said of it", async () => {
  const player = new FakePlayer([[1], [2], [3]]);
  video.say("as it was");
  video.setStreams([FLIGHT]);
  await player.run(1);
  assert.equal(player.appended.length, 1);
  video.stop();
  await player.run();
  assert.equal(player.appended.length, 1);
  assert.equal(note(), "as it was");
  assert.deepEqual(player.revoked, ["blob:1"]);
  assert.equal(clock.timers.size, 0, "it is not tried again");
});

test("a piece that comes after the end is not shown", async () => {
  const player = new FakePlayer([[1], [2]]);
  let arrive;
  player.arrival = new Promise((resolve) => {
    arrive = resolve;
  });
  video.setStreams([FLIGHT]);
  await player.run(2);
  video.stop();
  arrive();
  await player.run(2);
  assert.deepEqual([player.appended, player.cancelled], [[], 1]);
});

test("a player that does not open is left too", async () => {
  const player = new FakePlayer([[1]]);
  player.opens = false;
  video.setStreams([FLIGHT]);
  await player.run(2);
  video.stop();
  await player.run(2);
  assert.deepEqual(player.revoked, ["blob:1"]);
});

test("a player that refuses the stream is said", async () => {
  const player = new FakePlayer([[1]]);
  player.opens = false;
  video.setStreams([FLIGHT]);
  await player.run(2);
  player.media.fire("error");
  await player.run(1);
  assert.equal(note(), "No video: the player refused the stream. Trying again.");
  video.stop();
  const stopped = new FakePlayer([[1], [2]]);
  video.element.error = { message: "bad\u0007" };
  video.setStreams([FLIGHT]);
  await stopped.run();
  assert.equal(note(), "No video: bad⟨0007⟩. Trying again.");
  assert.deepEqual(stopped.appended, []);
  video.element.error = { message: "" };
  video.stop();
  video.setStreams([FLIGHT]);
  await stopped.run();
  assert.equal(note(), "No video: the player stopped. Trying again.");
  video.stop();
});
