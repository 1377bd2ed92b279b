#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs clang-tidy over sources, with the commands of build/tidy/compile_commands.json.

    tidy.py [--names] SOURCE...

With --names only the names and the length of functions are checked, which takes a fraction of the time. Most of it goes
to the headers, above all GoogleTest's, so that tests are checked together, each in a namespace of its own. If anything
is wrong with them, they are checked again one by one, and only that counts. What passed all checks passes this one too.

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
INCLUDE = re.compile(r'^\s*#\s*include\s*(<[^>]+>|"[^"]+")', re.M)
NAMESPACE = re.compile(r"^namespace ([\w:]+)", re.M)


def preprocessed(entry):
    """Returns the text that the compiler sees, including comments, because they hold the exceptions from checks."""
    arguments = shlex.split(entry["command"])
    compiler = next(i for i, argument in enumerate(arguments) if "clang" in pathlib.Path(argument).name)
    arguments = arguments[compiler:]
    output = arguments.index("-o")
    del arguments[output:output + 2]
    arguments[arguments.index("-c")] = "-E"
    return subprocess.run(arguments + ["-C"], cwd=entry["directory"], check=True, capture_output=True).stdout


def marks(source, entry, options):
    """Returns the marks that make the source clean: its own for these options, and the one for all checks."""
    digest = hashlib.sha256(entry["command"].encode())
    digest.update(subprocess.run([TIDY, "--version"], check=True, capture_output=True).stdout)
    for folder in (ROOT / source).parents:
        config = folder / ".clang-tidy"
        if config.is_file():
            digest.update(config.read_bytes())
        if folder == ROOT:
            break
    digest.update(preprocessed(entry))
    every = digest.hexdigest()
    digest.update(" ".join(options).encode())
    return CLEAN / digest.hexdigest(), CLEAN / every


def marks_or_error(source, entry, options):
    try:
        return marks(source, entry, options), ""
    except subprocess.CalledProcessError as error:
        return None, f"{source}: cannot be preprocessed\n{error.stderr.decode(errors='replace')}"


def check(source, mark, options):
    """Returns the output of clang-tidy for a source, or nothing if it is clean."""
    command = [TIDY, "-p", str(BUILD), "--quiet", *options, source]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if done.returncode == 0:
        mark.touch()
        return ""
    return done.stdout or done.stderr or f"{source}: {TIDY} failed"


def flags_of(entry):
    """Returns the compiler's options, those of two words as pairs, without the source and the object."""
    arguments = shlex.split(entry["command"])
    arguments = arguments[next(i for i, argument in enumerate(arguments) if "clang" in pathlib.Path(argument).name) + 1:]
    flags, position = [], 0
    while position < len(arguments):
        words = 2 if arguments[position] in ("-o", "-c", "-isystem") else 1
        if arguments[position] not in ("-o", "-c"):
            flags.append(tuple(arguments[position:position + words]))
        position += words
    return flags


def batches(sources, entries):
    """Groups the tests that are compiled with the same folders of headers."""
    groups = {}
    for source in sources:
        if source.startswith("tests/unit/") and source.endswith("_test.cpp"):
            same = frozenset(flag for flag in flags_of(entries[source]) if not flag[0].startswith("-D"))
            groups.setdefault(same, []).append(source)
    for group in groups.values():
        parts = min(os.cpu_count(), len(group) // 4) or 1
        yield from (group[part::parts] for part in range(parts) if len(group) > 1)


def namespaces(text):
    """Those that a source opens, the outer ones of nested ones before them."""
    opened = {}
    for name in NAMESPACE.findall(text):
        parts = name.split("::")
        opened |= dict.fromkeys("::".join(parts[:count]) for count in range(1, len(parts) + 1))
    return opened


def batch_is_clean(number, sources, entries, options):
    """Checks the sources as one. The headers come first, so that the namespaces hold the sources' own text only. A
    namespace that a source opens in there stands for the real one as well."""
    headers, bodies, flags = {}, [], {}
    for index, source in enumerate(sources):
        path = ROOT / source
        text = path.read_text()
        for header in INCLUDE.findall(text):
            beside = path.parent / header.strip('<">')
            if not header.endswith(('.c"', '.cpp"')):
                headers[f'"{os.path.normpath(beside)}"' if header[0] == '"' and beside.exists() else header] = None
        bodies += [f"namespace {name} {{}}\nnamespace batch_{index}::{name} {{\nusing namespace ::{name};\n}}\n"
                   for name in namespaces(text)]
        bodies.append(f'namespace batch_{index} {{\n#include "{path}"\n}}\n')
        flags |= dict.fromkeys(flags_of(entries[source]))
    together = BUILD / f"batch_{number}.cpp"
    together.write_text("".join(f"#include {header}\n" for header in headers) + "".join(bodies))
    command = [TIDY, "--quiet", *options, str(together), "--", *(word for flag in flags for word in flag)]
    return subprocess.run(command + ["-Wno-macro-redefined"], cwd=ROOT, capture_output=True).returncode == 0


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
    sources = [source for source in sources if source in entries]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        left = {}
        for source, (found, error) in zip(sources, pool.map(
                lambda source: marks_or_error(source, entries[source], options), sources)):
            if error:
                print(error, file=sys.stderr)
                failed = True
            elif not any(mark.exists() for mark in found):
                left[source] = found[0]
        groups = list(batches(left, entries)) if options else []
        for group, clean in zip(groups, list(pool.map(
                lambda pair: batch_is_clean(*pair, entries, options), enumerate(groups)))):
            for source in group if clean else []:
                left.pop(source).touch()
        for output in pool.map(lambda source: check(source, left[source], options), left):
            if output:
                print(output, file=sys.stderr)
                failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
