#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks docs/kept.md both ways: each row names a mark in the code and tests that run, and each mark has a row.

Usage: check-kept.py TEST_PROGRAM...

A mark is a comment that begins with "Kept (key):". Rows may share a mark, where one place makes several behaviours. A
test is one that a test program lists, or a folder of golden files.
"""

import pathlib
import re
import sys

from listed_tests import known_tests

ROOT = pathlib.Path(__file__).resolve().parent.parent
ROWS = "docs/kept.md"
CODE = ("base", "include", "platform", "src")

ROW = re.compile(r"\| `([a-z0-9-]+)` \|.*\| ([^|]+) \|")
TABLE_FRAME = re.compile(r"\|(---\||.* \| Test \|$)")
MARK = re.compile(r"// Kept \(([a-z0-9-]+)\): \S")
ANY_MARK = re.compile(r"\bKept( \(|:)")


def rows(breaches):
    """Returns (place, key, tests) of each row."""
    found = []
    for number, line in enumerate((ROOT / ROWS).read_text().splitlines(), 1):
        row = ROW.fullmatch(line)
        if row:
            tests = re.findall(r"`([^`]+)`", re.sub(r"\([^)]*\)", "", row[2]))
            found.append((f"{ROWS}:{number}", row[1], tests))
        elif line.startswith("|") and not TABLE_FRAME.match(line):
            breaches.append(f"{ROWS}:{number}: a row without a key, or without tests")
    return found


def marks(breaches):
    """Returns the place of each key's first mark."""
    found = {}
    for folder in CODE:
        for path in sorted((ROOT / folder).rglob("*.[ch]*")):
            for number, line in enumerate(path.read_text().splitlines(), 1):
                place = f"{path.relative_to(ROOT)}:{number}"
                mark = MARK.search(line)
                if mark:
                    found.setdefault(mark[1], place)
                elif ANY_MARK.search(line):
                    breaches.append(f'{place}: a mark begins with "// Kept (mark): "')
    return found


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    breaches = []
    known = known_tests(sys.argv[1:])
    all_rows, all_marks = rows(breaches), marks(breaches)
    for place, key, tests in all_rows:
        if key not in all_marks:
            breaches.append(f'{place}: no comment in the code begins with "Kept ({key}):"')
        if not tests:
            breaches.append(f"{place}: {key} names no test")
        breaches += [
            f"{place}: {test} is neither a listed test nor a golden folder" for test in tests if test not in known
        ]
    keys = {key for _, key, _ in all_rows}
    breaches += [f"{place}: {key} has no row in {ROWS}" for key, place in all_marks.items() if key not in keys]
    for breach in breaches:
        print(breach)
    if breaches or not all_rows:
        print(f"{len(breaches)} breaches, {len(all_rows)} rows")
        return 1
    print(f"{len(all_rows)} rows, {len(all_marks)} marks, {len(known)} tests")
    return 0


if __name__ == "__main__":
    sys.exit(main())
