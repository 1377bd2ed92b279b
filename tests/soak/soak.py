#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs mdencoder with twelve sources under traffic and faults, and accounts for every message (scripts/soak).

It needs a network and a mount namespace of its own, which scripts/soak makes.
"""
import argparse
import json
import pathlib
import random
import shutil
import signal
import statistics
import subprocess
import sys
import time

import faults
import ledger
import plant
import traffic

RATES = {"u4": 50, "u6": 40, "group": 40, "wire": 40, "cot4": 20, "cot6": 20, "serial": 30, "anc": 25, "local": 30,
         "local2": 30}
ROUND = 360  # seconds in which each fault comes once


class Run:
    def __init__(self, options):
        self.seed = options.seed
        self.seconds = options.minutes * 60
        self.is_quick = options.minutes < 10
        self.interval = 1 if self.is_quick else 2
        self.choose = random.Random(self.seed)
        self.problems = []
        self.spans = []
        self.usage = []
        self.threads = []
        self.sample_every = min(60, self.seconds / 20)
        self.next_sample = 0
        self.out = options.out
        self.streams = {name: ledger.Stream(name) for name in plant.NAMES}
        self.streams["copy"] = self.streams["u4"].__class__("copy")
        self.begin = time.monotonic()

    def complain(self, text):
        print(f"problem: {text}", flush=True)
        self.problems.append(text)

    def between(self, least, most):
        """Returns a duration; short runs have short ones."""
        share = 0.15 if self.is_quick else 1
        return least + (most - least) * share * self.choose.random()

    # --- Begin ---------------------------------------------------------------------------------------

    def set_up(self, options):
        shutil.rmtree(self.out, ignore_errors=True)
        self.out.mkdir(parents=True)
        self.folders = plant.Folders(self.out)
        subprocess.run([options.feed, "ts", "--output", self.out / "flight.ts", "--duration", str(plant.MEDIA_SECONDS),
                        "--rate", str(plant.MEDIA_RATE), "--start", plant.MEDIA_START], check=True, capture_output=True)
        plant.batch(None, "link set lo up")
        self.far = plant.Far()
        plant.plug()
        self.collectors = traffic.Collectors()
        for name, port in plant.COLLECTORS.items():
            if name != "wire":
                self.collectors.add(name, ("::1" if name == "u6" else "127.0.0.1", port))
        self.senders = {"serial": traffic.Serial(self.streams["serial"], RATES["serial"], self.out / "serial")}
        self.far.make([self.make_far])
        self.make_near()
        self.encoder = plant.Encoder(self.folders, {"encoder": options.encoder, "library": options.library},
                                     self.interval)
        faults.wait_for(self, self.encoder.ready, "the sources to be open")
        faults.wait_for(self, self.senders["serial"].is_open, "the serial line to be open")
        self.make_local()
        self.counters = plant.Counters(self.folders, self.far)
        self.recordings = plant.Recordings(self.folders, self.streams)
        time.sleep(1)
        self.traffic = traffic.Traffic(list(self.senders.values()))
        self.threads = [self.collectors, self.counters, self.recordings, self.traffic]
        for one in self.threads:
            one.thread.start()

    def udp(self, name, address, make):
        self.senders[name] = traffic.Datagrams(self.streams[name], RATES[name], (address, plant.PORTS[name]), make)

    def make_far(self):
        self.udp("group", plant.GROUP, lambda number: (traffic.klv(number),))
        self.udp("wire", plant.NEAR, lambda number: (traffic.klv(number),))
        self.collectors.add("wire", (plant.FAR, plant.COLLECTORS["wire"]))

    def make_near(self):
        self.udp("u4", "127.0.0.1", lambda number: (traffic.klv(number),))
        self.udp("u6", "::1", lambda number: (traffic.klv(number, b"SOAK" * 10),))
        self.udp("cot4", "127.0.0.1", traffic.events)
        self.udp("cot6", "::1", traffic.events)
        self.udp("anc", "127.0.0.1", lambda number: (traffic.ancillary(traffic.klv(number), number),))

    def make_local(self):
        for name, path, retries in (("local", "c2", False), ("local2", "c3", True)):
            self.senders[name] = traffic.Local(self.streams[name], RATES[name], self.out / path, retries)
        # Every second time stamp is left out.
        kept = self.streams["local2"]
        kept.optional = lambda number: number % 2 != kept.latest % 2
        # What reaches the copy is what was sent to the source that relays to it.
        self.streams["copy"].times = self.streams["u4"].times

    # --- Faults --------------------------------------------------------------------------------------

    def schedule(self):
        """Returns (time, fault): every fault once in each round, in an order and at times that the seed gives."""
        rounds = max(1, round((self.seconds - 20) / ROUND))
        length = (self.seconds - 20) / rounds
        plan = []
        for number in range(rounds):
            order = list(faults.ALL)
            self.choose.shuffle(order)
            for index, fault in enumerate(order):
                slot = length / len(order)
                plan.append((number * length + index * slot + 0.3 * slot * self.choose.random(), fault))
        return plan

    def idle_until(self, moment):
        while True:
            now = time.monotonic() - self.begin
            if now >= self.next_sample:
                self.usage.append({"s": round(now), **self.encoder.usage()})
                self.next_sample = now + self.sample_every
            self.check_alive()
            if now >= moment:
                return
            time.sleep(min(0.5, moment - now))

    def check_alive(self):
        for one in self.threads:
            if getattr(one, "error", None):
                raise one.error
        if self.encoder.process.poll() is not None:
            raise faults.Timeout(f"mdencoder ended with {self.encoder.process.returncode}")

    def settle(self):
        """Waits until nothing of what came before is under way."""
        time.sleep(0.5)
        faults.wait_for(self, lambda: not any(unread for port, sockets in plant.udp_table("self").items()
                                              for _, unread, _ in sockets), "empty sockets")
        # Two lines of statistics later: the lesser one counts (ledger.Series).
        moment = time.time() + 0.3 + self.interval
        faults.wait_for(self, lambda: self.counters.latest_time > moment, "statistics")
        faults.wait_for(self, self.all_open, "all sources to be open")
        time.sleep(0.5)

    def all_open(self):
        return all(self.counters.latest.get(name, {}).get("state") == "open" for name in self.streams)

    def next_span(self, fault=None):
        now = time.time()
        if self.spans:
            self.spans[-1].end = now
        self.spans.append(ledger.Span(now, fault))
        return self.spans[-1]

    def run(self):
        self.begin = time.monotonic()
        self.next_span()
        for moment, fault in self.schedule():
            self.idle_until(moment)
            span = self.next_span(faults.title(fault))
            print(f"{time.monotonic() - self.begin:7.1f} s  {span.fault}", flush=True)
            fault(self, span)
            self.settle()
            self.next_span()
        self.idle_until(self.seconds - 10)

    # --- End -----------------------------------------------------------------------------------------

    def end(self):
        """Ends the run as a service manager does, when everything that was sent has arrived."""
        self.traffic.stop()
        self.settle()
        begin = time.monotonic()
        self.encoder.signal(signal.SIGTERM)
        self.code = self.encoder.process.wait(timeout=20)
        self.ending = time.monotonic() - begin
        for one in (self.counters, self.recordings, self.collectors):
            one.stopping.set()
            one.thread.join()
        self.encoder.reader.join()
        self.recordings.poll(final=True)
        self.summary = json.loads((self.out / "summary.json").read_text())
        self.counters.add(time.time(), self.summary["sources"])
        self.next_span()
        self.spans.pop()

    def rules(self, name):
        """Returns the causes that have counters: (cause, counter, messages for one)."""
        if name.startswith("cot"):  # a lost event costs its pair, and leaves its partner over
            return [("kernel", (name, "kernel"), 0.5), ("kernel", (name, "orphans"), 0.5),
                    ("queue", (name, "queue"), 1), ("disk", (name, "disk"), 1)]
        rules = [(cause, (name, cause), 1) for cause in ("kernel", "queue", "disk")]
        if name == "copy":
            rules += [("source", ("u4", "kernel"), 1), ("source", ("u4", f"relay 127.0.0.1:{plant.PORTS['copy']}"), 1)]
        return rules

    def account(self):
        both = plant.Both(self.counters)
        self.causes = {name: {} for name in self.streams}
        for span in self.spans:
            span.causes = {}
            for name, stream in self.streams.items():
                causes = ledger.account(stream, self.rules(name), span, both)
                if causes:
                    span.causes[name] = causes
                for cause, amount in causes.items():
                    self.causes[name][cause] = self.causes[name].get(cause, 0) + amount
                if causes.get("unaccounted"):
                    self.complain(f"{name}: {causes['unaccounted']:g} messages unaccounted for in {span.name()} at "
                                  f"{span.begin - self.spans[0].begin:.1f} s ({causes})")
            for key in span.expected:
                if not ledger.counted(both, key, span):
                    self.complain(f"{span.name()} had no effect: {key[0]} lost nothing by {key[1]}")

    def check_sources(self):
        for name, stream in self.streams.items():
            entry = next(one for one in self.summary["sources"] if one["name"] == name)
            for problem in stream.problems:
                self.complain(f"{name}: {problem}")
            if entry["recording"]["messages"] != stream.recorded:
                self.complain(f"{name}: {stream.recorded} messages in the files, {entry['recording']['messages']} in "
                              "the summary")
            if entry["recording"]["messages"] + entry["recording"]["lost"] != entry["messages"]:
                self.complain(f"{name}: recorded and lost messages are not all")
            if entry["state"] != "open":
                self.complain(f"{name}: is {entry['state']} at the end")
            if stream.damaged_sent != stream.damaged_recorded + entry["corrupt"] and name in ("group", "u6"):
                self.complain(f"{name}: of {stream.damaged_sent} damaged messages {stream.damaged_recorded} are "
                              f"recorded and {entry['corrupt']} counted as corrupt")
        self.check_relays()

    def check_relays(self):
        for name in plant.COLLECTORS:
            entry = next(one for one in self.summary["sources"] if one["name"] == name)
            relay = entry["statistics"]["relays"][-1]
            arrived = self.collectors.counts[name]
            dropped = self.counters.kernel.at(time.time(), (name, "collector"))
            self.causes[name]["relayed"] = relay["messages"]
            self.causes[name]["copies"] = arrived
            if name == "wire":
                if arrived + dropped > relay["messages"]:
                    self.complain(f"{name}: {relay['messages']} messages relayed, {arrived} copies")
            elif relay["messages"] != arrived + dropped:
                self.complain(f"{name}: {relay['messages']} messages relayed, {arrived} copies and {dropped} drops")

    def check_run(self):
        lacking = sum(one["dropped"] + one.get("recording", {}).get("lost", 0) for one in self.summary["sources"])
        if self.code != (1 if lacking else 0):
            self.complain(f"exit code {self.code} with {lacking} lost messages")
        if self.ending > 2.5:
            self.complain(f"the end took {self.ending:.1f} s")
        delivered = sum(one["messages"] for one in self.summary["sources"])
        if self.encoder.rows + self.summary["rows_dropped"] != delivered:
            self.complain(f"{delivered} messages, but {self.encoder.rows} rows and {self.summary['rows_dropped']} "
                          "dropped ones")
        log = "".join(path.read_text(errors="replace") for path in sorted(self.out.glob("host.log*")))
        if "ASSERT" in log:
            self.complain("an assertion failed, see host.log")

    def check_growth(self):
        """Compares the first samples after a warm-up with the last ones."""
        warm = [one for one in self.usage if one["s"] >= min(self.seconds / 2, 1.2 * ROUND)]
        third = max(1, len(warm) // 3)
        self.growth = {}
        for key, allowed in (("rss_kb", 16384 if self.is_quick else 4096), ("descriptors", 2), ("threads", 0)):
            first = statistics.median(one[key] for one in warm[:third])
            last = statistics.median(one[key] for one in warm[-third:])
            self.growth[key] = {"after_warm_up": first, "at_end": last}
            if last - first > allowed:
                self.complain(f"{key} grew from {first:g} to {last:g}")

    # --- Report --------------------------------------------------------------------------------------

    def report(self):
        events = {}
        for span in self.spans:
            if span.fault:
                event = events.setdefault(span.fault, {"times": 0, "lost": {}})
                event["times"] += 1
                for causes in span.causes.values():
                    for cause, amount in causes.items():
                        event["lost"][cause] = event["lost"].get(cause, 0) + amount
                for key, value in span.notes.items():
                    event[key] = max(event.get(key, 0), value)
        sources = {}
        for name, stream in self.streams.items():
            optional = sum(1 for number in range(len(stream.times)) if stream.optional and stream.optional(number) and
                           not stream.has(number))
            sources[name] = {"sent": stream.sent(), "refused": stream.refused, "recorded": stream.recorded,
                             "left_out": optional, "damaged": stream.damaged_sent, **self.causes[name]}
        return {"seed": self.seed, "minutes": self.seconds / 60, "passed": not self.problems, "problems": self.problems,
                "exit_code": self.code, "ending_s": round(self.ending, 2), "rows": self.encoder.rows,
                "rows_dropped": self.summary["rows_dropped"], "cpu_s": self.usage[-1]["cpu_s"], "growth": self.growth,
                "sources": sources, "faults": events, "usage": self.usage,
                "events": [{"s": round(span.begin - self.spans[0].begin, 1), "fault": span.name(), "lost": span.causes,
                            **span.notes} for span in self.spans if span.fault or span.causes]}


def print_table(report):
    causes = ("kernel", "queue", "disk", "source", "interface away", "line closed", "device babbled", "unaccounted")
    print(f"\n{'source':8} {'sent':>9} {'refused':>8} {'recorded':>9} {'left out':>8} " +
          " ".join(f"{cause:>9.9}" for cause in causes))
    for name, one in report["sources"].items():
        print(f"{name:8} {one['sent']:9} {one['refused']:8} {one['recorded']:9} {one['left_out']:8} " +
              " ".join(f"{one.get(cause, 0):9g}" for cause in causes))
    print(f"\n{'fault':26} {'times':>6}  what it cost")
    for name, one in report["faults"].items():
        lost = ", ".join(f"{cause} {amount:g}" for cause, amount in one["lost"].items() if amount)
        print(f"{name:26} {one['times']:6}  {lost or 'nothing'}")
    growth = "; ".join(f"{key} {one['after_warm_up']:g} -> {one['at_end']:g}" for key, one in report["growth"].items())
    print(f"\n{growth}; processor time {report['cpu_s']:.0f} s; rows {report['rows']}, dropped "
          f"{report['rows_dropped']}; end in {report['ending_s']} s; seed {report['seed']}")
    for problem in report["problems"]:
        print(f"problem: {problem}")
    print("every message is accounted for" if report["passed"] else "FAILED")


def main():
    parser = argparse.ArgumentParser()
    for name in ("--encoder", "--feed", "--library", "--out"):
        parser.add_argument(name, required=True, type=pathlib.Path)
    parser.add_argument("--minutes", type=float, default=120)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1000000))
    options = parser.parse_args()
    print(f"{options.minutes:g} minutes, seed {options.seed}", flush=True)
    run = Run(options)
    try:
        run.set_up(options)
        run.run()
        run.end()
        run.account()
        run.check_sources()
        run.check_run()
        run.check_growth()
    finally:
        for one in getattr(run, "threads", ()):
            one.stopping.set()
        if hasattr(run, "encoder"):
            run.encoder.reading.set()
            if run.encoder.process.poll() is None:
                run.encoder.process.kill()
    report = run.report()
    (options.out / "report.json").write_text(json.dumps(report, indent=1) + "\n")
    print_table(report)
    return 0 if report["passed"] else 1


if __name__ == "__main__":
    sys.exit(main())
