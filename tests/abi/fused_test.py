#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The library multiplies and adds in two steps on every processor: a fused step rounds once instead of twice, and the
last bit of a height or an angle would depend on the processor."""
import argparse
import json
import pathlib
import re
import shlex
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--library", required=True)
parser.add_argument("--objdump", required=True)
parser.add_argument("--commands", required=True)
parser.add_argument("--sources", required=True)
options, rest = parser.parse_known_args()

# These are the fused operations of 64-bit Arm, scalar and vector, and of x86.
FUSED = re.compile(r"\s(fn?m(?:add|sub)|fml[as]|vfn?m(?:add|sub)[0-9a-z]+)\s")
commands = [entry for entry in json.loads(pathlib.Path(options.commands).read_text())
            if pathlib.Path(entry["file"]).parent == pathlib.Path(options.sources)]


def fused(text):
    return [line.strip() for line in text.splitlines() if FUSED.search(line)]


class Fused(unittest.TestCase):
    def test_every_source_is_compiled_without_contraction(self):
        self.assertGreaterEqual(len(commands), 8)
        for entry in commands:
            words = shlex.split(entry["command"])
            settings = [word for word in words if word.startswith("-ffp-contract")]
            self.assertEqual(settings[-1:], ["-ffp-contract=off"], entry["file"])

    def test_the_library_has_no_fused_instruction(self):
        code = subprocess.run([options.objdump, "-d", "--no-show-raw-insn", options.library], check=True,
                              capture_output=True, text=True).stdout
        self.assertIn("<", code)
        self.assertEqual(fused(code), [])

    def test_the_optimiser_makes_none_where_the_processor_has_them(self):
        entry = next(entry for entry in commands if entry["file"].endswith("/converter.cpp"))
        words = shlex.split(entry["command"])
        if "ccache" in " ".join(words):
            words = words[[index for index, word in enumerate(words) if word.endswith("ccache")][-1] + 1:]
        words = [word for word in words if not word.startswith(("-fsanitize", "-fno-sanitize", "--coverage"))]
        at = words.index("-o")
        del words[at:at + 2]
        words += ["-O3", "-S", "-o", "-"]
        machine = subprocess.run([words[0], "-dumpmachine"], check=True, capture_output=True, text=True).stdout
        if machine.startswith("x86_64"):
            words.append("-mfma")
        run = subprocess.run(words, check=True, capture_output=True, text=True, cwd=entry["directory"])
        self.assertEqual(fused(run.stdout), [])
        # Compiled with the default of the compiler the same source has them, so the search can find them.
        free = subprocess.run([*words, "-ffp-contract=fast"], check=True, capture_output=True, text=True,
                              cwd=entry["directory"])
        self.assertNotEqual(fused(free.stdout), [])


unittest.main(argv=["fused_test"] + rest)
