#!/usr/bin/env python3
"""Proves that the folders are floors, and that no units include each other in a circle.

    check_includes.py ROOT         checks the tree
    check_includes.py --self-test  shows that the check finds what it is for

A unit is a header together with its source. It may include units of its own folder and of the
folders below. One file includes upwards: the daemon's entry, which joins everything.
"""

import pathlib
import re
import sys

sys.dont_write_bytecode = True
from checking import is_wrong, run

# What each folder may include besides itself.
BELOW = {
    "core": [],
    "loop": ["core"],
    "store": ["core"],
    "proto": ["core", "loop", "store"],
    "stats": ["core", "loop", "store"],
    "ctl": ["core", "loop", "stats"],
}

JOINS_EVERYTHING = "core/main.cpp"

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def unit_of(path):
    """The unit of a file, given by its path from the root."""
    unit = str(pathlib.PurePosixPath(path).with_suffix(""))
    # The loop's backends are its own: it chooses them, and they hand their events back to it.
    return "loop/loop" if unit.startswith("loop/backend_") else unit


def read_tree(root):
    """Each unit, with the units that it includes and the place of the first include of each."""
    units = {}
    for folder in BELOW:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            name = path.relative_to(root).as_posix()
            included = units.setdefault(unit_of(name), {})
            for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), start=1):
                match = INCLUDE.match(line)
                if match and unit_of(match[1]) != unit_of(name):
                    included.setdefault(unit_of(match[1]), f"{name}:{number}")
    return units


def folder_of(unit):
    return unit.split("/")[0]


def leads_upwards(unit, other, place):
    mine, its = folder_of(unit), folder_of(other)
    return mine != its and its not in BELOW[mine] and not place.startswith(JOINS_EVERYTHING + ":")


def find_circles(units):
    """One circle, as the list of its units, for each include that closes one."""
    circles = []
    done = set()

    def visit(unit, path):
        if unit in path:
            circles.append(path[path.index(unit):] + [unit])
        elif unit not in done:
            for included in units.get(unit, {}):
                visit(included, path + [unit])
            done.add(unit)

    for unit in units:
        visit(unit, [])
    return circles


def check(root):
    """The complaints about a tree."""
    units = read_tree(root)
    complaints = [] if units else [f"no units below {root}"]
    for unit, included in units.items():
        for other, place in included.items():
            if other not in units:
                complaints.append(f"{place}: includes {other}, which is no unit")
            elif leads_upwards(unit, other, place):
                complaints.append(f"{place}: {folder_of(unit)} must not include {other}")
    for circle in find_circles(units):
        steps = [f"{a} -> {b} ({units[a][b]})" for a, b in zip(circle, circle[1:])]
        complaints.append("units include each other in a circle: " + ", ".join(steps))
    return complaints


def self_test():
    trees = [
        # what the tree is, its files, a word of each complaint
        ("in order", {"core/text.h": "",
                      "core/text.cpp": '#include "core/text.h"\n#include <stdio.h>\n',
                      "core/log.h": '#include "core/text.h"\n',
                      "loop/loop.h": "",
                      "loop/loop.cpp": '#include "loop/loop.h"\n',
                      "loop/backend_epoll.cpp": '#include "loop/loop.h"\n'}),
        ("a circle of two", {"core/pool.h": "", "core/pool.cpp": '#include "core/text.h"\n',
                             "core/text.h": '#include "core/pool.h"\n'}, "circle"),
        ("a circle of three", {"stats/a.h": '#include "stats/b.h"\n',
                               "stats/b.h": '#include "stats/c.h"\n',
                               "stats/c.h": "",
                               "stats/c.cpp": '#  include "stats/a.h"\n'}, "circle"),
        ("an include upwards", {"core/pool.cpp": '#include "loop/loop.h"\n',
                                "loop/loop.h": ""}, "core must not include loop/loop"),
        ("an include of a neighbour", {"store/dump.cpp": '#include "loop/loop.h"\n',
                                       "loop/loop.h": ""}, "store must not include loop/loop"),
        ("the one that joins", {"core/main.cpp": '#include "proto/command.h"\n',
                                "proto/command.h": ""}),
        ("one that is named alike", {"core/main.h": '#include "proto/command.h"\n',
                                     "proto/command.h": ""}, "core must not include proto"),
        ("a file not there", {"core/pool.cpp": '#include "core/nothing.h"\n'}, "no unit"),
        ("nothing", {}, "no units"),
    ]
    return sum(is_wrong(check, what, files, words) for what, files, *words in trees)


run(__doc__, check, self_test, "all includes lead downwards")
