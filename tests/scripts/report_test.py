#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/report.py finds the deepest stack in the compiler's call graphs, and its check fails where it must."""
import argparse
import copy
import importlib.util
import pathlib
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

spec = importlib.util.spec_from_file_location("report", options.source / "scripts/report.py")
report = importlib.util.module_from_spec(spec)
spec.loader.exec_module(report)


def node(title, frame, kind="static"):
    return (f'node: {{ title: "{title}" label: "void {title}(int)\\n/x/{title}.cpp:1:1\\n{frame} bytes ({kind})'
            '\\n0 dynamic objects" }\n')


def edge(caller, called, place="/x/a.cpp:1:1"):
    return f'edge: {{ sourcename: "{caller}" targetname: "{called}" label: "{place}" }}\n'


class Stack(unittest.TestCase):
    def worst(self, *modules, line=""):
        graph = report.CallGraph(lambda place: line)
        for module, text in modules:
            graph.add(module, text)
        graph.resolve_pointers()
        return graph.worst()

    def test_the_dearest_way_counts_through_all_modules(self):
        outside = 'node: { title: "printf" label: "printf\\n<built-in>" shape : ellipse }\n'
        worst = self.worst(("a", node("f", 100) + edge("f", "g") + edge("f", "h") + edge("f", "printf") + outside),
                           ("b", node("g", 10) + node("h", 20, "dynamic,bounded") + edge("g", "k") + node("k", 1)))
        self.assertEqual(worst, {"a": 120, "b": 20})

    def test_a_function_that_several_call_is_no_recursion(self):
        text = node("f", 1) + node("g", 2) + node("h", 4)
        self.assertEqual(self.worst(("a", text + edge("f", "g") + edge("f", "h") + edge("g", "h")))["a"], 7)

    def test_recursion_and_frames_without_limit_are_faults(self):
        for text in (node("f", 1) + edge("f", "f"), node("f", 1) + node("g", 1) + edge("f", "g") + edge("g", "f"),
                     node("f", 1, "dynamic")):
            with self.assertRaises(report.Fault):
                self.worst(("a", text))

    def test_a_pointer_leads_where_the_table_says(self):
        decoder = ("cot_support", node("f", 8) + edge("f", "__indirect_call"))
        handler = ("metadata_api", node("_CoT_RxCallBack", 500))
        self.assertEqual(self.worst(decoder, handler, line="  pCtxt->pfnRxHandler(pBuff);")["cot_support"], 508)
        with self.assertRaises(report.Fault):
            self.worst(decoder, handler, line="  pCtxt->pfnOther(pBuff);")
        with self.assertRaises(report.Fault):
            self.worst(decoder, line="  pCtxt->pfnRxHandler(pBuff);")


class Baseline(unittest.TestCase):
    known = {"x86-64": {"a": {"bytes": 1000, "stack": 100}}}

    def faults(self, **values):
        figures = copy.deepcopy(self.known)
        figures["x86-64"]["a"].update(values)
        return report.faults(figures, self.known)

    def test_a_rise_of_two_percent_passes_and_more_fails(self):
        self.assertEqual(self.faults(bytes=1020, stack=102), [])
        self.assertEqual(self.faults(bytes=1021),
                         ["x86-64: a takes 1,021 bytes, +2.1 % against bench/footprint.json"])
        self.assertEqual(self.faults(stack=103),
                         ["x86-64: a takes 103 bytes of stack, +3.0 % against bench/footprint.json"])

    def test_modules_that_only_one_side_knows_fail(self):
        self.assertEqual(report.faults(self.known, {}), ["x86-64: a is not in bench/footprint.json"])
        self.assertEqual(report.faults({"x86-64": {}}, self.known), ["x86-64: a is only in bench/footprint.json"])


class Compiling(unittest.TestCase):
    def test_a_module_is_compiled_again_when_a_header_changes(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "a.h").write_text("#define A 1\n")
            (folder / "a.c").write_text('#include "a.h"\nint a(void) { return A; }\n')
            entry = {"file": str(folder / "a.c"), "directory": name,
                     "command": f"env X=1 ccache /usr/bin/gcc -g -O2 -o x/a.c.o -c {folder}/a.c"}
            target = folder / "out"
            target.mkdir()
            times = []
            for text in ("#define A 1\n", "#define A 1\n", "#define A 22\n"):
                if (folder / "a.h").read_text() != text:
                    (folder / "a.h").write_text(text)
                times.append(report.compile_module(entry, target).stat().st_mtime_ns)
            self.assertEqual(times[0], times[1])
            self.assertNotEqual(times[1], times[2])
            self.assertIn("bytes (static)", (target / "a.ci").read_text())


unittest.main(argv=[__file__, *rest])
