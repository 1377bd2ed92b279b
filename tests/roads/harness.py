# SPDX-License-Identifier: Apache-2.0
"""Harness of the end-to-end tests: it runs mdencoder and mdfeed on loopback in a folder for each test.

A test derives from EndToEndTest. It writes a configuration, starts the encoder, waits until its sources are open, feeds
them, stops the encoder and checks the summary and the files of delivered messages.
"""
import argparse
import ctypes
import json
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

_parser = argparse.ArgumentParser()
_parser.add_argument("--encoder", required=True)
_parser.add_argument("--feed", required=True)
_parser.add_argument("--library", required=True)
_parser.add_argument("--shared-data", required=True)
_parser.add_argument("--source", required=True)
options, rest = _parser.parse_known_args()

_PTRACE_SEIZE = 0x4206
_PTRACE_INTERRUPT = 0x4207
_PTRACE_DETACH = 17
_WAIT_ALL = 0x40000000

KEY = bytes.fromhex("060E2B34020B01010E01030101000000")
SLOW = 10 if os.environ.get("METADATA_TEST_SLOW") else 1


def recording(name):
    """Returns a file of the shared test data, or None; the test then reports that it could not run its check."""
    path = pathlib.Path(options.shared_data) / name
    if not path.exists():
        print(f"ABSENT: {path} - the checks on that recording are left out", file=sys.stderr)
        return None
    return path


def split_messages(data):
    """Splits messages that are stored back to back."""
    messages = []
    at = 0
    while at < len(data):
        first = data[at + 16]
        header, length = 17, first
        if first == 0x81:
            header, length = 18, data[at + 17]
        elif first == 0x82:
            header, length = 19, struct.unpack(">H", data[at + 17:at + 19])[0]
        messages.append(data[at:at + header + length])
        at += header + length
    return messages


def checksum(data):
    return sum(byte << 8 if index % 2 == 0 else byte for index, byte in enumerate(data)) & 0xFFFF


def items(message):
    """Returns the one-byte tags of a message and their values as a list of pairs, in order."""
    at = 17
    if message[16] == 0x81:
        at = 18
    elif message[16] == 0x82:
        at = 19
    found = []
    while at < len(message):
        tag, length, header = message[at], message[at + 1], 2
        if length == 0x81:
            length, header = message[at + 2], 3
        elif length == 0x82:
            length, header = struct.unpack(">H", message[at + 2:at + 4])[0], 4
        found.append((tag, message[at + header:at + header + length]))
        at += header + length
    return found


def message(*pairs):
    """Returns a UAS Local Set with a correct checksum."""
    body = b"".join(bytes([tag, len(value)]) + value for tag, value in pairs) + bytes([1, 2])
    size = len(body) + 2
    length = bytes([size]) if size < 128 else bytes([0x81, size]) if size < 256 else b"\x82" + struct.pack(">H", size)
    start = KEY + length + body
    return start + struct.pack(">H", checksum(start))


def udp_port_open(port, only_ipv6=False):
    """Returns whether a source has this port. Of a source's two sockets that of IPv4 is the last one: what is sent to it
    while there is only the other one is lost."""
    table = "/proc/net/udp6" if only_ipv6 else "/proc/net/udp"
    return f":{port:04X} " in pathlib.Path(table).read_text()


def udp_sockets(port):
    """Returns how many sockets have this port."""
    tables = "".join(pathlib.Path(table).read_text() for table in ("/proc/net/udp", "/proc/net/udp6"))
    return tables.count(f":{port:04X} ")


def udp_queue(port):
    """Returns the bytes that the sockets on this port hold and nobody has read yet."""
    tables = "".join(pathlib.Path(table).read_text() for table in ("/proc/net/udp", "/proc/net/udp6"))
    return sum(int(line.split()[4].split(":")[1], 16) for line in tables.splitlines() if f":{port:04X} " in line)


def has_failed(test):
    """Returns whether a test that still runs has failed already."""
    result = test._outcome.result
    return any(each is test for each, _ in result.failures + result.errors)


class EndToEndTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="metadata_"))
        self.processes = []
        self.encoder_process = None

    def tearDown(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.wait()
            if process.stdout:
                process.stdout.close()
        log = self.folder / "host.log"
        if has_failed(self) and log.exists():
            print("--- host.log, last lines", file=sys.stderr)
            print("\n".join(log.read_text(errors="replace").splitlines()[-40:]), file=sys.stderr)
        shutil.rmtree(self.folder)

    def output(self, name):
        file = open(self.folder / name, "w")
        self.addCleanup(file.close)
        return file

    def start(self, *command, **more):
        process = subprocess.Popen([str(word) for word in command], **more)
        self.processes.append(process)
        return process

    def encoder(self, config, ports=(), host="", arguments=(), format="json", only_ipv6=False):
        """Starts mdencoder and waits until the UDP ports are open; says so if their sources have addresses of IPv6 alone."""
        (self.folder / "host.ini").write_text(
            f"[serial]\n/dev/ttyPS0 = {self.folder}/serial\n[log]\nconsole = no\nfile = {self.folder}/host.log\n"
            f"level = 5\n{host}\n")
        (self.folder / "encoder.ini").write_text(config)
        self.encoder_process = self.start(
            options.encoder, self.folder / "encoder.ini", "--library", options.library, "--host-config",
            self.folder / "host.ini", "--output-dir", self.folder, "--summary", self.folder / "summary.json",
            "--format", format, *arguments, stdout=self.output("messages.jsonl"), stderr=self.output("encoder.err"),
            env={**os.environ, "TZ": "UTC"})
        self.wait_for(lambda: all(udp_port_open(port, only_ipv6) for port in ports), "the encoder's ports")

    def feed(self, *arguments, check=True, **more):
        result = subprocess.run([options.feed, *[str(word) for word in arguments]], capture_output=True, text=True,
                                timeout=120, **more)
        if check:
            self.assertEqual(result.returncode, 0, result.stderr)
        return result

    def feed_serial(self, *arguments):
        """Starts mdfeed on its own pseudo-terminal; it sends as soon as the encoder has opened it."""
        process = self.start(options.feed, *arguments, "--pty", self.folder / "serial", stderr=subprocess.DEVNULL)
        self.wait_for(lambda: (self.folder / "serial").exists(), "the pseudo-terminal")
        return process

    def wait_for(self, condition, what, seconds=20):
        deadline = time.monotonic() + seconds * SLOW
        while not condition():
            if self.encoder_process is not None and self.encoder_process.poll() is not None:
                self.fail(f"mdencoder ended early: {(self.folder / 'encoder.err').read_text()}")
            if time.monotonic() > deadline:
                self.fail(f"waited in vain for {what}")
            time.sleep(0.02)

    def drain(self, *ports):
        """Waits until the encoder has read everything that its sockets on these ports hold. What it has read it delivers
        before it takes notice of a signal."""
        for port in ports:
            self.wait_for(lambda: udp_queue(port) == 0, f"an empty queue of port {port}")

    def stop(self, expected=0):
        """Stops the encoder as a user does, and returns the summary."""
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=30 * SLOW), expected,
                         (self.folder / "encoder.err").read_text())
        return json.loads((self.folder / "summary.json").read_text())

    def delivered(self, name):
        """Returns the messages in a source's output file."""
        return split_messages((self.folder / f"{name}.klv").read_bytes())

    def settle(self, name, count, seconds=20):
        """Waits until the given number of messages of a source was delivered."""
        self.wait_for(lambda: self.arrived(name) >= count, f"{count} messages of {name}", seconds)

    def arrived(self, name):
        wanted = f'"source":"{name}"'
        with open(self.folder / "messages.jsonl") as lines:
            return sum(1 for line in lines if '"type":"message"' in line[:30] and wanted in line[:200])

    def lines(self):
        return [json.loads(line) for line in (self.folder / "messages.jsonl").read_text().splitlines()]


def send(port, data, address="127.0.0.1"):
    with socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.sendto(data, (address, port))


def source(summary, name):
    return next(entry for entry in summary["sources"] if entry["name"] == name)


def threads(process, name):
    """Returns the threads of a process that have given themselves this name."""
    tasks = pathlib.Path(f"/proc/{process}/task")
    return [int(task.name) for task in tasks.iterdir() if (task / "comm").read_text().strip() == name]


class StoppedThread:
    """Stops one thread of a process, as a deadlock would."""

    def __init__(self, process, name):
        deadline = time.monotonic() + 20 * SLOW
        while not threads(process, name) and time.monotonic() < deadline:
            time.sleep(0.02)
        self.task = threads(process, name)[0]
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
        self.call(_PTRACE_SEIZE)
        self.call(_PTRACE_INTERRUPT)
        os.waitpid(self.task, _WAIT_ALL)

    def call(self, request):
        if self.libc.ptrace(request, self.task, None, None) != 0:
            raise OSError(ctypes.get_errno(), "ptrace")

    def resume(self):
        self.call(_PTRACE_DETACH)


def isolate():
    """Moves this process and its programs to a network of their own, whose only interface is lo. Tests that run at the
    same time, and programs of the machine, may then use the same ports."""
    clone_newnet = 0x40000000
    if ctypes.CDLL(None, use_errno=True).unshare(clone_newnet) != 0:
        print(f"no network of its own ({os.strerror(ctypes.get_errno())}): the ports are shared", file=sys.stderr)
        return
    for command in ("link set lo up multicast on", "route add 224.0.0.0/4 dev lo"):
        subprocess.run(["ip", *command.split()], check=True)


def main():
    isolate()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
