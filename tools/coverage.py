#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Prints which lines and branches of src/ and platform/ the tests of a build folder reached, and why the rest was not.

Usage: coverage.py BUILD_DIR

Counted by gcovr over gcc's own counts, in a build without optimisation (-O0). The edges that only an exception takes do
not count as branches. Fails below 97 % of the lines or 85 % of the branches, and if docs/coverage.md has no reason for
a file with lines that were not reached, or has one for a file without.
"""
import json
import pathlib
import re
import subprocess
import sys

LEAST_LINES = 97.0
LEAST_BRANCHES = 85.0
TREE = pathlib.Path(__file__).resolve().parent.parent
REASONS = TREE / "docs" / "coverage.md"


def counted(build):
    """The files' counts, as gcovr's JSON has them."""
    # A child that is killed while it adds its counts can leave one of -1, which gcovr would end for.
    command = ["gcovr", "--root", str(TREE), "--gcov-ignore-parse-errors", "--exclude-throw-branches"]
    command += ["--filter", "src/", "--filter", "platform/", "--exclude", ".*/testing/"]
    done = subprocess.run(
        [*command, "--json", "-", str(build)], cwd=TREE, stdout=subprocess.PIPE, text=True, check=True
    )
    return json.loads(done.stdout)["files"]


def reasons():
    """The rows of the page by file name."""
    rows = re.findall(r"^\| `([^`]+)` \| ([^|]+) \|", REASONS.read_text(encoding="utf-8"), re.MULTILINE)
    return {name: reason.strip() for name, reason in rows}


def percent(reached, total):
    return 100.0 * reached / total if total else 100.0


def ranges(numbers):
    """Line numbers as text: 3-5, 9"""
    found = []
    for number in numbers:
        if found and number == found[-1][1] + 1:
            found[-1][1] = number
        else:
            found.append([number, number])
    return ", ".join(str(a) if a == b else f"{a}-{b}" for a, b in found)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    known = reasons()
    faults = []
    totals = [0, 0, 0, 0]
    print(f"{'file':<34}{'lines':>7}{'branches':>10}  lines that were not reached")
    for entry in counted(sys.argv[1]):
        name = entry["file"]
        lines = [line for line in entry["lines"] if not line.get("gcovr/noncode")]
        branches = [branch for line in lines for branch in line["branches"]]
        missed = [line["line_number"] for line in lines if line["count"] == 0]
        counts = [len(lines) - len(missed), len(lines), sum(b["count"] > 0 for b in branches), len(branches)]
        totals = [a + b for a, b in zip(totals, counts)]
        print(f"{name:<34}{percent(*counts[:2]):6.1f}%{percent(*counts[2:]):9.1f}%  {ranges(missed)}")
        if missed:
            print(f"{'':<8}{known.get(name, 'NO REASON GIVEN')}")
        if bool(missed) != (name in known):
            faults.append(f"{name}: {'lines not reached, and no row' if missed else 'a row, and every line reached'}")
    lines, branches = percent(*totals[:2]), percent(*totals[2:])
    print(f"{'all':<34}{lines:6.1f}%{branches:9.1f}%")
    print("gcovr over gcc's counts, without optimisation; edges that only an exception takes do not count as branches.")
    if lines < LEAST_LINES or branches < LEAST_BRANCHES:
        faults.append(f"Less than {LEAST_LINES} % of the lines or {LEAST_BRANCHES} % of the branches")
    for fault in faults:
        print(f"coverage: {fault} in {REASONS.relative_to(TREE)}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
