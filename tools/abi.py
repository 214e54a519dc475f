#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the binary interface of the libraries with the baselines in packaging/abi, or renews those.

Usage: abi.py check LIBRARY...
       abi.py renew LIBRARY...

A baseline lists what a caller's binary relies on: the exported symbols; for each class, structure and enumeration of
the public headers that an exported function can reach, its size, the place of every base, field and virtual function,
and the value of every enumerator. Types of the standard library and of OpenSSL appear by name only.

libabigail's abidw reads the libraries. They must be built by g++ with debug information.
"""

import difflib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
BASELINES = ROOT / "packaging" / "abi"
PUBLIC_HEADER = re.compile(r"(include|platform)/[^/]+\.h")
SKIPPED = 77

HEADER = """\
# The binary interface of {soname}, written by tools/abi.py. Places are in bytes, slots count from 0.
# A line that moves breaks callers that are already built. ./dev abi renew rewrites this file.
"""


class Types:
    """The types of one library: their names, and what each refers to."""

    def __init__(self, corpus):
        self.elements = {}
        self.scopes = {}
        self.collect(corpus, "")

    def collect(self, element, scope):
        identity = element.get("id")
        if identity and identity not in self.elements:
            self.elements[identity] = element
            self.scopes[identity] = scope
        if element.tag in ("namespace-decl", "class-decl", "union-decl"):
            scope += element.get("name", "") + "::"
        for child in element:
            self.collect(child, scope)

    def name(self, identity):
        """Returns a type's name, typedefs resolved."""
        element = self.elements[identity]
        inner = element.get("type-id")
        if element.tag == "typedef-decl":
            return self.name(inner)
        if element.tag == "pointer-type-def":
            return self.name(inner) + "*"
        if element.tag == "reference-type-def":
            return self.name(inner) + ("&" if element.get("kind") == "lvalue" else "&&")
        if element.tag == "qualified-type-def":
            words = [word for word in ("const", "volatile") if element.get(word) == "yes"]
            return " ".join([self.name(inner)] + words)
        if element.tag == "array-type-def":
            lengths = "".join(f"[{dimension.get('length')}]" for dimension in element.iter("subrange"))
            return self.name(inner) + lengths
        if element.tag == "function-type":
            return f"{self.name(element.find('return').get('type-id'))} ({self.parameters(element)})"
        # libabigail 2.2 takes the two instances of an alias template for one, where they differ by a const.
        name = element.get("name", "unnamed").replace(" >", ">").replace("<const ", "<")
        return self.scopes[identity] + name

    def parameters(self, function):
        names = []
        for parameter in function.iter("parameter"):
            names.append("..." if parameter.get("is-variadic") == "yes" else self.name(parameter.get("type-id")))
        return ", ".join(names)


def in_bytes(bits):
    whole, rest = divmod(int(bits), 8)
    return str(whole) if rest == 0 else f"{whole} bit {rest}"


def exported(corpus):
    for section in ("elf-function-symbols", "elf-variable-symbols"):
        yield from corpus.iterfind(f"{section}/elf-symbol")


def symbol_line(symbol, function, types):
    name, size = symbol.get("name"), symbol.get("size")
    line = f"{'function' if symbol.get('type') == 'func-type' else 'object'} {name}"
    if symbol.get("version"):
        line += f" {symbol.get('version')}"
    if size:
        line += f", size {size}"
    if function is None:
        return line
    if not name.startswith("_Z"):  # C++ tells the parameters in the symbol's name
        line += f", takes ({types.parameters(function)})"
    result = types.name(function.find("return").get("type-id"))
    return line if result == "void" else f"{line}, returns {result}"


def symbol_lines(corpus, types):
    functions = {}
    for function in corpus.iter("function-decl"):
        functions[function.get("elf-symbol-id", "").split("@")[0]] = function
    lines = [symbol_line(symbol, functions.get(symbol.get("name")), types) for symbol in exported(corpus)]
    if not any("returns" in line for line in lines):
        sys.exit("The library has no debug information: build it with -g")
    return sorted(set(lines))


def class_lines(element, types):
    for base in element.findall("base-class"):
        virtual = "virtual " if base.get("is-virtual") == "yes" else ""
        yield f"  {virtual}base {types.name(base.get('type-id'))} at {in_bytes(base.get('layout-offset-in-bits', 0))}"
    for member in element.findall("data-member"):
        field = member.find("var-decl")
        access, type_name = member.get("access", "public"), types.name(field.get("type-id"))
        if member.get("static") != "yes":
            place = in_bytes(member.get("layout-offset-in-bits", 0))
            yield f"  at {place}: {access} {type_name} {field.get('name')}"
    slots = {}
    for member in element.findall("member-function"):
        slot = int(member.get("vtable-offset", -1))
        if slot >= 0:
            slots[slot] = member.find("function-decl").get("mangled-name")
    for slot in sorted(slots):
        yield f"  slot {slot}: {slots[slot]}"


def type_lines(element, name, types):
    if element.tag == "enum-decl":
        underlying = types.elements[element.find("underlying-type").get("type-id")]
        yield f"enum {name}, size {in_bytes(underlying.get('size-in-bits'))}"
        for enumerator in element.findall("enumerator"):
            yield f"  {enumerator.get('name')} = {enumerator.get('value')}"
    else:
        kind = "union" if element.tag == "union-decl" else "class"
        yield f"{kind} {name}, size {in_bytes(element.get('size-in-bits', 0))}"
        yield from class_lines(element, types)


def public_types(types):
    """Returns the lines of every type of the public headers, by the type's name."""
    blocks = {}
    for identity, element in types.elements.items():
        declared = PUBLIC_HEADER.fullmatch(element.get("filepath", ""))
        defined = element.tag in ("class-decl", "union-decl", "enum-decl") and not element.get("is-declaration-only")
        if declared and defined:
            name = types.name(identity)
            blocks[name] = list(type_lines(element, name, types))
    return blocks


def reached(text, blocks):
    """Returns the blocks of those types whose names occur in a text, or in the lines of such a type."""
    found = {}
    waiting = [text]
    while waiting:
        text = waiting.pop()
        for name, block in blocks.items():
            if name not in found and re.search(rf"(?<![\w:]){re.escape(name)}(?!\w)", text):
                found[name] = block
                waiting.append("\n".join(block))
    return found


def output(*command, given=None):
    return subprocess.run(command, input=given, stdout=subprocess.PIPE, text=True, check=True).stdout


def interface(library):
    """Returns the library's soname and the lines of its baseline."""
    corpus = xml.etree.ElementTree.fromstring(output("abidw", str(library)))
    soname = corpus.get("soname")
    types = Types(corpus)
    lines = symbol_lines(corpus, types)
    plain_names = output("c++filt", given="\n".join(symbol.get("name") for symbol in exported(corpus)))
    blocks = reached("\n".join(lines) + plain_names, public_types(types))
    for name in sorted(blocks):
        lines += [""] + blocks[name]
    return soname, HEADER.format(soname=soname).splitlines() + lines


def check(libraries):
    failed = 0
    for library in libraries:
        soname, now = interface(library)
        baseline = BASELINES / f"{soname}.abi"
        if not baseline.exists():
            print(f"{soname} has no baseline {baseline.relative_to(ROOT)}")
            failed += 1
            continue
        before = baseline.read_text().splitlines()
        name = str(baseline.relative_to(ROOT))
        moved = list(difflib.unified_diff(before, now, name, str(library), n=1, lineterm=""))
        if moved:
            print("\n".join(moved))
            print(f"The binary interface of {soname} has moved.\n")
            failed += 1
        else:
            print(f"{soname}: as in its baseline, {sum(1 for line in now if line)} lines")
    return 1 if failed else 0


def renew(libraries):
    BASELINES.mkdir(exist_ok=True)
    for library in libraries:
        soname, now = interface(library)
        baseline = BASELINES / f"{soname}.abi"
        baseline.write_text("\n".join(now) + "\n")
        print(f"Wrote {baseline.relative_to(ROOT)}")
    return 0


def main():
    actions = {"check": check, "renew": renew}
    if len(sys.argv) < 3 or sys.argv[1] not in actions:
        sys.exit(__doc__)
    if not shutil.which("abidw"):
        print("SKIPPED: the binary interface is not checked, abidw is missing (Debian package abigail-tools)")
        return 1 if os.environ.get("CI") else SKIPPED
    return actions[sys.argv[1]](sys.argv[2:])


if __name__ == "__main__":
    sys.exit(main())
