#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the README shows under "Your own stream", and the first commands of the page on mdencoder, as they are printed."""
import os
import pathlib
import re
import signal
import socket
import subprocess

import harness
from harness import EndToEndTest, message, send, udp_port_open
from recipe import SOURCE, Recipe

# Puts a folder of devices, in which a pseudo-terminal is the serial line, in the place of /dev, and goes on as the shell.
OWN_DEVICES = """
mkdir "$1/dev"
mount -t tmpfs -o mode=755 tmpfs "$1/dev"
for node in null zero full random urandom tty; do touch "$1/dev/$node"; mount --bind "/dev/$node" "$1/dev/$node"; done
mkdir "$1/dev/pts" "$1/dev/shm"
mount --rbind /dev/pts "$1/dev/pts"
mount --bind /dev/shm "$1/dev/shm"
touch "$1/dev/ttyUSB0"
mount --bind "$(readlink -f "$1/line")" "$1/dev/ttyUSB0"
mount --rbind "$1/dev" /dev
eval "$2"
"""


class Usage(EndToEndTest):
    def shown(self):
        return (self.folder / "shown").read_text()

    def begin(self, process):
        self.encoder_process = process

    def outputs(self):
        return {"stdout": self.output("shown"), "stderr": self.output("encoder.err")}

    def end(self):
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=60 * harness.SLOW), 0, (self.folder / "encoder.err").read_text())
        self.encoder_process = None


class Readme(Usage):
    """The commands of the section stand in its paragraphs, one paragraph for each kind of stream."""

    def setUp(self):
        super().setUp()
        self.recipe = Recipe(self, "README.md#1")
        (self.folder / "build").mkdir()
        (self.folder / "build/release").symlink_to(pathlib.Path(harness.options.encoder).resolve().parents[1])

    def line(self, command):
        """Returns what a shell runs that was given the README's line, then the command; it finds no other programs."""
        self.recipe.left.clear()
        return "\n".join([*self.recipe.commands, "exec " + command])

    def settings(self):
        return {"cwd": self.folder, "env": {**os.environ, "TZ": "UTC"}}

    def run_in_shell(self, command):
        done = subprocess.run(["sh", "-euc", self.line(command)], capture_output=True, text=True, timeout=120 * harness.SLOW,
                              **self.settings())
        self.assertEqual(done.returncode, 0, f"{command}: {done.stderr}")
        return done.stdout

    def start_in_shell(self, command):
        self.begin(self.start("sh", "-euc", self.line(command), **self.settings(), **self.outputs()))

    def commands(self, title):
        """Returns the commands of a paragraph. Those of all paragraphs are asked for by some test."""
        section = re.search(r"^## Your own stream\n(.*?)^## ", (SOURCE / "README.md").read_text(), re.M | re.S)[1]
        parts = dict(re.findall(r"^\*\*My ([\w' ]+)\*\*(.*?)(?=^\*\*|\Z)", section, re.M | re.S))
        self.assertEqual(set(parts), {"camera's transport stream", "serial line", "TAK network", "recording"})
        return re.findall(r"`(md\w+ [^`]+)`", parts[title])

    def wait_for_datagram(self, group, port):
        """Waits until somebody sends to a group."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.settimeout(60 * harness.SLOW)
            receiver.bind((group, port))
            receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
            receiver.recv(65536)

    def test_a_cameras_transport_stream(self):
        inspect, show = self.commands("camera's transport stream")
        self.run_in_shell("mdfeed ts --output flight.ts --duration 120")
        self.start("ffmpeg", "-v", "error", "-nostdin", "-re", "-i", self.folder / "flight.ts", "-map", "0", "-c", "copy",
                   "-f", "mpegts", "udp://239.1.2.3:5000?pkt_size=1316", stdout=subprocess.DEVNULL)
        self.wait_for_datagram("239.1.2.3", 5000)
        self.assertRegex(self.run_in_shell(inspect), r"^udp://239\.1\.2\.3:5000: mpegts, 2 streams, [1-9]\d* messages")
        self.start_in_shell(show)
        self.wait_for(lambda: " camera " in self.shown(), "a row", 60)
        self.end()

    def test_a_serial_line(self):
        (show,) = self.commands("serial line")
        self.start(harness.options.feed, "klv", "--simulate", "--rate", "20", "--count", "6000", "--pty", self.folder / "line",
                   stderr=subprocess.DEVNULL)
        self.wait_for((self.folder / "line").exists, "the pseudo-terminal")
        self.begin(self.start("unshare", "--mount", "--propagation", "private", "sh", "-euc", OWN_DEVICES, "sh", self.folder,
                              self.line(show), **self.settings(), **self.outputs()))
        self.wait_for(lambda: re.search(r" ground .* ok ", self.shown()), "a row", 60)
        self.end()

    def test_a_tak_network(self):
        (show,) = self.commands("TAK network")
        self.start_in_shell(show)
        self.wait_for(lambda: udp_port_open(6969), "the port")
        self.run_in_shell("mdfeed cot --simulate --count 5 --rate 10 --udp 239.2.3.1:6969")
        self.wait_for(lambda: self.shown().count(" tak ") == 5, "the rows")
        self.end()

    def test_a_recording(self):
        inspect, play, decode = self.commands("recording")
        self.run_in_shell("mdfeed ts --output flight.ts --duration 2 --rate 10")
        self.assertRegex(self.run_in_shell(inspect), r"^flight\.ts: mpegts, 2 streams, 20 messages, 0 faults\n")
        self.assertEqual(self.run_in_shell(play).count(" flight "), 20)
        self.assertEqual(len(re.findall(r"^ok ", self.run_in_shell(decode), re.M)), 20)


class Page(Usage):
    def deliver(self, condition):
        """Sends messages until a condition holds."""
        self.wait_for(lambda: udp_port_open(5000), "the port", 60)

        def holds():
            send(5000, message((2, bytes(8))))
            return condition()
        self.wait_for(holds, "what is shown", 60)

    def test_the_first_commands_of_the_page_on_mdencoder(self):
        recipe = Recipe(self, "docs/mdencoder.md#1")
        table, lines, live, inspect, check, check_text = range(len(recipe.commands))

        self.begin(recipe.start(table, **self.outputs()))
        self.deliver(lambda: " aircraft " in self.shown())
        self.end()

        timed = recipe.start(lines, **self.outputs())
        self.deliver(lambda: timed.poll() is not None)
        self.assertEqual(timed.returncode, 0)
        for kind in ("message", "statistics"):
            self.assertIn(f'"type": "{kind}"', self.shown())

        self.check_live(recipe, live)

        self.feed("ts", "--output", self.folder / "flight.ts", "--duration", "2")
        self.assertRegex(recipe.run(inspect), r"^flight\.ts: mpegts, ")
        for number in (check, check_text):
            self.assertEqual(recipe.run(number), "demo.ini: OK, 1 source\n")

    def check_live(self, recipe, number):
        """The statistics are written over themselves on a terminal."""
        master, terminal = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, terminal)
        os.set_blocking(master, False)
        self.begin(recipe.start(number, stdout=terminal, stderr=terminal))
        text = ""

        def is_in_place():
            nonlocal text
            try:
                text += os.read(master, 65536).decode()
            except BlockingIOError:
                pass
            return text.count("SOURCE") >= 2 and "\x1b[" in text
        self.deliver(is_in_place)
        self.end()
        self.assertNotIn("00:00:00", text, "no message is shown")


if __name__ == "__main__":
    harness.main()
