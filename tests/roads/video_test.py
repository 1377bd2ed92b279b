#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""KLV of video inputs: from a local socket, from a media file with a KLV track, from an ancillary stream."""
import socket
import struct

import harness
from harness import EndToEndTest, message, source

FULL = "[full]\ninput = video\ninterface = {0}\ndata = klv\n"
THIRD = "[third]\ninput = video\ninterface = {0}\ndata = klv\ndecimation = 3\n"


class Video(EndToEndTest):
    def send_captured(self, packets):
        path = self.folder / "capture1"
        self.wait_for(path.exists, "the capture's socket")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(str(path))
            for timestamp, klv in packets:
                sender.send(struct.pack(">Q", timestamp) + klv)

    def kept(self):
        """A source keeps every third timestamp of the full source, from its opening on, with all packets of it."""
        groups = []
        for line in self.source_lines("full"):
            if not groups or groups[-1][0] != line["timestamp"]:
                groups.append((line["timestamp"], []))
            groups[-1][1].append(line["items"][0]["value"])
        first = self.decimated()[0][0]
        groups = groups[[stamp for stamp, _ in groups].index(first):]
        return [(stamp, value) for stamp, values in groups[::3] for value in values]

    def source_lines(self, name):
        return [line for line in self.lines() if line.get("type") == "message" and line["source"] == name]

    def decimated(self):
        return [(line["timestamp"], line["items"][0]["value"]) for line in self.source_lines("third")]

    def test_a_factor_of_three_keeps_every_third_timestamp_with_all_its_packets(self):
        # The port that is opened last shows that both sources are open.
        self.encoder(FULL.format(1) + THIRD.format(1) + "[last]\ninput = udp\nport = 15653\n", ports=[15653],
                     host=f"[capture1]\nkind = socket\npath = {self.folder}/capture1\n")
        packets = [(90000 + 3003 * (number // 2), message((2, struct.pack(">Q", number)))) for number in range(60)]
        self.send_captured(packets)
        self.settle("full", 60)
        self.wait_for(lambda: self.arrived("third") >= 20, "the decimated packets")
        summary = self.stop()
        self.assertEqual(self.delivered("full"), [klv for _, klv in packets])
        self.assertEqual(self.decimated(), self.kept())
        self.assertEqual(source(summary, "third")["messages"], 20)

    def test_a_transport_stream_is_played_with_its_own_timestamps(self):
        self.feed("ts", "--output", self.folder / "flight.ts", "--duration", "3", "--rate", "10", "--messages", "2")
        self.encoder(FULL.format(0) + THIRD.format(0),
                     host=f"[capture0]\nkind = media\npath = {self.folder}/flight.ts\n")
        self.settle("full", 60)
        self.wait_for(lambda: self.arrived("third") >= 18, "the decimated packets")
        self.stop()
        self.assertEqual(len(self.source_lines("full")), 60)
        self.assertEqual(self.decimated(), self.kept())

    def test_an_ancillary_stream_with_losses_goes_on(self):
        self.encoder(FULL.format(2), host="[capture2]\nkind = anc\nport = 15651\n", ports=[15651])
        self.feed("anc", "--simulate", "--udp", "127.0.0.1:15651", "--rate", "50", "--count", "60", "--loss", "5",
                  "--reorder", "5", "--bad-checksum", "3")
        self.wait_for(lambda: self.arrived("full") >= 25, "messages")
        self.stop()
        for klv in self.delivered("full"):
            self.assertEqual(harness.checksum(klv[:-2]), struct.unpack(">H", klv[-2:])[0])

    def test_an_ancillary_stream_arrives_whole(self):
        self.encoder(FULL.format(2), host="[capture2]\nkind = anc\nport = 15652\n", ports=[15652])
        self.feed("anc", "--simulate", "--udp", "127.0.0.1:15652", "--rate", "50", "--count", "40")
        self.settle("full", 40)
        self.stop()


harness.main()
