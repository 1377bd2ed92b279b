#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recordings: rotated, with their index, on a disk that fills and empties, and what is left of a run that was killed."""
import json
import pathlib
import select
import socket
import subprocess
import tempfile
import time

import harness
from harness import EndToEndTest, source, split_messages

UDP = "[udp]\ninput = udp\nport = 15721\nfamily = ipv4\n"
OTHER = "[other]\ninput = udp\nport = 15722\nfamily = ipv4\n"


def numbered(number, size=1000):
    return harness.message((2, number.to_bytes(8, "big")), *[(70, bytes(100))] * ((size - 100) // 102))


class Recording(EndToEndTest):
    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def send(self, messages, port=15721, pause=0.0005):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for message in messages:
                sender.sendto(message, ("127.0.0.1", port))
                time.sleep(pause)

    def index(self, path):
        lines = [json.loads(line) for line in pathlib.Path(f"{path}.json").read_text().splitlines()]
        self.assertEqual(lines[0]["type"], "recording index")
        data = path.read_bytes()
        return [(line["time"], data[line["offset"]:line["offset"] + line["length"]]) for line in lines[1:]]

    def test_a_full_disk_has_whole_messages_and_the_recording_goes_on_when_there_is_room(self):
        disk = pathlib.Path(tempfile.mkdtemp(prefix="metadata_disk_"))
        self.addCleanup(disk.rmdir)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", disk], capture_output=True).returncode:
            self.fail("this test mounts a small disk: run it as root")
        self.addCleanup(subprocess.run, ["umount", "-l", disk])
        (disk / "ballast").write_bytes(bytes(900 << 10))
        self.encoder(UDP + f"output = {disk}/udp.klv\n" + OTHER, [15721, 15722])
        messages = [numbered(number) for number in range(600)]
        self.send(messages[:500])
        self.wait_for(lambda: "cannot be written further" in self.errors(), "the full disk")
        time.sleep(1.2)
        stored = split_messages((disk / "udp.klv").read_bytes())
        self.assertEqual(stored, messages[:len(stored)], "whole messages")
        self.send([harness.message((2, bytes(8)))] * 10, 15722)
        (disk / "ballast").unlink()
        self.wait_for(lambda: "continues" in self.errors(), "the recording to go on")
        self.send(messages[500:530])
        self.settle("udp", 530)
        summary = self.stop(expected=1)
        stored = split_messages((disk / "udp.klv").read_bytes())
        entry = source(summary, "udp")
        self.assertEqual(entry["messages"], 530)
        self.assertEqual(len(stored), entry["recording"]["messages"])
        self.assertEqual(entry["recording"]["messages"] + entry["recording"]["lost"], 530)
        self.assertEqual(stored[-30:], messages[500:530])
        self.assertEqual([message for _, message in self.index(disk / "udp.klv")], stored)
        self.assertEqual(len(self.delivered("other")), 10)
        lines = self.errors().splitlines()
        self.assertEqual(sum("cannot be written further" in line for line in lines), 1)
        self.assertEqual(sum("continues in" in line for line in lines), 1)
        self.assertIn(f"mdencoder: the received stream of udp lacks {entry['recording']['lost']} messages: 0 dropped "
                      f"with the queue full, {entry['recording']['lost']} that could not be written", lines)

    def test_a_row_of_files_holds_every_message_once(self):
        (self.folder / "rec").mkdir()
        self.encoder(UDP + "output = rec/u_%Y%m%dT%H%M%SZ_%n.klv\nrotate_size = 64k\n", [15721])
        messages = [numbered(number) for number in range(300)]
        self.send(messages)
        self.settle("udp", 300)
        summary = self.stop()
        files = sorted((self.folder / "rec").glob("*.klv"), key=lambda path: path.name[-8:])
        self.assertGreaterEqual(len(files), 4)
        self.assertEqual(source(summary, "udp")["recording"], {"messages": 300, "lost": 0, "files": len(files)})
        self.assertEqual([message for path in files for _, message in self.index(path)], messages)
        self.assertTrue(all(path.stat().st_size <= 65536 for path in files))

    def test_a_replay_with_the_index_keeps_the_timing(self):
        self.encoder(UDP, [15721])
        pauses = [0.3, 0.02, 0.02, 0.2, 0.02]
        self.send([numbered(0, 200)])
        for number, pause in enumerate(pauses):
            time.sleep(pause)
            self.send([numbered(number + 1, 200)])
        self.settle("udp", 6)
        self.stop()
        path = self.folder / "udp.klv"
        recorded = self.index(path)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.bind(("127.0.0.1", 15723))
            feeder = self.start(harness.options.feed, "klv", "--file", path, "--index", f"{path}.json", "--udp",
                                "127.0.0.1:15723")
            arrived = []
            while len(arrived) < 6 and select.select([receiver], [], [], 20)[0]:
                arrived.append((time.monotonic(), receiver.recv(2000)))
            self.assertEqual(feeder.wait(timeout=20), 0)
        self.assertEqual([message for _, message in arrived], [message for _, message in recorded])
        for (start, _), (end, _), (first, _), (last, _) in zip(arrived, arrived[1:], recorded, recorded[1:]):
            self.assertAlmostEqual(end - start, (last - first) / 1e6, delta=0.1 * harness.SLOW)

    def test_a_run_that_is_killed_leaves_whole_messages_and_a_usable_index(self):
        self.encoder(UDP, [15721])
        messages = [numbered(number) for number in range(100)]
        self.send(messages)
        self.settle("udp", 100)
        index = self.folder / "udp.klv.json"
        self.wait_for(lambda: index.exists() and index.read_text().count("\n") == 101, "the index, once a second")
        self.encoder_process.kill()
        self.encoder_process.wait()
        self.assertEqual(self.delivered("udp"), messages)
        self.assertEqual([message for _, message in self.index(self.folder / "udp.klv")], messages)

    def refused(self, config):
        (self.folder / "encoder.ini").write_text(config)
        process = subprocess.run([harness.options.encoder, self.folder / "encoder.ini", "--library",
                                  harness.options.library], capture_output=True, text=True, timeout=60,
                                 stdin=subprocess.DEVNULL)
        return process.returncode, process.stderr

    def test_files_that_cannot_be_written_are_one_line(self):
        (self.folder / "link.klv").symlink_to(self.folder / "target")
        self.assertEqual(self.refused(UDP + "output = link.klv\n"),
                         (1, f"mdencoder: cannot write {self.folder}/link.klv: it is a symbolic link, which is not "
                             "followed\n"))
        self.assertEqual(self.refused(UDP + "output = none/a.klv\n"),
                         (1, f"mdencoder: cannot write {self.folder}/none/a.klv: No such file or directory\n"))
        self.assertEqual(self.refused(UDP + "output = /proc/a.klv\n")[0], 1)
        code, text = self.refused(UDP + "output = a_%Y.klv\nrotate_time = 60\n")
        self.assertEqual((code, text.count("\n")), (2, 1))
        self.assertIn("%n", text)
        self.assertFalse((self.folder / "target").exists())

    def test_a_recording_that_lacks_messages_fails_the_run(self):
        self.encoder(UDP, [15721], arguments=("--queue", "16"))
        recorder = harness.StoppedThread(self.encoder_process.pid, "Recorder")
        self.feed("klv", "--simulate", "--count", "300", "--rate", "0", "--udp", "127.0.0.1:15721")
        self.drain(15721)
        recorder.resume()
        summary = self.stop(expected=1)
        dropped = source(summary, "udp")["dropped"]
        self.assertGreater(dropped, 0)
        self.assertEqual(len(self.delivered("udp")) + dropped, source(summary, "udp")["messages"] + dropped)
        self.assertIn(f"mdencoder: the received stream of udp lacks {dropped} messages: {dropped} dropped with the "
                      "queue full, 0 that could not be written\n", self.errors())


harness.main()
