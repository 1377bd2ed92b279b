#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs clang-tidy over sources, with the commands of build/tidy/compile_commands.json.

    tidy.py [--names] SOURCE...

With --names only the names and the length of functions are checked, which takes a fraction of the time.

A source that was clean is not checked again until something changes that its result depends on: its preprocessed text
with all comments, its compile command, or the checks. Marks of clean sources are kept in build/tidy/clean/.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/tidy"
CLEAN = BUILD / "clean"
TIDY = "clang-tidy-14"
# The folders' own settings hold; the names in host/ are prescribed.
NAMES = ["--checks=-*,readability-identifier-naming,readability-function-size",
         f"--header-filter=^{re.escape(str(ROOT))}/(metadata_lib|common|formats|host_runtime|encoder|tools|tests|fuzz|bench)/"]


def preprocessed(entry):
    """Returns the text that the compiler sees, including comments, because they hold the exceptions from checks."""
    arguments = shlex.split(entry["command"])
    compiler = next(i for i, argument in enumerate(arguments) if "clang" in pathlib.Path(argument).name)
    arguments = arguments[compiler:]
    output = arguments.index("-o")
    del arguments[output:output + 2]
    arguments[arguments.index("-c")] = "-E"
    return subprocess.run(arguments + ["-C"], cwd=entry["directory"], check=True, capture_output=True).stdout


def key(source, entry, options):
    digest = hashlib.sha256(" ".join([entry["command"], *options]).encode())
    digest.update(subprocess.run([TIDY, "--version"], check=True, capture_output=True).stdout)
    for folder in (ROOT / source).parents:
        config = folder / ".clang-tidy"
        if config.is_file():
            digest.update(config.read_bytes())
        if folder == ROOT:
            break
    digest.update(preprocessed(entry))
    return digest.hexdigest()


def check(source, entry, options):
    """Returns the output of clang-tidy for a source, or nothing if it is clean."""
    try:
        mark = CLEAN / key(source, entry, options)
    except subprocess.CalledProcessError as error:
        return f"{source}: cannot be preprocessed\n{error.stderr.decode(errors='replace')}"
    if mark.exists():
        return ""
    command = [TIDY, "-p", str(BUILD), "--quiet", *options, source]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if done.returncode == 0:
        mark.touch()
        return ""
    return done.stdout or done.stderr or f"{source}: {TIDY} failed"


def main():
    options = NAMES if sys.argv[1:2] == ["--names"] else []
    sources = sys.argv[2:] if options else sys.argv[1:]
    database = json.loads((BUILD / "compile_commands.json").read_text())
    entries = {os.path.relpath(entry["file"], ROOT): entry for entry in database}
    absent = [source for source in sources if source not in entries]
    for source in absent:
        print(f"{source}: is part of no target", file=sys.stderr)
    CLEAN.mkdir(exist_ok=True)
    failed = bool(absent)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        checks = [pool.submit(check, source, entries[source], options) for source in sources if source in entries]
        for done in concurrent.futures.as_completed(checks):
            if done.result():
                print(done.result(), file=sys.stderr)
                failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
