#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/bench.py computes its figures from what the programs report, and its check fails where it must."""
import argparse
import contextlib
import importlib.util
import io
import json
import pathlib
import shlex
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

sys.path.append(str(options.source / "tests/roads"))
import pages

spec = importlib.util.spec_from_file_location("bench", options.source / "scripts/bench.py")
bench = importlib.util.module_from_spec(spec)
spec.loader.exec_module(bench)


def counted(name, ours, baseline, allocations=1, allocations_before=1, units=1000):
    return {"name": name, "unit": "message", "ours": ours, "baseline": baseline, "allocations": allocations,
            "allocations_before": allocations_before, "units": units}


class Figures(unittest.TestCase):
    def compare(self, compare, sides, required):
        """Runs a comparison on given results: nanoseconds of each side, a round each."""
        given = {side: iter(values) for side, values in sides.items()}
        self.order = []

        def measure(_, side, __):
            self.order.append(side)
            return {"ns": next(given[side]), "flight": "generated"}

        bench.MEASURES["given"] = measure
        workload = {"name": "x", "program": "given", "unit": "byte"} | required
        return compare(workload, argparse.Namespace(rounds=3, most_rounds=6))

    def test_a_ratio_is_the_median_of_the_rounds(self):
        line = self.compare(bench.compare, {"ours": [10, 20, 10, 10, 10], "floor": [10, 10, 20, 10, 10]},
                            {"required": 1.0})
        self.assertEqual(line["ratio"], 1.0)
        self.assertEqual(line["spread"], 0.75)
        self.assertEqual(bench.verdict(line), "yes")
        self.assertEqual(line["flights"], ["generated"])

    def test_rounds_that_differ_are_followed_by_more(self):
        line = self.compare(bench.compare, {"ours": [10, 20, 10, 10, 10], "floor": [10] * 5}, {})
        self.assertEqual(bench.ratio_cells(line | {"required": None, "aim": None})[6], "5")
        line = self.compare(bench.compare, {"ours": [10, 20, 40, 80, 160, 320], "floor": [10] * 6}, {})
        self.assertEqual(len(line["rounds"]["ours"]), 6)

    def test_the_sides_take_turns_in_beginning(self):
        self.compare(bench.compare, {"ours": [1, 1, 1], "floor": [1, 1, 1]}, {})
        self.assertEqual(self.order, ["ours", "floor", "floor", "ours", "ours", "floor"])

    def test_both_sides_of_a_pair_are_measured_at_once(self):
        told = {"bench_modules": {"context": {"flight": "recorded"}, "benchmarks": [{"ours": 20.0, "floor": 10.0, "real_time": 7.0}]},
                "bench_paths": {"ours": 20.0, "floor": 10.0, "flight": "recorded", "bytes": 259.0}}
        for program in ("modules", "paths"):
            with unittest.mock.patch.object(bench, "run", lambda command: json.dumps(told[command[0].name])) as _:
                line = bench.compare({"name": "x", "program": program, "unit": "byte"},
                                     argparse.Namespace(rounds=3, most_rounds=6, seconds=1))
            self.assertEqual((line["ratio"], line["ours"], line["floor"]), (0.5, 20.0, 10.0))
            self.assertEqual(line["flights"], ["recorded"])
            self.assertEqual(line["rounds"]["bytes"], 259.0 if program == "paths" else None)

    def test_a_ratio_below_the_required_one_is_not_met(self):
        line = self.compare(bench.compare, {"ours": [100, 100, 100], "floor": [99, 99, 99]}, {"required": 1.0})
        self.assertEqual(bench.verdict(line), "NO")

    def test_a_hostile_byte_is_told_in_ordinary_ones(self):
        line = self.compare(bench.compare_hostile, {"hostile": [60, 60, 60], "ordinary": [2, 2, 2]}, {"limit": 29})
        self.assertEqual(line["times"], 30)
        self.assertEqual(bench.hostile_cells(line)[-1], "NO")

    def test_patterns_choose_workloads(self):
        known = [{"name": name} for name in ("udp", "udp_small", "crc_7")]
        for only, names in ((None, "udp udp_small crc_7"), (["udp"], "udp"), (["udp_*,crc*"], "udp_small crc_7")):
            chosen = bench.chosen(known, argparse.Namespace(only=only))
            self.assertEqual([workload["name"] for workload in chosen], names.split())


class Counts(unittest.TestCase):
    def test_the_dumps_of_all_threads_add_up_by_name(self):
        with tempfile.TemporaryDirectory() as folder:
            for thread, total in ((1, 7), (2, 30)):
                pathlib.Path(folder, f"out.5.1-0{thread}").write_text(
                    f"thread: {thread}\ndesc: Trigger: Client Request: udp/ours\n\nsummary: 0\n\ntotals: {total}\n")
            pathlib.Path(folder, "out.5-01").write_text("desc: Trigger: Program termination\ntotals: 100\n")
            self.assertEqual(bench.totals(folder)[0], {"udp/ours": 37})

    def test_the_calls_of_functions_are_counted_by_their_names_and_numbers(self):
        text = ("fn=(1) main\n5 3\ncfn=(2) malloc\ncalls=3 7\n5 30\ncfn=(3) free\ncalls=9 7\n5 30\n"
                "fn=(2)\n7 10\ncfn=(4) _int_malloc\ncalls=3 9\n7 6\nfn=(5) other\ncfn=(2)\ncalls=2 7\n8 20\n")
        self.assertEqual(bench.calls_of(text, {"malloc"}), 5)
        self.assertEqual(bench.calls_of(text, {"calloc"}), 0)

    def test_a_rise_of_two_percent_passes_and_more_fails(self):
        self.assertEqual(bench.faults([counted("a", 102, 100), counted("b", 50, 100)]), [])
        found = bench.faults([counted("a", 103, 100)])
        self.assertEqual(found, ["a takes 103 instructions a message, 3.0 % more than bench/instructions.json says"])

    def test_further_allocations_fail(self):
        self.assertEqual(bench.faults([counted("a", 100, 100, 0.5, 1), counted("b", 1, 1, 0, 0)]), [])
        found = bench.faults([counted("a", 100, 100, 0.1, 0)])
        self.assertEqual(found, ["a allocates 0.100 times a message, and 0.000 times in bench/instructions.json"])

    def test_a_few_allocations_of_a_whole_count_come_by_the_clock(self):
        self.assertEqual(bench.faults([counted("a", 1, 1, 3.133, 3.07, 128), counted("b", 1, 1, 0.021, 0)]), [])
        self.assertEqual(len(bench.faults([counted("a", 1, 1, 3.3, 3.07, 128), counted("b", 1, 1, 0.022, 0)])), 2)

    def test_what_is_dearer_in_one_count_alone_passes(self):
        workload = {"name": "a", "program": "given"}
        for second, faults in ((101, 0), (109, 1)):
            lines = [counted("a", 110, 100)]
            with unittest.mock.patch.object(bench, "count", lambda *_: {"a/ours": (second, 1, 1000)}):
                self.assertEqual(len(bench.faults(bench.recounted(lines, [workload]))), faults)
            self.assertEqual(lines[0]["ours"], second)

    def test_a_workload_without_baseline_fails(self):
        for line in (counted("new", 1, None), counted("new", 1, 1, 1, None)):
            self.assertEqual(bench.faults([line]), ["new is not in bench/instructions.json"])

    def test_the_exit_code_says_whether_the_check_passed(self):
        with contextlib.redirect_stdout(io.StringIO()) as told, contextlib.redirect_stderr(io.StringIO()):
            self.assertEqual(bench.check([counted("a", 1, 1)]), 0)
            self.assertEqual(bench.check([counted("a", 2, 1)]), 1)
        self.assertIn("1 workloads take no more", told.getvalue())


class Page(unittest.TestCase):
    def test_each_command_of_the_page_chooses_workloads(self):
        """The page's measurements take minutes. Here the script reads each line with --list, which names the workloads
        that it would run; scripts/test runs the counts as --check."""
        for command in pages.commands(pages.block(options.source, "docs/performance.md#1")):
            program, *words = shlex.split(command, comments=True)
            with self.subTest(command=command):
                self.assertEqual(program, "scripts/bench")
                done = subprocess.run([options.source / program, "--list", *words], capture_output=True, text=True)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertGreater(len(done.stdout.split()), 0)
                usage = subprocess.run([options.source / program, "--help"], capture_output=True, text=True).stdout
                for word in words:
                    if word.startswith("--"):
                        self.assertRegex(usage, rf"{word}\b")


unittest.main(argv=[__file__, *rest])
