#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads rewritten ST 0601 messages with an independent decoder."""
import pathlib
import struct
import subprocess

import harness
import pages
from harness import EndToEndTest, items, recording, split_messages

SOURCE = pathlib.Path(harness.options.source)
PORT = 15621
PLAIN = f"[plain]\ninput = udp\nport = {PORT}\nfamily = ipv4\n"
REWRITTEN = (f"[out]\ninput = udp\nport = {PORT + 1}\nfamily = ipv4\nkeep_tags = 2, 13, 14, 65\n"
             "mission_id = MISSION 12\nclassification = secret\nclassifying_country = USA\nobject_country = USA\n")
SECURITY = bytes.fromhex("010104" "020102") + b"\x03\x05//USA" + bytes.fromhex("0C0102" "0D06005500530041" "1602000B")


class Rewriting(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.path = recording("recorded_flight.klv")

    def run_recording(self, config, port):
        self.encoder(config, ports=[port])
        self.feed("klv", "--file", self.path, "--udp", f"127.0.0.1:{port}", "--rate", "800")

    @staticmethod
    def expected(before):
        """Returns the expected items: an insert takes the place of the items it replaces, or follows the others."""
        inserts = {3: b"MISSION 12", 48: SECURITY}
        replaced = [(tag, inserts.get(tag, value)) for tag, value in items(before) if tag in (2, 3, 13, 14, 48, 65)]
        present = {tag for tag, _ in replaced}
        return replaced + [(tag, inserts[tag]) for tag in (3, 48) if tag not in present]

    def test_kept_tags_identifier_and_security_set_are_all_there_is(self):
        if self.path is None:
            return
        self.run_recording(REWRITTEN, PORT + 1)
        self.settle("out", 407)
        self.stop()
        received = split_messages(self.path.read_bytes())
        for before, after in zip(received, self.delivered("out")):
            self.assertEqual(items(after)[:-1], self.expected(before))
            self.assertEqual(items(after)[-1][0], 1)
            self.assertEqual(harness.checksum(after[:-2]), struct.unpack(">H", after[-2:])[0])

    def test_with_nothing_to_change_the_messages_stay_what_they_were(self):
        if self.path is None:
            return
        self.run_recording(f"[out]\ninput = udp\nport = {PORT + 2}\nfamily = ipv4\nkeep_tags = 0-127\n", PORT + 2)
        self.settle("out", 407)
        self.stop()
        self.assertEqual(self.delivered("out"), split_messages(self.path.read_bytes()))

    def rewritten(self, body, port, **more):
        """Sends one message with the given body and a checksum, and returns the delivered message."""
        config = (f"[out]\ninput = udp\nport = {port}\nfamily = ipv4\nmission_id = MISSION 12\n"
                  "classification = secret\nclassifying_country = USA\nobject_country = USA\n")
        (self.folder / "messages.jsonl").unlink(missing_ok=True)
        self.encoder(more.pop("encoder", "") + config, ports=[port], **more)
        start = harness.KEY + bytes([len(body) + 4]) + body + bytes([1, 2])
        harness.send(port, start + struct.pack(">H", harness.checksum(start)))
        self.settle("out", 1)
        self.stop()
        message, = self.delivered("out")
        self.assertEqual(message[-4:-2], bytes([1, 2]))
        self.assertEqual(harness.checksum(message[:-2]), struct.unpack(">H", message[-2:])[0])
        return message[17:-4]

    # Items 128 (two list elements) and 129 with two-byte tags surround a foreign mission identifier.
    EXTENDED = [b"\x81\x00\x03\x01\x02\x03", b"\x03\x03OLD", b"\x81\x01\x02US"]
    TIME = b"\x02\x08" + bytes(8)
    MISSION = b"\x03\x0aMISSION 12"
    CLASSIFIED = bytes([48, len(SECURITY)]) + SECURITY

    def test_items_from_128_on_are_carried_and_the_rest_is_rewritten(self):
        before, _, after = self.EXTENDED
        self.assertEqual(self.rewritten(self.TIME + b"".join(self.EXTENDED), PORT + 3),
                         self.TIME + before + self.MISSION + after + self.CLASSIFIED)
        shown, = (line for line in self.lines() if line["type"] == "message")
        self.assertEqual([item["tag"] for item in shown["items"]], [2, 128, 3, 129, 48, 1])
        self.assertEqual(shown["checksum"], "ok")

    def assert_passes_as_it_came(self, **more):
        """Read with one-byte tags, the message ends in an element that is too long, so nothing is inserted."""
        body = self.TIME + b"".join(self.EXTENDED)
        self.assertEqual(self.rewritten(body, PORT + 4, **more), body)

    def test_extended_tags_can_be_switched_off(self):
        self.assert_passes_as_it_came(encoder="[encoder]\nextended_tags = no\n")
        self.assert_passes_as_it_came(arguments=["--extended-tags", "no"])

    def test_the_librarys_own_file_wins(self):
        (self.folder / "hostos.ini").write_text("[UASLocalSet]\nExtendedTags = No\n")
        self.assert_passes_as_it_came(host=f"[files]\n/etc/hostos.ini = {self.folder}/hostos.ini\n")

    def test_the_file_on_the_page_makes_the_library_read_them(self):
        before, _, after = self.EXTENDED
        texts = [text for page in pages.pages(SOURCE) for text in pages.blocks(page, "ini library")]
        self.assertGreater(len(texts), 0)
        for text in texts:
            (self.folder / "hostos.ini").write_text(text)
            self.assertEqual(self.rewritten(self.TIME + b"".join(self.EXTENDED), PORT + 5,
                                            encoder="[encoder]\nextended_tags = no\n",
                                            host=f"[files]\n/etc/hostos.ini = {self.folder}/hostos.ini\n"),
                             self.TIME + before + self.MISSION + after + self.CLASSIFIED)

    def test_ffmpeg_carries_the_rewritten_stream(self):
        if self.path is None:
            return
        self.run_recording(REWRITTEN, PORT + 1)
        self.settle("out", 407)
        self.stop()
        stream = self.folder / "out.klv"
        carried = subprocess.run(["ffmpeg", "-v", "error", "-f", "data", "-i", stream, "-map", "0", "-c", "copy", "-f",
                                  "data", "-"], capture_output=True, check=True).stdout
        self.assertEqual(carried, stream.read_bytes())


harness.main()
