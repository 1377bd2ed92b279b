#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares converted Cursor-on-Target events from UDP and from the framed serial link with the same flight as KLV."""
import pathlib
import struct

import harness
from harness import EndToEndTest, items, send, source

KLV = "[klv]\ninput = udp\nport = 15641\nfamily = ipv4\ndata = klv\n"
COT = "[cot]\ninput = udp\nport = 15642\nfamily = ipv4\ndata = cot\ncot_delta_ms = 50\n"
SERIAL = "[link]\ninput = serial\ndata = cot\nbaud = 115200\ncot_delta_ms = 50\n"
FLIGHT = ["--simulate", "--seed", "7", "--start", "2024-05-01T12:00:00Z", "--rate", "10", "--count", "25"]
EVENTS = pathlib.Path(harness.options.source) / "tests" / "data" / "cot_events"

# The items that both have, with their bytes and their sign
NUMBERS = {5: (2, False), 6: (2, True), 7: (2, True), 13: (4, True), 14: (4, True), 15: (2, False), 23: (4, True),
           24: (4, True), 25: (2, False)}
WHOLE_DEGREE = int(4294967295 / 360) + 2


def number(tag, value, table):
    size, signed = table[tag]
    assert len(value) == size, (tag, value)
    return int.from_bytes(value, "big", signed=signed)


class CoT(EndToEndTest):
    def compare(self, converted, direct):
        for packet, message in zip(converted, direct):
            self.assertEqual(harness.checksum(packet[:-2]), struct.unpack(">H", packet[-2:])[0])
            ours, theirs = dict(items(packet)), dict(items(message))
            self.assertEqual(ours[2], theirs[2], "time stamp")
            for tag in NUMBERS:
                self.assertLessEqual(abs(number(tag, ours[tag], NUMBERS) - number(tag, theirs[tag], NUMBERS)), 1,
                                     f"item {tag}")
            for tag in (18, 20):
                both = [int.from_bytes(found[tag], "big") for found in (ours, theirs)]
                apart = abs(both[0] - both[1])
                self.assertLessEqual(min(apart, 2**32 - apart), WHOLE_DEGREE, f"item {tag}")

    def test_the_same_flight_over_udp_and_serial_and_as_klv(self):
        feeder = self.feed_serial("cot", *FLIGHT)
        self.encoder(KLV + COT + SERIAL, ports=[15641, 15642])
        self.feed("klv", *FLIGHT, "--udp", "127.0.0.1:15641")
        self.feed("cot", *FLIGHT, "--udp", "127.0.0.1:15642")
        self.settle("klv", 25)
        self.settle("cot", 25)
        self.settle("link", 25)
        self.assertEqual(feeder.wait(timeout=30), 0)
        summary = self.stop()
        self.compare(self.delivered("cot"), self.delivered("klv"))
        self.compare(self.delivered("link"), self.delivered("klv"))
        for name in ("cot", "link"):
            statistics = source(summary, name)["statistics"]
            self.assertEqual(statistics["cot"]["converted_messages"], 25)
            self.assertEqual((statistics["cot"]["aircraft_events"], statistics["cot"]["sensor_point_events"]), (25, 25))

    def test_damaged_frames_cost_their_own_event_only(self):
        self.feed_serial("cot", *FLIGHT, "--damage", "crc:20")
        self.encoder(SERIAL)
        self.wait_for(lambda: self.arrived("link") >= 10, "converted packets")
        self.wait_for(lambda: all(process.poll() is not None for process in self.processes[:1]), "the end of the feed")
        summary = self.stop()
        self.assertGreater(source(summary, "link")["corrupt"], 0)
        self.assertGreaterEqual(len(self.delivered("link")), 10)

    def test_events_of_an_independent_library_are_converted(self):
        self.encoder(COT, ports=[15642])
        for name in ("level_flight", "southern_bank"):
            for role in ("aircraft", "spi"):
                send(15642, (EVENTS / f"{name}_{role}.xml").read_bytes())
        self.settle("cot", 2)
        self.stop()
        level, bank = (dict(items(packet)) for packet in self.delivered("cot"))
        self.assertAlmostEqual(int.from_bytes(level[13], "big", signed=True) * 180 / 4294967294, 45.5017, 6)
        self.assertAlmostEqual(int.from_bytes(level[14], "big", signed=True) * 360 / 4294967294, -73.5673, 6)
        self.assertAlmostEqual(int.from_bytes(bank[13], "big", signed=True) * 180 / 4294967294, -33.8688, 6)
        self.assertEqual(int.from_bytes(level[5], "big"), round(87.5 * 65535 / 360))
        self.assertEqual(level[10], b"AIRCRAFT-1")
        # EGM96 at 45.5017 N 73.5673 W is 32.3 m below the ellipsoid.
        height = int.from_bytes(level[15], "big") * 19900 / 65535 - 900
        self.assertAlmostEqual(height, 1250.5 + 32.3, delta=1.0)

    def test_bad_xml_is_survived(self):
        self.encoder(COT, ports=[15642])
        good = [(EVENTS / f"level_flight_{role}.xml").read_bytes() for role in ("aircraft", "spi")]
        for bad in (b"", b"<event", b"<event type='a-f-A'></event>", good[0].replace(b'"', b"'"), good[0][:-20],
                    good[0].replace(b"45.5017", b"nan"), b"\x00" * 100, good[0].replace(b"time=", b"tome="),
                    b"<event " + b'a="' + b"x" * 1400 + b'"></event>'):
            send(15642, bad)
        for event in good:
            send(15642, event)
        self.settle("cot", 1)
        self.stop()


harness.main()
