# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""The tests that a page may name: those that a test program lists, folders of golden files, replays of kept inputs."""

import pathlib
import subprocess

TESTS = pathlib.Path(__file__).resolve().parent.parent / "tests"


def listed_tests(program):
    """Returns the tests of a program as Suite.Name, without what parameters and types add."""
    listing = subprocess.run([program, "--gtest_list_tests"], stdout=subprocess.PIPE, text=True, check=True).stdout
    names = set()
    suites = []
    for line in listing.splitlines():
        name = line.split("#")[0].strip()
        if line.startswith("  "):
            names.update(f"{suite}.{name.split('/')[0]}" for suite in suites)
        elif name.endswith("."):
            suites = name[:-1].split("/")
    return names


def folders_below(pattern):
    return {path.name for folder in TESTS.rglob(pattern) for path in folder.iterdir() if path.is_dir()}


def known_tests(programs):
    """Returns the names of all tests, with those of the given programs."""
    replays = {f"FuzzReplay.{subject}" for subject in folders_below("corpus")}
    return folders_below("golden").union(replays, *(listed_tests(program) for program in programs))
