#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the largest message that arrives at each rate of a serial line, and the delay of messages.

Single bytes at the rate, on a line that is quiet between messages and on one that never pauses. Of three messages of
a size all have to arrive. The numbers of docs/host.md come from here.
"""
import statistics
import sys
import time

import harness
from harness import EndToEndTest
from serial_line import SERIAL, Copies, Line, sized_message

RATES = [2400, 4800, 9600, 19200]


class Limits(EndToEndTest):
    def open(self, baud):
        self.line = Line(self.folder / "serial")
        self.copies = Copies()
        self.encoder(SERIAL.format(baud) + self.copies.config)
        self.wait_for(self.line.is_open, "the encoder to open the line")
        self.sent = 0

    def end(self):
        self.stop()
        self.line.close()
        self.copies.close()

    def copied(self, count, seconds):
        """Tells whether the given number of messages arrives, each within the time."""
        return all(self.copies.next(seconds) is not None for _ in range(count))

    def arrive(self, baud, size, pause):
        while self.copied(1, 0.6):
            pass
        messages = [sized_message(self.sent + i, size) for i in range(3)]
        self.sent += 3
        if pause:
            for data in messages:
                self.line.send(data, baud)
                time.sleep(max(0.3, 1000 / baud))
        else:
            small = [sized_message(i, 41) for i in range(8)]
            messages = small + [data for message in messages for data in (message, small[0])]
            self.line.send(b"".join(messages), baud)
        return self.copied(len(messages), 0.6)

    def largest(self, baud, pause):
        low, high = 40, int(2 * baud / 10) + 300
        while high - low > max(4, low // 50):
            middle = (low + high) // 2
            if middle in (145, 274):
                middle += 1
            if self.arrive(baud, middle, pause):
                low = middle
            else:
                high = middle
        return low

    def late(self, baud, whole):
        """Returns the milliseconds from a message's last byte to its delivery: the median of twenty and the maximum."""
        times = []
        for number in range(20):
            data = sized_message(number, 150)
            if not whole:
                self.line.send(data, baud)
            else:
                self.line.write(data)
            sent = time.monotonic()
            self.assertTrue(self.copied(1, 1))
            times.append((time.monotonic() - sent) * 1000)
            time.sleep(0.1 + 700 / baud)
        return f"{statistics.median(times):.1f} (at most {max(times):.1f}) ms"

    def test_delay(self):
        for baud in [9600, 38400, 115200]:
            self.open(baud)
            print(f"{baud}: late by {self.late(baud, False)} in single bytes, {self.late(baud, True)} in one piece",
                  file=sys.stderr, flush=True)
            self.end()

    def test_largest(self):
        for baud in RATES:
            self.open(baud)
            print(f"{baud}: quiet before it {self.largest(baud, True)} bytes, busy {self.largest(baud, False)} bytes",
                  file=sys.stderr, flush=True)
            self.end()


harness.main()
