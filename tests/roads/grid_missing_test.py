#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the encoder where there is no geoid grid, or half of one: in a mount namespace whose folder of the grid is empty."""
import pathlib
import subprocess
import sys

import harness
from harness import EndToEndTest, items

GRID = pathlib.Path("/usr/share/vendor/data/ww15mgh.grd")
PORT = 15695
COT = f"[cot]\ninput = udp\nport = {PORT}\nfamily = ipv4\ndata = cot\n"
KLV = f"[klv]\ninput = udp\nport = {PORT}\nfamily = ipv4\n"
HEIGHTS = {15, 25}  # sensor true altitude, frame center elevation


class GridMissing(EndToEndTest):
    """`grid` is what the encoder finds at the grid's path."""
    grid = None

    def setUp(self):
        super().setUp()
        (self.folder / "grid").mkdir()
        try:
            subprocess.run([*self.inside(), "true"], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError) as failure:
            self.fail(f"no mount namespaces here, run the test as root: {failure}")

    def inside(self):
        return ["unshare", "-m", "--propagation", "private", "sh", "-c",
                'mount --bind "$0" "$1" && shift && exec "$@"', self.folder / "grid", GRID.parent]

    def start(self, *command, **more):
        if str(command[0]) == str(harness.options.encoder):
            command = (*self.inside(), *command)
        return super().start(*command, **more)

    def refusal(self, config, *arguments):
        path = self.folder / "cot.ini"
        path.write_text(config)
        done = subprocess.run([*self.inside(), harness.options.encoder, path, "--library", harness.options.library,
                               "--duration", "1", *arguments], capture_output=True, text=True, timeout=60,
                              stdin=subprocess.DEVNULL)
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        return done.stderr.strip()

    def expect_refusal(self, fault):
        for arguments in ((), ("--check",)):
            self.assertEqual(self.refusal(COT, *arguments),
                             f"mdencoder: {self.folder}/cot.ini: [cot] data = cot needs the geoid grid, but {GRID} {fault}; "
                             "make it with make_geoid_grid, or do without heights with heights = optional in [encoder]")

    def test_a_cot_source_is_refused_in_one_line(self):
        self.expect_refusal("is missing")

    def test_half_a_grid_is_no_grid(self):
        half = self.folder / "grid" / GRID.name
        half.write_bytes(GRID.read_bytes()[:GRID.stat().st_size // 2])
        self.assertRegex(self.refusal(COT), f"but {GRID} has 5[0-9]{{5}} of 1038961 numbers; make it with make_geoid_grid")
        half.write_text("")
        self.expect_refusal("has 0 of 1038961 numbers")

    def test_with_optional_heights_packets_have_none(self):
        self.encoder(COT, ports=[PORT], arguments=["--heights", "optional"])
        self.feed("cot", "--simulate", "--count", "10", "--rate", "10", "--jitter", "0", "--udp", f"127.0.0.1:{PORT}")
        self.settle("cot", 10)
        self.stop()
        for packet in self.delivered("cot"):
            tags = {tag for tag, _ in items(packet)}
            self.assertFalse(tags & HEIGHTS, tags)
            self.assertTrue({13, 14, 23, 24} <= tags, tags)

    def test_other_sources_need_no_grid(self):
        self.encoder(KLV, ports=[PORT])
        self.feed("klv", "--simulate", "--count", "5", "--rate", "100", "--udp", f"127.0.0.1:{PORT}")
        self.settle("klv", 5)
        self.stop()


harness.main()
