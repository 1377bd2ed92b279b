#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests eight relays to eight receivers, each in its own network namespace behind a bridge."""
import json
import os
import pathlib
import subprocess
import sys

import harness
from harness import EndToEndTest, source

HERE = pathlib.Path(__file__).parent
PORT = 15631
# Each row holds an address, the keys of the relay, and the (TTL, TOS) expected while the source has (17, 0x28) and
# while it has (33, 0x48). None stands for the system's default.
RELAYS = [
    ("10.77.0.11", "ttl=follow tos=follow", (17, 0x28), (33, 0x48)),
    ("10.77.0.12", "ttl=9 tos=0x20", (9, 0x20), (9, 0x20)),
    ("239.77.0.13", "ttl=follow tos=follow", (17, 0x28), (33, 0x48)),
    ("239.77.0.14", "ttl=5 tos=0x40", (5, 0x40), (5, 0x40)),
    ("fd77::15", "ttl=7 tos=0x60", (7, 0x60), (7, 0x60)),
    ("fd77::16", "", (None, 0), (None, 0)),
    ("ff15::77:17", "ttl=6 tos=0x80", (6, 0x80), (6, 0x80)),
    ("10.77.0.18", "ttl=follow tos=0x88", (17, 0x88), (33, 0x88)),
]


def run(*command):
    subprocess.run(command, check=True, capture_output=True)


class Namespaces:
    """Creates the encoder's namespace with a bridge called eth0, and one namespace per receiver."""

    def __init__(self):
        self.tag = f"mdr{os.getpid()}"
        self.encoder = f"{self.tag}e"
        self.receivers = [f"{self.tag}r{number}" for number in range(len(RELAYS))]

    def make(self):
        run("ip", "netns", "add", self.encoder)
        inside = ("ip", "-n", self.encoder)
        run(*inside, "link", "set", "lo", "up")
        run(*inside, "link", "add", "eth0", "type", "bridge", "mcast_snooping", "0")
        run(*inside, "link", "set", "eth0", "up")
        run(*inside, "addr", "add", "10.77.0.1/24", "dev", "eth0")
        run(*inside, "addr", "add", "fd77::1/64", "dev", "eth0", "nodad")
        run(*inside, "route", "add", "224.0.0.0/4", "dev", "eth0")
        for number, name in enumerate(self.receivers):
            run("ip", "netns", "add", name)
            run(*inside, "link", "add", f"port{number}", "type", "veth", "peer", "name", "eth0", "netns", name)
            run(*inside, "link", "set", f"port{number}", "master", "eth0", "up")
            run("ip", "-n", name, "link", "set", "eth0", "up")
            run("ip", "-n", name, "addr", "add", f"10.77.0.{11 + number}/24", "dev", "eth0")
            run("ip", "-n", name, "addr", "add", f"fd77::{11 + number}/64", "dev", "eth0", "nodad")

    def remove(self):
        for name in [self.encoder, *self.receivers]:
            subprocess.run(["ip", "netns", "del", name], capture_output=True)


def received(log):
    """Returns the number of datagrams that a receiver has written down."""
    return log.read_text().count("\n") - 1  # without "ready"


class Relays(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.spaces = Namespaces()
        self.addCleanup(self.spaces.remove)
        try:
            self.spaces.make()
            self.isolated = True
        except (OSError, subprocess.CalledProcessError) as failure:
            print(f"no network namespaces here ({failure}): relaying on loopback", file=sys.stderr)
            self.spaces.remove()
            self.isolated = False

    def start(self, *command, **more):
        if self.isolated and str(command[0]) == str(harness.options.encoder):
            command = ("ip", "netns", "exec", self.spaces.encoder, *command)
        return super().start(*command, **more)

    def wait_for_port(self):
        inside = ["ip", "netns", "exec", self.spaces.encoder] if self.isolated else []
        self.wait_for(lambda: f":{PORT:04X} " in subprocess.run([*inside, "cat", "/proc/net/udp"], capture_output=True,
                                                                text=True).stdout, "the encoder's port")

    def receiver(self, number, address):
        log = self.folder / f"receiver{number}.jsonl"
        inside = ["ip", "netns", "exec", self.spaces.receivers[number]] if self.isolated else []
        interface = "eth0" if self.isolated else "lo"
        self.start(*inside, sys.executable, HERE / "receiver.py", address, str(7001 + number), interface,
                   stdout=self.output(log.name))
        self.wait_for(lambda: "ready" in log.read_text(), f"receiver {number}")
        return log

    def feed_inside(self, *arguments):
        inside = ["ip", "netns", "exec", self.spaces.encoder] if self.isolated else []
        subprocess.run([*inside, harness.options.feed, "klv", "--simulate", "--udp", f"127.0.0.1:{PORT}", *arguments],
                       check=True, capture_output=True, timeout=60)

    def addresses(self):
        if self.isolated:
            return [address for address, *_ in RELAYS]
        return ["::1" if ":" in address else "127.0.0.1" for address, *_ in RELAYS]

    def test_each_receiver_gets_each_datagram_once_with_its_ttl_and_tos(self):
        addresses = self.addresses()
        logs = [self.receiver(number, address) for number, address in enumerate(addresses)]
        config = f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nmission_id = HIDDEN\n"
        for number, (address, (_, keys, _, _)) in enumerate(zip(addresses, RELAYS)):
            host = f"[{address}]" if ":" in address else address
            config += f"relay{number + 1} = {host}:{7001 + number} {keys}\n"
        self.encoder(config)
        self.wait_for_port()
        self.feed_inside("--count", "20", "--rate", "100", "--ttl", "17", "--tos", "0x28")
        self.settle("udp", 20)
        self.feed_inside("--count", "20", "--rate", "100", "--ttl", "33", "--tos", "0x48")
        self.settle("udp", 40)
        self.wait_for(lambda: all(received(log) == 40 for log in logs), "the relayed datagrams")
        summary = self.stop()
        for number, (log, (_, _, first, second)) in enumerate(zip(logs, RELAYS)):
            got = [json.loads(line) for line in log.read_text().splitlines()][1:]
            self.assertEqual(len(got), 40, f"receiver {number}")
            for half, (ttl, tos) in ((got[:20], first), (got[20:], second)):
                for datagram in half:
                    self.assertEqual(datagram["tos"], tos, f"receiver {number}")
                    if ttl is not None:
                        self.assertEqual(datagram["ttl"], ttl, f"receiver {number}")
        relays = source(summary, "udp")["statistics"]["relays"]
        self.assertEqual([entry["messages"] for entry in relays], [40] * 8)
        self.assertEqual([entry["errors"] for entry in relays], [0] * 8)

    def test_relays_follow_after_a_restart_with_kept_statistics(self):
        address = self.addresses()[0]
        log = self.receiver(0, address)
        for run in (1, 2):
            (self.folder / "messages.jsonl").unlink(missing_ok=True)
            self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\n"
                         f"relay1 = {address}:7001 ttl=follow tos=follow\n",
                         arguments=["--stats-file", self.folder / "statistics.json"])
            self.wait_for_port()
            self.feed_inside("--count", "10", "--rate", "100", "--ttl", "17", "--tos", "0x28")
            self.settle("udp", 10)
            self.wait_for(lambda: received(log) == 10 * run, "the relayed datagrams")
            statistics = source(self.stop(), "udp")["statistics"]
            self.assertEqual(statistics["relays"][0]["messages"], 10 * run, "loaded and counted on")
            self.assertEqual((statistics["ttl"]["value"], statistics["tos"]["value"]), (17, 0x28))
        got = [json.loads(line) for line in log.read_text().splitlines()][1:]
        self.assertEqual([(datagram["ttl"], datagram["tos"]) for datagram in got], [(17, 0x28)] * 20)

    def test_a_closed_port_and_a_missing_route_disturb_no_other_relay(self):
        log = self.receiver(0, self.addresses()[0])
        address = self.addresses()[0]
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nrelay1 = 127.0.0.1:7999\n"
                     f"relay2 = {address}:7001\n")
        self.wait_for_port()
        self.feed_inside("--count", "30", "--rate", "100")
        self.settle("udp", 30)
        self.wait_for(lambda: received(log) == 30, "the relayed datagrams")
        summary = self.stop()
        closed, good = source(summary, "udp")["statistics"]["relays"][:2]
        self.assertGreater(closed["errors"], 0)
        self.assertEqual((good["messages"], good["errors"]), (30, 0))

    def test_a_network_that_goes_away_and_comes_back_costs_only_what_was_sent_meanwhile(self):
        if not self.isolated:
            print("without namespaces no network can be taken away: left out", file=sys.stderr)
            return
        inside = ("ip", "-n", self.spaces.encoder)
        log = self.receiver(0, RELAYS[0][0])
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nrelay1 = {RELAYS[0][0]}:7001\n"
                     "relay2 = 127.0.0.1:7998\n")
        self.wait_for_port()
        self.feed_inside("--count", "10", "--rate", "100")
        self.settle("udp", 10)
        run(*inside, "link", "set", "eth0", "down")
        self.feed_inside("--count", "10", "--rate", "100")
        self.settle("udp", 20)
        run(*inside, "link", "set", "eth0", "up")
        self.feed_inside("--count", "10", "--rate", "100")
        self.settle("udp", 30)
        self.wait_for(lambda: received(log) >= 10, "the relayed datagrams")
        summary = self.stop()
        relay = source(summary, "udp")["statistics"]["relays"][0]
        self.assertEqual(relay["messages"] + relay["errors"], 30)
        self.assertGreaterEqual(relay["errors"], 10)
        failures = [line for line in (self.folder / "host.log").read_text().splitlines()
                    if "Failed to relay" in line and "relay#1/" in line]
        self.assertEqual(len(failures), 1)


harness.main()
