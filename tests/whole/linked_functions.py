#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the platform's functions that a document lists with those that the libraries link.

Usage: linked_functions.py DOCUMENT PLATFORM LIBRARY...

A row of the document's list is a line that begins with "| `NAME`", with the name as the linker shows it, demangled,
below the heading HEADING. What a library links is what it leaves undefined and the platform's library exports.
"""

import pathlib
import re
import subprocess
import sys

HEADING = "## The functions that the library links"
ROW = re.compile(r"\| `([^`]+)` \|")


def symbols(which, library):
    """Returns the names in a library's dynamic symbol table, without their versions."""
    listing = subprocess.run(["nm", "-D", which, library], check=True, capture_output=True, text=True).stdout
    return {line.split()[-1].split("@")[0] for line in listing.splitlines()}


def demangled(names):
    shown = subprocess.run(["c++filt"], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    return set(shown.splitlines())


def listed(document):
    _, found, section = pathlib.Path(document).read_text().partition(f"\n{HEADING}\n")
    if not found:
        sys.exit(f'{document}: there is no "{HEADING}"')
    names = [row[1] for row in map(ROW.match, section.partition("\n## ")[0].splitlines()) if row]
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        sys.exit(f"{document}: listed twice: {', '.join(sorted(twice))}")
    return set(names)


def main():
    document, platform, *libraries = sys.argv[1:]
    exports = symbols("--defined-only", platform)
    linked = demangled(exports & set().union(*(symbols("--undefined-only", library) for library in libraries)))
    if not linked:
        sys.exit(f"The libraries link nothing of {platform}: this is not the platform that they were built with.")
    rows = listed(document)
    for name in sorted(linked - rows):
        print(f"linked, but not in {document}: {name}", file=sys.stderr)
    for name in sorted(rows - linked):
        print(f"in {document}, but not linked: {name}", file=sys.stderr)
    print(f"{len(linked)} names of the platform are linked.")
    sys.exit(linked != rows)


if __name__ == "__main__":
    main()
