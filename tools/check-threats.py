#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that each row of docs/threats.md that says what holds names a test that runs, or why it has none.

Usage: check-threats.py TEST_PROGRAM...
"""

import pathlib
import re
import sys

from listed_tests import known_tests

PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "threats.md"
NO_TEST = "No test: "
NOT_TESTS = {"Suite.Name", "SECURITY.md"}
TEST = re.compile(r"`([A-Z]\w+\.[\w-]+)`")


def claims(page):
    """Yields (line number, what holds, cell of tests) of each row in a table of claims."""
    among = False
    for number, line in enumerate(page.splitlines(), 1):
        if not line.startswith("|"):
            among = False
            continue
        cells = line.strip("| ").split(" | ")
        if among and not line.startswith("|---"):
            yield number, cells[0], cells[-1]
        among = among or cells[0] == "What holds"


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    known = known_tests(sys.argv[1:])
    page = PAGE.read_text()
    breaches = [f"{name} is no test" for name in TEST.findall(page) if name not in known | NOT_TESTS]
    rows = list(claims(page))
    for number, what, tests in rows:
        if not TEST.search(tests) and not tests.startswith(NO_TEST):
            breaches.append(f'line {number}: neither a test nor "{NO_TEST}": {what}')
    for breach in breaches:
        print(f"docs/threats.md: {breach}")
    if breaches or not rows:
        print(f"{len(breaches)} breaches, {len(rows)} rows")
        return 1
    print(f"{len(rows)} claims, {len(set(TEST.findall(page)))} tests")
    return 0


if __name__ == "__main__":
    sys.exit(main())
