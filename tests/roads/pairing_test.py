#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Loses one event of simulated flights at 1, 2, 5 and 10 pairs a second: with the default delta no other pair suffers, and
pairs whose times differ are counted."""
import re
import socket
import threading

import harness
from harness import EndToEndTest, source

# Pairs a second, pairs, and the port on which the splitter receives this flight.
FLIGHTS = [(1, 6, 15701), (2, 9, 15702), (5, 15, 15703), (10, 25, 15704)]
LOST = 2  # the pair that loses an event
JITTER = 40


class Splitter:
    """Passes the events of a flight on to several ports, each of which may lose one of them."""

    def __init__(self, port, sinks):
        self.sinks = sinks  # (port, "aircraft", "sensor" or None)
        self.times = {"aircraft": [], "sensor": []}
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", port))
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            event = self.socket.recv(65536)
            if event == b"end":
                return
            kind = "aircraft" if b'type="a-f-A' in event[:200] else "sensor"
            number = len(self.times[kind])
            hour, minute, second = re.search(rb'time="[^T]*T(\d+):(\d+):([\d.]+)Z"', event).groups()
            self.times[kind].append(round(1000 * (3600 * int(hour) + 60 * int(minute) + float(second))))
            for port, lost in self.sinks:
                if (kind, number) != (lost, LOST):
                    self.socket.sendto(event, ("127.0.0.1", port))

    def differences(self, without=None):
        pairs = list(zip(self.times["aircraft"], self.times["sensor"]))
        return [abs(one - other) for number, (one, other) in enumerate(pairs) if number != without]

    def close(self):
        self.socket.sendto(b"end", self.socket.getsockname())
        self.thread.join()
        self.socket.close()


class Pairing(EndToEndTest):
    def run_flights(self, sinks):
        """sinks: {rate: [(source, lost event, keys)]}. Returns the summary and the splitters by rate."""
        config, ports, splitters, feeders = "", [], {}, []
        for rate, count, port in FLIGHTS:
            splits = []
            for name, lost, keys in sinks.get(rate, []):
                ports.append(15710 + len(ports))
                splits.append((ports[-1], lost))
                config += f"[{name}]\ninput = udp\nport = {ports[-1]}\nfamily = ipv4\ndata = cot\n{keys}\n"
            if splits:
                splitters[rate] = Splitter(port, splits)
                self.addCleanup(splitters[rate].close)
        self.encoder(config, ports=ports)
        for rate, count, port in FLIGHTS:
            if rate in splitters:
                feeders.append(self.start(harness.options.feed, "cot", "--simulate", "--seed", str(rate), "--rate",
                                          str(rate), "--count", str(count), "--jitter", str(JITTER), "--udp",
                                          f"127.0.0.1:{port}"))
        for feeder in feeders:
            self.assertEqual(feeder.wait(timeout=60), 0)
        for rate, count, _ in FLIGHTS:
            if rate in splitters:
                self.settle(sinks[rate][0][0], count)
        return self.stop(), splitters

    def test_with_the_default_a_lost_event_costs_its_own_pair_only(self):
        sinks = {rate: [(f"whole{rate}", None, ""), (f"aircraft{rate}", "aircraft", ""), (f"sensor{rate}", "sensor", "")]
                 for rate, _, _ in FLIGHTS}
        summary, splitters = self.run_flights(sinks)
        for rate, count, _ in FLIGHTS:
            whole = self.delivered(f"whole{rate}")
            self.assertEqual(len(whole), count)
            rest = whole[:LOST] + whole[LOST + 1:]
            for lost in ("aircraft", "sensor"):
                self.assertEqual(self.delivered(f"{lost}{rate}"), rest, f"{lost} lost at {rate} Hz")
            for name, without in (("whole", None), ("aircraft", LOST), ("sensor", LOST)):
                differences = splitters[rate].differences(without)
                self.assertEqual(source(summary, f"{name}{rate}")["pairs"],
                                 {"times_differ": sum(one > 0 for one in differences),
                                  "largest_difference_ms": max(differences),
                                  "events_without_partner": 0 if without is None else 1}, f"{name} at {rate} Hz")

    def test_a_delta_that_reaches_the_next_pair_shows_in_the_count(self):
        sinks = {2: [("right", None, ""), ("wrong", "aircraft", "cot_delta_ms = 500")]}
        summary, _ = self.run_flights(sinks)
        right, wrong = self.delivered("right"), self.delivered("wrong")
        self.assertEqual(wrong[:LOST], right[:LOST])
        self.assertGreaterEqual(len(wrong), 6)
        self.assertFalse(set(wrong[LOST:]) & set(right), "every later packet is of two pairs")
        pairs = source(summary, "wrong")["pairs"]
        self.assertGreaterEqual(pairs["times_differ"], len(wrong) - LOST)
        self.assertGreater(pairs["largest_difference_ms"], 400)
        table = source(summary, "right")["pairs"]
        self.assertLessEqual(table["largest_difference_ms"], JITTER)


harness.main()
