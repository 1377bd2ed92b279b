#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every public header stands alone, without a warning, in each language and standard that it is for, with both
compilers. The C headers are C++ too; the runtime's is C++ alone."""
import argparse
import concurrent.futures
import os
import pathlib
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True)
options, rest = parser.parse_known_args()
SOURCE = pathlib.Path(options.source)

FOLDERS = [SOURCE / "metadata_lib/include", SOURCE / "host", SOURCE / "host_runtime"]
C_HEADERS = sorted(FOLDERS[0].glob("*.h")) + sorted(FOLDERS[1].glob("*.h"))
CXX_HEADERS = C_HEADERS + [FOLDERS[2] / "host_runtime.h"]
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-pedantic-errors", "-Wconversion", "-Wshadow", "-Wundef", "-Werror"]
# gcc 12 and clang 14 know C23 and C++23 by the names they had as drafts.
LANGUAGES = [("c", compiler, standard, C_HEADERS, ["-Wstrict-prototypes", "-Wold-style-definition"])
             for compiler in ("gcc", "clang-14") for standard in ("c11", "c17", "c2x")]
LANGUAGES += [("c++", compiler, standard, CXX_HEADERS, ["-Wold-style-cast", "-Wzero-as-null-pointer-constant"])
              for compiler in ("g++", "clang++-14") for standard in ("c++11", "c++14", "c++17", "c++20", "c++2b")]


def compile_alone(language, compiler, standard, header, warnings):
    """The header twice in a source of its own, as its first line and again."""
    text = f'#include "{header.name}"\n' * 2 + "extern int unused;\n"
    done = subprocess.run([compiler, "-x", language, "-std=" + standard, *WARNINGS, *warnings, "-fsyntax-only",
                           *(f"-I{folder}" for folder in FOLDERS), "-"], input=text, capture_output=True, text=True)
    return f"{compiler} {standard} {header.name}", done.returncode, done.stderr


class Headers(unittest.TestCase):
    def test_every_header_stands_alone(self):
        self.assertEqual(len(C_HEADERS), 14)
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            jobs = [pool.submit(compile_alone, language, compiler, standard, header, warnings)
                    for language, compiler, standard, headers, warnings in LANGUAGES for header in headers]
            for job in jobs:
                name, status, said = job.result()
                with self.subTest(name):
                    self.assertEqual((status, said), (0, ""))


unittest.main(argv=["headers_test"] + rest)
