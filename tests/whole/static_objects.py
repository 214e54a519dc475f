#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that only handles are constructed when a library is loaded and destroyed when the process ends.

Usage: static_objects.py OBJECT_FILE...

A table that is built at load is destroyed at exit, while other threads and the destructors of other libraries may still
look things up in it. The object files show this: what their static initialisation refers to and may write is what it
constructs.
"""

import re
import subprocess
import sys

# What may be: handles, which register themselves; the standard streams, which outlive everything; and a mark of fmt 10,
# of a type without a destructor, inside the stand-in.
ALLOWED = (
    r"Ipsec::\(anonymous namespace\)::tracer?",
    r"Ipsec::\(anonymous namespace\)::invalidDistinguishedName",
    r"std::__ioinit",
    r"(guard variable for )?fmt::v\d+::format_facet<std::locale>::id",
)

STARTUP_FUNCTION = re.compile(r"_GLOBAL__(sub_)?I_|__static_initialization_and_destruction_0|__cxx_global_var_init")
REGISTERS_FOR_EXIT = {"__cxa_atexit", "atexit", "at_quick_exit", "on_exit"}
WRITABLE = re.compile(r"\.(t?bss|t?data(?!\.rel\.ro))")

SYMBOL = re.compile(r"^ *\d+: ([0-9a-f]+) +(\w+) (\w+) +\w+ +\w+ +(\w+) (\S+)$")
SECTION = re.compile(r"^Disassembly of section (\S+):$")
FUNCTION = re.compile(r"^[0-9a-f]+ <(.+)>:$")
INSTRUCTION = re.compile(r"^ +([0-9a-f]+):\t")
RELOCATION = re.compile(r"([0-9a-f]+): (R_\w+)\s+([^\s+-]\S*?)(?:([+-])0x([0-9a-f]+))?$")


class Symbol:
    def __init__(self, name, section, kind, start, size):
        self.name, self.section, self.kind, self.start, self.size = name, section, kind, start, size


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def sections_of(path):
    """Returns the names of the sections, by their number."""
    found = re.finditer(r"^ +\[ *(\d+)\] (\S+) ", run("readelf", "-SW", path), re.M)
    return {match[1]: match[2] for match in found}


def symbols_of(path):
    """Returns what the object file defines."""
    sections = sections_of(path)
    for line in run("readelf", "-sW", path).splitlines():
        match = SYMBOL.match(line)
        if match and match[4] in sections and match[3] != "SECTION":
            yield Symbol(match[5], sections[match[4]], match[3], int(match[1], 16), int(match[2], 0))


def references_of(path):
    """Yields (section, function, name, addend) for each reference that the code makes."""
    section = function = None
    pending = []  # relocations of the instruction whose end is not known yet
    for line in run("objdump", "-dr", "--no-show-raw-insn", path).splitlines() + [" ffffffff:\t"]:
        instruction = INSTRUCTION.match(line)
        if instruction:
            for place, kind, name, addend in pending:
                # x86 counts from the instruction's end.
                relative = re.match(r"R_X86_64_.*(PC|PLT)", kind)
                yield section, function, name, addend + (int(instruction[1], 16) - place if relative else 0)
            pending = []
        relocation = RELOCATION.search(line)
        if relocation and not instruction:
            addend = int(relocation[5] or "0", 16) * (-1 if relocation[4] == "-" else 1)
            pending.append((int(relocation[1], 16), relocation[2], relocation[3], addend))
        elif SECTION.match(line):
            section = SECTION.match(line)[1]
        elif FUNCTION.match(line):
            function = FUNCTION.match(line)[1]


def is_startup(section, function):
    return section.startswith(".text.startup") or STARTUP_FUNCTION.search(function) is not None


def target(symbols, name, addend):
    """Returns the symbol that a reference means; None for one that another file defines."""
    for symbol in symbols:
        if symbol.name == name:
            return symbol
    if not name.startswith("."):
        return None
    for symbol in symbols:
        inside = symbol.start <= addend < symbol.start + max(symbol.size, 1)
        if symbol.section == name and symbol.kind in ("OBJECT", "TLS", "FUNC") and inside:
            return symbol
    return Symbol(f"{name}+{addend:#x}", name, "OBJECT", addend, 0)


def demangled(name):
    return run("c++filt", name).strip()


def check(path):
    """Returns the handles that the file constructs, and what is wrong with it."""
    symbols = list(symbols_of(path))
    handles, wrong = set(), set()
    for section, function, name, addend in references_of(path):
        startup = is_startup(section, function)
        if name in REGISTERS_FOR_EXIT and not startup:
            wrong.add(f"{demangled(function)} registers something for the process's end")
        meant = target(symbols, name, addend)
        if not startup or meant is None or meant.kind == "FUNC" or not WRITABLE.match(meant.section):
            continue
        shown = demangled(meant.name)
        if any(re.fullmatch(pattern, shown) for pattern in ALLOWED):
            handles.add(shown)
        else:
            wrong.add(f"{shown} is constructed when the library is loaded")
    if ".fini_array" in sections_of(path).values():
        wrong.add("has a function that runs at the process's end")
    return handles, wrong


def main():
    handles, failed = set(), False
    for path in sys.argv[1:]:
        found, wrong = check(path)
        handles |= found
        for breach in sorted(wrong):
            print(f"{path}: {breach}", file=sys.stderr)
            failed = True
    if not handles:
        sys.exit("No handle was found: either these are no object files of the library, or this check is blind.")
    print("Constructed at load:", ", ".join(sorted(handles)))
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
