#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""More messages than the encoder can take: what is lost, and where."""
import json
import os
import signal
import socket
import threading
import time

import harness
from harness import EndToEndTest, source

UDP = "[udp]\ninput = udp\nport = 15731\nfamily = ipv4\n"
OTHER = "[other]\ninput = udp\nport = 15732\nfamily = ipv4\n"
RATE, SECONDS, AT_ONCE = 400_000, 1.5, 64
UDP_SEGMENT = 103  # of linux/udp.h: the system cuts what is sent into datagrams of this size


def flood(port):
    """Sends as many messages a second, and returns how many that were."""
    flight = [harness.message((2, number.to_bytes(8, "big")), (70, bytes(60)), (70, bytes(60)))
              for number in range(AT_ONCE)]
    data = b"".join(flight)
    sent = 0
    try:
        # The receiver's thread has a real-time priority where that is permitted, and would stop a sender without one.
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(20))
    except PermissionError:
        pass
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.setsockopt(socket.IPPROTO_UDP, UDP_SEGMENT, len(flight[0]))
        begin = time.monotonic()
        while time.monotonic() - begin < SECONDS:
            if sent < (time.monotonic() - begin) * RATE:
                sender.sendto(data, ("127.0.0.1", port))
                sent += AT_ONCE
            else:
                time.sleep(0.00005)
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    return sent


class Overload(EndToEndTest):
    def test_the_queue_loses_no_more_than_does_not_fit_and_the_recording_has_the_rest(self):
        self.encoder(UDP + OTHER, [15731, 15732], format="none")
        quiet = threading.Thread(target=self.feed, args=("klv", "--simulate", "--count", "100", "--rate", "50", "--udp",
                                                         "127.0.0.1:15732"))
        quiet.start()
        sent = flood(15731)
        quiet.join()
        self.drain(15731, 15732)
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertIn(self.encoder_process.wait(timeout=60), (0, 1))
        summary = json.loads((self.folder / "summary.json").read_text())
        entry = source(summary, "udp")
        received = entry["messages"] + entry["dropped"]
        print(f"sent {sent}, received {received}, dropped by the queue {entry['dropped']}")
        self.assertEqual(received + entry["kernel_drops"], sent)
        self.assertGreater(entry["messages"], 10000)
        # What a sanitizer makes slower is not the same for the thread that receives and the one that records.
        self.assertLess(entry["dropped"], received * (0.1 if harness.SLOW == 1 else 0.5))
        self.assertEqual(len(self.delivered("udp")), entry["messages"])
        self.assertEqual(source(summary, "other")["messages"] + source(summary, "other")["dropped"], 100)


harness.main()
