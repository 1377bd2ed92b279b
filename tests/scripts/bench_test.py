#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/bench.py computes its figures from what the programs report, and its check fails where it must."""
import argparse
import contextlib
import importlib.util
import io
import pathlib
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

spec = importlib.util.spec_from_file_location("bench", options.source / "scripts/bench.py")
bench = importlib.util.module_from_spec(spec)
spec.loader.exec_module(bench)


def counted(name, ours, baseline):
    return {"name": name, "unit": "message", "ours": ours, "baseline": baseline}


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
        return compare(workload, argparse.Namespace(rounds=3))

    def test_a_ratio_is_the_median_of_the_rounds(self):
        line = self.compare(bench.compare, {"ours": [10, 20, 10], "floor": [10, 10, 20]}, {"required": 1.0})
        self.assertEqual(line["ratio"], 1.0)
        self.assertEqual(line["spread"], 0.75)
        self.assertEqual(bench.verdict(line), "yes")
        self.assertEqual(line["flights"], ["generated"])

    def test_the_sides_take_turns_in_beginning(self):
        self.compare(bench.compare, {"ours": [1, 1, 1], "floor": [1, 1, 1]}, {})
        self.assertEqual(self.order, ["ours", "floor", "floor", "ours", "ours", "floor"])

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
            self.assertEqual(bench.totals(folder), {"udp/ours": 37})

    def test_a_rise_of_five_percent_passes_and_more_fails(self):
        self.assertEqual(bench.faults([counted("a", 105, 100), counted("b", 50, 100)]), [])
        found = bench.faults([counted("a", 106, 100)])
        self.assertEqual(found, ["a takes 106 instructions a message, 6.0 % more than bench/instructions.json says"])

    def test_a_workload_without_baseline_fails(self):
        self.assertEqual(bench.faults([counted("new", 1, None)]), ["new is not in bench/instructions.json"])

    def test_the_exit_code_says_whether_the_check_passed(self):
        with contextlib.redirect_stdout(io.StringIO()) as told, contextlib.redirect_stderr(io.StringIO()):
            self.assertEqual(bench.check([counted("a", 1, 1)]), 0)
            self.assertEqual(bench.check([counted("a", 2, 1)]), 1)
        self.assertIn("1 workloads take no more", told.getvalue())


unittest.main(argv=[__file__, *rest])
