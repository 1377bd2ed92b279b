#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recordings, statistics and the end of a run while nobody reads the standard output and the standard error."""
import fcntl
import json
import os
import signal
import subprocess
import time

import harness
from harness import EndToEndTest, source

UDP = "[udp]\ninput = udp\nport = 15711\nfamily = ipv4\n"
COUNT = 5000


class Printing(EndToEndTest):
    def pipe(self):
        """A pipe of one page that nobody reads yet."""
        reader, writer = os.pipe()
        fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
        self.addCleanup(os.close, reader)
        self.addCleanup(os.close, writer)
        return reader, writer

    def start_encoder(self, *arguments, stdout, stderr, level=5):
        (self.folder / "host.ini").write_text(f"[log]\nfile = {self.folder}/host.log\nlevel = {level}\nrate = 0\n")
        (self.folder / "encoder.ini").write_text(UDP)
        self.encoder_process = self.start(
            harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library,
            "--host-config", self.folder / "host.ini", "--output-dir", self.folder, "--summary",
            self.folder / "summary.json", *arguments, stdout=stdout, stderr=stderr, stdin=subprocess.DEVNULL)
        self.wait_for(lambda: harness.udp_port_open(15711), "the port")

    def feed_flight(self, count=COUNT):
        self.feed("klv", "--simulate", "--seed", "7", "--count", count, "--rate", "5000", "--udp", "127.0.0.1:15711")

    def stop_in_time(self, number=signal.SIGTERM):
        """The end waits for a reader for at most two seconds."""
        begin = time.monotonic()
        self.encoder_process.send_signal(number)
        code = self.encoder_process.wait(timeout=30)
        self.assertLess(time.monotonic() - begin, 8 * harness.SLOW, "on a busy machine too")
        return code, json.loads((self.folder / "summary.json").read_text())

    def all_are_there(self, summary, count):
        """Every message that was sent is in the recording, but for those that the kernel dropped: a busy machine may not
        run the encoder for longer than its socket holds."""
        entry = source(summary, "udp")
        self.assertEqual((entry["messages"] + entry["kernel_drops"], entry["dropped"]), (count, 0))
        self.assertLess(entry["kernel_drops"], count / 2)
        self.assertEqual(len(self.delivered("udp")), entry["messages"])

    def test_a_reader_that_has_stopped_changes_nothing_else(self):
        for words in (("--format", "table"), ("--format", "json", "--stats-interval", "0.1")):
            _, output = self.pipe()
            _, errors = self.pipe()
            self.start_encoder("--stats-json", self.folder / "stats.jsonl", *words, stdout=output, stderr=errors,
                               level=8)
            self.feed_flight()
            self.drain(15711)
            code, summary = self.stop_in_time()
            self.assertEqual(code, 0)
            self.all_are_there(summary, COUNT)
            self.assertEqual(summary["ended_by"], "signal")
            self.assertGreater(summary["rows_dropped"], source(summary, "udp")["messages"] / 2)
            lines = [json.loads(line) for line in (self.folder / "stats.jsonl").read_text().splitlines()]
            self.assertEqual(lines[-1]["sources"][0]["messages"], source(summary, "udp")["messages"])

    def test_rows_that_are_read_and_rows_that_are_dropped_are_all(self):
        reader, output = self.pipe()
        self.start_encoder("--format", "json", stdout=output, stderr=self.output("encoder.err"))
        self.feed_flight(2000)
        self.drain(15711)
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=20), 0)
        summary = json.loads((self.folder / "summary.json").read_text())
        os.set_blocking(reader, False)
        read = os.read(reader, 1 << 20)
        rows = [line for line in read.split(b"\n")[:-1] if line.startswith(b'{"type":"message"')]
        self.all_are_there(summary, 2000)
        self.assertEqual(len(rows) + summary["rows_dropped"], source(summary, "udp")["messages"])
        self.assertIn(f"mdencoder: {summary['rows_dropped']} rows were not printed, because the standard output was "
                      "not read in time\n", (self.folder / "encoder.err").read_text())

    def test_a_terminal_that_is_not_read_does_not_hold_the_end_up(self):
        master, terminal = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, terminal)
        self.start_encoder("--live", stdout=terminal, stderr=terminal)
        self.feed_flight()
        self.drain(15711)
        code, summary = self.stop_in_time(signal.SIGINT)
        self.assertEqual(code, 0)
        self.all_are_there(summary, COUNT)

    def test_the_duration_ends_the_run(self):
        _, output = self.pipe()
        begin = time.monotonic()
        self.start_encoder("--duration", "1", stdout=output, stderr=output)
        self.feed_flight(3000)
        self.assertEqual(self.encoder_process.wait(timeout=30), 0)
        self.assertLess(time.monotonic() - begin, 10 * harness.SLOW, "on a busy machine too")

    def test_a_second_signal_ends_at_once(self):
        _, output = self.pipe()
        self.start_encoder(stdout=output, stderr=output)
        self.feed_flight(3000)
        self.encoder_process.send_signal(signal.SIGTERM)
        time.sleep(0.3)
        self.assertIsNone(self.encoder_process.poll(), "it still waits for the reader")
        begin = time.monotonic()
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=20), 128 + signal.SIGINT)
        self.assertLess(time.monotonic() - begin, 1 * harness.SLOW)

    def test_a_run_that_has_its_messages_waits_for_a_reader_that_reads(self):
        reader, output = self.pipe()
        self.start_encoder("--format", "json", "--messages", "600", stdout=output, stderr=self.output("encoder.err"))
        self.feed_flight(600)
        os.set_blocking(reader, False)
        read = b""
        while True:
            ended = self.encoder_process.poll() is not None
            try:
                read += os.read(reader, 4096)
            except BlockingIOError:
                if ended:
                    break
            time.sleep(0.01)
        self.assertEqual(read.count(b'{"type":"message"'), 600)
        self.assertEqual(json.loads((self.folder / "summary.json").read_text())["rows_dropped"], 0)


harness.main()
