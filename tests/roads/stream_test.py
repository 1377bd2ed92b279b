#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Streams of video and metadata: other programs read back exactly what the callback delivered, with its times."""
import gzip
import json
import pathlib
import random
import re
import shutil
import socket
import subprocess
import threading
import time
import urllib.request

import harness
import ts_reader
from harness import SLOW, EndToEndTest, items, message, options, send
from recipe import Recipe

IP_RECVTTL = 12  # of linux/in.h
CARRIAGES = ("synchronous", "asynchronous")
TRACKS = {0x101: "a", 0x102: "b"}
PAGE = 15931


class Catcher:
    """Keeps the datagrams of a port."""

    def __init__(self, port, group=None):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.socket.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
        self.socket.bind((group or "127.0.0.1", port))
        if group:
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                   socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        self.data, self.sizes, self.ttls = b"", set(), set()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while True:
            data, ancillary, _, _ = self.socket.recvmsg(65536, 64)
            if data == b"end":
                return
            self.data += data
            self.sizes.add(len(data))
            self.ttls.update(value[0] for _, _, value in ancillary)

    def finish(self, port):
        """Everything that was sent before is in the socket already."""
        send(port, b"end", self.socket.getsockname()[0])
        self.thread.join()
        self.socket.close()
        return self.data


class Stream(EndToEndTest):
    def messages(self, port, count, late=0):
        """Sends messages that have the present time, or an earlier one."""
        for number in range(count):
            now = int((time.time() - late) * 1e6)
            send(port, message((2, now.to_bytes(8, "big")), (3, f"MISSION {number}".encode())))
            time.sleep(0.02)

    def run_streams(self, streams, count=30):
        """Runs two sources into these streams, and returns the summary."""
        self.encoder("[a]\ninput = udp\nport = 15901\n[b]\ninput = udp\nport = 15902\n" + streams, [15901, 15902])
        senders = [threading.Thread(target=self.messages, args=(port, count)) for port in (15901, 15902)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join()
        self.settle("a", count)
        self.settle("b", count)
        return self.stop()

    def was_in_time(self, summary):
        """Tells whether every message came with the frames of its time: the machine may be too slow for that."""
        return all(track["late"] == 0 and track["offset_ms"] == 0
                   for stream in summary["streams"] for track in stream["tracks"])

    def judge(self, data, carriage):
        """Checks a whole stream of both sources, or one that its reader has joined."""
        stream = ts_reader.Stream(data)
        frames = stream.frames()
        self.assertEqual(stream.faults, [])
        self.assertEqual(stream.tracks[0x100][0], 0x1B)
        self.assertEqual(stream.metadata(), list(TRACKS))
        for pid, name in TRACKS.items():
            kind, descriptors = stream.tracks[pid]
            self.assertEqual((kind, b"KLVA" in descriptors), (0x15 if carriage == "synchronous" else 0x06, True))
            found = stream.messages(pid)
            self.assertEqual([data for _, data in found], self.delivered(name))
            if carriage == "synchronous":
                self.assertEqual(stream.sequence(pid), [number & 255 for number in range(len(found))])
            for pts, data in found:
                stamp = int.from_bytes(items(data)[0][1], "big")
                nearest = min(frames, key=lambda frame: abs(frame[1] - stamp))
                # The machine may have left frames out.
                self.assertLessEqual(abs(pts - nearest[0] - (stamp - nearest[1]) * 9 / 100), 100)
        self.assertEqual(stream.faults, [])
        return stream

    def test_every_reader_gets_what_was_delivered_from_files_and_datagrams(self):
        group, port = "239.5.5.5", 15910
        for _ in range(3):
            catchers = [Catcher(port, group), Catcher(port + 1)]
            summary = self.run_streams("".join(
                f"[stream {carriage}]\nsize = 160x120\nmetadata = {carriage}\nurl = {carriage}.ts\nurl2 = {url}\n"
                for carriage, url in zip(CARRIAGES, (f"udp://{group}:{port}?ttl=3", f"udp://127.0.0.1:{port + 1}"))))
            caught = [catcher.finish(port + number) for number, catcher in enumerate(catchers)]
            if self.was_in_time(summary):
                break
        for number, carriage in enumerate(CARRIAGES):
            whole = (self.folder / f"{carriage}.ts").read_bytes()
            self.assertEqual(caught[number], whole)
            self.assertLessEqual(max(catchers[number].sizes), 1316)
            report = summary["streams"][number]
            self.assertEqual((report["name"], report["messages"], report["lost"]), (carriage, 60, 0))
            self.assertEqual([output["lost"] for output in report["outputs"]], [0, 0])
            stream = self.read_with_everything(self.folder / f"{carriage}.ts", carriage)
            self.assertEqual(report["frames"], len(stream.frames()))
        self.assertEqual(catchers[0].ttls, {3})

    def test_every_reader_gets_what_was_delivered_over_srt(self):
        """The receiver is there before the messages, and the last second of the stream may be on its way at its end."""
        for _ in range(3):
            shutil.rmtree(self.folder / "srt", ignore_errors=True)
            (self.folder / "srt").mkdir()
            receivers = [self.receive_srt(15920 + number, carriage) for number, carriage in enumerate(CARRIAGES)]
            self.encoder("[a]\ninput = udp\nport = 15901\n[b]\ninput = udp\nport = 15902\n" + "".join(
                f"[stream {carriage}]\nsize = 160x120\nmetadata = {carriage}\nurl = srt://127.0.0.1:{15920 + number}\n"
                for number, carriage in enumerate(CARRIAGES)), [15901, 15902])
            for carriage in CARRIAGES:
                self.wait_for(lambda: self.caught(carriage) > 20000, f"the stream over SRT: {self.errors()}")
            for port in (15901, 15902):
                self.messages(port, 20)
            self.settle("a", 20)
            self.settle("b", 20)
            for carriage in CARRIAGES:
                size = self.caught(carriage) + 100000
                self.wait_for(lambda: self.caught(carriage) > size, "what followed the messages")
            summary = self.stop()
            for receiver in receivers:
                receiver.kill()
                receiver.wait()
            if self.was_in_time(summary):
                break
        for carriage in CARRIAGES:
            self.read_with_everything(self.folder / "srt" / f"{carriage}.ts", carriage)

    def receive_srt(self, port, carriage):
        return self.start("gst-launch-1.0", "-q", "srtsrc", f"uri=srt://127.0.0.1:{port}?mode=listener", "!", "filesink",
                          "buffer-mode=unbuffered", f"location={self.folder}/srt/{carriage}.ts",
                          stderr=self.output(f"gst_{carriage}.err"))

    def caught(self, carriage):
        path = self.folder / "srt" / f"{carriage}.ts"
        return path.stat().st_size if path.exists() else 0

    def read_with_everything(self, path, carriage):
        """Four readers get the same messages with the same times. Returns the stream."""
        data = path.read_bytes()
        stream = self.judge(data[:len(data) // 188 * 188], carriage)
        self.read_with_ffmpeg(path, stream)
        self.read_with_gstreamer(path, stream, carriage)
        self.read_with_mpegts_js(path, stream, carriage)
        return stream

    def read_with_ffmpeg(self, path, stream):
        probe = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-show_packets", "-of", "json", path],
                               capture_output=True, timeout=60 * SLOW, check=True)
        shown = json.loads(probe.stdout)
        self.assertEqual([each["codec_name"] for each in shown["streams"]], ["h264", "klv", "klv"])
        for index, (pid, name) in enumerate(TRACKS.items()):
            self.assertEqual(int(shown["streams"][index + 1]["id"], 16), pid)
            copied = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", f"0:{index + 1}", "-c", "copy", "-f",
                                     "data", "-"], capture_output=True, timeout=60 * SLOW, check=True)
            self.assertEqual(copied.stdout, b"".join(self.delivered(name)))
            times = [packet["pts"] for packet in shown["packets"] if packet["stream_index"] == index + 1]
            self.assertEqual(times, [pts for pts, _ in stream.messages(pid)])

    def read_with_gstreamer(self, path, stream, carriage):
        """GStreamer 1.22 does not know synchronous metadata."""
        for pid, name in TRACKS.items():
            track = ["gst-launch-1.0", "-v", "filesrc", f"location={path}", "!", "tsdemux", "name=demux",
                     f"demux.private_0_{pid:04x}", "!", "meta/x-klv", "!", "identity", "silent=false", "!", "filesink",
                     f"location={self.folder}/gst.klv"]
            if carriage == "synchronous":
                self.assert_not_linked(track)
                continue
            done = subprocess.run(track, capture_output=True, text=True, timeout=60 * SLOW, check=True)
            self.assertEqual((self.folder / "gst.klv").read_bytes(), b"".join(self.delivered(name)))
            shown = [(int(minutes) * 60 + float(seconds)) * 90000
                     for minutes, seconds in re.findall(r"chain .* pts: 0:(\d+):([\d.]+)", done.stdout)]
            times = [pts for pts, _ in stream.messages(pid)]
            self.assertEqual(len(shown), len(times))
            for ours, theirs in zip(times, shown):
                self.assertLess(abs((ours - times[0]) - (theirs - shown[0])), 2)

    def assert_not_linked(self, track):
        """One in thirty of these does not end after its error, so it is not waited for."""
        process = self.start(*track, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        said = []
        for line in process.stderr:
            said.append(line)
            if "not-linked" in line:
                break
        process.kill()
        process.communicate()
        self.assertIn("not-linked", "".join(said))
        self.assertEqual((self.folder / "gst.klv").read_bytes(), b"")

    def read_with_mpegts_js(self, path, stream, carriage):
        """Its events of asynchronous metadata have no times."""
        script = pathlib.Path(options.source) / "tests/roads/read_ts.js"
        packed = pathlib.Path(options.source) / "tests/data/mpegts_demuxer/demuxer.js.gz"
        (self.folder / "demuxer.js").write_bytes(gzip.decompress(packed.read_bytes()))
        done = subprocess.run(["node", script, self.folder / "demuxer.js", path], capture_output=True, text=True,
                              timeout=60 * SLOW, check=True)
        events = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertGreater(events.pop()["frames"], 0)
        self.assertEqual({event["event"] for event in events}, {carriage})
        for pid, name in TRACKS.items():
            found = [event for event in events if event["pid"] == pid]
            units = [unit for event in found for unit in event.get("units", [event])]
            self.assertEqual([bytes.fromhex(unit["data"]) for unit in units], self.delivered(name))
            if carriage == "synchronous":
                self.assertEqual([event["pts"] for event in found], [pts // 90 for pts, _ in stream.messages(pid)])
                self.assertEqual([unit["sequence"] for unit in units], stream.sequence(pid))

    def test_sources_share_a_track_that_is_merged(self):
        summary = self.run_streams("[stream one]\nsize = 160x120\ntracks = merged\nurl = one.ts\n")
        stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
        self.assertEqual((stream.faults, stream.metadata()), ([], [0x101]))
        found = [data for _, data in stream.messages(0x101)]
        self.assertEqual(sorted(found), sorted(self.delivered("a") + self.delivered("b")))
        self.assertEqual(stream.sequence(0x101), list(range(60)))
        self.assertEqual(summary["streams"][0]["messages"], 60)

    def test_a_stream_goes_back_into_a_source(self):
        """What a stream carries is what a source that reads it delivers."""
        self.run_streams("[stream one]\nsize = 160x120\nsources = b\nurl = one.ts\n")
        sent = self.delivered("b")
        self.encoder("[back]\nurl = one.ts\nspeed = 0\n")
        self.settle("back", len(sent), 60)
        self.stop()
        self.assertEqual(self.delivered("back"), sent)

    def test_messages_of_another_time_have_that_of_their_arrival(self):
        self.encoder("[a]\ninput = udp\nport = 15901\n[stream one]\nsize = 160x120\nurl = one.ts\n", [15901])
        self.messages(15901, 10, late=3600)
        self.settle("a", 10)
        summary = self.stop()
        stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
        self.assertEqual(stream.faults, [])
        self.assertEqual([data for _, data in stream.messages(0x101)], self.delivered("a"))
        track = summary["streams"][0]["tracks"][0]
        self.assertEqual((track["by_arrival"], track["messages"]), (10, 10))

    def test_a_burst_does_not_hold_up_the_video(self):
        self.encoder("[a]\ninput = udp\nport = 15901\n[stream one]\nsize = 160x120\nurl = one.ts\n", [15901])
        burst = [message((2, int(time.time() * 1e6).to_bytes(8, "big")), (3, bytes(100)), (10, number.to_bytes(4, "big")))
                 for number in range(1500)]
        for number, each in enumerate(burst):
            send(15901, each)
            if number % 100 == 99:
                self.drain(15901)
        self.settle("a", 1500)
        summary = self.stop()
        stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
        self.assertEqual(stream.faults, [])
        self.assertEqual([data for _, data in stream.messages(0x101)], self.delivered("a"))
        self.assertEqual(summary["streams"][0]["lost"], 0)

    def test_a_full_disk_is_said_once_and_ingest_goes_on(self):
        self.encoder("[a]\ninput = udp\nport = 15901\n[stream one]\nsize = 160x120\nurl = /dev/full\n", [15901])
        self.messages(15901, 10)
        self.settle("a", 10)
        self.wait_for(lambda: "/dev/full" in self.errors(), "the line about the full disk")
        summary = self.stop()
        self.assertEqual([line for line in self.errors().splitlines() if "stream" in line],
                         ["mdencoder: stream one: /dev/full cannot be written: No space left on device"])
        output = summary["streams"][0]["outputs"][0]
        self.assertEqual((output["good"], output["bytes"]), (False, 0))
        self.assertGreater(output["lost"], 0)
        self.assertEqual(summary["sources"][0]["messages"], 10)

    def test_the_recipe_of_the_page_makes_a_stream(self):
        recipe = Recipe(self, "docs/outputs/stream.md#1")
        self.encoder_process = recipe.start(0, stdout=subprocess.DEVNULL, stderr=self.output("encoder.err"))
        self.wait_for(lambda: harness.udp_port_open(15000), "the port")
        recipe.run(1)
        self.assertEqual(self.encoder_process.wait(timeout=30 * SLOW), 0)
        self.assertEqual(set(recipe.run(2).split()), {"h264,0x100", "klv,0x101"})

    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def test_segments_play_as_one(self):
        for _ in range(3):
            if self.was_in_time(self.run_streams("[stream one]\nsize = 160x120\nhls = pages\n", 150)):
                break
        folder = self.folder / "pages"
        names = [line for line in (folder / "one.m3u8").read_text().splitlines() if not line.startswith("#")]
        self.assertGreaterEqual(len(names), 2)
        self.judge(b"".join((folder / name).read_bytes() for name in names), "synchronous")
        for name in names:
            first = ts_reader.Stream((folder / name).read_bytes()).of(0x100)[0]
            self.assertTrue(first.random_access)
        probe = subprocess.run(["ffprobe", "-v", "error", "-count_packets", "-show_entries", "stream=codec_name", "-of",
                                "csv=p=0", folder / "one.m3u8"], capture_output=True, text=True, timeout=60 * SLOW, check=True)
        self.assertEqual(probe.stderr, "")
        self.assertEqual(sorted(set(probe.stdout.split())), ["h264", "klv"])


class Video(EndToEndTest):
    """The video of files and URLs."""

    def make(self, name, *arguments, seconds=2):
        path = self.folder / name
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", f"testsrc=size=160x120:rate=25:duration={seconds}",
                        *arguments, path], check=True, timeout=60 * SLOW)
        return path

    def errors(self):
        return [line for line in (self.folder / "encoder.err").read_text().splitlines() if "stream one" in line]

    def start_stream(self, *lines, encoder=""):
        self.encoder(f"[encoder]\n{encoder}\n[a]\ninput = udp\nport = 15901\n[stream one]\nurl = one.ts\n" + "\n".join(lines) + "\n",
                     [15901])

    def has_video(self):
        """Asks the page of the program, which is there soon after the ports."""
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{PAGE}/api/v1/streams", timeout=30 * SLOW) as answer:
                return json.load(answer)["streams"][0]["has_video"]
        except OSError:
            return None

    def size(self):
        path = self.folder / "one.ts"
        return path.stat().st_size if path.exists() else 0

    def feed_one(self):
        now = int(time.time() * 1e6)
        send(15901, message((2, now.to_bytes(8, "big"))))

    def finish(self, codec, frames, pids=1):
        """Ends the stream when it has so many frames, and returns it with what FFmpeg makes of it."""
        self.wait_for(lambda: self.frames() >= frames, f"{frames} frames", 60)
        self.feed_one()
        self.settle("a", 1)
        self.stop()
        stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
        self.assertEqual(stream.faults, [])
        self.assertEqual([data for _, data in stream.messages(0x101)], self.delivered("a"))
        decoded = subprocess.run(["ffmpeg", "-v", "error", "-i", self.folder / "one.ts", "-map", "0:v", "-f", "null", "-"],
                                 capture_output=True, text=True, timeout=60 * SLOW)
        probe = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "stream=codec_name,width",
                                "-of", "csv=p=0", self.folder / "one.ts"], capture_output=True, text=True)
        self.assertEqual(set(probe.stdout.split()), {codec})
        return stream, decoded.stderr

    def frames(self):
        """Counts the frames of the file as it grows."""
        data = (self.folder / "one.ts").read_bytes() if self.size() else b""
        return sum(1 for at in range(0, len(data) - 187, 188) if data[at + 1:at + 3] == b"\x41\x00")

    def copied(self, name, *encoding, codec):
        """A file is passed on frame by frame, and begins again at its end."""
        path = self.make(name, *encoding)
        self.start_stream(f"video = {path}")
        stream, errors = self.finish(codec, 60)
        self.assertEqual(errors, "")
        self.assertTrue(all(time is not None for _, time in stream.frames()))
        keys = [pes for pes in stream.of(0x100) if pes.random_access]
        self.assertGreaterEqual(len(keys), 2)
        return stream

    def test_a_file_of_h264_with_frames_out_of_order(self):
        stream = self.copied("b.mp4", "-c:v", "libx264", "-bf", "2", codec="h264,160")
        self.assertTrue(any(pes.pts != pes.dts for pes in stream.of(0x100)))

    def test_a_file_of_h265(self):
        stream = self.copied("b.mkv", "-c:v", "libx265", "-x265-params", "log-level=none", codec="hevc,160")
        self.assertEqual(stream.tracks[0x100][0], 0x24)

    def test_what_is_neither_is_encoded(self):
        self.start_stream(f"video = {self.make('b.avi', '-c:v', 'mpeg2video')}", "size = 96x64")
        _, errors = self.finish("h264,96", 30)
        self.assertEqual(errors, "")

    def test_what_is_h264_can_be_encoded_again(self):
        self.start_stream(f"video = {self.make('b.mp4', '-c:v', 'libx264')}", "size = 96x64", "encode = h264")
        _, errors = self.finish("h264,96", 30)
        self.assertEqual(errors, "")

    def test_a_live_stream_that_goes_and_comes_back(self):
        path = self.make("b.ts", "-c:v", "libx264", "-g", "10", "-bf", "0", "-f", "mpegts", seconds=4)
        send_it = ["ffmpeg", "-v", "error", "-re", "-i", path, "-c", "copy", "-f", "mpegts", "tcp://127.0.0.1:15930?listen=1"]
        sender = self.start(*send_it, stderr=subprocess.DEVNULL)
        self.start_stream("video = tcp://127.0.0.1:15930", encoder=f"http = 127.0.0.1:{PAGE}")
        self.wait_for(lambda: self.frames() >= 10, "frames", 60)
        self.wait_for(lambda: self.has_video() is True, "the word that there are pictures")
        sender.kill()
        sender.wait()
        self.wait_for(self.errors, "the line about the end")
        self.wait_for(lambda: self.has_video() is False, "the word that there are no pictures")
        before = self.frames()
        self.start(*send_it, stderr=subprocess.DEVNULL)
        self.wait_for(lambda: len(self.errors()) == 2 or self.errors()[-1].endswith("again"), "the line about the return", 60)
        self.finish("h264,160", before + 10)
        name = "stream one: the video tcp://127.0.0.1:15930"
        self.assertEqual(self.errors()[-1], f"mdencoder: {name} is read again")
        self.assertIn("; messages go on without pictures", self.errors()[-2])
        self.assertLessEqual(len(self.errors()), 4)

    def test_without_its_file_a_stream_has_messages_and_a_clock(self):
        begin = time.monotonic()
        self.start_stream("video = nowhere.mp4")
        self.feed_one()
        self.settle("a", 1)
        self.wait_for(lambda: self.size() > 0, "the beginning of the stream")
        self.assertGreaterEqual(time.monotonic() - begin, 3, "it waits for its video")
        self.wait_for(lambda: self.size() > 20000, "clock references")
        summary = self.stop()
        stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
        self.assertEqual((stream.faults, len(stream.of(0x100))), ([], 0))
        self.assertEqual([data for _, data in stream.messages(0x101)], self.delivered("a"))
        self.assertEqual(self.errors(), [f"mdencoder: stream one: the video {self.folder}/nowhere.mp4 cannot be opened: No such "
                                         "file or directory; messages go on without pictures"])
        self.assertFalse(summary["streams"][0]["has_video"])

    def test_hostile_video_harms_nobody(self):
        good = self.make("b.mp4", "-c:v", "libx264").read_bytes()
        random.seed(7)
        for number, damage in enumerate((lambda at: random.randrange(256), lambda at: 0xFF)):
            bad = bytearray(good)
            for at in random.sample(range(len(bad)), len(bad) // 50):
                bad[at] = damage(at)
            for encode in ("copy", "h264"):
                path = self.folder / f"bad{number}.mp4"
                path.write_bytes(bytes(bad) if number else good[:2000] + bytes(bad[2000:]))
                self.start_stream(f"video = {path}", f"encode = {encode}", "size = 96x64")
                self.feed_one()
                self.settle("a", 1)
                self.wait_for(lambda: self.size() > 30000, "a stream")
                self.stop()
                stream = ts_reader.Stream((self.folder / "one.ts").read_bytes())
                self.assertEqual(stream.faults, [])
                self.assertLessEqual(len(self.errors()), 2)


if __name__ == "__main__":
    harness.main()
