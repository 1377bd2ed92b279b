#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Receives KLV from groups of both families, on chosen interfaces and from chosen senders; the sender of one test is
FFmpeg's sender of datagrams. The interfaces are the two ends of a cable on this machine."""
import pathlib
import signal
import socket
import struct
import subprocess

import harness
from harness import EndToEndTest, message, udp_port_open
from recipe import Recipe

PORT = 15981
SENDERS = ("10.99.0.1", "10.99.0.2")


def ip(*commands):
    for command in commands:
        subprocess.run(["ip", *command.split()], check=True)


def klv(number):
    """Returns a message that its source and number can be told from."""
    return message((2, struct.pack(">Q", 1714558830000000 + number)), (3, f"M{number}".encode()))


def send(group, *numbers, interface="udp1", port=PORT, sender=None):
    """Sends messages to a group over an interface, as the machine at its far end would."""
    isIPv6 = ":" in group
    with socket.socket(socket.AF_INET6 if isIPv6 else socket.AF_INET, socket.SOCK_DGRAM) as sending:
        sending.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode() + b"\0")
        if sender:
            sending.bind((sender, 0))
        if isIPv6:
            sending.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, socket.if_nametoindex(interface))
        else:
            sending.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                               struct.pack("4s4si", bytes(4), bytes(4), socket.if_nametoindex(interface)))
        for number in numbers:
            sending.sendto(klv(number), (group, port))


class Udp(EndToEndTest):
    @classmethod
    def setUpClass(cls):
        ip("link add udp0 type veth peer name udp1", "link add udp2 type veth peer name udp3")
        for number in range(4):
            ip(f"link set udp{number} addrgenmode none", f"link set udp{number} up",
               f"addr add fe80::{number + 1}/64 dev udp{number} nodad")
        # The addresses of the far ends are this machine's, too. A datagram from them would be taken for a forged one.
        for name in ("all", "udp0", "udp2"):
            for key, value in (("rp_filter", 0), ("accept_local", 1)):
                pathlib.Path(f"/proc/sys/net/ipv4/conf/{name}/{key}").write_text(str(value))
        for sender in SENDERS:
            ip(f"addr add {sender}/32 dev udp1")
        ip("addr add 10.98.0.1/32 dev udp3")

    def numbers(self, name):
        return [int(dict(harness.items(packet))[3][1:]) for packet in self.delivered(name)]

    def check(self, **expected):
        for name, numbers in expected.items():
            self.settle(name, len(numbers))
        summary = self.stop()
        for name, numbers in expected.items():
            self.assertEqual(sorted(self.numbers(name)), sorted(numbers), name)
        return summary

    def source(self, name, more):
        return f"[{name}]\ninput = udp\nport = {PORT}\n{more}\n"

    def test_several_groups_in_one_source(self):
        self.encoder(self.source("all", "address = 239.9.0.1, 239.9.0.2, ff02::91\ninterface = udp0"), ports=[PORT])
        self.wait_for(lambda: harness.udp_sockets(PORT) == 2, "a socket of each family")
        send("239.9.0.1", 1, sender=SENDERS[0])
        send("239.9.0.2", 2, sender=SENDERS[0])
        send("ff02::91", 3)
        send("239.9.0.3", 4, sender=SENDERS[0])
        send("239.9.0.1", 5, sender=SENDERS[0])
        self.check(all=[1, 2, 3, 5])

    def test_sources_of_different_groups_share_a_port(self):
        self.encoder(self.source("one", "address = 239.9.0.1\ninterface = udp0") +
                     self.source("two", "address = 239.9.0.2\ninterface = udp0") +
                     self.source("six", "address = ff02::91%udp0") +
                     self.source("seven", "address = ff02::92\ninterface = udp0"), ports=[PORT])
        self.wait_for(lambda: harness.udp_sockets(PORT) == 4, "the socket of each")
        for number, group in enumerate(("239.9.0.1", "239.9.0.2", "ff02::91", "ff02::92")):
            send(group, 10 + number, 20 + number, sender=SENDERS[0] if number < 2 else None)
        self.check(one=[10, 20], two=[11, 21], six=[12, 22], seven=[13, 23])

    def test_each_source_has_its_interface(self):
        self.encoder(self.source("near", "address = 239.9.0.1\ninterface = udp0") +
                     "[far]\ninput = udp\nport = 15982\naddress = 239.9.0.1\ninterface = udp2\n", ports=[PORT, 15982])
        for port in (PORT, 15982):
            send("239.9.0.1", 1, interface="udp1", port=port, sender=SENDERS[0])
            send("239.9.0.1", 2, interface="udp3", port=port, sender="10.98.0.1")
        self.check(near=[1], far=[2])

    def test_only_one_sender_of_a_group(self):
        self.encoder(self.source("four", f"address = 232.9.0.1\nsender = {SENDERS[0]}\ninterface = udp0") +
                     self.source("six", "address = ff32::91\nsender = fe80::2%udp0\ninterface = udp0"), ports=[PORT])
        self.wait_for(lambda: harness.udp_sockets(PORT) == 2, "the socket of each")
        send("232.9.0.1", 1, sender=SENDERS[1])
        send("232.9.0.1", 2, sender=SENDERS[0])
        ip("addr add fe80::22/64 dev udp1 nodad")
        for number, sender in ((3, "fe80::22"), (4, "fe80::2")):
            with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as sending:
                scope = socket.if_nametoindex("udp1")
                sending.bind((sender, 0, 0, scope))
                sending.sendto(klv(number), ("ff32::91", PORT, 0, scope))
        ip("addr del fe80::22/64 dev udp1")
        self.check(four=[2], six=[4])

    def test_a_link_local_sender(self):
        self.encoder(self.source("link", "address = fe80::2%udp0"), ports=[PORT], only_ipv6=True)
        for number, (name, address) in enumerate((("udp1", "fe80::1"), ("udp3", "fe80::3"))):
            with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as sending:
                scope = socket.if_nametoindex(name)
                sending.sendto(klv(number), (address, PORT, 0, scope))
        self.check(link=[0])

    def test_an_interface_that_is_away_is_waited_for(self):
        self.encoder(self.source("late", "address = 239.9.0.1, 239.9.0.2\ninterface = udp8"))
        errors = self.folder / "encoder.err"
        self.wait_for(lambda: "there is no interface udp8" in errors.read_text(), "the line")
        ip("link add udp8 type veth peer name udp9", "link set udp8 up", "link set udp9 up", "addr add 10.97.0.1/32 dev udp9")
        for key, value in (("rp_filter", 0), ("accept_local", 1)):
            pathlib.Path(f"/proc/sys/net/ipv4/conf/udp8/{key}").write_text(str(value))
        self.wait_for(lambda: "source late is open after" in errors.read_text(), "the source")
        send("239.9.0.2", 1, interface="udp9", sender="10.97.0.1")
        self.check(late=[1])
        ip("link del udp8")

    def test_ffmpeg_sends_to_a_group_of_ipv6(self):
        data = b"".join(klv(number) for number in range(40))
        (self.folder / "in.bin").write_bytes(data)
        self.encoder(self.source("six", "address = ff02::91\ninterface = udp0"), ports=[PORT], only_ipv6=True)
        size = len(klv(0))
        subprocess.run(["ffmpeg", "-v", "error", "-f", "data", "-raw_packet_size", str(size), "-i", self.folder / "in.bin",
                        "-map", "0", "-c", "copy", "-f", "data",
                        f"udp://[ff02::91%udp1]:{PORT}?pkt_size={size}"], check=True, timeout=60)
        self.settle("six", len(data) // size)
        self.stop()
        self.assertEqual(b"".join(self.delivered("six")), data)


class Page(EndToEndTest):
    def test_the_page_says_what_works(self):
        encoder = Recipe(self, "docs/sources/udp.md#1")
        feeder = Recipe(self, "docs/sources/udp.md#2")
        shown = self.folder / "shown"
        self.encoder_process = encoder.start(0, stdout=self.output(shown.name), stderr=self.output("encoder.err"))
        self.wait_for(lambda: udp_port_open(5000), "the port")
        feeder.run(0)
        self.wait_for(lambda: shown.read_text().count(" camera ") == 25, "the rows")
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)


harness.main()
