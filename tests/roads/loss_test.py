#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What is lost before the library is counted, and a source that falls silent is reported."""
import signal
import socket
import struct
import time

import harness
from harness import EndToEndTest, message, send, source

UDP = "[udp]\ninput = udp\nport = 15741\nfamily = ipv4\n"


class Loss(EndToEndTest):
    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def test_what_the_kernel_drops_while_the_program_stands_still_is_counted(self):
        self.encoder(UDP, [15741])
        send(15741, message((2, bytes(8))))
        self.settle("udp", 1)
        self.encoder_process.send_signal(signal.SIGSTOP)
        self.feed("klv", "--simulate", "--count", "6000", "--rate", "0", "--udp", "127.0.0.1:15741")
        self.encoder_process.send_signal(signal.SIGCONT)
        self.drain(15741)
        entry = source(self.stop(), "udp")
        self.assertGreater(entry["kernel_drops"], 100)
        self.assertEqual(entry["messages"] + entry["dropped"] + entry["kernel_drops"], 6001)
        self.assertEqual(entry["stream_sequence_gaps"], 0, "the library numbers what it receives")
        self.assertEqual(entry["sequence_gaps"], 0)

    def test_messages_that_fill_the_buffer_are_counted(self):
        self.encoder(UDP, [15741])
        for size in (1499, 1500, 1501, 1800):
            send(15741, harness.KEY + b"\x82" + struct.pack(">H", size - 19) + bytes(size - 19))
        self.settle("udp", 4)
        entry = source(self.stop(), "udp")
        self.assertEqual(entry["cut_at_buffer"], 3)
        self.assertLess(entry["last_message_age_s"], 60)

    def test_silence_and_its_end_are_a_line_each(self):
        self.encoder(UDP + "silence = 0.5\n[never]\ninput = udp\nport = 15742\n", [15741, 15742],
                     arguments=("--silence", "1000"))
        for _ in range(2):
            send(15741, message((2, bytes(8))))
            time.sleep(1.5)
        send(15741, message((2, bytes(8))))
        self.wait_for(lambda: self.errors().count("delivers again") == 2, "the second return")
        summary = self.stop()
        lines = [line for line in self.errors().splitlines() if "silent" in line or "again" in line]
        self.assertEqual(len(lines), 4, lines)
        self.assertRegex(lines[0], r"^mdencoder: source udp has been silent for \d+\.\d s$")
        self.assertRegex(lines[1], r"^mdencoder: source udp delivers again, after \d+\.\d s$")
        self.assertIsNone(source(summary, "never")["last_message"])

    def test_the_counts_of_a_capture_are_shown(self):
        path = self.folder / "capture1"
        self.encoder("[video]\ninput = video\ninterface = 1\n" + UDP, [15741],
                     host=f"[capture1]\nkind = socket\npath = {path}\n")
        self.wait_for(path.exists, "the capture's socket")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(str(path))
            sender.send(struct.pack(">Q", 90000) + message((2, bytes(8))))
            sender.send(b"short")
        self.settle("video", 1)
        entry = source(self.stop(), "video")
        self.assertEqual((entry["capture"]["packets"], entry["capture"]["taken"], entry["capture"]["damaged"]),
                         (1, 1, 1))


harness.main()
