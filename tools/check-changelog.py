#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that each commit changes CHANGELOG.md, or says "No change for callers." in its message.

Usage: check-changelog.py

Looks at the commits since the one that brought this file, except for merges and for those that touch nothing but
Markdown. What is not committed yet is not looked at.
"""

import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
CHANGELOG = "CHANGELOG.md"
EXCUSE = "No change for callers."
SKIPPED = 77


class NoHistory(Exception):
    """The checkout has no commits to look at. Says why."""


def git(*arguments):
    finished = subprocess.run(["git", "-C", str(ROOT), *arguments], capture_output=True, text=True, check=False)
    if finished.returncode != 0:
        raise NoHistory(finished.stderr.strip().splitlines()[0])
    return finished.stdout.strip()


def commits():
    """Returns the commits since the one that brought this file, oldest first."""
    if pathlib.Path(git("rev-parse", "--show-toplevel")).resolve() != ROOT:
        raise NoHistory("it lies in another project's checkout")
    if git("rev-parse", "--is-shallow-repository") == "true":
        raise NoHistory("it is a shallow clone")
    own_path = pathlib.Path(__file__).resolve().relative_to(ROOT)
    added = git("log", "--diff-filter=A", "--format=%H", "--", str(own_path)).split()
    if not added:
        return []  # not committed yet
    return git("rev-list", "--reverse", "--no-merges", f"{added[-1]}..HEAD").split()


def breaks_habit(commit):
    files = git("diff-tree", "--no-commit-id", "--name-only", "-r", commit).splitlines()
    if CHANGELOG in files or all(file.endswith(".md") for file in files):
        return False
    return EXCUSE not in " ".join(git("log", "-1", "--format=%B", commit).split())


def main():
    try:
        looked_at = commits()
        breaches = [commit for commit in looked_at if breaks_habit(commit)]
    except (NoHistory, FileNotFoundError) as reason:
        # Not even CI can give a source archive its history: this skip is no failure there.
        print(f"*** SKIPPED: the changelog is not checked against the commits: {reason} ***")
        return SKIPPED
    for commit in breaches:
        print(git("log", "-1", "--format=%h %s", commit))
    if breaches:
        print(f'{len(breaches)} commits neither change {CHANGELOG} nor say "{EXCUSE}"')
        return 1
    print(f"Changelog: {len(looked_at)} commits keep the habit")
    return 0


if __name__ == "__main__":
    sys.exit(main())
