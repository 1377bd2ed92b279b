// SPDX-License-Identifier: Apache-2.0
// Puts the page together: events change the model at once, the map is drawn once a frame, tables and plots a few times a
// second.
import { announce, byId, printable, remember, remembered, setHidden, setText } from "./dom.js";
import { Feed, get, sourcePath } from "./feed.js";
import { clock } from "./format.js";
import { Dictionary, Items } from "./items.js";
import { Log } from "./log.js";
import { LiveMap } from "./map.js";
import { Model } from "./model.js";
import { Plots } from "./plots.js";
import { Replay } from "./replay.js";
import { Chips, SourceTable } from "./sources.js";
import { Tabs } from "./tabs.js";
import { startTheme } from "./theme.js";
import { Video } from "./video.js";

const TABLES_MS = 250;
const STREAMS_MS = 5000;

class Page {
  constructor() {
    this.live = new Model();
    this.dictionary = new Dictionary();
    this.selected = remembered("source", "");
    this.run = "";
    this.wasLost = false;
    this.offsetUs = 0;  // of the program's clock to this machine's
    this.whole = null;  // the last message of the selected source, with all of its items
    this.isAsking = false;
    this.isStale = true;
    this.tablesDrawn = 0;
    this.tabs = new Tabs();
    this.map = new LiveMap((name) => this.pick(name));
    this.chips = new Chips((name) => this.pick(name));
    this.table = new SourceTable((uid, place) => this.showSensor(uid, place));
    this.plots = new Plots(this.dictionary);
    this.items = new Items(this.dictionary, (tag) => {
      this.plots.add(tag);
      this.tabs.show("plots");
    });
    this.log = new Log();
    this.video = new Video();
    this.replay = new Replay(() => this.pick(this.replay.source), (text) => this.notice("replay", text));
    this.notices = new Map();
    this.feed = new Feed(this.handlers());
  }

  handlers() {
    return {
      state: (change) => this.showConnection(change),
      hello: (hello) => this.greet(hello),
      message: (message) => {
        if (!this.live.sources.has(message.source)) return;  // its report comes first, which gives it its place and colour
        this.live.pushMessage(message);
        this.isStale = true;
      },
      statistics: ({ time_us, sources }) => {
        this.offsetUs = time_us - Date.now() * 1000;
        this.live.pushReports(sources);
        this.choose();
        this.isStale = true;
      },
      log: (line) => {
        if (this.live.pushLine(line)) this.log.note(line, this.tabs.current === "log");
      },
      sensor: (sensor) => this.live.pushSensor(sensor),
    };
  }

  get model() {
    return this.replay.isActive ? this.replay.model : this.live;
  }

  get nowUs() {
    return this.replay.isActive ? this.replay.timeUs : Date.now() * 1000 + this.offsetUs;
  }

  async start() {
    startTheme();
    for (const input of document.querySelectorAll("input[name=mode]")) {
      input.checked = input.value === "live";
      input.addEventListener("change", () => this.setMode(input.value));
    }
    requestAnimationFrame((now) => this.frame(now));
    this.map.loadWorld().catch((error) => this.notice("world", `The map's coastlines are missing: ${error.message}.`));
    this.feed.open();
    setInterval(() => this.askStreams(), STREAMS_MS);
  }

  // The first event of a connection. Another run of the program has other numbers, and may have other sources.
  async greet({ run }) {
    const isNew = run !== this.run;
    if (isNew && this.run !== "") {
      this.live.forgetRun();
      this.plots.asked.clear();
      this.whole = null;
      announce("The program was started again.");
    }
    this.run = run;
    try {
      await Promise.all([this.loadInfo(), this.loadLog(), this.loadSources(isNew), this.askStreams()]);
    } catch (error) {
      console.warn("Not everything was answered after a connection", error);
    }
  }

  async loadInfo() {
    const [info, items] = await Promise.all([get("/api/v1/info"), get("/api/v1/items")]);
    this.dictionary.load(items);
    setText(byId("host"), printable(info.host));
    document.title = `${printable(info.host)} – mdencoder`;
    this.offsetUs = info.now_us - Date.now() * 1000;
    this.map.useTiles(info.tiles ?? "", info.tiles_attribution ?? "");
  }

  async loadLog() {
    const { lines } = await get("/api/v1/log");
    const newer = this.live.lines;
    this.live.lines = [];
    this.live.lastLine = 0;
    for (const line of [...lines, ...newer]) this.live.pushLine(line);
  }

  async loadSources(isNew) {
    const { sources } = await get("/api/v1/sources");
    this.live.pushReports(sources);
    this.choose();
    if (!isNew) return;
    await Promise.all(sources.filter((report) => report.messages > 0).map((report) => this.loadTrack(report.name)));
  }

  // The path that a source took before this page was opened, below what was received meanwhile.
  async loadTrack(name) {
    const { points } = await get(sourcePath(name, "/track", { seconds: 600, points: 1500 }));
    const { track } = this.live.source(name);
    if (track.xs.length > 100) return;
    track.clear();
    for (const [timeUs, latitude, longitude] of points) track.push({ latitude, longitude }, timeUs);
  }

  async askStreams() {
    if (this.feed.state !== "live") return;
    try {
      const { streams } = await get("/api/v1/streams");
      this.video.setStreams(streams.filter(({ url, mime }) => url && mime));
    } catch (error) {
      if (error.status !== undefined && error.status !== 404) console.warn("The streams cannot be listed", error);
    }
  }

  // Selects the first source if the selected one is not there.
  choose() {
    const names = [...this.model.sources.keys()];
    if (names.length > 0 && !names.includes(this.selected)) this.pick(names[0]);
  }

  pick(name) {
    if (name === this.selected && this.whole !== null) return;
    this.selected = name;
    this.whole = null;
    if (!this.replay.isActive) remember("source", name);
    this.isStale = true;
    this.tablesDrawn = 0;
    if (this.map.isFollowing) this.map.show(this.model, name);
  }

  showSensor(uid, place) {
    this.map.goTo(place);
    announce(`The map shows what sensor ${printable(uid)} looks at.`);
  }

  setMode(mode) {
    document.body.classList.toggle("is-replay", mode === "recording");
    if (mode === "recording") {
      this.replay.enter();
    } else {
      this.replay.leave();
      this.selected = remembered("source", "");
      this.choose();
    }
    this.whole = null;
    this.tablesDrawn = 0;
    this.isStale = true;
  }

  showConnection({ state, retryAt }) {
    const area = byId("connection");
    area.dataset.state = state === "live" ? "good" : "bad";
    setText(byId("connection-text"), state === "live" ? "Connected" : "Connection lost");
    document.body.classList.toggle("is-stale", state !== "live");
    if (state === "live") {
      if (this.wasLost) announce("Connected again");
      this.wasLost = false;
      this.notice("connection", "");
      return;
    }
    if (!this.wasLost) announce("Connection lost, trying again");
    this.wasLost = true;
    this.retryAt = retryAt;
    this.lostAt ??= this.nowUs;
    this.tellRetry();
  }

  tellRetry() {
    if (!this.wasLost) {
      this.lostAt = undefined;
      return;
    }
    const seconds = Math.max(0, Math.ceil((this.retryAt - performance.now()) / 1000));
    const when = seconds > 0 ? `in ${seconds}\u202fs` : "now";
    this.notice("connection", `Connection lost at ${clock(this.lostAt, 0)} UTC, trying again ${when}. Values are the last ones received.`);
  }

  // Texts above the page, by what they are about; "" takes one away.
  notice(about, text) {
    if (text === "") this.notices.delete(about);
    else this.notices.set(about, text);
    setHidden(byId("notice"), this.notices.size === 0);
    setText(byId("notice-text"), [...this.notices.values()].join(" "));
  }

  frame(now) {
    requestAnimationFrame((next) => this.frame(next));
    this.replay.tick(now);
    if (this.isStale || this.replay.isPlaying) {
      this.isStale = false;
      this.map.show(this.model, this.selected);
      this.map.update();
    }
    if (now - this.tablesDrawn < TABLES_MS) return;
    this.tablesDrawn = now;
    this.drawTables();
  }

  drawTables() {
    const { model } = this;
    const source = model.sources.get(this.selected);
    setText(byId("clock"), `${clock(Date.now() * 1000 + this.offsetUs, 0)} UTC`);
    this.tellRetry();
    this.chips.update(model, this.selected, this.wasLost && !this.replay.isActive);
    this.table.update(this.live, this.wasLost);
    this.log.update(this.live, this.tabs.current === "log");
    if (this.tabs.current === "plots") this.plots.update(source, this.nowUs, !this.replay.isActive);
    this.showItems(source);
    if (this.replay.isActive) this.isStale = true;
  }

  showItems(source) {
    if (this.replay.isActive) {
      this.items.show(this.replay.name, this.replay.message);
      return;
    }
    this.askWhole();
    const frameTime = byId("of-frame").checked ? this.video.frameTime : NaN;
    let ofFrame = null;
    if (Number.isFinite(frameTime) && this.items.showsRaw) {
      this.video.say("Raw bytes are those of the last message.");
    } else if (Number.isFinite(frameTime)) {
      ofFrame = source?.messageAt(frameTime) ?? null;
      this.video.tell(ofFrame);
    }
    this.items.show(this.selected, ofFrame === null ? this.whole : this.completed(ofFrame));
  }

  // A message of an event, with the sets that only whole messages have.
  completed(message) {
    if (message.id === this.whole?.id) return this.whole;
    const items = this.dictionary.expand(message.items ?? {});
    const known = new Set(items.map(({ tag }) => tag));
    for (const item of this.whole?.items ?? []) {
      if (Array.isArray(item.value) && !known.has(item.tag)) items.push(item);
    }
    items.sort((a, b) => a.tag - b.tag);
    return { ...message, items };
  }

  // The last message with all items; one question at a time.
  async askWhole() {
    const source = this.live.sources.get(this.selected);
    const newest = source?.message?.id ?? source?.report?.last_id;
    if (this.isAsking || newest === undefined || newest === null || this.whole?.id >= newest || this.feed.state !== "live") return;
    this.isAsking = true;
    const name = this.selected;
    try {
      const message = await get(sourcePath(name, "/last", { raw: 1 }));
      if (name === this.selected) this.whole = message;
    } catch (error) {
      if (error.status !== undefined && error.status !== 404) console.warn(`The last message of ${name} is not readable`, error);
    } finally {
      this.isAsking = false;
    }
  }
}

new Page().start();
