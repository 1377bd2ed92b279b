#!/usr/bin/env python3
"""Runs the benchmarks of build/bench and prints their tables. Called by scripts/bench, which builds them."""
import argparse
import datetime
import fnmatch
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build/bench/bench"
OUTPUT = ROOT / "out/bench"
REPETITIONS = 5


class Failed(Exception):
    """A program that did not give a result."""


def run(command, environment=None):
    process = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False,
                             env=environment)
    if process.returncode != 0:
        raise Failed(f"{' '.join(map(str, command))}: {process.stderr.strip()[-500:]}")
    return process.stdout


def measure_module(name, side, options):
    """Nanoseconds of processor time per unit: the best of some repetitions, which others on the machine disturb least."""
    result = json.loads(run([PROGRAMS / "bench_modules", f"--benchmark_filter=^{name}/{side}$",
                             f"--benchmark_min_time={options.seconds / REPETITIONS}",
                             f"--benchmark_repetitions={REPETITIONS}", "--benchmark_format=json"]))
    best = max(line["items_per_second"] for line in result["benchmarks"] if line["run_type"] == "iteration")
    return {"ns": 1e9 / best, "flight": result["context"]["flight"]}


def measure_path(name, side, options):
    """Nanoseconds of the receiving thread's processor time per message: the best of some runs."""
    runs = [json.loads(run([PROGRAMS / "bench_paths", f"{name}/{side}", int(800 * options.seconds)]))
            for _ in range(3)]
    return min(runs, key=lambda result: result["ns"])


MEASURES = {"modules": measure_module, "paths": measure_path}


def rounds_of(workload, sides, options):
    """The two sides in turn, a result per round each; every other round begins with the other side."""
    results = {side: [] for side in sides}
    flights = set()
    for number in range(options.rounds):
        for side in sides if number % 2 == 0 else reversed(sides):
            result = MEASURES[workload["program"]](workload["name"], side, options)
            results[side].append(result["ns"])
            flights.add(result.get("flight"))
    return results, flights - {None}


def spread(values):
    """Half of the way from the least to the most, in parts of the median."""
    return (max(values) - min(values)) / 2 / statistics.median(values)


def compare(workload, options):
    """One line of the first table: the median of the rounds' ratios."""
    results, flights = rounds_of(workload, ["ours", "floor"], options)
    ratios = [floor / ours for ours, floor in zip(results["ours"], results["floor"])]
    line = {key: workload.get(key) for key in ("name", "unit", "required", "aim")}
    line.update(ours=statistics.median(results["ours"]), floor=statistics.median(results["floor"]),
                ratio=statistics.median(ratios), spread=spread(ratios), rounds=results, flights=sorted(flights))
    return line


def number_text(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def verdict(line):
    if line["required"] is None:
        return ""
    return "yes" if line["ratio"] >= line["required"] else "NO"


RATIO_HEAD = ["workload", "ours, ns", "floor, ns", "per", "ratio", "spread", "required", "aim", "met"]


def ratio_cells(line):
    return [line["name"], number_text(line["ours"]), number_text(line["floor"]), line["unit"], f"{line['ratio']:.2f}",
            f"±{line['spread'] * 100:.0f} %", number_text(line["required"]), number_text(line["aim"]), verdict(line)]


class Table:
    """A table in Markdown whose lines appear as they are known."""

    def __init__(self, head, widths):
        self.widths = widths
        self.lines = []
        self.put(head)
        self.add("|" + "|".join("-" * (width + 2) for width in widths) + "|")

    def add(self, text):
        self.lines.append(text)
        print(text, flush=True)

    def put(self, cells):
        self.add("| " + " | ".join(cell.ljust(width) for cell, width in zip(cells, self.widths)) + " |")


def machine():
    """What the figures belong to."""
    model = next((line.split(":", 1)[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True,
                            check=False).stdout.strip() or "unknown"
    return {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(), "commit": commit,
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")}


def chosen(workloads, options):
    if not options.only:
        return workloads
    patterns = [pattern for text in options.only for pattern in text.split(",")]
    return [workload for workload in workloads
            if any(fnmatch.fnmatch(workload["name"], pattern) for pattern in patterns)]


def compare_hostile(workload, options):
    """One line of the second table: what a hostile byte costs, in ordinary ones."""
    results, flights = rounds_of(workload, ["hostile", "ordinary"], options)
    times = [hostile / ordinary for hostile, ordinary in zip(results["hostile"], results["ordinary"])]
    line = {key: workload.get(key) for key in ("name", "unit", "limit", "aim")}
    line.update(hostile=statistics.median(results["hostile"]), ordinary=statistics.median(results["ordinary"]),
                times=statistics.median(times), spread=spread(times), rounds=results, flights=sorted(flights))
    return line


HOSTILE_HEAD = ["hostile input", "hostile, ns", "ordinary, ns", "per", "times", "spread", "limit", "aim", "met"]


def hostile_cells(line):
    return [line["name"], number_text(line["hostile"]), number_text(line["ordinary"]), line["unit"],
            number_text(line["times"]), f"±{line['spread'] * 100:.0f} %", number_text(line["limit"]),
            number_text(line["aim"]), "yes" if line["times"] <= line["limit"] else "NO"]


def run_table(workloads, head, measure, cells, options):
    """Measures the workloads and prints a line for each as it is known."""
    if not workloads:
        return []
    table = Table(head, [24, 11, 12, 7, 6, 6, 8, 5, 3])
    lines = []
    for workload in workloads:
        try:
            lines.append(measure(workload, options))
            table.put(cells(lines[-1]))
        except Failed as failure:
            lines.append({"name": workload["name"], "failed": str(failure)})
            table.add(f"{workload['name']} failed: {failure}")
    return lines


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("--only", action="append", metavar="NAME", help="run these workloads; * stands for anything")
    parser.add_argument("--rounds", type=int, default=5, help="rounds of each workload (5)")
    parser.add_argument("--quick", action="store_true", help="three short rounds")
    parser.add_argument("--list", action="store_true", help="print the names of the workloads")
    options = parser.parse_args()
    options.seconds = 0.25
    if options.quick:
        options.rounds, options.seconds = min(options.rounds, 3), 0.1
    return options


def main():
    options = arguments()
    known = json.loads((ROOT / "bench/workloads.json").read_text())
    workloads = {part: chosen(known[part], options) for part in ("ratios", "hostile")}
    if options.list:
        print("\n".join(workload["name"] for part in workloads.values() for workload in part))
        return 0
    if not any(workloads.values()):
        print("no workload of that name; see scripts/bench --list", file=sys.stderr)
        return 2
    result = {"machine": machine()}
    result["ratios"] = run_table(workloads["ratios"], RATIO_HEAD, compare, ratio_cells, options)
    result["hostile"] = run_table(workloads["hostile"], HOSTILE_HEAD, compare_hostile, hostile_cells, options)
    lines = result["ratios"] + result["hostile"]
    if any(line.get("flights") == ["generated"] for line in lines):
        print("The recorded flight is absent: a generated one stood for it.")
    OUTPUT.mkdir(parents=True, exist_ok=True)
    (OUTPUT / "bench.json").write_text(json.dumps(result, indent=1))
    return 1 if any("failed" in line for line in lines) else 0


if __name__ == "__main__":
    sys.exit(main())
