#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An optimised build is hardened: what the linker was told stands in the files, what the compiler was told in the code,
in the notes of the objects or, where neither shows it, in the commands."""
import argparse
import json
import pathlib
import re
import shlex
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--build", required=True)
parser.add_argument("--source", required=True)
parser.add_argument("--objdump", default="objdump")
parser.add_argument("--library", required=True)
parser.add_argument("--programs", nargs="*", default=[])
options, rest = parser.parse_known_args()

SOURCE = pathlib.Path(options.source)
FILES = [options.library, *options.programs]
SHIPPED = [SOURCE / folder for folder in ("metadata_lib", "host_runtime", "formats", "encoder", "tools")]
FLAGS = ["-O2", "-fstack-protector-strong", "-fstack-clash-protection", "-D_FORTIFY_SOURCE=2"]
MACHINES = {
    "Advanced Micro Devices X86-64": (["-fcf-protection=full"], r"x86 feature: IBT, SHSTK", r"^endbr64$"),
    "AArch64": (["-mbranch-protection=standard"], r"AArch64 feature: BTI, PAC", r"^(paciasp|bti\s+c)$"),
}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def readelf(option, path):
    return output("readelf", option, "-W", path)


MACHINE = re.search(r"Machine: +(.*)", readelf("-h", options.library)).group(1)
MACHINE_FLAGS, NOTE, LANDING = MACHINES[MACHINE]


def commands():
    """The compile commands of what is shipped, tests not among it."""
    found = [entry for entry in json.loads(pathlib.Path(options.build, "compile_commands.json").read_text())
             if any(pathlib.Path(entry["file"]).is_relative_to(folder) for folder in SHIPPED)]
    return [(entry, shlex.split(entry["command"])) for entry in found]


def wins(words, flag):
    """The flag, or the one of its kind that comes last."""
    kind = re.match(r"-O|-D_\w+|-f[a-z-]+(?==)|-m[a-z-]+(?==)|.*", flag).group(0)
    undone = {flag.replace("-f", "-fno-", 1), flag.replace("-f", "-fno-", 1).replace("-strong", ""),
              kind.replace("-D", "-U")} - {flag}
    same = [word for word in words if word in undone or word == flag or (kind != flag and word.startswith(kind))]
    return same[-1:] == [flag]


class Hardening(unittest.TestCase):
    def test_every_source_is_compiled_with_every_flag(self):
        found = commands()
        self.assertGreaterEqual(len(found), 19)
        for entry, words in found:
            for flag in FLAGS + MACHINE_FLAGS:
                self.assertTrue(wins(words, flag), f"{entry['file']}: {flag}")

    def test_every_object_is_marked(self):
        for entry, words in commands():
            path = pathlib.Path(entry["directory"], words[words.index("-o") + 1])
            if path.exists():  # some sources are also part of tests, which need not be built
                self.assertRegex(readelf("-n", path), NOTE, path)

    def test_every_exported_function_begins_with_a_landing_pad(self):
        exported = {line.split()[-1].split("@")[0] for line in output("nm", "-D", "--defined-only", options.library)
                    .splitlines() if line.split()[-2] == "T"}
        self.assertGreater(len(exported), 40)
        code = output(options.objdump, "-d", "--no-show-raw-insn", options.library)
        first = dict(re.findall(r"^[0-9a-f]+ <(\w+)>:\n +[0-9a-f]+:\s+(.*?)\s*$", code, re.M))
        for name in exported:
            self.assertRegex(first[name], LANDING, name)

    def test_the_library_checks_its_stack_and_the_bounds_of_the_c_library(self):
        undefined = output("nm", "-D", "--undefined-only", options.library)
        self.assertIn("__stack_chk_fail", undefined)
        self.assertRegex(undefined, r"\b__(?!stack)\w+_chk\b")

    def test_relocations_are_done_at_once_and_read_only_then(self):
        for path in FILES:
            self.assertRegex(readelf("-d", path), r"FLAGS_1\).*\bNOW\b", path)
            self.assertIn("GNU_RELRO", readelf("-l", path), path)
            self.assertNotIn(" .got.plt ", readelf("-S", path), path)

    def test_code_is_not_relocated(self):
        for path in FILES:
            self.assertNotIn("TEXTREL", readelf("-d", path), path)

    def test_the_stack_is_not_executable(self):
        for path in FILES:
            flags = re.search(r"GNU_STACK( +0x\w+){5} +([RWE ]+?) +0x", readelf("-l", path)).group(2)
            self.assertEqual(flags.split(), ["RW"], path)

    def test_segments_with_code_hold_code_alone(self):
        for path in FILES:
            segments = re.findall(r"^  LOAD +(0x\w+) +0x\w+ 0x\w+ 0x\w+ 0x\w+ ([RWE ]{3}) 0x\w+$", readelf("-l", path), re.M)
            executable = [int(offset, 16) for offset, flags in segments if "E" in flags]
            self.assertEqual(len(executable), 1, path)
            self.assertGreater(executable[0], 0, path)
            self.assertNotIn(True, ["W" in flags and "E" in flags for _, flags in segments], path)
            mapping = re.findall(r"^   \d+ +(.*?) *$", readelf("-l", path), re.M)
            code = next(line for line in mapping if ".text" in line.split())
            self.assertLessEqual(set(code.split()), {".init", ".plt", ".plt.got", ".plt.sec", ".text", ".fini"}, path)

    def test_files_are_loaded_anywhere(self):
        for path in FILES:
            self.assertRegex(readelf("-h", path), r"Type: +DYN ", path)
        for path in options.programs:
            self.assertRegex(readelf("-d", path), r"FLAGS_1\).*\bPIE\b", path)


unittest.main(argv=["hardening_test"] + rest)
