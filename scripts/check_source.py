#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the library's source for rules that no compiler checks.

- a function has at most 60 lines;
- the literal of a log call is in one piece;
- no goto;
- no unfinished marks.
"""
import re
import sys

LIMIT = 60
NOT_A_FUNCTION = re.compile(r"^(namespace|extern|class|struct|enum|union|typedef|const|static const|inline constexpr|"
                            r"constexpr|#|template)")
LOG_START = re.compile(r"\b(MD_LOG|MD_LOG_ERRNO|MD_TEXT_ASSERT)\(")
UNFINISHED = re.compile(r"\b(TO" + r"DO|FIX" + r"ME|XX" + r"X)\b")


def functions(lines):
    """Yields (first line, last line, first line's text) of every function defined at the margin."""
    start = None
    for number, line in enumerate(lines, 1):
        if re.match(r"^[A-Za-z_].*\(", line) and not line.rstrip().endswith(";") and not NOT_A_FUNCTION.match(line):
            start = number
        elif line == "}" and start is not None:
            yield start, number, lines[start - 1]
            start = None


def check(path):
    problems = []
    with open(path, encoding="utf-8") as file:
        lines = file.read().split("\n")
    for first, last, text in functions(lines):
        if last - first + 1 > LIMIT:
            problems.append(f"{path}:{first}: {last - first + 1} lines in one function (at most {LIMIT}): {text}")
    for number, line in enumerate(lines, 1):
        if re.search(r"\bgoto\b", line.split("//")[0]):
            problems.append(f"{path}:{number}: goto")
        if UNFINISHED.search(line):
            problems.append(f"{path}:{number}: unfinished mark")
        if LOG_START.search(line) and not path.endswith("md_log.h"):
            call = "\n".join(lines[number - 1:number + 8])
            call = call[:call.find(");") + 2]
            if re.search(r'"\s*\n\s*"', call):
                problems.append(f"{path}:{number}: log literal in more than one piece")
    return problems


def main():
    problems = [problem for path in sys.argv[1:] for problem in check(path)]
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
