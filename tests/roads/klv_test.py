#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks each KLV message on its way from UDP and from a serial line to the encoder."""
import harness
from harness import EndToEndTest, recording, send, source, split_messages

UDP = "[udp]\ninput = udp\nport = 15611\nfamily = ipv4\ndata = klv\n"
SERIAL = "[serial]\ninput = serial\ndata = klv\nbaud = 115200\n"


class KLV(EndToEndTest):
    def test_recorded_flight_arrives_whole_from_udp_and_serial(self):
        path = recording("recorded_flight.klv")
        if path is None:
            return
        wanted = split_messages(path.read_bytes())
        self.assertEqual(len(wanted), 407)
        feeder = self.feed_serial("klv", "--file", path, "--rate", "0")
        self.encoder(UDP + SERIAL, ports=[15611])
        self.feed("klv", "--file", path, "--udp", "127.0.0.1:15611", "--rate", "800")
        self.settle("udp", 407)
        self.settle("serial", 407)
        self.assertEqual(feeder.wait(timeout=30), 0)
        summary = self.stop()
        self.assertEqual(self.delivered("udp"), wanted)
        self.assertEqual(self.delivered("serial"), wanted)
        for name in ("udp", "serial"):
            entry = source(summary, name)
            self.assertEqual((entry["messages"], entry["corrupt"]), (407, 0))

    def test_recorded_flight_in_any_chunks_over_serial(self):
        path = recording("recorded_flight.klv")
        if path is None:
            return
        self.feed_serial("klv", "--file", path, "--rate", "0", "--chunk", "1000")
        self.encoder(SERIAL)
        self.settle("serial", 407)
        self.assertEqual(source(self.stop(), "serial")["corrupt"], 0)

    def test_a_wrong_checksum_is_corrupt_over_serial_and_arrives_over_udp(self):
        path = recording("st0601_sample.klv")
        sample = path.read_bytes() if path else harness.message((2, bytes(8)))[:-1] + b"\x55"
        (self.folder / "sample.klv").write_bytes(sample)
        self.feed_serial("klv", "--file", self.folder / "sample.klv", "--chunk", "48", "--rate", "0")
        self.encoder(UDP + SERIAL, ports=[15611])
        self.feed("klv", "--file", self.folder / "sample.klv", "--udp", "127.0.0.1:15611")
        self.settle("udp", 1)
        self.wait_for(lambda: "Calculated checksum" in (self.folder / "host.log").read_text()
                      or "doesn't match" in (self.folder / "host.log").read_text(), "the log line")
        summary = self.stop()
        self.assertEqual(self.delivered("udp"), [sample])
        self.assertEqual(source(summary, "serial")["messages"], 0)
        self.assertGreaterEqual(source(summary, "serial")["corrupt"], 1)

    def test_simulated_flight_is_a_valid_stream(self):
        self.encoder(UDP, ports=[15611])
        self.feed("klv", "--simulate", "--count", "50", "--rate", "200", "--udp", "127.0.0.1:15611")
        self.settle("udp", 50)
        self.stop()
        for message in self.delivered("udp"):
            self.assertEqual(harness.checksum(message[:-2]), int.from_bytes(message[-2:], "big"))
            tags = [tag for tag, _ in harness.items(message)]
            self.assertEqual((tags[0], tags[-1]), (2, 1))

    def test_datagrams_of_all_sizes_arrive_as_they_are_up_to_1500_bytes(self):
        self.encoder(UDP, ports=[15611])
        wanted = [harness.KEY + b"\x82\x05\xC9" + bytes(1481), harness.message((2, bytes(8))),
                  harness.KEY + b"\x02\x41\x00"]
        for data in wanted:
            send(15611, data)
        send(15611, b"")
        self.settle("udp", 3)
        summary = self.stop()
        self.assertEqual([len(message) for message in self.delivered("udp")], [1500, 31, 19])
        self.assertEqual(source(summary, "udp")["messages"], 3)

    def test_sequence_numbers_step_by_one_and_wrap(self):
        self.encoder(UDP, ports=[15611])
        self.feed("klv", "--simulate", "--count", "300", "--rate", "600", "--udp", "127.0.0.1:15611")
        self.settle("udp", 300)
        self.stop()
        self.assertEqual([line["sequence"] for line in self.lines() if "sequence" in line][:300],
                         [number % 256 for number in range(300)])


harness.main()
