#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The table, JSON lines and CSV, as the pages of docs/outputs have them and as other readers read them."""
import csv
import fcntl
import json
import os
import struct
import termios

import harness
from harness import EndToEndTest, send
from recipe import Recipe

HOSTILE = ('=HYPERLINK("http://x")', "a,b\r\nc;\"d\"", "\x1b]0;title\x07", "<script>&amp;", "\u202eabc", "x" * 1000)
UDP = "[udp]\ninput = udp\nport = 15000\nfamily = ipv4\n"


class Output(EndToEndTest):
    def printed(self, name):
        """Runs the two commands of a page."""
        recipe = Recipe(self, name, COLUMNS="120")
        self.encoder_process = recipe.start(0, stdout=self.output("printed"), stderr=self.output("encoder.err"))
        self.wait_for(lambda: harness.udp_port_open(15000), "the port")
        recipe.run(1)
        self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)

    def test_the_table_has_the_chosen_columns(self):
        self.printed("docs/outputs/table.md#1")
        lines = (self.folder / "printed").read_text().splitlines()
        self.assertEqual(lines[0].split(), ["ARRIVAL", "SOURCE", "CHECKSUM", "SENSOR", "LAT", "SENSOR", "LON", "SLANT",
                                            "RANGE"])
        self.assertEqual(lines[1].split(), ["deg", "deg", "m"])
        rows = [line.split() for line in lines[2:22]]
        self.assertEqual({len(row) for row in rows}, {6})
        self.assertEqual({(row[1], row[2]) for row in rows}, {("aircraft", "ok")})

    def test_json_lines_have_the_chosen_items(self):
        self.printed("docs/outputs/json.md#1")
        lines = [json.loads(line) for line in (self.folder / "messages.jsonl").read_text().splitlines()]
        messages = [line for line in lines if line["type"] == "message"]
        self.assertEqual(len(messages), 20)
        for message in messages:
            self.assertEqual([item["key"] for item in message["items"]], ["time", "sensor_lat", "sensor_lon"])

    def test_csv_is_read_by_another_reader(self):
        self.printed("docs/outputs/csv.md#1")
        data = (self.folder / "flight.csv").read_bytes()
        self.assertEqual(data.count(b"\r\n"), data.count(b"\n"))
        rows = list(csv.DictReader(data.decode().splitlines()))
        self.assertEqual(list(rows[0]), ["arrival", "source", "sequence", "length", "state", "time", "sensor_lat",
                                         "sensor_lon", "mission_id"])
        self.assertEqual([int(row["sequence"]) for row in rows], list(range(20)))
        self.assertEqual({row["state"] for row in rows}, {"ok"})
        self.assertTrue(all(-90 <= float(row["sensor_lat"]) <= 90 for row in rows))
        self.assertIn("kbit/s".upper(), (self.folder / "encoder.err").read_text(), "the statistics are not among the rows")

    def test_hostile_texts_stay_in_their_cells(self):
        # Python's reader has no limit for what stands in a field, but for its own of 128 KiB.
        sent = [harness.message((2, bytes(8)), (3, text.encode()[:120]), (10, b"\xff\x00")) for text in HOSTILE]
        (self.folder / "outputs.ini").write_text(UDP)
        for words in (("--format", "csv", "--items", "mission_id,platform"), ("--columns", "mission_id,platform")):
            self.encoder_process = self.start(
                harness.options.encoder, self.folder / "outputs.ini", "--library", harness.options.library, *words,
                "--messages", len(sent), stdout=self.output("printed"), stderr=self.output("encoder.err"),
                env={**os.environ, "COLUMNS": "60"})
            self.wait_for(lambda: harness.udp_port_open(15000), "the port")
            for message in sent:
                send(15000, message)
            self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)
            text = (self.folder / "printed").read_bytes().decode()
            if "csv" in words:
                rows = list(csv.reader(text.splitlines(keepends=True), strict=True))[1:]
                self.assertEqual({len(row) for row in rows}, {7})
                self.assertEqual([row[5] for row in rows],
                                 ["'" + HOSTILE[0], 'a,b\\r\\nc;"d"', "\\x1B]0;title\\x07", HOSTILE[3],
                                  "\\xE2\\x80\\xAEabc", "x" * 120])
            lines = text.splitlines()
            self.assertFalse([line for line in lines if "\x1b" in line or "\u202e" in line])
            if "csv" not in words:
                self.assertEqual(len(lines[2:2 + len(sent)]), len(sent))
                self.assertLessEqual(max(len(line) for line in lines[:2 + len(sent)]), 60)

    def test_the_table_follows_the_terminal(self):
        master, terminal = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, terminal)
        (self.folder / "outputs.ini").write_text(UDP)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("4H", 24, 50, 0, 0))
        environment = {key: value for key, value in os.environ.items() if key != "COLUMNS"}
        self.encoder_process = self.start(
            harness.options.encoder, self.folder / "outputs.ini", "--library", harness.options.library, stdout=terminal,
            stderr=self.output("encoder.err"), env=environment)
        self.wait_for(lambda: harness.udp_port_open(15000), "the port")
        os.set_blocking(master, False)
        text = ""

        def row_has(wanted):
            nonlocal text
            send(15000, harness.message((2, bytes(8))))
            try:
                text += os.read(master, 65536).decode()
            except BlockingIOError:
                pass
            return wanted in text

        self.wait_for(lambda: row_has("ok        00:00:00.000"), "the first row")
        self.assertLessEqual(max(map(len, text.splitlines())), 50)
        self.assertNotIn("SENSOR LON", text)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("4H", 24, 132, 0, 0))
        self.wait_for(lambda: row_has("SLANT RANGE"), "the titles of the wider table")


if __name__ == "__main__":
    harness.main()
