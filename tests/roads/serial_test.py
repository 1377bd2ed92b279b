#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Serial lines at their rates, in pieces of any size, and devices that are unplugged and come back."""
import os
import random
import subprocess
import time

import harness
from harness import EndToEndTest, source
from serial_line import SERIAL, Copies, Line, random_size, sized_message

REPLUGS = int(os.environ.get("METADATA_TEST_REPLUGS", "12"))
GONE = "is gone; waiting for it to come back."
BACK = "is back."
TOO_LATE = "TIMEOUT waiting for message"


class SerialLine(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.line = Line(self.folder / "serial")
        self.addCleanup(self.line.close)
        self.copies = Copies()
        self.addCleanup(self.copies.close)

    def open(self, baud):
        self.encoder(SERIAL.format(baud) + self.copies.config)
        self.wait_for(self.line.is_open, "the encoder to open the line")

    def log(self):
        return (self.folder / "host.log").read_text()

    def arrives(self, message, late):
        """Waits for the copy of a message, or for the line that says that the reader was given its end too late."""
        for _ in range(100):
            while (copy := self.copies.next(0.1 * harness.SLOW)) is not None:
                if copy == message:
                    return True
            if self.log().count(TOO_LATE) > late:
                return False
        self.fail("a message is missing, and no line says that it came too late")

    def all_arrive(self, baud, sizes, most):
        """One message of every size must arrive that was sent and read in time; one that was late may arrive."""
        self.open(baud)
        wanted = []
        number = 0
        for size in sizes:
            for _ in range(30):
                number += 1
                message = sized_message(number, size)
                late = self.log().count(TOO_LATE)
                if self.line.send(message, baud, most, number) and self.arrives(message, late):
                    wanted.append(message)
                    break
                # The next message must not depend on the decoder's result for this one.
                time.sleep(0.6)
                self.line.write(b"\xff" * 16)
                time.sleep(0.1)
            else:
                self.fail(f"no message of {size} bytes was sent and read in time")
        summary = self.stop()
        self.assertEqual([message for message in self.delivered("serial") if message in wanted], wanted)
        if number == len(sizes):
            self.assertEqual(source(summary, "serial")["corrupt"], 0)

    def test_single_bytes_at_9600_baud(self):
        self.all_arrive(9600, [120, 259, 40, 33, 300, 47, 64, 65, 259, 150, 48], 1)

    def test_pieces_of_any_size_at_19200_baud(self):
        self.all_arrive(19200, [random_size(random.Random(seed), 33, 500) for seed in range(25)], 70)

    def test_single_bytes_and_large_messages_at_115200_baud(self):
        self.all_arrive(115200, [4000, 120, 259, 40, 2000] + [259] * 60, 1)

    def test_a_device_is_not_shared_by_two_processes(self):
        self.open(115200)
        second = subprocess.run(
            [harness.options.encoder, self.folder / "encoder.ini", "--library", harness.options.library,
             "--host-config",
             self.folder / "host.ini", "--output-dir", self.folder, "--duration", "1", "--retry", "no"],
            capture_output=True, text=True, timeout=60)
        self.assertNotEqual(second.returncode, 0, second.stdout)
        self.assertIn(f'Serial device "{self.folder}/serial" is in use; a device is never shared.', self.log())
        self.line.write(sized_message(1, 100))
        self.settle("serial", 1)
        self.stop()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.encoder_process.pid}/fd"))

    def replug(self, choose, number):
        """Unplugs the device, often within a message, plugs it in again and yields the messages that must arrive."""
        begun = time.monotonic()
        if choose.random() < 0.7:
            cut = sized_message(10**9 + number, random_size(choose, 33, 600))
            self.line.write(cut[:choose.randint(1, len(cut) - 1)])
        self.line.unplug()
        time.sleep(choose.choice([0, 0.05, 0.3]))
        self.line.plug()
        time.sleep(0.5)
        wanted = [sized_message(2 * number + i, random_size(choose, 33, 400)) for i in range(2)]
        self.line.write(wanted[0])
        time.sleep(choose.choice([0, 0.1]))
        self.line.write(wanted[1])
        for message in wanted:
            self.assertEqual(self.copies.next(10 * harness.SLOW), message, f"replug {number}")
        time.sleep(max(0, begun + 1.02 - time.monotonic()))
        return wanted

    def test_replugged_devices_lose_nothing_that_is_sent_half_a_second_later(self):
        self.open(115200)
        choose = random.Random(3)
        wanted = self.replug(choose, 0)
        self.settle("serial", len(wanted))
        # The program has begun for good by now, and a descriptor that is lost each time still shows.
        before = self.descriptors()
        for number in range(1, REPLUGS):
            wanted += self.replug(choose, number)
        self.settle("serial", len(wanted))
        self.assertLessEqual(self.descriptors(), before)
        self.stop()
        self.assertEqual(self.delivered("serial"), wanted)
        for text in (GONE, BACK):
            lines = [line for line in self.log().splitlines() if text in line]
            self.assertEqual(len(lines), REPLUGS, text)
            self.assertTrue(all(" HOST 4/warning " in line for line in lines))

    def test_an_encoder_without_its_device_does_nothing(self):
        self.open(115200)
        self.line.unplug()
        self.wait_for(lambda: GONE in self.log(), "the line that says so")

        def ticks():
            with open(f"/proc/{self.encoder_process.pid}/stat") as stat:
                return sum(int(word) for word in stat.read().rsplit(")")[-1].split()[11:13])

        before = ticks()
        time.sleep(2)
        self.assertLess(ticks() - before, 0.3 * os.sysconf("SC_CLK_TCK") * harness.SLOW)
        self.stop()


if __name__ == "__main__":
    harness.main()
