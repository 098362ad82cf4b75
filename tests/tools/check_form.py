#!/usr/bin/env python3
"""Proves that no test and no line is too long to be read at a glance.

    check_form.py ROOT         checks the tree
    check_form.py --self-test  shows that the check finds what it is for

A test has at most 60 lines, from its macro to its closing brace. A line has at most 100 characters
in every source, script and build file. Not looked at is what cannot be wrapped without harm: the
Markdown documents, whose tables have a row a line, the manual pages, whose macros end with the
line, and files that tests read, which are what somebody else wrote. Build folders are none of the
tree.
"""

import os
import re
import sys

sys.dont_write_bytecode = True
from checking import is_wrong, run

MOST_LINES = 60
MOST_CHARACTERS = 100

SUFFIXES = (".cpp", ".h", ".py", ".sh", ".cmake", ".clang-format", ".clang-tidy", "CMakeLists.txt")
UNLOOKED = re.compile(r"build.*|\.git|\.cache|__pycache__")

TEST = re.compile(r"(?:TEST|TEST_F|TEST_P|TYPED_TEST|TYPED_TEST_P)\(\s*(.*)")


def files_of(root):
    for folder, folders, names in os.walk(root):
        folders[:] = sorted(name for name in folders if not UNLOOKED.fullmatch(name))
        for name in sorted(names):
            path = os.path.join(folder, name)
            if os.path.isfile(path):
                yield path


def text_of(path):
    """The text of a file that is to be looked at, else None."""
    if not path.endswith(SUFFIXES):
        with open(path, "rb") as file:
            if not os.access(path, os.X_OK) or file.read(2) != b"#!":
                return None
    with open(path, encoding="utf-8") as file:
        return file.read()


def long_tests(name, lines):
    complaints = []
    first = None
    for number, line in enumerate(lines, start=1):
        if TEST.match(line):
            first = number
        elif line.startswith("}") and first is not None:
            length = number + 1 - first
            if length > MOST_LINES:
                complaints.append(f"{name}:{first}: a test of {length} lines")
            first = None
    return complaints


def check(root):
    """The complaints about a tree."""
    complaints = []
    looked_at = 0
    for path in files_of(root):
        text = text_of(path)
        if text is None:
            continue
        looked_at += 1
        name = os.path.relpath(path, root)
        lines = text.splitlines()
        if name.endswith(".cpp"):
            complaints += long_tests(name, lines)
        complaints += [f"{name}:{number}: a line of {len(line)} characters"
                       for number, line in enumerate(lines, start=1) if len(line) > MOST_CHARACTERS]
    return complaints if looked_at > 0 else [f"nothing to look at below {root}"]


def a_test(macro, lines):
    """A test of so many lines."""
    return f"TEST_F({macro}) {{\n" + "    step();\n" * (lines - 2) + "}\n"


def self_test():
    wide = "x" * 101
    trees = [
        # what the tree is, its files, a word of each complaint
        ("in order", {"core/a.cpp": wide[1:] + "\n", "tests/a_test.cpp": a_test("a, works", 60)}),
        ("a test too long", {"t.cpp": a_test("a, works", 61)}, "t.cpp:1: a test of 61 lines"),
        ("a name on a line of its own",
         {"t.cpp": a_test("a, works", 9) + a_test("a,\n       works", 60)},
         "t.cpp:10: a test of 61 lines"),
        ("two tests", {"t.cpp": a_test("a, b", 40) + "\n" + a_test("a, c", 40)}),
        ("a function", {"t.cpp": "TEST(a, b) {\n}\n\nvoid f() {\n" + "    g();\n" * 99 + "}\n"}),
        ("a wide source", {"core/a.h": "\n" + wide}, "core/a.h:2: a line of 101 characters"),
        ("characters, not bytes", {"core/a.cpp": "\u00e9" * 100}),
        ("wide build files", {"CMakeLists.txt": wide, "cmake/a.cmake": wide}, "CMake", "a.cmake"),
        ("a wide script without suffix", {"run": "#!/bin/sh\n" + wide}, "run:2"),
        ("wide texts", {"README.md": wide, "man/a.7": wide, "tests/data/x.txt": wide, "a.py": ""}),
        ("a build folder", {"build-x/a.cpp": wide, "a.cpp": ""}),
        ("nothing", {"README.md": ""}, "nothing to look at"),
    ]
    return sum(is_wrong(check, what, files, words) for what, files, *words in trees)


run(__doc__, check, self_test, "every test and every line is short enough")
