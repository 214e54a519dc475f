#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the tests that a build has disabled with the list of those that its platform does not run.

Usage: disabled-tests.py BUILD PLATFORM_FOLDER

Each line of the list, PLATFORM_FOLDER/disabled-tests.txt, is "NAME: reason". No list is an empty one.
"""

import json
import pathlib
import subprocess
import sys


def disabled(build):
    """Returns the names of the tests that do not run in a build, and the number of all tests."""
    command = ["ctest", "--test-dir", build, "--show-only=json-v1"]
    shown = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    tests = json.loads(shown)["tests"]
    off = {"name": "DISABLED", "value": True}
    return {test["name"] for test in tests if off in test.get("properties", [])}, len(tests)


def listed(path):
    """Returns the names in a list. Each must have a reason."""
    names = set()
    for number, line in enumerate(path.read_text().splitlines() if path.exists() else [], 1):
        name, _, reason = line.partition(":")
        if not reason.strip():
            sys.exit(f"{path}:{number}: a test without a reason")
        names.add(name)
    return names


def main():
    build, folder = sys.argv[1:]
    path = pathlib.Path(folder) / "disabled-tests.txt"
    (found, count), expected = disabled(build), listed(path)
    for name in sorted(found - expected):
        print(f"does not run with this platform, but is not in {path}: {name}", file=sys.stderr)
    for name in sorted(expected - found):
        print(f"is in {path}, but runs with this platform: {name}", file=sys.stderr)
    print(f"{count - len(found)} of {count} tests run with this platform.")
    sys.exit(found != expected or count == 0)


if __name__ == "__main__":
    main()
