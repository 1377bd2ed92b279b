#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tests eight relays to eight receivers, each in its own network namespace behind a bridge, and relays to names."""
import json
import os
import pathlib
import socket
import struct
import subprocess
import sys

import harness
from harness import EndToEndTest, message, send, source

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


class Names(EndToEndTest):
    """The encoder has a file of host names of its own in place of /etc/hosts."""

    def start(self, *command, **more):
        if str(command[0]) == str(harness.options.encoder):
            command = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0" /etc/hosts && exec "$@"', self.hosts, *command)
        return super().start(*command, **more)

    def setUp(self):
        super().setUp()
        self.hosts = self.folder / "hosts"
        self.hosts.write_text("127.0.0.1 localhost\n")

    def name(self, address):
        self.hosts.write_text(f"127.0.0.1 localhost\n{address} map.test\n")

    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def listen(self, address, port=7301):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        receiver.bind((address, port))
        receiver.setblocking(False)
        return receiver

    def relayed(self, receiver):
        """Sends a message to the source, and returns whether a copy of one has come to the receiver."""
        send(PORT, message((2, bytes(8))))
        try:
            return bool(receiver.recv(2000))
        except BlockingIOError:
            return False

    def test_a_relay_goes_where_the_name_of_its_host_leads(self):
        self.name("127.0.0.2")
        receiver = self.listen("127.0.0.2")
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nrelay1 = map.test:7301 ttl=follow\n", [PORT])
        self.wait_for(lambda: self.relayed(receiver), "a copy")
        receiver.close()
        self.name("127.0.0.3")
        receiver = self.listen("127.0.0.3")
        self.wait_for(lambda: self.relayed(receiver), "a copy at the new address", 60)
        line = "source udp relays to map.test:7301 at 127.0.0.3 from now on\n"
        self.wait_for(lambda: line in self.errors(), "the line")
        summary = source(self.stop(), "udp")
        (relay,) = summary["statistics"]["relays"]
        self.assertEqual((relay["destination"], relay["address"]), ("map.test:7301", "127.0.0.3"))
        self.assertEqual(summary["reopened"], 1)
        self.assertGreaterEqual(relay["messages"], 2)
        self.assertGreaterEqual(relay["errors"], 1)

    def test_a_source_waits_for_the_address_of_its_relay(self):
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nrelay1 = map.test:7301\n"
                     f"[other]\ninput = udp\nport = {PORT + 1}\n", [PORT + 1])
        self.wait_for(lambda: "source udp waits: the address of map.test cannot be found" in self.errors(), "the line", 60)
        receiver = self.listen("127.0.0.2")
        self.name("127.0.0.2")
        self.wait_for(lambda: harness.udp_port_open(PORT), "the port", 60)
        self.wait_for(lambda: self.relayed(receiver), "a copy")
        self.stop()
        self.assertIn("source udp is open after", self.errors())

    def test_a_name_of_this_machine_does_not_lead_back(self):
        self.name("127.0.0.1")
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nrelay1 = map.test:{PORT}\n")
        self.wait_for(lambda: "source udp waits: [udp] relay1 must be a destination that does not lead back"
                      in self.errors(), "the line")
        self.stop()

    def test_a_link_local_destination_on_a_chosen_interface(self):
        """What is relayed over one end of a cable comes out at the other."""
        try:
            run("ip", "link", "add", "cam0", "type", "veth", "peer", "name", "cam1")
        except (OSError, subprocess.CalledProcessError) as failure:
            print(f"no virtual cable here ({failure}): left out", file=sys.stderr)
            return
        self.addCleanup(lambda: run("ip", "link", "del", "cam0"))
        for end in ("cam0", "cam1"):
            run("ip", "addr", "add", f"fe80::{end[-1]}/64", "dev", end, "nodad")
            run("ip", "link", "set", end, "up")
        receiver = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        group = socket.inet_pton(socket.AF_INET6, "ff12::77:1") + struct.pack("@I", socket.if_nametoindex("cam1"))
        receiver.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, group)
        receiver.bind(("::", 7302))
        receiver.setblocking(False)
        self.encoder(f"[udp]\ninput = udp\nport = {PORT}\nfamily = ipv4\nrelay1 = [ff12::77:1%cam0]:7302\n", [PORT])
        self.wait_for(lambda: self.relayed(receiver), "a copy")
        summary = source(self.stop(), "udp")
        self.assertEqual(summary["statistics"]["relays"][0]["errors"], 0)


harness.main()
