#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The program as a service: what it tells the service manager, its watchdog, the journal's priorities, its units."""
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time

import harness
from harness import EndToEndTest, udp_port_open

CONFIG = "[a]\ninput = udp\nport = 15831\nfamily = ipv4\n"
WAITING = "[serial]\ninput = serial\ndevice = /nonexistent/tty\n"


class Manager:
    """The service manager's end of the socket: it keeps what it was told, and when."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(address)
        self.socket.setblocking(False)
        self.told = []

    def read(self):
        while True:
            try:
                text = self.socket.recv(4096).decode()
            except BlockingIOError:
                return self.told
            self.told.append((time.monotonic(), dict(line.split("=", 1) for line in text.splitlines())))

    def count(self, key):
        return sum(1 for _, told in self.read() if key in told)


class Service(EndToEndTest):
    def manage(self, config, address=None, **environment):
        """Starts the encoder as a service manager does."""
        address = address or str(self.folder / "notify")
        self.manager = Manager(address.replace("@", "\0", 1))
        self.addCleanup(self.manager.socket.close)
        (self.folder / "encoder.ini").write_text(config)
        self.encoder_process = self.start(
            harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library, "--format", "none",
            stdin=subprocess.DEVNULL, stdout=self.output("messages.jsonl"), stderr=self.output("encoder.err"),
            env={**os.environ, "TZ": "UTC", "NOTIFY_SOCKET": address, **environment})

    def wait_for_told(self, key, count=1):
        self.wait_for(lambda: self.manager.count(key) >= count, f"{key} from the encoder")
        return [told for _, told in self.manager.told if key in told][-1]

    def end(self):
        self.encoder_process.send_signal(signal.SIGTERM)
        self.assertEqual(self.encoder_process.wait(timeout=20 * harness.SLOW), 0)

    def test_the_manager_is_told_of_the_start_a_reload_and_the_end(self):
        for address in (None, f"@mdencoder{os.getpid()}"):
            with self.subTest(address=address):
                self.manage(CONFIG + WAITING, address)
                ready = self.wait_for_told("READY")
                self.assertTrue(udp_port_open(15831), "it is ready when its sources are open")
                self.assertEqual(ready["READY"], "1")
                self.assertIn("1 of 2 sources open; serial waits: ", ready["STATUS"])
                before = time.monotonic_ns() // 1000
                (self.folder / "encoder.ini").write_text(CONFIG)
                self.encoder_process.send_signal(signal.SIGHUP)
                self.assertEqual(self.wait_for_told("READY", 2)["STATUS"], "1 of 1 sources open")
                told = [told for _, told in self.manager.told if "READY" in told or "RELOADING" in told]
                self.assertEqual([list(each)[0] for each in told], ["READY", "RELOADING", "READY"])
                self.assertTrue(before <= int(told[1]["MONOTONIC_USEC"]) <= time.monotonic_ns() // 1000)
                (self.folder / "encoder.ini").write_text("[a]\n")
                self.encoder_process.send_signal(signal.SIGHUP)
                self.wait_for_told("READY", 3)
                self.end()
                self.assertEqual(list(self.manager.read()[-1][1]), ["STOPPING"])
                self.assertEqual(self.manager.count("WATCHDOG"), 0, "nobody asked for it")
                if address is None:
                    (self.folder / "notify").unlink()

    def test_the_watchdog_beats_while_the_metadata_thread_turns(self):
        for number, config in enumerate((CONFIG, WAITING)):
            with self.subTest(config=config):
                self.manage(config, f"@mdencoder{os.getpid()}.{number}", WATCHDOG_USEC="2000000")
                self.wait_for_told("WATCHDOG", 8)
                gaps = [b[0] - a[0] for a, b in zip(self.manager.told, self.manager.told[1:])]
                self.assertLess(max(gaps), 2 * harness.SLOW)
                thread = harness.StoppedThread(self.encoder_process.pid, "MetaData")
                try:
                    time.sleep(3)  # the last sign may be up to two seconds old
                    stopped = self.manager.count("WATCHDOG")
                    time.sleep(3)
                    self.assertEqual(self.manager.count("WATCHDOG"), stopped, "a beat without the metadata thread")
                finally:
                    thread.resume()
                self.wait_for_told("WATCHDOG", stopped + 3)
                self.end()

    def test_the_watchdog_of_another_process_is_not_answered(self):
        self.manage(CONFIG, WATCHDOG_USEC="200000", WATCHDOG_PID="1")
        self.wait_for_told("READY")
        time.sleep(1)
        self.assertEqual(self.manager.count("WATCHDOG"), 0)
        self.end()

    def test_a_manager_that_is_not_there_changes_nothing(self):
        for address in ("/nonexistent/notify", "nonsense", "@", "/" + "x" * 300):
            (self.folder / "encoder.ini").write_text("[encoder]\nduration = 0.1\n" + CONFIG)
            result = subprocess.run(
                [harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library],
                capture_output=True, text=True, timeout=60, env={**os.environ, "NOTIFY_SOCKET": address})
            self.assertEqual(result.returncode, 0, result.stderr)

    def test_lines_for_the_journal_have_their_priority(self):
        journal, far = socket.socketpair()
        self.addCleanup(journal.close)
        state = os.fstat(far.fileno())
        (self.folder / "encoder.ini").write_text(
            "[encoder]\nduration = 1\nlog_level = 6\n" + CONFIG + WAITING)
        process = self.start(
            harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library, "--format", "none",
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=far.fileno(),
            env={**os.environ, "JOURNAL_STREAM": f"{state.st_dev}:{state.st_ino}"})
        far.close()
        text = b""
        while data := journal.recv(65536):
            text += data
        self.assertEqual(process.wait(timeout=60), 0)
        lines = text.decode().splitlines()
        self.assertTrue(all(re.match("<[2-7]>", line) for line in lines), lines)
        self.assertTrue(any(line.startswith("<4>mdencoder: source serial waits: ") for line in lines), lines)
        self.assertTrue(any(re.match("<5>METADATALIB 5 ", line) for line in lines), lines)
        self.assertTrue(any(line.startswith("<6>METADATALIB 6 ") for line in lines), lines)

    def test_lines_for_something_else_have_none(self):
        (self.folder / "encoder.ini").write_text("[encoder]\nduration = 0.1\n" + WAITING)
        result = subprocess.run(
            [harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library, "--format", "none"],
            capture_output=True, text=True, timeout=60, env={**os.environ, "JOURNAL_STREAM": "8:12345"})
        self.assertIn("\nmdencoder: source serial waits", result.stderr)
        self.assertNotRegex(result.stderr, "(?m)^<")

    def test_the_units_are_valid_and_hardened(self):
        if not shutil.which("systemd-analyze"):
            print("ABSENT: systemd-analyze - the units are not verified")
            return
        units = pathlib.Path(harness.options.source) / "packaging" / "systemd"
        program = str(harness.options.encoder)
        for name, instance in (("mdencoder.service", "mdencoder.service"), ("mdencoder@.service", "mdencoder@x.service")):
            text = (units / name).read_text()
            # The program is not installed here, and neither are its pages.
            text = re.sub(r"^(Exec\w+=)mdencoder ", rf"\1{program} ", text, flags=re.M)
            text = re.sub(r"^Documentation=.*\n", "", text, flags=re.M)
            (self.folder / instance).write_text(text)
            result = subprocess.run(["systemd-analyze", "verify", self.folder / instance], capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=20",
                                     self.folder / instance], capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stdout[-500:] + result.stderr)


if __name__ == "__main__":
    harness.main()
