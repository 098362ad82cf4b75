#!/usr/bin/env python3
"""Prints how many tests of a CTest run passed, failed and did not run, from its JUnit file.

    count_results.py FILE

Each test case is looked at by itself, so that what is neither a pass nor a skip counts as a
failure. Fails when the file holds no test.
"""

import sys
import xml.etree.ElementTree

counts = {"passed": 0, "failed": 0, "skipped": 0}
for case in xml.etree.ElementTree.parse(sys.argv[1]).iter("testcase"):
    if case.get("status") == "run":
        counts["passed"] += 1
    elif case.get("status") == "disabled" or case.find("skipped") is not None:
        counts["skipped"] += 1
    else:
        counts["failed"] += 1
print(*counts.values())
sys.exit(0 if any(counts.values()) else 1)
