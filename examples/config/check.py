#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Runs config-demo as a user would: check.py PROGRAM. The program checks its results itself; this checks how it tells
them."""

import re
import subprocess
import sys

TRACE = re.compile(r"^\d{4}-\d\d-\d\dT\S+ \w+ \d \S+:\d+ ")
TITLE = re.compile(r"^=== .*\? ===$")


def main():
    done = subprocess.run([sys.argv[1]], capture_output=True, text=True, timeout=60, check=False)
    print(done.stdout + done.stderr, end="")
    if done.returncode != 0 or "SKIPPED" in done.stderr:
        return done.returncode
    lines = done.stdout.splitlines()
    wrong = [
        f"a step without a word about it: {line}"
        for line, after in zip(lines, lines[1:])
        if TITLE.match(line) and not after
    ]
    for number, line in enumerate(lines):
        if TRACE.match(line):
            words = [before for before in lines[:number] if before]
            if not words or not words[-1].endswith(":"):
                wrong.append(f"a trace line without a word about it: {line}")
        elif len(line) > 100:
            wrong.append(f"a line of more than 100 columns: {line}")
    if sum(1 for line in lines if TITLE.match(line)) < 5:
        wrong.append("fewer than five steps")
    for text in wrong:
        print(f"FAILED: {text}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
