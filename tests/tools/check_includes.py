#!/usr/bin/env python3
"""Proves that the units include each other downwards and never in a circle.

    check_includes.py ROOT         checks the tree
    check_includes.py --self-test  shows that the check finds what it is for

A unit is a header together with its source. Each stands on a floor; it may include units of its own
floor and of those below. A file that belongs to no known unit is an error, so that a new unit gets
its floor here.
"""

import fnmatch
import pathlib
import re
import sys

sys.dont_write_bytecode = True
from checking import is_wrong, run

FOLDERS = ["core", "loop", "proto", "store", "stats", "ctl"]

# From the ground. A name may be a pattern.
FLOORS = [
    ["core/fault", "core/pool", "core/text", "core/buffer", "core/clock"],
    ["core/sstr", "core/pattern"],
    ["core/log", "core/options"],
    ["loop/loop"],
    ["loop/endpoint"],
    ["store/algor", "store/dlist"],
    ["store/record"],
    ["store/event"],
    ["store/object", "store/expire", "store/seed"],
    ["store/dump"],
    ["loop/connection", "loop/server", "loop/datagram", "loop/child"],
    ["proto/resp", "proto/request"],
    ["proto/client", "proto/observe"],
    ["proto/cmd", "proto/cmd_*"],
    ["proto/command"],
    ["stats/*"],
    ["core/main"],
    ["ctl/*"],
]

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def unit_of(path):
    """The unit of a file, given by its path from the root."""
    unit = str(pathlib.PurePosixPath(path).with_suffix(""))
    # The loop's backends are its own: it chooses them, and they hand their events back to it.
    return "loop/loop" if unit.startswith("loop/backend_") else unit


def floor_of(unit):
    for number, patterns in enumerate(FLOORS, start=1):
        if any(fnmatch.fnmatchcase(unit, pattern) for pattern in patterns):
            return number
    return None


def read_tree(root):
    """Maps each unit to the units that it includes, with the place of the first include of each."""
    units = {}
    for folder in FOLDERS:
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
    complaints = []
    if not units:
        complaints.append(f"no units below {root}")
    for unit, included in units.items():
        if floor_of(unit) is None:
            complaints.append(f"{unit}: a unit without a floor")
        for other, place in included.items():
            if other not in units:
                complaints.append(f"{place}: includes {other}, which is no unit")
            elif (floor_of(other) or 0) > (floor_of(unit) or len(FLOORS)):
                complaints.append(f"{place}: {unit} on floor {floor_of(unit)} "
                                  f"includes {other} on {floor_of(other)}")
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
        ("an include upwards", {"core/pool.cpp": '#include "core/log.h"\n',
                                "core/log.h": ""}, "on floor 1"),
        ("a unit unknown", {"core/pool.cpp": "", "store/shelf.cpp": ""}, "without a floor"),
        ("a file not there", {"core/pool.cpp": '#include "core/nothing.h"\n'}, "no unit"),
        ("nothing", {}, "no units"),
    ]
    return sum(is_wrong(check, what, files, words) for what, files, *words in trees)


run(__doc__, check, self_test, "all includes lead downwards")
