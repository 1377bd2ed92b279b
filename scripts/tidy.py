#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs clang-tidy over sources, with the commands of build/tidy/compile_commands.json.

    tidy.py [--names] SOURCE...

With --names only the names and the length of functions are checked, which takes a fraction of the time. Nearly all of
that would go to the headers, so that sources which are compiled alike are checked together, in one file that includes
them one after the other: tests and what has an entry point each in a namespace of its own, all others as they are. If
anything is wrong with such a file, the sources that are named are checked one by one, and the rest together once more or,
if that fails too, one by one. Only what is wrong with a source alone is a fault. Names that merely meet are no fault, but
cost time: a line says which they are, so that they can be told apart.

What passed all checks passes this one too.

A source that was clean is not checked again until something changes that its result depends on: the files that it is
compiled from, its compile command, or the checks. Marks of clean sources are kept in build/tidy/clean/.
"""
import concurrent.futures
import functools
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
# Sources that stand together see each other's names and macros, which compilers do not when they build them.
TOGETHER = ["-Wno-macro-redefined", "-Wno-shadow", "-ferror-limit=0"]
PATH = re.compile(r"(?:\\ |\S)+")
INCLUDE = re.compile(r'^\s*#\s*include\s*(<[^>]+>|"[^"]+")', re.M)
NAMESPACE = re.compile(r"^namespace ([\w:]+)", re.M)
DEFINE = re.compile(r"^\s*#\s*define\s+(\w+)", re.M)
ALONE = "metadata_lib/"  # cheap headers; its decoders use the same names for the same steps
UNIT_TEST = re.compile(r"tests/unit/.*_test\.cpp$")
FUZZER = "LLVMFuzzerTestOneInput"
ENTRY = re.compile(rf'^(?:extern "C" )?int (?:main|{FUZZER})\(', re.M)
TEXT = re.compile(r'-D\w+="')
LOCATED = re.compile(r"^(/[^:\n]+):\d+:\d+: (?:fatal )?(error|note): (.*)$", re.M)
QUOTED = re.compile(r"'(?!(?:class|enum|struct|union)')([^']+)'")


@functools.cache
def version():
    """Returns what tells one clang-tidy from another."""
    return subprocess.run([TIDY, "--version"], check=True, capture_output=True).stdout


@functools.cache
def digest_of(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).digest()


def files_of(entry):
    """Returns the files that the compiler reads for a source. Their whole text counts: comments hold exceptions from
    checks."""
    arguments = shlex.split(entry["command"])
    compiler = next(i for i, argument in enumerate(arguments) if "clang" in pathlib.Path(argument).name)
    arguments = arguments[compiler:]
    output = arguments.index("-o")
    del arguments[output:output + 2]
    arguments[arguments.index("-c")] = "-M"
    rule = os.fsdecode(subprocess.run(arguments, cwd=entry["directory"], check=True, capture_output=True).stdout)
    rule = rule.partition(":")[2].replace("\\\n", " ").replace("$$", "$")
    return [os.path.join(entry["directory"], path.replace("\\ ", " ")) for path in PATH.findall(rule)]


def marks(source, entry, options):
    """Returns the marks that make the source clean: its own for these options, and the one for all checks."""
    digest = hashlib.sha256(entry["command"].encode())
    digest.update(version())
    for folder in (ROOT / source).parents:
        config = folder / ".clang-tidy"
        if config.is_file():
            digest.update(config.read_bytes())
        if folder == ROOT:
            break
    for path in files_of(entry):
        digest.update(os.fsencode(path) + b"\0" + digest_of(path))
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


def wrapped(source):
    """Whether a source can stand in a namespace of its own: it defines nothing that a header declares, as tests and what
    has an entry point do not."""
    return bool(UNIT_TEST.match(source) or ENTRY.search((ROOT / source).read_text()))


def batches(sources, entries):
    """Groups the C++ sources of one form that are compiled with the same flags. Macros that are texts, such as versions
    and folders, may differ as long as none has two values: nothing is left out because of them."""
    groups = {}
    for source in sources:
        if not source.endswith(".cpp") or source.startswith(ALONE):
            continue
        flags = flags_of(entries[source])
        texts = dict(flag[0].split("=", 1) for flag in flags if TEXT.match(flag[0]))
        alike = (wrapped(source), *(flag for flag in flags if not TEXT.match(flag[0])))
        for group, known in groups.setdefault(alike, []):
            if all(known.get(name, text) == text for name, text in texts.items()):
                group.append(source)
                known |= texts
                break
        else:
            groups[alike].append(([source], texts))
    for group, _ in sorted((pair for alike in groups.values() for pair in alike), key=lambda pair: -len(pair[0])):
        parts = min(os.cpu_count(), len(group) // 4) or 1
        yield from (group[part::parts] for part in range(parts) if len(group) > 1)


def namespaces(text):
    """Those that a source opens, the outer ones of nested ones before them."""
    opened = {}
    for name in NAMESPACE.findall(text):
        parts = name.split("::")
        opened |= dict.fromkeys("::".join(parts[:count]) for count in range(1, len(parts) + 1))
    return opened


def body(index, source, text):
    """Returns the lines that include a source, so that none of its macros reach the next one. A namespace that a source
    opens within its own stands for the real one as well. Linkage of C knows no namespaces: fuzzers' entry points get
    another name, which is not checked then, because it comes from a macro."""
    macros = dict.fromkeys(DEFINE.findall(text))
    lines = [f'#pragma push_macro("{name}")\n#undef {name}\n' for name in macros]
    if wrapped(source):
        if FUZZER in text:
            lines += [f"#undef {FUZZER}\n", f"#define {FUZZER} {FUZZER}_{index}  // NOLINT\n"]
        lines += [f"namespace {name} {{}}\nnamespace batch_{index}::{name} {{\nusing namespace ::{name};\n}}\n"
                  for name in namespaces(text)]
        lines.append(f'namespace batch_{index} {{\n#include "{ROOT / source}"\n}}\n')
    else:
        lines.append(f'#include "{ROOT / source}"\n')
    lines += [f'#pragma pop_macro("{name}")\n' for name in macros]
    return "".join(lines)


def check_together(name, sources, entries, options):
    """Checks the sources as one and returns the exit code and the output. The headers come first, so that they are in no
    source's namespace and see no source's macros."""
    headers, bodies, flags = {}, [], {}
    for index, source in enumerate(sources):
        path = ROOT / source
        text = path.read_text()
        for header in INCLUDE.findall(text):
            beside = path.parent / header.strip('<">')
            if not header.endswith(('.c"', '.cpp"')):
                headers[f'"{os.path.normpath(beside)}"' if header[0] == '"' and beside.exists() else header] = None
        bodies.append(body(index, source, text))
        flags |= dict.fromkeys(flags_of(entries[source]))
    together = BUILD / f"{name}.cpp"
    # A header that is not there may be one that its source does not include either, under some condition.
    first = (f"#if __has_include({header})\n#include {header}\n#endif\n" for header in headers)
    together.write_text("".join(first) + "".join(bodies))
    command = [TIDY, "--quiet", *options, str(together), "--", *(word for flag in flags for word in flag)]
    done = subprocess.run(command + [*TOGETHER], cwd=ROOT, capture_output=True, text=True)
    return done.returncode, done.stdout


def faults(output):
    """Returns what clang-tidy says is wrong: each time the name and the files that are involved, below ROOT."""
    found = []
    for path, kind, text in LOCATED.findall(output):
        path = os.path.relpath(path, ROOT)
        if kind == "error":
            found.append(((QUOTED.findall(text) or [text])[0], [path]))
        elif found:
            found[-1][1].append(path)
    return found


def check_batch(name, sources, entries, options):
    """Returns which of the sources are clean and what was said of the others. If anything is wrong, those that are named
    are left for a check one by one, and so are all others if they are not clean together either."""
    code, output = check_together(name, sources, entries, options)
    if code == 0:
        return sources, []
    said = faults(output)
    named = {files[0] for _, files in said}
    others = [source for source in sources if source not in named]
    if 1 < len(others) < len(sources):
        code, output = check_together(f"{name}_rest", others, entries, options)
        if code == 0:
            return others, said
        said += faults(output)
    return [], said


def meetings(said, sources):
    """Returns which names meet, with their sources, as far as that can be told."""
    names = {}
    for name, files in said:
        names.setdefault(name, {}).update((file, None) for file in files if file in sources)
    told = {name: files for name, files in names.items() if len(files) > 1} or names
    return "; ".join(f"{name} ({', '.join(files) or 'in a header'})" for name, files in told.items())


def main():
    options = NAMES if sys.argv[1:2] == ["--names"] else []
    sources = sys.argv[2:] if options else sys.argv[1:]
    database = json.loads((BUILD / "compile_commands.json").read_text())
    entries = {os.path.relpath(entry["file"], ROOT): entry for entry in reversed(database)}
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
        said = list(pool.map(lambda pair: check_batch(f"batch_{pair[0]}", pair[1], entries, options), enumerate(groups)))
        for source in (source for clean, _ in said for source in clean):
            left.pop(source).touch()
        faulty = set()
        for source, output in zip(left, pool.map(lambda source: check(source, left[source], options), left)):
            if output:
                print(output, file=sys.stderr)
                faulty.add(source)
    for group, (_, found) in zip(groups, said):
        if found and faulty.isdisjoint(group):
            print(f"checked one by one, because names meet: {meetings(found, group)}", file=sys.stderr)
    failed |= bool(faulty)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
