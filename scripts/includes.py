#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that each source includes the headers of what it names, and no others.

    includes.py SOURCE...        prints the missing and the unused headers
    includes.py --fix SOURCE...  adds and removes them; clang-format sorts them afterwards

It knows the usual headers of the C and C++ libraries and of GoogleTest. A source may rely on its own header (the same
name with .h). A header is spelled as in C if the source is in C, is read by C too, or spells its others so. The script
compares words, so that it needs no compiler and takes a second for the whole tree.
"""
import os
import re
import sys

def words(names):
    """The names as whole words; a name may be a pattern."""
    return rf"\b(?:{'|'.join(names.split())})\b"


def std(names):
    """The names in the namespace std."""
    return rf"\bstd::(?:{'|'.join(names.split())})\b"


def calls(names):
    """Calls of the functions, in the namespace std or without one; not of members with the same names."""
    return rf"(?:\bstd::|(?<![\w.>:])(?:::)?)(?:{'|'.join(names.split())})\s*\("


# The spellings of a header, and the names that require it.
TABLE = [
    (("algorithm",), r"\bstd::(?:ranges::)?(?:all_of|any_of|copy(?:_if|_n)?|count(?:_if)?|equal|fill(?:_n)?|"
                     r"find(?:_if)?|for_each|generate|lower_bound|max|max_element|min|min_element|none_of|reverse|"
                     r"remove(?:_if)?|replace|rotate|search|shuffle|sort|stable_sort|transform|unique|upper_bound|clamp|mismatch|"
                     r"adjacent_find|nth_element|binary_search)\s*[(<]"),
    (("array",), std("array to_array")),
    (("atomic",), std(r"atomic memory_order atomic_\w+")),
    (("bit",), std("bit_cast popcount countl_zero countr_zero endian bit_width bit_ceil bit_floor has_single_bit rotl rotr")),
    (("charconv",), std("from_chars to_chars")),
    (("chrono",), std("chrono") + r"|\bchrono_literals\b"),
    (("condition_variable",), std("condition_variable")),
    (("deque",), std("deque")),
    (("exception",), std("exception terminate current_exception exception_ptr")),
    (("filesystem",), std("filesystem")),
    (("fstream",), std("[io]?fstream")),
    (("functional",), std("function bind invoke hash reference_wrapper c?ref less greater plus")),
    (("future",), std("future async promise packaged_task")),
    (("initializer_list",), std("initializer_list")),
    (("iomanip",), std("setw setfill setprecision put_time quoted")),
    (("iostream",), std("cout cerr clog cin")),
    (("limits",), std("numeric_limits")),
    (("list",), std("list")),
    (("map",), std("(?:multi)?map")),
    (("memory",), std("(?:unique|shared|weak)_ptr make_(?:unique|shared) enable_shared_from_this addressof")),
    (("mutex",), std("(?:recursive_|timed_)?mutex lock_guard unique_lock scoped_lock call_once once_flag")),
    (("numeric",), std("accumulate iota reduce gcd lcm midpoint")),
    (("optional",), std("optional nullopt make_optional")),
    (("queue",), std("(?:priority_)?queue")),
    (("random",), std(r"mt19937(?:_64)? \w+_distribution random_device minstd_rand")),
    (("regex",), std(r"regex\w* [cs]match sregex_iterator")),
    (("set",), std("(?:multi)?set")),
    (("span",), std("span")),
    (("sstream",), std("[io]?stringstream")),
    (("stdexcept",), std("runtime_error logic_error invalid_argument out_of_range length_error")),
    (("string",), std("string to_string getline stoi stol stoul stod")),
    (("string_view",), std("string_view") + r"|\bstring_view_literals\b"),
    (("system_error",), std("system_error error_code generic_category system_category errc")),
    (("thread",), std("j?thread this_thread")),
    (("tuple",), std("tuple tie make_tuple apply")),
    (("type_traits",), std(r"is_\w+_v is_same enable_if\w* decay\w* remove_\w+_t conditional\w* underlying_type\w*")),
    (("unordered_map",), std("unordered_map")),
    (("unordered_set",), std("unordered_set")),
    (("utility",), std(r"move pair make_pair swap exchange forward as_const index_sequence\w*")),
    (("variant",), std("variant visit get_if holds_alternative monostate")),
    (("vector",), std("vector")),
    (("assert.h", "cassert"), calls("assert")),
    (("ctype.h", "cctype"), calls("isdigit isalpha isalnum isspace isprint isxdigit toupper tolower")),
    (("errno.h", "cerrno"), words("errno E(?:AGAIN|INTR|IO|PERM|NOENT|ACCES|INVAL|NOMEM|CONNREFUSED|EXIST|PIPE)")),
    (("fcntl.h",), words("O_(?:RDONLY|WRONLY|RDWR|CREAT|NONBLOCK|CLOEXEC|TRUNC) F_(?:GETFL|SETFL|GETFD|SETFD)")),
    (("math.h", "cmath"), words("HUGE_VAL") + "|" + calls(
        "fabs isnan isinf isfinite ldexp nextafter pow sqrt sin cos tan atan2? l?l?round floor ceil trunc fmod hypot")),
    (("poll.h",), words("pollfd POLLIN")),
    (("pthread.h",), words(r"pthread_\w+")),
    (("signal.h", "csignal"), words("SIG(?:INT|TERM|KILL|HUP|USR1|USR2|PIPE|CHLD) sigaction sigset_t")),
    (("stdarg.h", "cstdarg"), words("va_(?:list|start|end|copy)")),
    (("stdint.h", "cstdint"), words("u?int(?:8|16|32|64|ptr)_t U?INT(?:8|16|32|64)_MAX")),
    (("stdio.h", "cstdio"), words("FILE") + "|" + calls(
        "(?:f|d|sn?|vf|vsn)?printf fopen fclose fputs fputc fgets fread fwrite f?scanf sscanf tmpfile fmemopen fdopen "
        "rewind fflush perror puts fileno setvbuf")),
    (("stdlib.h", "cstdlib"), calls(
        "malloc calloc realloc free abort exit _Exit atoi strto(?:l|ul|ll|ull|d|f) setenv unsetenv getenv mkstemp "
        "mkdtemp posix_openpt ptsname system posix_memalign")),
    (("string.h", "cstring"), calls(
        "mem(?:cpy|set|cmp|move|mem|chr|rchr) str(?:len|cmp|ncmp|cpy|ncpy|str|chr|rchr|error|nlen|dup|spn|cspn|ncat)")),
    (("unistd.h",), words("STD(?:IN|OUT|ERR)_FILENO") + "|" + calls(
        "usleep getpid geteuid sysconf isatty readlink execvp? _exit dup2")),
    (("gtest/gtest.h",), calls(
        "TEST(?:_F|_P)? (?:EXPECT|ASSERT)_(?!THAT|CALL)[A-Z_]+ SCOPED_TRACE GTEST_SKIP ADD_FAILURE")),
    (("gmock/gmock.h",), words("EXPECT_THAT ASSERT_THAT EXPECT_CALL MOCK_METHOD") + "|" + words(
        r"testing::(?:ElementsAre\w*|HasSubstr|Contains|Each|Pair|StartsWith|AllOf|AnyOf|Not|SizeIs|IsEmpty)")),
    (("benchmark/benchmark.h",), r"\bbenchmark::|\bBENCHMARK\("),
]
TABLE = [(headers, re.compile(names)) for headers, names in TABLE]
# Headers with more names than the table lists: one of these without a known name is not called unused.
LARGE = set("algorithm errno.h cerrno exception fcntl.h functional gtest/gtest.h math.h cmath memory pthread.h "
            "signal.h csignal stdint.h cstdint stdio.h cstdio stdlib.h cstdlib string.h cstring type_traits unistd.h "
            "utility".split())
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)
# Strings, characters and comments; the strings come first because they may hold what looks like a comment.
NOT_CODE = re.compile(r'R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|//[^\n]*|/\*.*?\*/', re.S)


def headers_of(text):
    return {match.group(2) for match in INCLUDE.finditer(text)}


def spelled_as_in_c(path, text):
    direct = headers_of(text)
    return path.endswith(".c") or "__cplusplus" in text or any(
        header in direct for spellings, _ in TABLE for header in spellings[:1] if len(spellings) > 1)


def findings(path):
    """Returns the missing headers and the unused ones."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    direct = headers_of(text)
    known = set(direct)
    own = os.path.splitext(path)[0] + ".h"
    own_text = ""
    if not path.endswith(".h") and os.path.exists(own):
        with open(own, encoding="utf-8") as file:
            own_text = file.read()
        known |= headers_of(own_text)
    code = NOT_CODE.sub('""', INCLUDE.sub("", text))
    missing, unused = [], []
    for spellings, names in TABLE:
        used = names.search(code) is not None
        if used and not known & set(spellings):
            missing.append(spellings[0 if spelled_as_in_c(path, text) else -1])
        if not used:
            unused += (direct & set(spellings)) - LARGE
    return missing, sorted(unused)


def fix(path, missing, unused):
    with open(path, encoding="utf-8") as file:
        lines = file.read().split("\n")
    lines = [line for line in lines if not (match := INCLUDE.match(line)) or match.group(2) not in unused]
    position = next((i for i, line in enumerate(lines) if INCLUDE.match(line)), 0)
    own = os.path.splitext(os.path.basename(path))[0]
    first = INCLUDE.match(lines[position])
    if first and first.group(1) == '"' and own.startswith(os.path.splitext(first.group(2))[0]):
        position += 1
    lines[position:position] = [f"#include <{header}>" for header in missing]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


def main():
    sources = [argument for argument in sys.argv[1:] if argument != "--fix"]
    failed = False
    for path in sources:
        missing, unused = findings(path)
        if "--fix" in sys.argv:
            if missing or unused:
                fix(path, missing, unused)
            continue
        for header in missing:
            print(f"{path}: does not include <{header}>", file=sys.stderr)
        for header in unused:
            print(f"{path}: includes <{header}> without need", file=sys.stderr)
        failed |= bool(missing or unused)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
