#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Relays that come back to their own source are refused before anything is opened; chains that end are not."""
import socket
import subprocess

import harness
from harness import EndToEndTest, send, source

A, B, C = 15691, 15692, 15693


def udp(name, port, *keys):
    return f"[{name}]\ninput = udp\nport = {port}\n" + "".join(f"{key}\n" for key in keys)


class RelayLoops(EndToEndTest):
    def refusal(self, config, *arguments):
        path = self.folder / "loop.ini"
        path.write_text(config)
        done = subprocess.run([harness.options.encoder, path, "--library", harness.options.library, "--duration", "1",
                               *arguments], capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL)
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        self.assertEqual(done.stdout, "")
        return done.stderr.strip()

    def test_one_line_names_the_chain(self):
        line = self.refusal(udp("a", A, f"relay1 = 127.0.0.1:{B}") + udp("b", B, f"relay4 = 127.0.0.1:{C}")
                            + udp("c", C, "data = cot", f"relay1 = [::1]:{A}"))
        self.assertEqual(line, f"mdencoder: {self.folder}/loop.ini: [a] relay1 must be a destination that does not lead "
                               f"back to its source, not \"127.0.0.1:{B}\": [a] -> 127.0.0.1:{B} -> [b] -> "
                               f"127.0.0.1:{C} -> [c] -> [::1]:{A} -> [a]")

    def test_every_way_back_is_found_at_the_start_and_by_the_check(self):
        own = set()
        for family, target in ((socket.AF_INET, "192.0.2.1"), (socket.AF_INET6, "2001:db8::1")):
            with socket.socket(family, socket.SOCK_DGRAM) as probe:
                try:
                    probe.connect((target, 9))
                    own.add(probe.getsockname()[0])
                except OSError:
                    pass
        addresses = ["127.0.0.1", "127.1.2.3", "0.0.0.0", "255.255.255.255", "::1", "::", "::ffff:127.0.0.1", *own]
        for address in addresses:
            host = f"[{address}]" if ":" in address else address
            config = udp("a", A, f"relay1 = {host}:{A} ttl=1")
            self.assertIn(f"-> {host}:{A} -> [a]", self.refusal(config))
            self.assertIn(f"-> {host}:{A} -> [a]", self.refusal(config, "--check"))
        for keys in ((), ("address = 239.9.9.9",)):
            self.assertIn("-> [a]", self.refusal(udp("a", A, f"relay1 = 239.9.9.9:{A}", *keys)))

    def test_a_filter_for_this_machine_does_not_break_the_loop(self):
        self.assertIn("-> [a]", self.refusal(udp("a", A, f"relay1 = 127.0.0.1:{A}", "address = 127.0.0.1")))

    def test_chains_that_end_deliver_each_datagram_once_a_source(self):
        self.encoder(udp("a", A, "family = ipv4", f"relay1 = 127.0.0.1:{B}", f"relay2 = 127.0.0.1:{C}")
                     + udp("b", B, "family = ipv4", f"relay1 = 127.0.0.1:{C}")
                     # Its own relay comes from 127.0.0.1, which the source does not accept.
                     + udp("c", C, "family = ipv4", f"relay1 = 127.0.0.1:{C + 1}")
                     + udp("d", C + 1, "family = ipv4", "address = 127.7.7.7", f"relay1 = 127.0.0.1:{C + 1}"),
                     ports=[A, B, C, C + 1])
        for number in range(20):
            send(A, harness.message((2, number.to_bytes(8, "big"))))
        self.settle("c", 40)
        summary = self.stop()
        self.assertEqual([source(summary, name)["messages"] for name in "abcd"], [20, 20, 40, 0])


harness.main()
