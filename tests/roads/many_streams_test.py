#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""More sources with a url than the library has video inputs: every byte of all of them arrives."""
import json
import os
import signal
import socket
import struct
import subprocess
import threading

import harness
import ts_reader
from harness import KEY, EndToEndTest, message, source

FIRST = 15840
# Sources that take the video inputs.
FOUR = "".join(f"[v{number}]\nurl = udp://127.0.0.1:{FIRST + number}\n" for number in range(4))


def walk(path):
    """Returns the KLV of a transport stream's data track, found without any library."""
    stream = ts_reader.Stream(path.read_bytes())
    return [data for _, data in stream.messages(stream.metadata()[0])]


def longest(size):
    """Returns a message of so many bytes."""
    return KEY + b"\x82" + struct.pack(">H", size - 19) + bytes(size - 19)


class Peer:
    """A server over TCP that has one client, to which it sends some bytes. It goes when the block ends."""

    def __init__(self, port, *pieces):
        self.server = socket.create_server(("127.0.0.1", port))
        self.server.settimeout(30 * harness.SLOW)
        self.pieces = pieces

    def __enter__(self):
        with self.server:
            self.connection, _ = self.server.accept()
        for piece in self.pieces:
            self.connection.sendall(piece)

    def __exit__(self, *_):
        self.connection.close()


class ManyStreams(EndToEndTest):
    def flight(self, name, duration=2, seed=1):
        path = self.folder / f"{name}.ts"
        self.feed("ts", "--output", path, "--duration", duration, "--rate", "20", "--seed", seed)
        return path

    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def reload(self, config, told):
        (self.folder / "encoder.ini").write_text(config)
        self.encoder_process.send_signal(signal.SIGHUP)
        self.wait_for(lambda: told in self.errors(), f"the line: {told}")

    def test_six_transport_streams_at_once(self):
        """FFmpeg sends six flights, each to a port of its own."""
        ports = range(FIRST, FIRST + 6)
        flights = [self.flight(f"flight{number}", seed=number + 1) for number in range(6)]
        expected = [walk(flight) for flight in flights]
        self.assertEqual(len({b"".join(messages) for messages in expected}), 6, "the flights differ")
        self.encoder("".join(f"[cam{number}]\nurl = udp://127.0.0.1:{port}\n" for number, port in enumerate(ports)), ports)
        inputs, outputs = [], []
        for number, port in enumerate(ports):
            inputs += ["-re", "-i", flights[number]]
            outputs += ["-map", str(number), "-c", "copy", "-f", "mpegts", f"udp://127.0.0.1:{port}?pkt_size=1316"]
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", *inputs, *outputs], check=True, timeout=60 * harness.SLOW)
        for number in range(6):
            self.settle(f"cam{number}", 40, 60)
        summary = self.stop()
        for number in range(6):
            with self.subTest(source=number):
                entry = source(summary, f"cam{number}")
                self.assertEqual(self.delivered(f"cam{number}"), expected[number])
                self.assertEqual(entry["bytes"], sum(map(len, expected[number])))
                self.assertEqual(entry["input"], "video" if number < 4 else "url")
                counts = entry["capture"]
                self.assertEqual((counts["packets"], counts["taken"]), (40, 40))
                self.assertEqual([counts[name] for name in ("damaged", "overflows", "oversized")], [0, 0, 0])

    def test_a_fifth_file_as_fast_as_it_goes_ends_the_run_without_a_loss(self):
        klv = [message((2, struct.pack(">Q", 1_000_000 * number))) for number in range(10_000)]
        klv[5000:5000] = [longest(1500), longest(1501), longest(60_000)]
        (self.folder / "long.klv").write_bytes(b"".join(klv))
        flight = self.flight("flight", 20)
        files = "".join(f"[v{number}]\nurl = flight.ts\nspeed = 0\n" for number in range(4))
        self.encoder(f"[encoder]\nqueue = 64\n{files}[fifth]\nurl = long.klv\nspeed = 0\n[sixth]\nurl = flight.ts\nspeed = 0\n")
        self.assertEqual(self.encoder_process.wait(timeout=120 * harness.SLOW), 0, self.errors())
        del klv[5001:5003]
        self.assertEqual((self.folder / "fifth.klv").read_bytes(), b"".join(klv))
        expected = b"".join(walk(flight))
        for name in ("v0", "v1", "v2", "v3", "sixth"):
            self.assertEqual((self.folder / f"{name}.klv").read_bytes(), expected)
        summary = json.loads((self.folder / "summary.json").read_text())
        self.assertEqual(summary["ended_by"], "played")
        fifth = source(summary, "fifth")
        self.assertEqual((fifth["capture"]["oversized"], fifth["dropped"], fifth["cut_at_buffer"]), (2, 0, 0))
        log = (self.folder / "host.log").read_text()
        self.assertEqual(log.count("Source fifth: KLV packet of 1501 bytes dropped, 1500 at most can be passed on"), 1)
        self.assertNotIn("60000 bytes dropped", log)

    def test_a_peer_that_goes_and_comes_back(self):
        """A server over TCP breaks off in the middle of a transport packet; the next one sends another flight."""
        first, second = self.flight("first", seed=1), self.flight("second", seed=2)
        url = "tcp://127.0.0.1:15850"
        self.encoder(f"{FOUR}[cam]\nurl = {url}\n", range(FIRST, FIRST + 4))
        self.wait_for(lambda: f"source cam waits: cannot open {url}: Connection refused" in self.errors(), "the line", 40)
        # Null packets let the demuxer give out what came before them.
        nulls = (b"\x47\x1f\xff\x10" + b"\xff" * 184) * 400
        with Peer(15850, first.read_bytes(), nulls, b"\x47\x01\x00\x10"):
            self.settle("cam", 40, 60)
            self.wait_for(lambda: self.errors().count("source cam is open after ") == 1, "the line", 40)
        self.wait_for(lambda: f"source cam waits: {url} " in self.errors(), "the line", 40)
        with Peer(15850, second.read_bytes(), nulls):
            self.settle("cam", 80, 60)
            self.wait_for(lambda: self.errors().count("source cam is open after ") == 2, "the line", 40)
        self.stop()
        self.assertEqual(self.delivered("cam"), walk(first) + walk(second))

    def test_a_hostile_stream_disturbs_nobody(self):
        """Noise, cut packets and messages that promise too much come to one source, and a server without an end to another."""
        server = socket.create_server(("127.0.0.1", 15851))
        self.addCleanup(server.close)
        stop = threading.Event()
        self.addCleanup(stop.set)

        def flood():
            connection, _ = server.accept()
            with connection:
                connection.settimeout(1)
                while not stop.wait(0.001):
                    try:
                        connection.sendall(os.urandom(4096))
                    except TimeoutError:
                        pass  # nobody reads at the moment
                    except OSError:
                        return

        threading.Thread(target=flood, daemon=True).start()
        expected = walk(self.flight("flight", 20))
        files = "".join(f"[v{number}]\nurl = flight.ts\nspeed = 0\n" for number in range(4))
        self.encoder(f"{files}[good]\nurl = flight.ts\nspeed = 0\n[noise]\nurl = udp://127.0.0.1:15852\n"
                     "[flood]\nurl = tcp://127.0.0.1:15851\n", [15852])
        for number in range(40):
            harness.send(15852, b"\0" + os.urandom(499))
            harness.send(15852, KEY + b"\x84\xff\xff\xff\xff" + os.urandom(100))
            harness.send(15852, message((2, bytes(8)))[:-3])
            harness.send(15852, longest(1501 + number))
            self.drain(15852)
        last = message((2, struct.pack(">Q", 7)))
        harness.send(15852, last)
        for name in ("v0", "v1", "v2", "v3", "good"):
            self.settle(name, 400, 60)
        self.wait_for(lambda: self.arrived("noise") >= 1, "the message behind the noise")
        summary = self.stop()
        for name in ("v0", "v1", "v2", "v3", "good"):
            self.assertEqual(self.delivered(name), expected)
        self.assertEqual(self.delivered("noise"), [last])
        counts = source(summary, "noise")["capture"]
        self.assertEqual(counts["oversized"], 40)
        self.assertGreaterEqual(counts["damaged"], 80)
        log = (self.folder / "host.log").read_text()
        self.assertEqual(log.count("Source noise: KLV packet of"), 1)
        self.assertEqual(log.count("neither a transport stream nor KLV"), 1)

    def test_a_live_stream_drops_with_a_count_while_the_library_stands_still(self):
        """The metadata thread is stopped. What its socket and the queue of the stream have no room for is counted."""
        sent = 3000
        self.repeated = 0
        self.encoder(f"{FOUR}[cam]\nurl = udp://127.0.0.1:15853\n", [*range(FIRST, FIRST + 4), 15853])
        thread = harness.StoppedThread(self.encoder_process.pid, "MetaData")
        try:
            for number in range(sent):
                harness.send(15853, message((2, struct.pack(">Q", number))))
                if number % 50 == 49:
                    self.drain(15853)
        finally:
            thread.resume()
        # Those that wait come first. When one has come that found room, there is room for the last one too.
        self.wait_for(lambda: self.comes_through(15853, sent), "a message that found room", 40)
        harness.send(15853, message((2, struct.pack(">Q", sent + 1))))
        self.wait_for(lambda: sent + 1 in self.numbers("cam"), "the last message", 40)
        counts = source(self.stop(), "cam")["capture"]
        delivered = self.numbers("cam")
        kept = [number for number in delivered if number < sent]
        self.assertEqual(kept, sorted(set(kept)))
        self.assertEqual(kept[:1000], list(range(1000)), "the oldest are kept")
        self.assertGreater(counts["overflows"], 1000)
        self.assertEqual(len(delivered) + counts["overflows"], sent + self.repeated + 1)

    def numbers(self, name):
        return [struct.unpack(">Q", dict(harness.items(each))[2])[0] for each in self.delivered(name)]

    def comes_through(self, port, number):
        """Sends a message, and tells whether it or one of the same number has arrived."""
        if number in self.numbers("cam"):
            return True
        harness.send(port, message((2, struct.pack(">Q", number))))
        self.repeated += 1
        return False

    def test_a_reload_adds_a_fifth_and_it_stays_when_a_video_input_is_free(self):
        self.encoder(FOUR, range(FIRST, FIRST + 4))
        fifth = "[fifth]\nurl = udp://127.0.0.1:15854\n"
        self.reload(FOUR + fifth, "sources added 1, changed 0, removed 0, unchanged 4")
        self.wait_for(lambda: harness.udp_port_open(15854), "the fifth")
        self.reload(FOUR.split("[v1]")[0] + fifth, "sources added 0, changed 0, removed 3, unchanged 2")
        for port, name in ((FIRST, "v0"), (15854, "fifth")):
            harness.send(port, message((2, bytes(8))))
            self.settle(name, 1)
        self.reload(FOUR.split("[v1]")[0] + fifth.replace("15854", "15855"), "sources added 0, changed 1, removed 0, unchanged 1")
        self.wait_for(lambda: harness.udp_port_open(15855), "the new port")
        harness.send(15855, message((2, bytes(8))))
        self.settle("fifth", 2)
        summary = self.stop()
        self.assertEqual((source(summary, "fifth")["input"], source(summary, "fifth")["messages"]), ("url", 2))

    def test_the_check_knows_them_all(self):
        (self.folder / "check.ini").write_text(f"{FOUR}[fifth]\nurl = none.ts\n")
        done = subprocess.run([harness.options.encoder, "--check", self.folder / "check.ini", "--library", harness.options.library],
                              capture_output=True, text=True, timeout=60 * harness.SLOW)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("[fifth] url", done.stderr)
        (self.folder / "check.ini").write_text(f"{FOUR}[fifth]\nurl = udp://127.0.0.1:{FIRST}\n")
        done = subprocess.run([harness.options.encoder, "--check", self.folder / "check.ini", "--library", harness.options.library],
                              capture_output=True, text=True, timeout=60 * harness.SLOW)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("[fifth] url", done.stderr)


harness.main()
