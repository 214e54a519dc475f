#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that libraries are hardened, by what their ELF files say, and names what is missing.

Usage: hardening.py COMPILER LIBRARY...

The compiler is asked for the C library's start files: where they carry no mark of indirect branch tracking (Debian 12
and 13), no library can. That the code has its landing pads is then seen at the functions that a library exports.
"""

import re
import subprocess
import sys

# The compiler replaces each of these in optimised code. Others, memcpy say, only where the size is not known before.
ALWAYS_FORTIFIED = {"printf", "fprintf", "vfprintf", "sprintf", "vsprintf", "snprintf", "vsnprintf", "syslog"}

SYMBOL = re.compile(r"^ *\d+: ([0-9a-f]+) +\w+ (\w+) +(\w+) +\w+ +(\w+) ([^@\s]+)")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def features(path):
    """Returns the marks of control-flow protection: IBT, SHSTK."""
    found = re.search(r"x86 feature: (.+)", run("readelf", "-nW", path))
    return set(found[1].split(", ")) if found else set()


def missing_in_headers(path):
    dynamic = run("readelf", "-dW", path)
    segments = run("readelf", "-lW", path)
    if not re.search(r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b", dynamic):
        yield "it is not bound at load (BIND_NOW)"
    if "TEXTREL" in dynamic:
        yield "its code is relocated at load (TEXTREL)"
    if "GNU_RELRO" not in segments:
        yield "its relocations stay writable (no GNU_RELRO)"
    stack = re.search(r"GNU_STACK .*? (R\S*) +0x", segments)
    if not stack or "E" in stack[1]:
        yield "its stack is executable (GNU_STACK)"


def missing_in_imports(imported):
    if "__stack_chk_fail" not in imported:
        yield "no function has a stack protector (__stack_chk_fail)"
    plain = imported & ALWAYS_FORTIFIED
    if plain:
        yield f"these are not fortified: {', '.join(sorted(plain))}"


def missing_marks(path, exported, wanted):
    for mark in sorted(wanted - features(path)):
        yield f"it has no mark of {mark} (.note.gnu.property)"
    listing = run("objdump", "-d", "--no-show-raw-insn", path)
    first = dict(re.findall(r"^0*([0-9a-f]+) <[^>]+>:\n +[0-9a-f]+:\t(\w+)", listing, re.M))
    bare = [name for start, name in exported if first.get(start) != "endbr64"]
    if bare:
        yield f"{len(bare)} of {len(exported)} exported functions have no landing pad (endbr64), {bare[0]} for one"


def check(path, wanted):
    """Returns the functions that a library imports, and what is missing in it."""
    symbols = [
        found.groups() for found in map(SYMBOL.match, run("readelf", "--dyn-syms", "-W", path).splitlines()) if found
    ]
    imported = {name for _, _, _, section, name in symbols if section == "UND"}
    exported = [
        (start.lstrip("0"), name)
        for start, kind, _, section, name in symbols
        if section not in ("UND", "ABS") and kind == "FUNC"
    ]
    if not exported:
        sys.exit(f"{path} exports no function: this check is blind")
    missing = [*missing_in_headers(path), *missing_in_imports(imported), *missing_marks(path, exported, wanted)]
    return imported, missing


def main():
    compiler, libraries = sys.argv[1], sys.argv[2:]
    start_file = run(compiler, "-print-file-name=crti.o").strip()
    wanted = {"SHSTK"} | (features(start_file) & {"IBT"})
    imported, failed = set(), False
    for path in libraries:
        found, missing = check(path, wanted)
        imported |= found
        for text in missing:
            print(f"{path}: {text}", file=sys.stderr)
            failed = True
    fortified = sorted(name for name in imported if name.endswith("_chk"))
    if not fortified:
        sys.exit("No library calls a fortified function (*_chk).")
    print(f"{len(libraries)} libraries; marks {', '.join(sorted(wanted))}; fortified: {', '.join(fortified)}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
