# SPDX-License-Identifier: Apache-2.0
"""Simulates a serial line with a pseudo-terminal: it delivers bytes at a rate and can be unplugged."""
import os
import pty
import random
import socket
import struct
import termios
import time

import harness

SERIAL = "[serial]\ninput = serial\ndata = klv\nbaud = {}\n"


def sized_message(number, size):
    """Returns a local set of the given size (33 or more; a few sizes do not exist) with its number as time stamp."""
    for body in range(max(size - 40, 2), size):
        pairs = [(2, struct.pack(">Q", number))]
        left = body
        while left > 0:
            item = left if left <= 129 else min(127, left - 2)
            pairs.append((3, bytes((number + i) % 251 for i in range(item - 2))))
            left -= item
        data = harness.message(*pairs)
        if len(data) == size:
            return data
    raise ValueError(f"no message has {size} bytes")


def random_size(choose, least, most):
    """Returns a size that sized_message can make: at some sizes a length field grows by a byte."""
    while (size := choose.randint(least, most)) in (145, 274):
        pass
    return size


class Line:
    """The far end of the line, which is opened through a link."""

    def __init__(self, link):
        self.link = link
        self.far = None
        self.plug()

    def plug(self):
        self.far, near = pty.openpty()
        name = os.ttyname(near)
        os.close(near)
        temporary = f"{self.link}.new"
        os.symlink(name, temporary)
        os.rename(temporary, self.link)

    def unplug(self):
        self.link.unlink(missing_ok=True)
        os.close(self.far)
        self.far = None

    def is_open(self):
        """Tells whether the encoder has opened and configured the line."""
        try:
            return not termios.tcgetattr(self.far)[3] & termios.ICANON
        except termios.error:
            return False

    def write(self, data):
        while data:
            data = data[os.write(self.far, data):]

    def send(self, data, baud, most=1, seed=1):
        """Delivers the bytes in pieces of 1 to `most` bytes, each at the end of its last bit, with ten bits per byte.

        Whether the rate was kept: a feeder that the system lets wait makes pauses that no line has.
        """
        choose = random.Random(seed)
        start = time.monotonic()
        at = 0
        latest = 0
        while at < len(data):
            lot = data[at:at + choose.randint(1, most)]
            at += len(lot)
            wait = start + at * 10 / baud - time.monotonic()
            if wait > 0:
                time.sleep(wait)
            self.write(lot)
            latest = max(latest, time.monotonic() - start - at * 10 / baud)
        return latest < 0.01

    def close(self):
        if self.far is not None:
            self.unplug()


class Copies:
    """Receives the messages that a source relays to this socket, without the delay of a file."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.config = f"relay1 = 127.0.0.1:{self.socket.getsockname()[1]}\n"

    def next(self, seconds):
        """Returns the next message if it arrives within the time, otherwise None."""
        self.socket.settimeout(seconds)
        try:
            return self.socket.recv(65536)
        except TimeoutError:
            return None

    def close(self):
        self.socket.close()
