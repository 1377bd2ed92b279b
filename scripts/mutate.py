#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Breaks sources in small ways, one at a time, and tells which breaks no unit test found.

    mutate.py [--count N] [--seed N] [--lines A-B] [--since COMMIT] [--tests REGEX] SOURCE...

A break is another comparison, sign, number or truth value, a condition that is turned round, a statement that is missing.
They are a sample, --count of each source (40 unless it is given), which --seed chooses. --lines and --since leave only
these lines, or those that differ from a commit. The unit tests of the source's module have to fail, or those that --tests
names for ctest.

Each processor has a copy of the tree below build/mutate/, which is built with the preset dev; the tree itself is not
touched. A break that does not compile does not count. The exit code is 1 if any break was not found: it is either
something that no test looks at, or makes no difference.
"""
import argparse
import collections
import concurrent.futures
import dataclasses
import os
import pathlib
import queue
import random
import re
import resource
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPIES = ROOT / "build/mutate"
MEMORY = 8 << 30  # bytes of address space that a broken program may take
# What is no code: comments, texts, characters (not the marks between the digits of a number), lines for the preprocessor.
NO_CODE = re.compile(r"""//[^\n]*|/\*.*?\*/|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])+'"""
                     r"|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.M | re.S)
# Lines that only the compiler, or whoever reads the log, sees.
NO_BEHAVIOUR = re.compile(r"\b(static_assert|template|using|(MD|HOST)_LOG\w*)\b")
TURNED = {" < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ", " == ": " != ", " != ": " == ", " && ": " || ",
          " || ": " && ", " + ": " - ", " - ": " + ", " * ": " / ", " << ": " >> ", "++": "--", "--": "++",
          " += ": " -= ", " -= ": " += ", "true": "false", "false": "true", "TRUE": "FALSE", "FALSE": "TRUE"}
TURN = re.compile(r" (?:[<>]=?|[=!]=|&&|\|\||[-+*]|<<|[-+]=) |\+\+|--|\b(?:true|false|TRUE|FALSE)\b")
NUMBER = re.compile(r"(?<![\w.'])\d[\d']*(?=[uUlLzZ]*\b)(?![\w']*[.xX])")
CONDITION = re.compile(r"\b(?:if|while) \((?!const |auto |!)([^;{}]*?)\)(?= [^;{}]*;| \{|$)", re.M)
STATEMENT = re.compile(r"^ +(?!return\b|else\b|case\b|delete\b)[\w:>.\[\]-]+(?:\([^;{}]*\)| [-+|&]?= [^;{}]*|\+\+|--);$", re.M)
MODULES = {"encoder": "mdencoder", "host_runtime": "host_runtime", "formats": "formats", "common": "common",
           "tools/mdfeed": "mdfeed"}


class Failed(Exception):
    """What keeps the script from its work."""


@dataclasses.dataclass(frozen=True)
class Break:
    source: str
    line: int
    start: int
    end: int
    new: str

    def apply(self, text):
        return text[:self.start] + self.new + text[self.end:]

    def tell(self, text):
        old = " ".join(text[self.start:self.end].split())
        what = f'"{self.new.strip()}" for "{old}"' if self.new.strip() != ";" else f'without "{old}"'
        return f"{self.source}:{self.line}: {what}"


def breaks_of(source, text):
    """Returns every break of a source, in the order of their places."""
    code = NO_CODE.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), text)
    lines = code.split("\n")
    found = []

    def add(start, end, new):
        line = code.count("\n", 0, start) + 1
        if not NO_BEHAVIOUR.search(lines[line - 1]):
            found.append(Break(source, line, start, end, new))

    for match in TURN.finditer(code):
        add(match.start(), match.end(), TURNED[match[0]])
    for match in NUMBER.finditer(code):
        add(match.start(), match.end(), str(int(match[0].replace("'", "")) + 1))
    for match in CONDITION.finditer(code):
        if match[1].count("(") == match[1].count(")"):
            add(match.start(1), match.end(1), f"!({text[match.start(1):match.end(1)]})")
    for match in STATEMENT.finditer(code):
        add(match.start(), match.end(), ";")
    return sorted(found, key=lambda each: each.start)


def changed_lines(source, commit):
    """Returns the numbers of the lines that differ from a commit."""
    done = subprocess.run(["git", "diff", "-U0", commit, "--", source], cwd=ROOT, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Failed(done.stderr.strip())
    lines = set()
    for first, count in re.findall(r"^@@ -\S+ \+(\d+)(?:,(\d+))? @@", done.stdout, re.M):
        lines |= set(range(int(first), int(first) + int(count or 1)))
    return lines


def tests_of(source):
    """Returns the name of the program with the unit tests of a source."""
    path = pathlib.PurePath(source)
    module = path.stem if path.parts[0] == "metadata_lib" else next(
        (name for folder, name in MODULES.items() if path.is_relative_to(folder)), None)
    if module is None or not (ROOT / "tests/unit" / module).is_dir():
        raise Failed(f"{source}: no folder of tests/unit tests it; --tests names what does")
    return f"unit_{module}"


class Copy:
    """A copy of the tree with a build of its own, in which one break at a time is tried."""

    def __init__(self, number, targets, tests):
        self.folder = COPIES / str(number)
        self.targets = targets
        self.command = ["ctest", "--preset", "dev", "-R", tests, "--stop-on-failure", "--no-tests=error"]

    def run(self, command, seconds=None):
        """Returns whether a command succeeds in this time."""
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))  # noqa: E731
        process = subprocess.Popen(command, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, env={**os.environ, "GTEST_FAIL_FAST": "1"}, text=True,
                                   start_new_session=True, preexec_fn=limit if seconds else None)
        try:
            self.said = process.communicate(timeout=seconds)[0]
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, 9)
            self.said = process.communicate()[0]
        return process.returncode == 0

    def write(self, name, content):
        path = self.folder / name
        if path.is_file() and path.read_bytes() == content:
            return
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)

    def build(self):
        return self.run(["cmake", "--build", "--preset", "dev", "-j", "1", "--target", *self.targets])

    def prepare(self, files):
        """Copies the tree, builds it and runs the tests, which have to succeed. Returns how long they may take."""
        for name in files:
            path = ROOT / name
            if path.is_file():
                self.write(name, path.read_bytes())
                (self.folder / name).chmod(path.stat().st_mode)
        if not self.run(["cmake", "--preset", "dev"]) or not self.build():
            raise Failed(f"the tree does not build:\n{self.said[-3000:]}")
        begin = time.monotonic()
        if not self.run(self.command, 3600):
            raise Failed(f"the tests fail without any break:\n{self.said[-3000:]}")
        self.seconds = 20 + 5 * (time.monotonic() - begin)

    def judge(self, each):
        """Returns what became of a break: "found", "not found", or "not compiled"."""
        text = (ROOT / each.source).read_text()
        self.write(each.source, each.apply(text).encode())
        try:
            if not self.build():
                return "not compiled"
            return "not found" if self.run(self.command, self.seconds) else "found"
        finally:
            self.write(each.source, text.encode())


def choose(options):
    """Returns the breaks that are tried."""
    chosen = []
    for source in options.sources:
        if not (ROOT / source).is_file():
            raise Failed(f"{source}: no such file below {ROOT}")
        breaks = breaks_of(source, (ROOT / source).read_text())
        if options.lines:
            first, last = options.lines
            breaks = [each for each in breaks if first <= each.line <= last]
        if options.since:
            lines = changed_lines(source, options.since)
            breaks = [each for each in breaks if each.line in lines]
        sample = random.Random(f"{options.seed} {source}").sample(breaks, min(options.count, len(breaks)))
        chosen += sorted(sample, key=lambda each: each.start)
    return chosen


def try_all(breaks, options):
    """Tries the breaks, prints those that no test found, and returns how many there were of each kind."""
    programs = sorted({tests_of(source) for source in options.sources}) if not options.tests else ["all"]
    tests = options.tests or f"^({'|'.join(programs)})$"
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout.splitlines()
    copies = [Copy(number, programs, tests) for number in range(min(os.cpu_count(), len(breaks)))]
    idle = queue.SimpleQueue()
    with concurrent.futures.ThreadPoolExecutor(len(copies)) as pool:
        for copy, _ in zip(copies, pool.map(lambda copy: copy.prepare(files), copies)):
            idle.put(copy)

        def judge(each):
            copy = idle.get()
            try:
                return copy.judge(each)
            finally:
                idle.put(copy)

        counts = collections.Counter()
        for each, verdict in zip(breaks, pool.map(judge, breaks)):
            counts[verdict] += 1
            if verdict == "not found":
                print(each.tell((ROOT / each.source).read_text()), flush=True)
    return counts


def lines_of(text):
    first, _, last = text.partition("-")
    return int(first), int(last or first)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", nargs="+", metavar="SOURCE")
    parser.add_argument("--count", type=int, default=40)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--lines", type=lines_of, metavar="A-B")
    parser.add_argument("--since", metavar="COMMIT")
    parser.add_argument("--tests", metavar="REGEX")
    options = parser.parse_args()
    options.sources = [os.path.relpath(pathlib.Path(source).resolve(), ROOT) for source in options.sources]
    try:
        breaks = choose(options)
        counts = try_all(breaks, options) if breaks else collections.Counter()
    except Failed as failure:
        print(f"mutate: {failure}", file=sys.stderr)
        return 2
    print(f"{counts['found']} of {counts['found'] + counts['not found']} breaks were found; "
          f"{counts['not compiled']} more did not compile")
    return 1 if counts["not found"] else 0


if __name__ == "__main__":
    sys.exit(main())
