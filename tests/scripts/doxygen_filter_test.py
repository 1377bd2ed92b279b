#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""docs/doxygen_filter.py gives doxygen the comments and links that headers and pages have in their own form."""
import argparse
import importlib.util
import pathlib
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

spec = importlib.util.spec_from_file_location("doxygen_filter", options.source / "docs/doxygen_filter.py")
doxygen_filter = importlib.util.module_from_spec(spec)
spec.loader.exec_module(doxygen_filter)
PAGE = doxygen_filter.ROOT / "docs/integration.md"


class Headers(unittest.TestCase):
    def expect(self, text, filtered):
        self.assertEqual(doxygen_filter.header("// The file.\n\n" + text), "/** @file\nThe file.\n*/\n\n" + filtered)

    def test_comments_belong_to_what_follows_or_stands_before_them(self):
        self.expect("// Of f,\n// both lines.\nint f(void);\n", "/**\nOf f,\nboth lines.\n*/\nint f(void);\n")
        self.expect("/* Of f. */\nint f(void);\n", "/**\nOf f.\n*/\nint f(void);\n")
        self.expect("int a;  // of a\n// Of b.\nint b;\n", "int a;  /**< of a */\n/**\nOf b.\n*/\nint b;\n")
        self.expect("int a;  // of a,\n        // too\n", "int a;  /**< of a, too */\n")

    def test_the_end_of_a_header_and_banners_are_of_nothing(self):
        for text in ("#endif  // X_H\n", "/* ------ */\n/* Types    */\n/* ------ */\n", "// --- log ---\nint f();\n",
                     'const char* a = "// no comment";\n'):
            self.expect(text, text)

    def test_columns_stay_columns(self):
        self.expect("/*\n * Record:\n *\n *   size field\n *      4 a*b\n */\n",
                    "/**\nRecord:\n\n        size field\n           4 a*b\n*/\n")

    def test_what_doxygen_would_take_for_a_command_is_text(self):
        self.expect("/* Sets *a to <b> with --c. */\nint f;\n", "/**\nSets \\*a to &lt;b> with \\--c.\n*/\nint f;\n")

    def test_the_licence_in_front_is_not_the_text_of_the_file(self):
        self.assertEqual(doxygen_filter.header("// SPDX-License-Identifier: X\n// The file.\nint a;\n"),
                         "/** @file\nThe file.\n*/\nint a;\n")
        self.assertEqual(doxygen_filter.header("/* SPDX-License-Identifier: X */\n/* The file. */\nint a;\n"),
                         "/* SPDX-License-Identifier: X */\n/** @file\nThe file.\n*/\nint a;\n")


class Pages(unittest.TestCase):
    def expect(self, text, filtered):
        self.assertEqual(doxygen_filter.page("# Title\n" + text, PAGE), "# Title {#page_integration}\n" + filtered)

    def test_headings_have_the_names_that_links_use(self):
        self.expect("## A `service` fails\n", "## A `service` fails {#page_integration_a_service_fails}\n")
        self.expect("[a](#when-a-service-fails)\n", "[a](@ref page_integration_when_a_service_fails)\n")
        self.expect("[a](host.md#the-log) [b](formats/anc_klv.md)\n",
                    "[a](@ref page_host_the_log) [b](@ref page_formats_anc_klv)\n")

    def test_links_to_headers_lead_into_the_reference_and_others_to_nowhere(self):
        self.expect("[a](../metadata_lib/include/metadata_lib.h)\n", "[a](@ref metadata_lib.h)\n")
        self.expect("[a](../LICENSE)\n", "a\n")
        self.expect("![a](../docs/overview.svg)\n", "![a](overview.svg)\n")
        self.expect("[a](https://x.org)\n", "[a](https://x.org)\n")
        self.expect("[a](../NO_SUCH)\n", "[a](@ref missing_NO_SUCH)\n")

    def test_code_stays_as_it_is(self):
        self.expect("```sh\n# [a](b.md)\n```\n", "```sh\n# [a](b.md)\n```\n")


unittest.main(argv=[__file__, *rest])
