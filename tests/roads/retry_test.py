#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sources whose port, device, interface or route is not there, goes away and comes back."""
import os
import socket
import struct
import subprocess
import sys
import threading
import time

import harness
from harness import EndToEndTest, message, source
from serial_line import Line

GROUP = "239.77.1.1"


def numbered(number):
    return message((2, struct.pack(">Q", number)))


def section(name, port, more=""):
    return f"[{name}]\ninput = udp\nport = {port}\nfamily = ipv4\n{more}"


def run(*command):
    subprocess.run(command, check=True, capture_output=True)


class RetryTest(EndToEndTest):
    def errors(self):
        path = self.folder / "encoder.err"
        return path.read_text() if path.exists() else ""

    def lines_of(self, name):
        return [line for line in self.errors().splitlines() if f"source {name} " in line]

    def log(self):
        return (self.folder / "host.log").read_text()

    def wait_for_line(self, text, seconds=20):
        self.wait_for(lambda: text in self.errors(), f"the line \"{text}\"", seconds)


class Devices(RetryTest):
    def test_a_device_that_comes_late_is_opened_while_the_others_run(self):
        self.encoder("[serial]\ninput = serial\n" + section("udp", 15801), [15801])
        self.wait_for_line("source serial waits: there is no")
        harness.send(15801, numbered(1))
        self.settle("udp", 1)
        time.sleep(5)
        self.assertEqual(len(self.lines_of("serial")), 1, "not a line for each try")
        self.assertNotIn("Cannot open serial device", self.log())
        line = Line(self.folder / "serial")
        self.addCleanup(line.close)
        self.wait_for_line("source serial is open after")
        line.write(numbered(2))
        self.settle("serial", 1)
        summary = self.stop()
        self.assertEqual(len(self.lines_of("serial")), 2)
        self.assertEqual((source(summary, "serial")["messages"], source(summary, "udp")["messages"]), (1, 1))

    def test_a_device_that_another_process_uses_is_waited_for(self):
        line = Line(self.folder / "serial")
        self.addCleanup(line.close)
        config = "[serial]\ninput = serial\n"
        self.encoder(config)
        self.wait_for(line.is_open, "the device to be open")
        first = self.encoder_process
        self.encoder(config.replace("[serial]", "[second]"))
        self.wait_for_line(f"is in use by process {first.pid}")
        self.assertNotIn("is never shared", self.log())
        first.terminate()
        first.wait()
        self.wait_for_line("source second is open after")
        line.write(numbered(1))
        self.settle("second", 1)
        self.stop()

    def test_without_retry_a_missing_device_ends_the_run(self):
        for config in ("[encoder]\nretry = no\n[serial]\ninput = serial\n", "[serial]\ninput = serial\nretry = no\n"):
            self.encoder(config)
            self.assertEqual(self.encoder_process.wait(timeout=20 * harness.SLOW), 1)
            self.assertIn("mdencoder: source serial cannot be opened", self.errors())

    def test_a_pseudo_terminal_that_is_closed_and_opened_again_costs_no_count(self):
        line = Line(self.folder / "serial")
        self.addCleanup(line.close)
        self.encoder("[serial]\ninput = serial\n" + section("udp", 15802), [15802])
        self.wait_for(line.is_open, "the device to be open")
        for number in range(3):
            line.write(numbered(number))
            self.settle("serial", number + 1)
            line.unplug()
            harness.send(15802, numbered(number))
            time.sleep(0.3)
            line.plug()
            time.sleep(0.8)
        self.settle("udp", 3)
        summary = self.stop()
        self.assertEqual(source(summary, "serial")["statistics"]["rx_ok_messages"], 3)
        self.assertEqual(source(summary, "serial")["sequence_gaps"], 0)

    def test_a_device_that_babbles_disturbs_no_other_source(self):
        line = Line(self.folder / "serial")
        self.addCleanup(line.close)
        self.encoder("[serial]\ninput = serial\nbaud = 4000000\n" + section("udp", 15803), [15803])
        self.wait_for(line.is_open, "the device to be open")
        os.set_blocking(line.far, False)
        stopping = threading.Event()
        # Keys of messages that never come, lengths beyond all limits, and noise.
        noise = (harness.KEY + b"\x84\xff\xff\xff\xff" + os.urandom(97)) * 30

        def babble():
            while not stopping.is_set():
                try:
                    os.write(line.far, noise)
                except BlockingIOError:
                    time.sleep(0.001)
        babbler = threading.Thread(target=babble)
        babbler.start()
        try:
            for number in range(300):
                harness.send(15803, numbered(number))
                time.sleep(0.01)
            self.settle("udp", 300)
        finally:
            stopping.set()
            babbler.join()
        os.set_blocking(line.far, True)
        time.sleep(1.5)
        line.write(b"\xff" * 32)
        line.write(numbered(77))
        self.settle("serial", 1)
        self.assertLess(len(self.log().splitlines()), 2000, "the log is limited")
        summary = self.stop()
        self.assertEqual((source(summary, "udp")["messages"], source(summary, "udp")["sequence_gaps"]), (300, 0))


class Ports(RetryTest):
    def test_a_port_in_use_is_waited_for(self):
        owner = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(owner.close)
        owner.bind(("0.0.0.0", 15804))
        self.encoder(section("late", 15804) + section("udp", 15805), [15805])
        self.wait_for_line("source late waits: UDP port 15804 is in use")
        time.sleep(3)
        owner.close()
        self.wait_for_line("source late is open after")
        harness.send(15804, numbered(1))
        self.settle("late", 1)
        self.stop()
        self.assertEqual(len(self.lines_of("late")), 2)
        self.assertNotIn("cannot bind", self.log())


class Interfaces(RetryTest):
    """The encoder has a network of its own, with a wire to another one that the test replaces."""

    def setUp(self):
        super().setUp()
        self.near = f"mdn{os.getpid()}"
        self.far = f"mdf{os.getpid()}"
        self.addCleanup(self.remove)
        for space in (self.near, self.far):
            run("ip", "netns", "add", space)
            run("ip", "-n", space, "link", "set", "lo", "up")

    def remove(self):
        for space in (self.near, self.far):
            subprocess.run(["ip", "netns", "del", space], capture_output=True)

    def start(self, *command, **more):
        if str(command[0]) == str(harness.options.encoder):
            command = ("ip", "netns", "exec", self.near, *command)
        return super().start(*command, **more)

    def plug(self, address="10.78.0.1", name="eth1"):
        run("ip", "-n", self.near, "link", "add", name, "type", "veth", "peer", "name", "eth1", "netns", self.far)
        run("ip", "-n", self.near, "addr", "add", f"{address}/24", "dev", name)
        run("ip", "-n", self.near, "link", "set", name, "up")
        run("ip", "-n", self.far, "addr", "add", "10.78.0.2/24", "dev", "eth1")
        run("ip", "-n", self.far, "link", "set", "eth1", "up")
        run("ip", "-n", self.far, "route", "add", "224.0.0.0/4", "dev", "eth1")

    def unplug(self, name="eth1"):
        run("ip", "-n", self.near, "link", "del", name)

    def inside(self, space, code):
        return subprocess.run(["ip", "netns", "exec", space, sys.executable, "-c", code], check=True, timeout=60,
                              capture_output=True, text=True).stdout

    def send_from(self, space, address, port, numbers):
        data = [numbered(number) for number in numbers]
        self.inside(space, "import socket, time\ns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                    f"for d in {data!r}:\n  s.sendto(d, ({address!r}, {port}))\n  time.sleep(0.01)\n")

    def port_open(self, port):
        return f":{port:04X} " in subprocess.run(["ip", "netns", "exec", self.near, "cat", "/proc/net/udp"],
                                                 capture_output=True, text=True).stdout

    def joined(self, name):
        """Tells whether an interface of the encoder's network has joined the group."""
        shown = subprocess.run(["ip", "-n", self.near, "maddress", "show", "dev", name], capture_output=True,
                               text=True).stdout
        return GROUP in shown

    def start_encoder(self, config, port, host=""):
        self.encoder(config, host=host)
        self.wait_for(lambda: self.port_open(port), "the port")

    def test_an_interface_that_comes_late_is_waited_for(self):
        config = section("group", 15811, f"address = {GROUP}\n") + section("udp", 15812)
        self.start_encoder(config, 15812, "[network]\nmulticast interface = eth1")
        self.wait_for_line("source group waits: there is no interface eth1")
        self.send_from(self.near, "127.0.0.1", 15812, [1])
        self.settle("udp", 1)
        self.plug()
        self.wait_for_line("source group is open after")
        self.send_from(self.far, GROUP, 15811, range(5))
        self.settle("group", 5)
        self.stop()
        self.assertEqual(len(self.lines_of("group")), 2)
        self.assertNotIn("cannot join the group", self.log())

    def test_a_network_that_comes_late_is_joined_without_a_named_interface(self):
        self.start_encoder(section("group", 15813, f"address = {GROUP}\n"), 15813)
        self.wait_for_line(f"source group waits: no interface has a route to {GROUP}")
        self.plug()
        run("ip", "-n", self.near, "route", "add", "224.0.0.0/4", "dev", "eth1")
        self.wait_for_line("source group is open after")
        self.send_from(self.far, GROUP, 15813, range(5))
        self.settle("group", 5)
        self.stop()

    def test_a_group_is_joined_again_when_its_interface_is_replaced(self):
        self.plug()
        run("ip", "-n", self.near, "route", "add", "224.0.0.0/4", "dev", "eth1")
        config = section("group", 15814, f"address = {GROUP}\n") + section("udp", 15815)
        self.start_encoder(config, 15815)
        self.wait_for(lambda: self.joined("eth1"), "the group")
        self.send_from(self.far, GROUP, 15814, range(5))
        self.settle("group", 5)
        for round in range(2):
            self.unplug()
            if round == 0:
                self.wait_for_line("source group waits: eth1 is gone")
            self.plug()
            run("ip", "-n", self.near, "route", "add", "224.0.0.0/4", "dev", "eth1")
            self.wait_for(lambda: self.joined("eth1"), "the group on the new interface")
            self.send_from(self.near, "127.0.0.1", 15815, [round])
            self.settle("udp", round + 1)
            self.send_from(self.far, GROUP, 15814, range(5))
            self.settle("group", 10 + 5 * round)
        summary = self.stop()
        group = source(summary, "group")
        self.assertEqual(group["statistics"]["rx_ok_messages"], 15, "the library's counts go on")
        self.assertEqual((group["messages"], group["sequence_gaps"]), (15, 0))
        self.assertGreaterEqual(group["reopened"], 2)
        self.assertEqual(source(summary, "udp")["reopened"], 0)

    def test_a_wire_that_is_pulled_is_told_and_costs_no_opening(self):
        self.plug()
        run("ip", "-n", self.near, "route", "add", "224.0.0.0/4", "dev", "eth1")
        self.start_encoder(section("group", 15816, f"address = {GROUP}\n"), 15816)
        self.wait_for(lambda: self.joined("eth1"), "the group")
        run("ip", "-n", self.far, "link", "set", "eth1", "down")
        self.wait_for_line("source group waits: eth1 has no carrier")
        run("ip", "-n", self.far, "link", "set", "eth1", "up")
        self.wait_for_line("source group is open after")
        run("ip", "-n", self.far, "route", "add", "224.0.0.0/4", "dev", "eth1")
        self.send_from(self.far, GROUP, 15816, range(5))
        self.settle("group", 5)
        self.assertEqual(source(self.stop(), "group")["reopened"], 0)

    def test_an_interface_that_flaps_every_second_fills_no_log_and_disturbs_no_other(self):
        self.plug()
        config = (section("group", 15817, f"address = {GROUP}\n") + section("udp", 15818))
        self.start_encoder(config, 15818, "[network]\nmulticast interface = eth1")
        begun = time.monotonic()
        for number in range(12):
            self.unplug()
            self.send_from(self.near, "127.0.0.1", 15818, range(2 * number, 2 * number + 2))
            time.sleep(max(0, begun + number + 0.5 - time.monotonic()))
            self.plug()
            time.sleep(max(0, begun + number + 1 - time.monotonic()))
        self.wait_for(lambda: self.joined("eth1"), "the group")
        self.send_from(self.far, GROUP, 15817, range(5))
        self.settle("group", 5)
        self.settle("udp", 24)
        summary = self.stop()
        self.assertEqual((source(summary, "udp")["reopened"], source(summary, "udp")["sequence_gaps"]), (0, 0))
        self.assertLessEqual(len(self.lines_of("group")), 14, self.errors())
        self.assertLess(source(summary, "group")["reopened"], 12)

    def test_a_relay_whose_route_comes_late_is_waited_for(self):
        self.start_encoder(section("relayed", 15819, "relay1 = 10.78.0.2:15820\n") + section("udp", 15821), 15821)
        self.wait_for_line("source relayed waits: no way to the relay destination 10.78.0.2: Network is unreachable")
        self.plug()
        self.wait_for_line("source relayed is open after")
        self.send_from(self.near, "127.0.0.1", 15819, range(5))
        self.settle("relayed", 5)
        relay = source(self.stop(), "relayed")["statistics"]["relays"][0]
        self.assertEqual((relay["messages"] + relay["errors"], len(self.lines_of("relayed"))), (5, 2))
        self.assertNotIn("Failed to create relaying socket", self.log())

    def test_a_relay_goes_on_from_the_new_address_of_this_machine(self):
        self.plug()
        self.start_encoder(section("relayed", 15822, "relay1 = 10.78.0.2:15823\n"), 15822)
        receiver = self.start(
            "ip", "netns", "exec", self.far, sys.executable, "-c",
            "import socket\ns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\ns.bind(('0.0.0.0', 15823))\n"
            "print('ready', flush=True)\nwhile True:\n  print(s.recvfrom(2000)[1][0], flush=True)\n",
            stdout=self.output("received"))
        self.wait_for(lambda: "ready" in (self.folder / "received").read_text(), "the receiver")
        self.send_from(self.near, "127.0.0.1", 15822, range(5))
        self.settle("relayed", 5)
        run("ip", "-n", self.near, "addr", "del", "10.78.0.1/24", "dev", "eth1")
        self.wait_for_line("source relayed waits: no way to the relay destination 10.78.0.2")
        run("ip", "-n", self.near, "addr", "add", "10.78.0.9/24", "dev", "eth1")
        self.wait_for_line("source relayed is open after")
        self.send_from(self.near, "127.0.0.1", 15822, range(5))
        self.settle("relayed", 10)
        self.wait_for(lambda: (self.folder / "received").read_text().count("10.78.0.9") == 5, "the relayed messages")
        receiver.kill()
        relayed = source(self.stop(), "relayed")
        self.assertEqual((relayed["statistics"]["relays"][0]["messages"], relayed["reopened"]), (10, 1))


if __name__ == "__main__":
    harness.main()
