// SPDX-License-Identifier: Apache-2.0
// The connection to the program: requests, and the stream of events, which is opened again whenever it ends.

const SILENCE_MS = 6000;  // statistics come once a second
const LONGEST_PAUSE_MS = 10000;
const ANSWER_MS = 8000;

// Returns the answer as an object. Throws an Error with `status` if there is none.
export async function get(path, signal) {
  const limit = AbortSignal.timeout(ANSWER_MS);
  const response = await fetch(path, { signal: signal ? AbortSignal.any([signal, limit]) : limit });
  if (response.status === 401) {
    location.assign("/login");
  }
  if (!response.ok) {
    const answer = await response.json().catch(() => ({}));
    const error = new Error(answer.error?.text ?? `HTTP status ${response.status}`);
    error.status = response.status;
    throw error;
  }
  return response.json();
}

export function sourcePath(name, rest = "", query = {}) {
  const path = `/api/v1/sources/${encodeURIComponent(name)}${rest}`;
  const words = new URLSearchParams(query).toString();
  return words === "" ? path : `${path}?${words}`;
}

// Events: "state" with {state, retryMs}, and those of the program: hello, message, statistics, log, sensor, bye.
export class Feed {
  constructor(handlers) {
    this.handlers = handlers;
    this.source = null;
    this.pauseMs = 600;
    this.timer = 0;
    this.heard = 0;
    this.state = "";
    setInterval(() => this.watch(), 1000);
    addEventListener("online", () => this.openSoon(0));
  }

  // Asks a first question before each new attempt, because an EventSource does not tell that a token is wanted.
  async openAgain() {
    try {
      await get("/api/v1/info");
    } catch {
      this.openSoon(this.nextPause());
      return;
    }
    this.open();
  }

  nextPause() {
    this.pauseMs = Math.min(LONGEST_PAUSE_MS, this.pauseMs * 1.6);
    return this.pauseMs;
  }

  open() {
    clearTimeout(this.timer);
    this.close();
    this.heard = performance.now();
    this.source = new EventSource("/api/v1/events?kind=message,statistics,log,sensor&items=compact");
    this.source.addEventListener("error", () => this.lost());
    for (const kind of ["hello", "message", "statistics", "log", "sensor", "bye"]) {
      this.source.addEventListener(kind, (event) => this.hear(kind, event));
    }
  }

  hear(kind, event) {
    this.heard = performance.now();
    this.pauseMs = 600;
    let data;
    try {
      data = JSON.parse(event.data);
    } catch (error) {
      console.warn(`An event of kind ${kind} is not JSON`, error);
      return;
    }
    if (kind === "hello") this.tell("live");
    this.handlers[kind]?.(data);
  }

  close() {
    this.source?.close();
    this.source = null;
  }

  // Own attempts instead of those of EventSource: it gives up for good after some answers.
  lost() {
    if (this.source === null) return;
    this.close();
    this.openSoon(this.nextPause());
  }

  openSoon(delayMs) {
    if (this.source !== null) return;
    clearTimeout(this.timer);
    this.tell("lost", performance.now() + delayMs);
    this.timer = setTimeout(() => this.openAgain(), delayMs);
  }

  watch() {
    if (this.source !== null && performance.now() - this.heard > SILENCE_MS) this.lost();
  }

  tell(state, retryAt = 0) {
    this.state = state;
    this.handlers.state?.({ state, retryAt });
  }
}
