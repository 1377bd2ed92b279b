#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Inspecting and decoding files and live sources: a recording, a transport stream that another program has written, one
that it sends over UDP and RTP, and damaged ones. The counts are those of an independent walk over the same bytes."""
import csv
import json
import os
import random
import re
import subprocess

import harness
from harness import EndToEndTest, checksum, message, recording, send
from recipe import Recipe


def walk(data):
    """Finds messages by their key. Returns them with the tags of each, and the bytes of no message."""
    found, skipped, at = [], 0, 0
    while at < len(data):
        start = data.find(harness.KEY, at)
        if start < 0:
            return found, skipped + len(data) - at
        skipped += start - at
        message = harness.split_messages(data[start:start + 19 + 65536])[0] if start + 17 < len(data) else b""
        found.append(message)
        at = start + max(len(message), 1)
    return found, skipped


class Inspect(EndToEndTest):
    written = b""  # the transport stream, which one test has made

    def look(self, *words, expected=0):
        done = subprocess.run([harness.options.encoder, *map(str, words)], capture_output=True, text=True,
                              timeout=120 * harness.SLOW, env={**os.environ, "COLUMNS": "120"})
        self.assertEqual(done.returncode, expected, done.stdout + done.stderr)
        return done

    def report(self, *words, expected=0):
        return json.loads(self.look("inspect", *words, "--format", "json", expected=expected).stdout)

    def flight(self):
        """A transport stream with video and KLV, written by ffmpeg."""
        own, path = self.folder / "own.ts", self.folder / "flight.ts"
        if Inspect.written:
            path.write_bytes(Inspect.written)
            return path
        self.feed("ts", "--output", own, "--duration", "6", "--rate", "10")
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=d=6:r=25:s=320x240", "-i", own, "-map", "0",
                        "-map", "1:d", "-c:v", "mpeg2video", "-c:d", "copy", path], check=True)
        Inspect.written = path.read_bytes()
        return path

    def agrees(self, stream, data):
        messages, skipped = walk(data)
        counts = {}
        for message in messages:
            for tag, _ in harness.items(message):
                counts[tag] = counts.get(tag, 0) + 1
        good = sum(checksum(message[:-2]) == int.from_bytes(message[-2:], "big") for message in messages)
        self.assertEqual(stream["messages"], len(messages))
        self.assertEqual(stream["checksum"]["ok"], good)
        self.assertEqual(stream["skipped_bytes"], skipped)
        self.assertEqual({item["tag"]: item["count"] for item in stream["items"]}, counts)

    def test_a_recording_agrees_with_an_independent_walk(self):
        path = recording("recorded_flight.klv")
        if path is None:
            return
        report = self.report(path)
        self.assertEqual((report["container"], report["messages"], report["faults"]), ("klv", 407, 0))
        self.agrees(report["streams"][0], path.read_bytes())

    def test_the_times_of_arrival_are_those_of_the_index(self):
        for headers in ("no", "yes"):
            with self.subTest(headers=headers):
                self.encoder(f"[encoder]\nstream_header = {headers}\n[{headers}]\ninput = udp\nport = 15841\n", [15841])
                for number in range(5):
                    send(15841, message((2, number.to_bytes(8, "big"))))
                self.settle(headers, 5)
                self.stop()
                arrived = [line["time"] for line in self.lines() if line["type"] == "message"]
                path = self.folder / f"{headers}.klv"
                rows = [json.loads(line) for line in self.look("decode", path, "--format", "json").stdout.splitlines()]
                self.assertEqual([row["time"] for row in rows], arrived)
                self.assertTrue(self.look("decode", path).stdout.startswith("ARRIVAL"))
                path.with_suffix(".klv.json").unlink()
                rows = [json.loads(line) for line in self.look("decode", path, "--format", "json").stdout.splitlines()]
                self.assertEqual((len(rows), any("time" in row for row in rows)), (5, False))

    def test_damage_is_counted(self):
        self.feed("ts", "--output", self.folder / "own.ts", "--duration", "5", "--rate", "10")
        clean = b"".join(self.messages_of(self.folder / "own.ts"))
        size = len(harness.split_messages(clean)[0])
        damaged = bytearray(b"noise" + clean[:10 * size] + bytes(7) + clean[10 * size:] + clean[:50])
        damaged[5 + 3 * size + 100] ^= 0x55
        (self.folder / "damaged.klv").write_bytes(damaged)
        report = self.report(self.folder / "damaged.klv", expected=1)
        stream = report["streams"][0]
        self.assertEqual((stream["messages"], stream["checksum"]["bad"] + stream["checksum"]["misplaced"]), (50, 1))
        self.assertEqual((stream["skipped_bytes"], stream["skipped_at"], stream["cut_off"]), (5 + 7 + 50, 3, 1))
        self.assertIn("1 bad", self.look("inspect", self.folder / "damaged.klv", expected=1).stdout)

    def messages_of(self, path):
        """ffmpeg's own reading of the data track."""
        raw = self.folder / "raw.klv"
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", path, "-map", "0:d", "-c", "copy", "-f", "data", raw],
                       check=True)
        return harness.split_messages(raw.read_bytes())

    def test_a_transport_stream_has_its_tracks(self):
        path = self.flight()
        wanted = self.messages_of(path)
        report = self.report(path)
        self.assertEqual(report["container"], "mpegts")
        video, data = report["streams"]
        self.assertEqual((video["kind"], video["codec"], video["packets"]), ("video", "mpeg2video", 150))
        self.assertEqual((data["kind"], data["codec"]), ("data", "klv"))
        self.assertEqual(len(wanted), 60)
        self.agrees(data, b"".join(wanted))
        self.assertAlmostEqual(data["rate"], 10, delta=0.5)

    def test_a_live_stream_is_looked_at_for_a_while(self):
        path = self.flight()
        for url, form in (("udp://127.0.0.1:15801?pkt_size=1316", "mpegts"), ("rtp://127.0.0.1:15801", "rtp_mpegts")):
            sender = self.start("ffmpeg", "-v", "error", "-re", "-stream_loop", "-1", "-i", path, "-map", "0", "-c", "copy",
                                "-f", form, url)
            report = self.report("udp://127.0.0.1:15801", "--seconds", 60 * harness.SLOW, "--messages", 10)
            sender.kill()
            sender.wait()
            self.assertEqual((report["container"], report["messages"]), ("mpegts", 10), form)
            self.assertEqual({stream["codec"] for stream in report["streams"]}, {"mpeg2video", "klv"})

    def test_datagrams_of_klv_are_found(self):
        sender = self.start(harness.options.feed, "klv", "--simulate", "--rate", "20", "--udp", "239.5.5.5:15801",
                            "--interface", "lo", stdout=subprocess.DEVNULL)
        report = self.report("udp://239.5.5.5:15801", "--seconds", 60 * harness.SLOW, "--messages", 10)
        sender.kill()
        self.assertEqual((report["container"], report["messages"], report["faults"]), ("klv datagrams", 10, 0))

    def test_decoding_prints_each_message(self):
        path = self.flight()
        wanted = self.messages_of(path)
        rows = list(csv.DictReader(self.look("decode", path, "--format", "csv", "--items", "2,13").stdout.splitlines()))
        self.assertEqual([int(row["length"]) for row in rows], [len(message) for message in wanted])
        lines = [json.loads(line) for line in self.look("decode", path, "--format", "json").stdout.splitlines()]
        self.assertEqual([len(line["items"]) for line in lines], [len(harness.items(message)) for message in wanted])
        table = self.look("decode", path).stdout.splitlines()
        self.assertEqual(len(table), 2 + len(wanted))
        self.assertLessEqual(max(map(len, table)), 120)
        piped = subprocess.run([harness.options.encoder, "decode", "-", "--messages", "3", "--format", "json"],
                               input=b"".join(wanted), capture_output=True)
        self.assertEqual((piped.returncode, piped.stdout.count(b"\n")), (0, 3))

    def test_recordings_of_a_run_are_read_with_their_headers(self):
        self.encoder("[udp]\ninput = udp\nport = 15801\n", [15801], arguments=["--stream-header"])
        self.feed("klv", "--simulate", "--count", "300", "--rate", "500", "--udp", "127.0.0.1:15801")
        self.drain(15801)
        self.stop()
        data = (self.folder / "udp.klv").read_bytes()
        report = self.report(self.folder / "udp.klv")
        self.assertEqual(report["streams"][0]["skipped_bytes"], 0)
        starts = [match.start() - 5 for match in re.finditer(re.escape(harness.KEY), data)]
        (self.folder / "hole.klv").write_bytes(data[:starts[10]] + data[starts[13]:])
        stream = self.report(self.folder / "hole.klv", expected=1)["streams"][0]
        self.assertEqual((stream["messages"], stream["sequence_missing"]), (report["messages"] - 3, 3))

    def test_exit_codes_tell_what_was_found(self):
        (self.folder / "empty.klv").write_bytes(b"")
        (self.folder / "noise").write_bytes(random.Random(7).randbytes(100000))
        for name in ("empty.klv", "noise", "absent"):
            for command in ("inspect", "decode"):
                done = self.look(command, self.folder / name, expected=1)
                self.assertEqual(len(done.stderr.splitlines()), 0 if (name, command) == ("empty.klv", "inspect") else 1)
        for words in (["inspect"], ["decode", "x", "--columns", "nothing"], ["inspect", "x", "--seconds", "-1"]):
            self.look(*words, expected=2)
        done = self.look("inspect", "udp://127.0.0.1:15802", "--seconds", "0.3", expected=1)
        self.assertIn("nothing was received in time", done.stderr)
        self.assertIn("numeric address", self.look("inspect", "udp://host:1", expected=1).stderr)

    def test_the_recipe_of_the_page_does_what_it_says(self):
        recipe = Recipe(self, "docs/outputs/inspect.md#1", COLUMNS="120")
        recipe.run(0)
        report = recipe.run(1)
        self.assertRegex(report, r"^flight\.ts: mpegts, 2 streams, \d+ messages, 0 faults\n")
        self.assertRegex(report, re.compile(r"^ +13  sensor_lat +\d+  -?[0-9.]+ deg, -?[0-9.]+ deg$", re.M))
        rows = list(csv.reader(recipe.run(2).splitlines()))
        self.assertEqual(rows[0][5:], ["time", "sensor_lat", "sensor_lon"])


if __name__ == "__main__":
    harness.main()
