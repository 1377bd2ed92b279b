// SPDX-License-Identifier: Apache-2.0
// Requests, and the stream of events that is opened again whenever it ends.
import assert from "node:assert/strict";
import { beforeEach, test } from "node:test";
import { answers, asked, clock, Element, part, settle } from "./fake_browser.mjs";

const { Feed, get, sourcePath } = await part("feed");

class FakeSource extends Element {
  static made = [];
  constructor(address) {
    super("source");
    this.address = address;
    this.isClosed = false;
    FakeSource.made.push(this);
  }

  close() {
    this.isClosed = true;
  }
}
globalThis.EventSource = FakeSource;
const visits = [];
globalThis.location = { assign: (address) => visits.push(address) };

beforeEach(() => {
  clock.timers.clear();
  document.body.listeners.clear();
  FakeSource.made.length = asked.length = visits.length = 0;
  answers.clear();
  answers.set("/api/v1/info", () => ({}));
});

// A feed that is open, with what it told.
function open(more = {}) {
  const told = [];
  const feed = new Feed({ state: (change) => told.push(change), ...more });
  feed.open();
  return { feed, told, source: FakeSource.made[0] };
}

test("an answer is an object, and a refusal an error with its text", async () => {
  answers.set("/x", () => ({ a: 1 }));
  assert.deepEqual(await get("/x"), { a: 1 });
  await assert.rejects(get("/none"), { message: "no /none", status: 404 });
  answers.set("/bad", () => 500);
  await assert.rejects(get("/bad"), { message: "HTTP status 500", status: 500 });
  assert.deepEqual(visits, []);
});

test("without a token the page goes to the form for it", async () => {
  answers.set("/secret", () => 401);
  await assert.rejects(get("/secret"), { status: 401 });
  assert.deepEqual(visits, ["/login"]);
});

test("a question can be given up", async () => {
  const giving = new AbortController();
  giving.abort();
  answers.set("/x", () => ({}));
  await assert.rejects(get("/x", giving.signal));
});

test("paths of sources are spelled as an address has them", () => {
  assert.equal(sourcePath("a b/ä"), "/api/v1/sources/a%20b%2F%C3%A4");
  assert.equal(sourcePath("a", "/last", { raw: 1, item: "x&y" }), "/api/v1/sources/a/last?raw=1&item=x%26y");
});

test("events come to their handlers", () => {
  const heard = [];
  const { told, source } = open(Object.fromEntries(["hello", "message", "statistics", "log", "sensor"].map((kind) => [kind,
    (data) => heard.push([kind, data])])));
  assert.match(source.address, /^\/api\/v1\/events\?kind=message,statistics,log,sensor&items=compact$/);
  for (const kind of ["hello", "message", "statistics", "log", "sensor", "bye"]) source.fire(kind, { data: JSON.stringify({ kind }) });
  assert.deepEqual(heard.map(([kind, data]) => [kind, data.kind]), ["hello", "message", "statistics", "log",
    "sensor"].map((kind) => [kind, kind]));
  assert.deepEqual(told, [{ state: "live", retryAt: 0 }]);
});

test("an event that is not JSON is said, and disturbs nobody", (context) => {
  const heard = [];
  const { source } = open({ message: (data) => heard.push(data) });
  const { warn } = console;
  const said = [];
  console.warn = (text) => said.push(text);
  source.fire("message", { data: "{" });
  console.warn = warn;
  source.fire("message", { data: "1" });
  assert.deepEqual(said, ["An event of kind message is not JSON"]);
  assert.deepEqual(heard, [1]);
  assert.ok(context);
});

test("a lost connection is tried again, each time after a longer pause", async () => {
  const { feed, told, source } = open();
  answers.clear();
  source.fire("error");
  assert.ok(source.isClosed);
  assert.deepEqual(told.map(({ state, retryAt }) => [state, Math.round(retryAt - clock.now)]), [["lost", 960]]);
  source.fire("error");
  assert.equal(told.length, 1, "an error of what is closed is none");
  const pauses = [];
  for (let i = 0; i < 8; ++i) {
    clock.pass(told[told.length - 1].retryAt - clock.now);
    await settle();
    pauses.push(Math.round(told[told.length - 1].retryAt - clock.now));
  }
  assert.deepEqual(pauses, [1536, 2458, 3932, 6291, 10000, 10000, 10000, 10000]);
  assert.equal(FakeSource.made.length, 1, "as long as there is no answer");
  answers.set("/api/v1/info", () => ({}));
  clock.pass(10000);
  await settle();
  assert.equal(FakeSource.made.length, 2);
  assert.equal(feed.state, "lost");
  FakeSource.made[1].fire("hello", { data: "{}" });
  assert.equal(feed.state, "live");
  FakeSource.made[1].fire("error");
  assert.equal(Math.round(told[told.length - 1].retryAt - clock.now), 960, "the pause is short again");
});

test("a connection that says nothing for six seconds is lost", () => {
  const { source, told } = open();
  clock.pass(5000);
  source.fire("statistics", { data: "{}" });
  clock.pass(6000);
  assert.deepEqual(told, []);
  clock.pass(1000);
  assert.equal(told.length, 1);
  assert.ok(source.isClosed);
  clock.pass(500);
  assert.equal(told.length, 1);
});

test("a network that comes back is tried at once", async () => {
  const { source } = open();
  document.body.fire("online");
  clock.pass(0);
  await settle();
  assert.equal(FakeSource.made.length, 1, "it is connected");
  source.fire("error");
  document.body.fire("online");
  clock.pass(0);
  await settle();
  assert.equal(FakeSource.made.length, 2);
  clock.pass(960);
  await settle();
  assert.equal(FakeSource.made.length, 2, "no second attempt is on its way");
});
