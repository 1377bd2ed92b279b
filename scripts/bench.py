#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks of build/release and prints their tables. Called by scripts/bench, which builds them."""
import argparse
import collections
import concurrent.futures
import datetime
import fnmatch
import json
import os
import pathlib
import platform
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build/release/bench"
OUTPUT = ROOT / "out/bench"
BASELINE = ROOT / "bench/instructions.json"
PAGE = ROOT / "docs/performance.md"
MARKS = ("<!-- scripts/bench --document writes from here -->", "<!-- to here -->")
ENCODER = ROOT / "build/release/encoder/mdencoder"
SIDES = ("ours", "floor", "hostile", "ordinary")
COUNTED_BATCHES = 4
ALLOWED_RISE = 0.02
# Allocations of a whole count that come by the clock and not by the work: once a second the library looks whether the time zone
# has changed, and a count on a slow machine takes more seconds.
BY_THE_CLOCK = 20
ROUNDED = 0.001  # allocations a unit; the baseline has three digits
RECOUNTS = 3
SETTLED = 0.02
ALLOCATORS = {"malloc", "calloc", "realloc", "aligned_alloc", "posix_memalign"}
PLAIN_FUNCTIONS = "glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX512BW,-AVX2,-AVX,-BMI2,-ERMS,-FSRM,-MOVBE"


class Failed(Exception):
    """A program that did not give a result."""


def run(command, environment=None):
    process = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False,
                             env=environment)
    if process.returncode != 0:
        raise Failed(f"{' '.join(map(str, command))}: {process.stderr.strip()[-500:]}")
    return process.stdout


def measure_module(name, options):
    """Nanoseconds of processor time per unit of both sides, which take turns every millisecond, so that neighbours on the
    machine disturb them alike."""
    result = json.loads(run([PROGRAMS / "bench_modules", f"--benchmark_filter=^{name}/pair/",
                             f"--benchmark_min_time={2 * options.seconds}", "--benchmark_format=json"]))
    return {side: {"ns": ns, "flight": result["context"]["flight"]}
            for side, ns in result["benchmarks"][0].items() if side in SIDES}


def measure_path(name, options):
    """Nanoseconds of the receiving threads' processor time per message of both sides, which take turns as well."""
    result = json.loads(run([PROGRAMS / "bench_paths", name, int(8000 * options.seconds)]))
    return {side: {"ns": result[side], "flight": result["flight"], "bytes": result["bytes"]} for side in SIDES if side in result}


def measure_paced(name, side, options):
    """The same at the pace of real sources, with the share of a processor that it comes to."""
    return json.loads(run([PROGRAMS / "bench_paced", f"{name}/{side}", 1 if options.quick else 3]))


PAIR_MEASURES = {"modules": measure_module, "paths": measure_path}
MEASURES = {"paced": measure_paced}


def measure_round(workload, sides, options):
    """What a round gives of each side: both at once, or one after the other."""
    if workload["program"] in PAIR_MEASURES:
        return PAIR_MEASURES[workload["program"]](workload["name"], options)
    return {side: MEASURES[workload["program"]](workload["name"], side, options) for side in sides}


def rounds_of(workload, sides, options):
    """The two sides in turn, a result per round each; every other round begins with the other side. Where the machine does
    something else in between, so that the ratios differ, there are more rounds."""
    results = {side: [] for side in sides}
    results["shares"] = []
    flights = set()
    for number in range(options.most_rounds):
        if number >= options.rounds and are_settled(results[sides[0]], results[sides[1]]):
            break
        for side, result in measure_round(workload, sides[::1 if number % 2 == 0 else -1], options).items():
            results[side].append(result["ns"])
            flights.add(result.get("flight"))
            results["bytes"] = result.get("bytes")
            if side == sides[0] and "share" in result:
                results["shares"].append(result["share"])
    return results, flights - {None}


def are_settled(first, second):
    """Whether the middle half of the rounds' ratios lies so close together that more rounds would not move the median."""
    ratios = [one / other for one, other in zip(first, second)]
    lower, middle, upper = statistics.quantiles(ratios, n=4, method="inclusive")
    return (upper - lower) / 2 <= SETTLED * middle


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


RATIO_HEAD = ["workload", "ours, ns", "floor, ns", "per", "ratio", "spread", "rounds", "required", "aim", "met"]


def ratio_cells(line):
    return [line["name"], number_text(line["ours"]), number_text(line["floor"]), line["unit"], f"{line['ratio']:.2f}",
            f"±{line['spread'] * 100:.0f} %", str(len(line["rounds"]["ours"])), number_text(line["required"]), number_text(line["aim"]), verdict(line)]


GROWTH_HEAD = ["each further", "ours, ns", "floor, ns", "from", "to"]
# What grows, between which workloads, and by how many; bytes are counted in hundreds.
GROWTH = [("item that is rewritten", "udp_rewrite_10", "udp_rewrite_200", 190),
          ("100 bytes of a datagram", "udp_small", "udp_large", None),
          ("source without traffic", "udp_sources_16", "udp_sources_64", 48),
          ("relay", "udp_relays_1", "udp_relays_8", 7)]


def print_growth(lines):
    """How a message's cost grows, as far as both ends were measured. Returns the table."""
    by_name = {line["name"]: line for line in lines if "ours" in line}
    table = None
    for what, start, end, count in GROWTH:
        if start not in by_name or end not in by_name:
            continue
        table = table or Table(GROWTH_HEAD, [24, 8, 9, 14, 15])
        first, last = by_name[start], by_name[end]
        count = count or (last["rounds"]["bytes"] - first["rounds"]["bytes"]) / 100
        # With more sources the floor is the library with one.
        floor = None if what.startswith("source") else (last["floor"] - first["floor"]) / count
        table.put([what, number_text((last["ours"] - first["ours"]) / count), number_text(floor), start, end])
    return table


LOSS_HEAD = ["mdencoder", "sent a second", "taken a second", "dropped by the queue", "lost in the socket"]
LOSS_RATES = [50_000, 100_000, 150_000, 200_000, 300_000, 400_000, 600_000]


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def offer(rate, files, seconds):
    """Runs mdencoder under so many messages a second. Returns what became of them, a second."""
    port = free_port()
    with tempfile.TemporaryDirectory() as folder:
        config = pathlib.Path(folder, "bench.ini")
        config.write_text(f"[encoder]\nformat = none\nstatus_interval = 0\nlog_level = 3\n"
                          f"[bench]\ninput = udp\nport = {port}\nfamily = ipv4\n")
        summary = pathlib.Path(folder, "summary.json")
        command = [ENCODER, config, "--summary", summary]
        command += ["--output-dir", pathlib.Path(folder, "out")] if files else []
        encoder = subprocess.Popen([str(part) for part in command], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True)
        wait_for_port(port, encoder)
        sent = json.loads(run([PROGRAMS / "bench_send", port, rate, seconds]))
        time.sleep(0.3)
        _, errors = encoder.communicate("quit\n")
        # A recording that lacks messages is a failure of the run, and here the result.
        if encoder.returncode not in ((0, 1) if files else (0,)) or not summary.exists():
            raise Failed(f"mdencoder: {errors.strip()[-500:]}")
        source = json.loads(summary.read_text())["sources"][0]
    received = source["messages"] + source["dropped"]
    return {"offered": rate, "sent": sent["sent"] / sent["seconds"], "taken": source["messages"] / sent["seconds"],
            "dropped": source["dropped"] / sent["sent"], "lost": 1 - received / sent["sent"]}


def wait_for_port(port, process):
    """Until the process listens there."""
    for _ in range(200):
        if f":{port:04X} " in pathlib.Path("/proc/net/udp").read_text() or process.poll() is not None:
            return
        time.sleep(0.02)
    raise Failed("mdencoder does not listen")


def measure_loss(workload, options):
    """More and more messages a second: of each rate the median round by what was taken."""
    rounds = [[offer(rate, workload["files"], 0.5 if options.quick else 1) for rate in LOSS_RATES]
              for _ in range(min(options.rounds, 3))]
    lines = [sorted(same, key=lambda line: line["taken"])[len(same) // 2] for same in zip(*rounds)]
    return {"name": workload["name"], "lines": lines}


def run_loss(workloads, options):
    if not workloads:
        return []
    table = Table(LOSS_HEAD, [16, 13, 14, 20, 18])
    results = []
    for workload in workloads:
        results.append(measure_loss(workload, options))
        for line in results[-1]["lines"]:
            table.put([workload["name"], number_text(line["sent"]), number_text(line["taken"]),
                       f"{line['dropped'] * 100:.1f} %", f"{line['lost'] * 100:.1f} %"])
    return results


COUNT_HEAD = ["workload", "ours", "floor", "per", "baseline", "change", "required", "aim", "met"]


def callgrind(program, names, folder):
    """Starts a program under callgrind; its counting begins and ends where the program says so."""
    arguments = ["valgrind", "--tool=callgrind", "--instr-atstart=no", "--separate-threads=yes",
                 f"--callgrind-out-file={folder}/out.%p", PROGRAMS / program, *names]
    # The C library chooses its functions for the processor: without the wide ones the counts are the same everywhere.
    environment = os.environ | {"GLIBC_TUNABLES": PLAIN_FUNCTIONS}
    return subprocess.Popen([str(part) for part in arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True, env=environment)


def calls_of(text, functions):
    """How often the dump's program called these functions. A name stands at its first place; after that its number does."""
    names, called, calls = {}, None, 0
    for line in text.splitlines():
        name = re.match(r"(c?)fn=\((\d+)\)(?: (.*))?", line)
        if name:
            names.setdefault(name[2], name[3])
            called = names[name[2]] if name[1] else None
        elif line.startswith("calls=") and called in functions:
            calls += int(line[len("calls="):].split()[0])
    return calls


def totals(folder):
    """Instructions and allocations of all threads by the name of the dump."""
    instructions, allocations = collections.Counter(), collections.Counter()
    for dump in pathlib.Path(folder).glob("out.*-*"):
        text = dump.read_text()
        name = re.search(r"^desc: Trigger: Client Request: (\S+)", text, re.MULTILINE)
        total = re.search(r"^totals: (\d+)", text, re.MULTILINE)
        if name and total:
            instructions[name[1]] += int(total[1])
            allocations[name[1]] += calls_of(text, ALLOCATORS)
    return instructions, allocations


def count_path(side):
    return "bench_paths", [side, COUNTED_BATCHES, "count"]


def count(workloads, sides):
    """Instructions and allocations per unit of the named sides, and the units: one program for all modules, one for each path, two at a time."""
    jobs = [count_path(side) for workload in workloads for side in sides(workload) if workload["program"] == "paths"]
    modules = [side for workload in workloads for side in sides(workload) if workload["program"] == "modules"]
    jobs = [("bench_counts", modules[i::2]) for i in range(2) if modules[i::2]] + jobs
    results = {}
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for counted in pool.map(lambda job: run_counted(*job), jobs):
            results.update(counted)
    return results


def run_counted(program, names):
    with tempfile.TemporaryDirectory() as folder:
        process = callgrind(program, names, folder)
        output, errors = process.communicate()
        if process.returncode != 0:
            raise Failed(f"{program} {names}: {errors.strip()[-500:]}")
        instructions, allocations = totals(folder)
    if program == "bench_paths":
        units = {names[0]: json.loads(output)["counted"]}
    else:
        units = dict(line.split() for line in output.splitlines())
    return {name: (instructions[name] / float(unit), allocations[name] / float(unit), float(unit))
            for name, unit in units.items()}


def our_side(workload):
    return f"{workload['name']}/{workload.get('side', 'ours')}"


def count_cells(workload, ours, floor, baseline):
    required = workload.get("required")
    change = "" if baseline is None else f"{(ours / baseline - 1) * 100:+.1f} %"
    met = "" if required is None else "yes" if ours <= required else "NO"
    return [workload["name"], number_text(ours), number_text(floor), workload["unit"], number_text(baseline), change,
            number_text(required), number_text(workload.get("aim")), met]


def run_counts(workloads, options):
    """Counts, prints the table, and returns the lines. A check needs neither the floors nor the table."""
    def sides(workload):
        floor = [f"{workload['name']}/floor"] if workload["floor"] and not options.check else []
        return [our_side(workload), *floor]

    baseline = json.loads(BASELINE.read_text()) if BASELINE.exists() else {}
    counts = count(workloads, sides)
    table = None if options.check else Table(COUNT_HEAD, [24, 11, 12, 7, 8, 8, 8, 6, 3])
    lines = []
    for workload in workloads:
        ours, allocations, units = counts[our_side(workload)]
        floor = counts.get(f"{workload['name']}/floor", (None,))[0]
        before = baseline.get("instructions", {}).get(workload["name"])
        if table:
            table.put(count_cells(workload, ours, floor, before))
        lines.append({"name": workload["name"], "unit": workload["unit"], "ours": ours, "floor": floor,
                      "baseline": before, "allocations": allocations, "units": units,
                      "allocations_before": baseline.get("allocations", {}).get(workload["name"]),
                      "required": workload.get("required"), "aim": workload.get("aim")})
    if options.check:
        recounted(lines, workloads)
    OUTPUT.mkdir(parents=True, exist_ok=True)
    (OUTPUT / "counts.json").write_text(json.dumps(lines, indent=1))
    return lines


def recounted(lines, workloads):
    """The lines, each at its least count. What happens now and then, such as a line of the log that its limit lets
    through, may fall into a count; what really became dearer is there every time."""
    for _ in range(RECOUNTS):
        names = {fault.split()[0] for fault in faults(lines)} & {line["name"] for line in lines if line["baseline"]}
        suspects = [workload for workload in workloads if workload["name"] in names]
        if not suspects:
            break
        counts = count(suspects, lambda workload: [our_side(workload)])
        for line in lines:
            for workload in suspects:
                if workload["name"] == line["name"]:
                    ours, allocations, _ = counts[our_side(workload)]
                    line.update(ours=min(ours, line["ours"]), allocations=min(allocations, line["allocations"]))
    return lines


def faults(lines):
    """What a check has to complain about: what became dearer than the baseline allows, and what it does not know."""
    found = []
    for line in lines:
        if not line["baseline"] or line["allocations_before"] is None:
            found.append(f"{line['name']} is not in bench/instructions.json")
            continue
        if line["allocations"] > line["allocations_before"] * (1 + ALLOWED_RISE) + ROUNDED + BY_THE_CLOCK / line["units"]:
            found.append(f"{line['name']} allocates {line['allocations']:.3f} times a {line['unit']}, "
                         f"and {line['allocations_before']:.3f} times in bench/instructions.json")
        if line["ours"] > line["baseline"] * (1 + ALLOWED_RISE):
            found.append(f"{line['name']} takes {number_text(line['ours'])} instructions a {line['unit']}, "
                         f"{(line['ours'] / line['baseline'] - 1) * 100:.1f} % more than bench/instructions.json says")
    return found


def check(lines):
    """Returns the exit code."""
    found = faults(lines)
    if not found:
        print(f"{len(lines)} workloads take no more instructions and allocations than bench/instructions.json allows.")
        return 0
    print("\n".join(found), file=sys.stderr)
    print("Make it cheaper, or run scripts/bench --update-baseline and say in the commit why it costs more.",
          file=sys.stderr)
    return 1


def least_of(workloads, lines):
    """The lines at the least of some counts, as a check takes them."""
    for _ in range(RECOUNTS):
        counts = count(workloads, lambda workload: [our_side(workload)])
        for workload, line in zip(workloads, lines):
            ours, allocations, _ = counts[our_side(workload)]
            line.update(ours=min(ours, line["ours"]), allocations=min(allocations, line["allocations"]))
    return lines


def write_baseline(lines):
    compiler = run(["gcc", "-dumpfullversion"]).strip()
    text = {"comment": "Instructions and allocations a unit by the library's side of each workload, as callgrind counts "
                       "them. scripts/bench --update-baseline writes this file; scripts/test fails on a rise of 2 %.",
            "made with": f"gcc {compiler}, {platform.machine()}",
            "instructions": {line["name"]: round(line["ours"], 2) for line in lines},
            "allocations": {line["name"]: round(line["allocations"], 3) for line in lines}}
    BASELINE.write_text(json.dumps(text, indent=1) + "\n")


class Table:
    """A table in Markdown whose lines appear as they are known; all of a run are kept for the page."""

    all = []

    def __init__(self, head, widths):
        self.widths = widths
        self.lines = []
        Table.all.append(self)
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
    try:
        commit = run(["git", "-C", ROOT, "describe", "--always", "--dirty"]).strip()
    except (Failed, OSError):
        commit = "unknown"  # an archive has no history, and a bare machine no git
    return {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(), "commit": commit,
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")}


def document(result):
    """Puts the tables of this run into the page, between its two marks."""
    text = PAGE.read_text()
    start, end = (text.index(mark) for mark in MARKS)
    machine_text = "{processor}, {processors} processors, Linux {kernel}; commit {commit}; {date}".format(**result["machine"])
    flight = "the recorded flight" if flight_is_recorded(result) else "a generated flight: the recorded one was absent"
    tables = "\n\n".join("\n".join(table.lines) for table in Table.all)
    shares = "\n".join(f"- {text}" for text in share_texts(result))
    PAGE.write_text(f"{text[:start]}{MARKS[0]}\n\n{machine_text}; {result['rounds']} rounds; {flight}.\n\n"
                    f"{tables}\n\n{shares}\n\n{text[end:]}")


def flight_is_recorded(result):
    return not any(line.get("flights") == ["generated"] for line in result["ratios"] + result["hostile"])


def share_texts(result):
    """What a paced workload takes of a processor."""
    return [f"{line['name']}: {statistics.median(line['rounds']['shares']) * 100:.2f} % of a processor"
            for line in result["ratios"] + result["hostile"] if line.get("rounds", {}).get("shares")]


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


HOSTILE_HEAD = ["hostile input", "hostile, ns", "ordinary, ns", "per", "times", "spread", "rounds", "limit", "aim", "met"]


def hostile_cells(line):
    return [line["name"], number_text(line["hostile"]), number_text(line["ordinary"]), line["unit"],
            number_text(line["times"]), f"±{line['spread'] * 100:.0f} %", str(len(line["rounds"]["hostile"])),
            number_text(line["limit"]), number_text(line["aim"]), "yes" if line["times"] <= line["limit"] else "NO"]


def run_table(workloads, head, measure, cells, options):
    """Measures the workloads and prints a line for each as it is known."""
    if not workloads:
        return []
    table = Table(head, [24, 11, 12, 7, 6, 6, 6, 8, 5, 3])
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
    parser.add_argument("--rounds", type=int, default=5, help="rounds of each workload (5), up to four times as "
                        "many where they differ")
    parser.add_argument("--quick", action="store_true", help="three short rounds")
    parser.add_argument("--counts", action="store_true", help="the instruction counts alone")
    parser.add_argument("--times", action="store_true", help="the times alone")
    parser.add_argument("--check", action="store_true", help="count, and fail where the baseline is passed by over 2 %%")
    parser.add_argument("--update-baseline", action="store_true", help="count, and write bench/instructions.json")
    parser.add_argument("--document", action="store_true", help="put the tables into docs/performance.md, too")
    parser.add_argument("--list", action="store_true", help="print the names of the workloads")
    options = parser.parse_args()
    options.seconds = 0.25
    if options.quick:
        options.rounds, options.seconds = min(options.rounds, 3), 0.1
    options.most_rounds = options.rounds if options.quick else 4 * options.rounds
    return options


def main():
    options = arguments()
    known = json.loads((ROOT / "bench/workloads.json").read_text())
    parts = ["counts"] if options.counts or options.check or options.update_baseline else ["ratios", "hostile", "loss", "counts"]
    if options.times:
        parts.remove("counts")
    workloads = {part: chosen(known[part], options) if part in parts else [] for part in known if part != "comment"}
    if options.list:
        print("\n".join(sorted({workload["name"] for part in workloads.values() for workload in part})))
        return 0
    if not any(workloads.values()):
        print("no workload of that name; see scripts/bench --list", file=sys.stderr)
        return 2
    result = {"machine": machine(), "rounds": options.rounds}
    result["ratios"] = run_table(workloads["ratios"], RATIO_HEAD, compare, ratio_cells, options)
    print_growth(result["ratios"])
    result["hostile"] = run_table(workloads["hostile"], HOSTILE_HEAD, compare_hostile, hostile_cells, options)
    for text in share_texts(result):
        print(text)
    result["loss"] = run_loss(workloads["loss"], options)
    result["counts"] = run_counts(workloads["counts"], options) if workloads["counts"] else []
    if not flight_is_recorded(result):
        print("The recorded flight is absent: a generated one stood for it.")
    if options.update_baseline:
        write_baseline(least_of(workloads["counts"], result["counts"]))
    if options.check:
        return check(result["counts"])
    OUTPUT.mkdir(parents=True, exist_ok=True)
    (OUTPUT / "bench.json").write_text(json.dumps(result, indent=1))
    if options.document:
        document(result)
    return 1 if any("failed" in line for line in result["ratios"] + result["hostile"]) else 0


if __name__ == "__main__":
    sys.exit(main())
