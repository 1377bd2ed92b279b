#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Configurations that are read again while traffic runs: what did not change loses and doubles nothing."""
import json
import os
import signal
import socket
import struct
import threading
import time

import harness
from harness import EndToEndTest, message, source, udp_port_open

RELOADS = int(os.environ.get("METADATA_TEST_RELOADS", "100"))
RATE = 600
PLACE = message((2, bytes(8)), (13, bytes.fromhex("42000000")), (14, bytes.fromhex("0A000000")))
PORTS = list(range(15700, 15708))
DONE = "configuration reloaded"
REFUSED = "configuration not reloaded, nothing has changed: "


def numbered(number):
    return message((2, struct.pack(">Q", number)))


def section(name, port, more=""):
    return f"[{name}]\ninput = udp\nport = {port}\nfamily = ipv4\n{more}"


EIGHT = "".join(section(f"s{port}", port) for port in PORTS)


class Feeder:
    """Sends numbered messages to each port at the rate until it is stopped, and counts them."""

    def __init__(self, ports):
        self.counts = {port: 0 for port in ports}
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            start = time.monotonic()
            while not self.stopping.is_set():
                due = int((time.monotonic() - start) * RATE)
                for port in self.counts:
                    # A feeder that was not let run must not send a second's worth at once.
                    for _ in range(min(due - self.counts[port], 20)):
                        sender.sendto(numbered(self.counts[port]), ("127.0.0.1", port))
                        self.counts[port] += 1
                if due - min(self.counts.values()) > 40:
                    start = time.monotonic() - min(self.counts.values()) / RATE
                time.sleep(0.002)

    def stop(self):
        self.stopping.set()
        self.thread.join()
        return self.counts


class Reload(EndToEndTest):
    def run_with(self, config, ports=()):
        self.config = self.folder / "encoder.ini"
        self.encoder(config, ports, format="none")
        self.wait_for(lambda: self.caught(signal.SIGHUP), "the encoder to handle signals")

    def caught(self, number):
        """Tells whether the run has begun: it has a descriptor of signals."""
        folder = f"/proc/{self.encoder_process.pid}/fd"
        return any("signalfd" in os.readlink(f"{folder}/{fd}") for fd in os.listdir(folder))

    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def reload(self, config=None, answer=DONE):
        """Reloads, waits for the line that answers and returns it."""
        before = self.errors().count(answer)
        if config is not None:
            new = self.folder / "new.ini"
            new.write_text(config)
            new.rename(self.config)
        self.encoder_process.send_signal(signal.SIGHUP)
        self.wait_for(lambda: self.errors().count(answer) > before, f"the answer to a reload: {answer}")
        return [line for line in self.errors().splitlines() if answer in line][-1]

    def delivered_numbers(self, name):
        return [struct.unpack(">Q", data[19:27])[0] for data in self.delivered(name)]

    @staticmethod
    def unread(port):
        with open("/proc/net/udp") as table:
            return any(line.split()[1].endswith(f":{port:04X}") and not line.split()[4].endswith(":00000000")
                       for line in list(table)[1:])

    def test_reloads_under_traffic_lose_and_double_nothing(self):
        self.run_with(EIGHT, PORTS)
        feeder = Feeder(PORTS)
        self.addCleanup(feeder.stop)
        for number in range(RELOADS):
            extra = section("extra", 15790, f"mission_id = M{number}\n") if number % 3 else ""
            # New and removed sources before the others shift their default numbers.
            self.reload(extra + EIGHT)
        counts = feeder.stop()
        self.assertGreater(min(counts.values()), 0)
        for port in PORTS:
            self.wait_for(lambda: not self.unread(port), "the last messages")
        time.sleep(0.2)
        summary = self.stop()
        for port in PORTS:
            name = f"s{port}"
            self.assertEqual(self.delivered_numbers(name), list(range(counts[port])), name)
            self.assertEqual(source(summary, name)["reopened"], 0)
            self.assertEqual(source(summary, name)["sequence_gaps"], 0)
        self.assertNotIn(REFUSED, self.errors())

    def test_tracks_and_events_change_under_traffic_without_a_loss(self):
        """The track goes on in another file, events go to another listener, and the source stays open."""
        listeners = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
        for number, listener in enumerate(listeners):
            self.addCleanup(listener.close)
            listener.bind(("127.0.0.1", 15795 + number))
            listener.setblocking(False)

        def config(number):
            return section("s", 15794, f"cot_out = udp://127.0.0.1:{15795 + number}\ncot_out_rate = 20\n"
                           f"track = {'ab'[number]}.geojson\n") + "[encoder]\ntrack_interval = 0\n"

        def receives(listener):
            try:
                return bool(listener.recv(65536))
            except BlockingIOError:
                return False

        def send_some():
            for _ in range(5):
                harness.send(15794, PLACE)
            self.sent += 5

        def grown(name):
            send_some()
            return (self.folder / name).exists() and "Point" in (self.folder / name).read_text()

        self.sent = 0
        self.run_with(config(0), [15794])
        self.wait_for(lambda: grown("a.geojson") and receives(listeners[0]), "the first track and event")
        self.reload(config(1))
        self.wait_for(lambda: grown("b.geojson") and receives(listeners[1]), "the second track and event")
        self.reload(section("s", 15794))
        self.assertIn("cannot have its track in", self.reload(config(0), "the track of s does not change: "))
        self.drain(15794)
        summary = source(self.stop(), "s")
        self.assertEqual(summary["messages"], self.sent)
        self.assertEqual((summary["reopened"], summary["sequence_gaps"]), (0, 0))
        self.assertGreaterEqual(summary["cot_out"]["events"], 2)
        points = 0
        for name in ("a.geojson", "b.geojson"):
            points += (self.folder / name).read_text().count('"Point"')
            json.loads((self.folder / name).read_text())
        self.assertLessEqual(points, self.sent * 2)

    def test_the_table_shows_other_columns_after_a_reload(self):
        self.config = self.folder / "encoder.ini"
        self.encoder(section("s", 15794), [15794], format="table", arguments=["--columns", "source, length"])
        rows = self.folder / "messages.jsonl"
        self.wait_for(lambda: self.caught(signal.SIGHUP), "the encoder to handle signals")
        harness.send(15794, PLACE)
        self.wait_for(lambda: "s " in rows.read_text(), "a row")
        self.assertNotIn("SENSOR LAT", rows.read_text())
        self.stop()
        self.encoder(section("s", 15794), [15794], format="table")
        self.wait_for(lambda: self.caught(signal.SIGHUP), "the encoder to handle signals")
        self.reload("[encoder]\ncolumns = source, sensor_lat, 14\n" + section("s", 15794))
        self.wait_for(lambda: "\nSOURCE SENSOR LAT  SENSOR LON\n" in rows.read_text(), "a header")
        harness.send(15794, PLACE)
        self.wait_for(lambda: len(rows.read_text().splitlines()[-1].split()) == 3, "a row of three columns")
        self.stop()

    def test_what_is_new_opens_what_is_gone_closes_what_changed_does_both(self):
        self.run_with(section("stays", 15710) + section("goes", 15711) + section("changes", 15712), [15710, 15711, 15712])
        for port in (15710, 15711, 15712):
            harness.send(port, numbered(port))
        self.wait_for(lambda: not any(self.unread(port) for port in (15710, 15711, 15712)), "the messages")
        line = self.reload(section("stays", 15710) + section("changes", 15712, "mission_id = NEW\n") +
                           section("comes", 15713))
        self.assertIn("sources added 1, changed 1, removed 1, unchanged 1", line)
        self.assertFalse(udp_port_open(15711))
        for port in (15710, 15712, 15713):
            harness.send(port, numbered(port + 1))
        time.sleep(0.3)
        summary = self.stop()
        counts = {entry["name"]: entry["messages"] for entry in summary["sources"]}
        self.assertEqual(counts, {"stays": 2, "goes": 1, "changes": 2, "comes": 1})
        states = {entry["name"]: entry["state"] for entry in summary["sources"]}
        self.assertEqual(states, {"stays": "open", "goes": "removed", "changes": "open", "comes": "open"})
        changed = source(summary, "changes")
        self.assertEqual((changed["reopened"], changed["sequence_gaps"]), (1, 0))
        self.assertEqual(changed["statistics"]["rx_ok_messages"], 2, "the library's counts go on")
        self.assertEqual([dict(harness.items(data)).get(3) for data in self.delivered("changes")], [None, b"NEW"])
        self.assertEqual(len(self.delivered("goes")), 1)

    def test_a_source_that_returns_goes_on_with_its_file_and_its_counts(self):
        both = section("a", 15714) + section("b", 15715)
        self.run_with(both, [15714, 15715])
        for round in range(3):
            harness.send(15715, numbered(round))
            self.wait_for(lambda: not self.unread(15715), "the message")
            time.sleep(0.1)
            self.reload(section("a", 15714))
            self.assertFalse(udp_port_open(15715))
            self.reload(both)
            self.wait_for(lambda: udp_port_open(15715), "the port")
        summary = self.stop()
        self.assertEqual(self.delivered_numbers("b"), [0, 1, 2])
        self.assertEqual((source(summary, "b")["messages"], source(summary, "b")["statistics"]["rx_ok_messages"]), (3, 3))

    def test_sources_may_swap_their_ports(self):
        self.run_with(section("a", 15716) + section("b", 15717), [15716, 15717])
        self.assertIn("changed 2", self.reload(section("a", 15717) + section("b", 15716)))
        self.wait_for(lambda: udp_port_open(15716) and udp_port_open(15717), "the ports")
        harness.send(15717, numbered(1))
        harness.send(15716, numbered(2))
        time.sleep(0.3)
        self.stop()
        self.assertEqual((self.delivered_numbers("a"), self.delivered_numbers("b")), ([1], [2]))

    def test_what_cannot_be_applied_changes_nothing_and_is_one_line(self):
        good = section("a", 15718)
        self.run_with(good, [15718])
        wrong = {
            "[a]\ninput = udp\nport = 99999\n": '[a] port must be a whole number from 1 to 65535, not "99999"',
            "": "there is no source",
            "[a\n": "line 1",
            "[encoder]\nqueue = 17\n" + good: "[encoder] queue cannot change while the program runs",
            "[encoder]\ncapabilities = ipv4\n" + good: "[encoder] capabilities",
            good + "[c]\ninput = udp\nport = 15719\ndata = cot\n": "[encoder] capabilities",
            good + section("b", 15719, "output = /nonexistent/b.klv\n"): "cannot write /nonexistent/b.klv",
            good + section("c", 15719) + section("b", 15720, f"output = {self.folder}/a.klv\n"): "a.klv",
        }
        for config, why in wrong.items():
            with self.subTest(why=why):
                before = len(self.errors().splitlines())
                self.assertIn(why, self.reload(config, REFUSED))
                self.assertEqual(len(self.errors().splitlines()), before + 1)
                self.assertFalse(udp_port_open(15719))
        self.config.unlink()
        self.assertIn("encoder.ini: is not a regular file", self.reload(None, REFUSED))
        harness.send(15718, numbered(1))
        time.sleep(0.2)
        summary = self.stop()
        self.assertEqual([entry["name"] for entry in summary["sources"]], ["a"])
        self.assertEqual(self.delivered_numbers("a"), [1])

    def test_settings_of_the_program_that_may_change_do(self):
        self.run_with(section("a", 15721), [15721])
        self.reload("[encoder]\nstats_interval = 0.2\n" + section("a", 15721))
        table = self.folder / "messages.jsonl"
        self.wait_for(lambda: table.read_text().count("SOURCE") >= 2, "statistics at the new interval")
        self.reload("[encoder]\nduration = 0.01\n" + section("a", 15721))
        self.assertEqual(self.encoder_process.wait(timeout=20 * harness.SLOW), 0)

    def test_a_file_that_is_written_meanwhile_is_read_whole(self):
        """The writer pauses in the middle of the file, where what stands there is a valid configuration."""
        first = section("a", 15722)
        self.run_with(first, [15722])
        tried = 0
        for number in range(5):
            second = section("b", 15723 + number % 2, "mission_id = M\n")
            before = self.errors().count(DONE)
            with open(self.config, "w") as file:
                file.write(first)
                file.flush()
                begun = time.monotonic()
                self.encoder_process.send_signal(signal.SIGHUP)
                time.sleep(0.05)
                file.write(second)
                file.flush()
            # After a tenth of a second the file has rested; a busy machine may take longer for the pause.
            if time.monotonic() - begun > 0.08:
                self.encoder_process.send_signal(signal.SIGHUP)
                self.wait_for(lambda: udp_port_open(15723 + number % 2), "the new port")
                self.wait_for(lambda: self.errors().count(DONE) > before, "the reload")
                continue
            tried += 1
            self.wait_for(lambda: udp_port_open(15723 + number % 2), "the new port")
            self.wait_for(lambda: self.errors().count(DONE) > before, "the reload")
        self.assertTrue(tried, "this machine is too busy for a pause of 50 ms")
        self.assertNotIn(REFUSED, self.errors())
        self.stop()

    def test_a_file_that_never_rests_changes_nothing(self):
        good = section("a", 15725)
        self.run_with(good, [15725])
        stopping = threading.Event()

        def write():
            while not stopping.is_set():
                self.config.write_text(good)
                time.sleep(0.01)
        writer = threading.Thread(target=write)
        writer.start()
        try:
            def refused():
                # A busy machine may keep the writer from writing for a tenth of a second: then the file has rested.
                self.encoder_process.send_signal(signal.SIGHUP)
                time.sleep(2.5)
                return REFUSED in self.errors()
            self.wait_for(refused, "a refusal")
            self.assertIn("is being written all the time", self.errors())
        finally:
            stopping.set()
            writer.join()
        self.assertIn("unchanged 1", self.reload())
        self.stop()

    def test_the_standard_input_is_not_read_again(self):
        (self.folder / "in.ini").write_text(section("a", 15726))
        with open(self.folder / "in.ini") as config:
            self.encoder_process = self.start(
                harness.options.encoder, "-", "--library", harness.options.library, "--format", "none", "--summary",
                self.folder / "summary.json", stdin=config, stdout=self.output("messages.jsonl"),
                stderr=self.output("encoder.err"))
        self.wait_for(lambda: udp_port_open(15726) and self.caught(signal.SIGHUP), "the port")
        self.encoder_process.send_signal(signal.SIGHUP)
        self.wait_for(lambda: REFUSED in self.errors(), "the line")
        self.assertIn("came from the standard input, which cannot be read again", self.errors())
        self.assertTrue(udp_port_open(15726))
        self.stop()

    def test_a_terminal_that_is_closed_ends_the_run(self):
        far, near = os.openpty()
        (self.folder / "encoder.ini").write_text(section("a", 15727))
        self.encoder_process = self.start(
            harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library, "--format", "none",
            "--summary", self.folder / "summary.json", stdin=near, stdout=self.output("messages.jsonl"),
            stderr=self.output("encoder.err"))
        os.close(near)
        self.wait_for(lambda: udp_port_open(15727) and self.caught(signal.SIGHUP), "the port")
        os.close(far)
        self.encoder_process.send_signal(signal.SIGHUP)
        self.assertEqual(self.encoder_process.wait(timeout=20 * harness.SLOW), 0)


if __name__ == "__main__":
    harness.main()
