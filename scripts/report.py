#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints what the library costs. Called by scripts/report, which builds it.

Bytes and stack are those of the library's objects as they are compiled for build/release and build/aarch64, one by one
and without optimisation across objects, so that each module has figures of its own. The deepest stack of a function is
the sum of the frames on the dearest way through the compiler's call graph; what the library calls in libc and in the
host is not in it.
"""
import argparse
import concurrent.futures
import hashlib
import json
import pathlib
import platform
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BASELINE = ROOT / "bench/footprint.json"
COUNTS = ROOT / "out/bench/counts.json"
DESCRIPTION = "tests/abi/metadata_lib.abi"
OBJECTS = "CMakeFiles/metadata_lib_objects.dir/"
ALLOWED_RISE = 0.02
TARGETS = {"x86-64": ("release", ""), "aarch64": ("aarch64", "aarch64-linux-gnu-")}

# Where the library calls through a pointer: in which module, by which name, and what it may lead to. A call that is not
# listed is a fault, because its stack would be left out. The encoder's callback is not ours.
POINTERS = {
    ("cot_support", "pfnRxHandler"): ["_CoT_RxCallBack"],
    ("generic_klv_support", "pfnRxHandler"): ["_KLV_RxCallBack"],
    ("generic_klv_support", "validator"): ["_UASDataLinkValidator"],
    ("md_delivery", "pfnCallback"): [],
    ("metadata_api", "pfnDataRxHandler"): ["GenericKLV_ProcessRxData", "COT_ProcessRxData"],
    ("metadata_api", "pfnResetStatsHandler"): ["GenericKLV_ResetStats", "COT_ResetStats"],
    ("metadata_api", "pfnSetStatsHandler"): ["GenericKLV_SetStats", "COT_SetStats"],
}


class Fault(Exception):
    """What keeps the report from being made, or what it complains of."""


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise Fault(f"{' '.join(map(str, command))[:200]}: {done.stderr.strip()[-500:]}")
    return done.stdout


# --- compiling the modules once more, with their call graph

def command_of(entry, output):
    """The command of the build without its launcher, for a single object with its call graph and its dependencies."""
    words = shlex.split(entry["command"])
    words = words[next(i for i, word in enumerate(words) if re.search(r"(^|[/-])(g\+\+|gcc|cc|c\+\+)(-\d+)?$", word)):]
    words[words.index("-o") + 1] = str(output)
    return [word for word in words if word != "-g"] + ["-fno-lto", "-fcallgraph-info=su", "-MD", "-MF", f"{output}.d"]


def state_of(command, paths):
    """What the result of a command depends on."""
    files = [(str(path), path.stat().st_mtime_ns, path.stat().st_size) for path in paths]
    return hashlib.sha256(repr((command, files)).encode()).hexdigest()


def dependencies(depfile):
    text = depfile.read_text().split(":", 1)[1].replace("\\\n", " ")
    return [pathlib.Path(name) for name in shlex.split(text)]


def compile_module(entry, folder):
    """Compiles a source unless nothing changed since the last time. Returns the object."""
    output = folder / (pathlib.Path(entry["file"]).stem + ".o")
    command = command_of(entry, output)
    mark = output.with_suffix(".state")
    try:
        if mark.read_text() == state_of(command, dependencies(pathlib.Path(f"{output}.d"))):
            return output
    except OSError:
        pass
    run(*command, cwd=entry["directory"])
    mark.write_text(state_of(command, dependencies(pathlib.Path(f"{output}.d"))))
    return output


def compile_all(preset):
    database = json.loads((ROOT / "build" / preset / "compile_commands.json").read_text())
    entries = [entry for entry in database if OBJECTS in entry["command"]]
    folder = ROOT / "build/report" / preset
    folder.mkdir(parents=True, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        return list(pool.map(lambda entry: compile_module(entry, folder), entries))


# --- the call graph

class CallGraph:
    """Frames and calls of all modules. A function without a frame is none of the library's."""

    NODE = re.compile(r'node: \{ title: "([^"]*)" label: "((?:[^"\\]|\\.)*)"')
    EDGE = re.compile(r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)"(?: label: "([^"]*)")?')

    def __init__(self, source_line):
        self.frames, self.calls, self.modules, self.signatures = {}, {}, {}, {}
        self.indirect = []
        self.source_line = source_line

    def add(self, module, text):
        for title, label in self.NODE.findall(text):
            frame = re.search(r"\\n(\d+) bytes \(", label)
            if not frame:
                continue
            if "(dynamic)" in label:
                raise Fault(f"{title} has a frame without limit")
            self.frames[title] = max(int(frame[1]), self.frames.get(title, 0))
            self.modules.setdefault(title, module)
            self.signatures[title] = label.split("\\n")[0]
        for caller, called, place in self.EDGE.findall(text):
            if called == "__indirect_call":
                self.indirect.append((module, caller, place))
            else:
                self.calls.setdefault(caller, set()).add(called)

    def resolve_pointers(self):
        for module, caller, place in self.indirect:
            line = self.source_line(place)
            names = [name for owner, name in POINTERS if owner == module and re.search(rf"\b{name}\(", line)]
            if len(names) != 1:
                raise Fault(f"scripts/report.py does not know where the pointer leads in {place}: {line.strip()}")
            for target in POINTERS[module, names[0]]:
                found = [title for title, text in self.signatures.items() if re.search(rf"\b{target}\(", text)]
                if not found:
                    raise Fault(f"{target} is not there, to which {names[0]} leads in {module}")
                self.calls.setdefault(caller, set()).update(found)

    def depths(self):
        """The deepest stack of every function. Functions are finished after all that they call."""
        depth, active = {}, set()
        for root in self.frames:
            pending = [root]
            while pending:
                title = pending[-1]
                called = [name for name in self.calls.get(title, ()) if name in self.frames]
                waiting = [name for name in called if name not in depth]
                if title in depth or not waiting:
                    depth.setdefault(title, self.frames[title] + max((depth[name] for name in called), default=0))
                    active.discard(title)
                    pending.pop()
                    continue
                active.add(title)
                for name in waiting:
                    if name in active:
                        raise Fault(f"{name} calls itself, by way of {title}")
                pending += waiting
        return depth

    def worst(self):
        """The deepest stack of each module's functions."""
        worst = {}
        for title, depth in self.depths().items():
            worst[self.modules[title]] = max(depth, worst.get(self.modules[title], 0))
        return worst


def source_line(place):
    path, line, _ = place.rsplit(":", 2)
    return pathlib.Path(path).read_text().splitlines()[int(line) - 1]


# --- figures

def bytes_of(objects, tools):
    """What each object takes in memory: code, constants, data and what is zero."""
    lines = run(f"{tools}size", "--format=berkeley", *objects).splitlines()[1:]
    return {pathlib.Path(line.split()[-1]).stem: int(line.split()[3]) for line in lines}


def stripped_bytes(preset, tools):
    library = ROOT / "build" / preset / "metadata_lib/libmetadata_lib.so"
    copy = ROOT / "build/report" / preset / "stripped.so"
    run(f"{tools}strip", "--strip-unneeded", "--remove-section=.comment", "-o", copy, library)
    return copy.stat().st_size


def measure():
    figures = {}
    for target, (preset, tools) in TARGETS.items():
        objects = compile_all(preset)
        graph = CallGraph(source_line)
        for path in objects:
            graph.add(path.stem, path.with_suffix(".ci").read_text())
        graph.resolve_pointers()
        stacks = graph.worst()
        sizes = bytes_of(objects, tools)
        figures[target] = {module: {"bytes": sizes[module], "stack": stacks.get(module, 0)} for module in sorted(sizes)}
        figures[target]["the library, stripped"] = {"bytes": stripped_bytes(preset, tools), "stack": max(stacks.values())}
    return figures


def change_text(value, before):
    if not before:
        return "" if value == before else "new"
    return "" if value == before else f"{(value / before - 1) * 100:+.1f} %"


def print_figures(figures, baseline):
    head = ["module"] + [f"{target}, {what}" for target in TARGETS for what in ("bytes", "", "stack", "")]
    rows = []
    for module in dict.fromkeys(name for target in figures.values() for name in target):
        row = [module]
        for target in TARGETS:
            for what in ("bytes", "stack"):
                value = figures[target][module][what]
                row += [f"{value:,}", change_text(value, baseline.get(target, {}).get(module, {}).get(what, 0))]
        rows.append(row)
    head = [re.sub(r".*, $", "change", name) for name in head]
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, ["-" * width for width in widths], *rows]:
        print("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |")


def print_counts():
    if not COUNTS.exists():
        print("\nThere are no counts: scripts/bench --check makes them.")
        return
    print("\n| workload | instructions | change | allocations | per |\n|---|---|---|---|---|")
    for line in json.loads(COUNTS.read_text()):
        print(f"| {line['name']} | {line['ours']:,.1f} | {change_text(line['ours'], line['baseline'])} | "
              f"{line['allocations']:.3g} | {line['unit']} |")


def faults(figures, baseline):
    """What takes more than the baseline allows, and what only one of the two knows."""
    found = []
    for target, modules in figures.items():
        known = baseline.get(target, {})
        found += [f"{target}: {module} is not in bench/footprint.json" for module in modules.keys() - known.keys()]
        found += [f"{target}: {module} is only in bench/footprint.json" for module in known.keys() - modules.keys()]
        for module in modules.keys() & known.keys():
            for what, value in modules[module].items():
                if value > known[module][what] * (1 + ALLOWED_RISE):
                    found.append(f"{target}: {module} takes {value:,} bytes{' of stack' if what == 'stack' else ''}, "
                                 f"{change_text(value, known[module][what])} against bench/footprint.json")
    return sorted(found)


# --- the interface

def last_release():
    """The last tag's name and its description of the interface, or what is committed, or what is here."""
    for revision in ("tag", "HEAD"):
        try:
            if revision == "tag":
                revision = run("git", "-C", ROOT, "describe", "--tags", "--abbrev=0").strip()
            return revision, run("git", "-C", ROOT, "show", f"{revision}:{DESCRIPTION}")
        except (Fault, OSError):
            pass
    return DESCRIPTION, (ROOT / DESCRIPTION).read_text()


def interface_difference():
    """What libabigail says: the text, and whether encoders that were built against the release would break."""
    release, description = last_release()
    path = ROOT / "build/report/release.abi"
    path.write_text(description)
    done = subprocess.run(["abidiff", "--no-architecture", path, ROOT / "build/release/metadata_lib/libmetadata_lib.so"],
                          capture_output=True, text=True, check=False)
    if done.returncode & 3:
        raise Fault(f"abidiff: {done.stderr.strip()[-500:]}")
    return release, done.stdout, bool(done.returncode & 8)


def write_baseline(figures):
    compilers = {target: run(f"{tools}gcc", "-dumpfullversion").strip() for target, (_, tools) in TARGETS.items()}
    text = {"comment": "Bytes of each module's object and its deepest stack. scripts/report --update-baseline writes this "
                       "file; scripts/test fails on a rise of 2 %.",
            "made with": ", ".join(f"gcc {version} for {target}" for target, version in compilers.items()),
            "figures": figures}
    BASELINE.write_text(json.dumps(text, indent=1) + "\n")


def report(options):
    figures = measure()
    if options.update_baseline:
        write_baseline(figures)
        return 0
    baseline = json.loads(BASELINE.read_text())["figures"] if BASELINE.exists() else {}
    release, difference, incompatible = interface_difference()
    if not options.check:
        print_figures(figures, baseline)
        if not options.quick:
            print_counts()
        print(f"\nInterface against {release}: {difference.strip() or 'no difference'}")
    found = faults(figures, baseline)
    if incompatible:
        found.append(f"encoders built against {release} would break:\n{difference.strip()}")
    if not found:
        print("No module takes more bytes or stack than bench/footprint.json allows.")
        return 0
    print("\n".join(found), file=sys.stderr)
    print("Make it smaller, or run scripts/report --update-baseline and say in the commit why it takes more.",
          file=sys.stderr)
    return 1


def main():
    parser = argparse.ArgumentParser(prog="scripts/report", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="without the counts")
    parser.add_argument("--check", action="store_true", help="bytes, stack and interface, which fail on a rise")
    parser.add_argument("--update-baseline", action="store_true", help="write bench/footprint.json")
    try:
        return report(parser.parse_args())
    except Fault as fault:
        print(f"scripts/report: {fault}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
