#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that the settings listed in Ipsec.h above the two writers are those that the writers read, and that the checks
of a change know the same.

Usage: check-settings.py

What is read stands in the rows of the two section tables (src/SectionRows.h), and in the calls of src/DaemonFiles.cpp
that look a setting up. A setting of the ordinary section is required, and has a * in the header, unless its row is
written only with it.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = "include/Ipsec.h"
SOURCE = "src/DaemonFiles.cpp"
ROWS = "src/SectionRows.h"
CHECK = "src/SettingCheck.cpp"

TABLE = r"constexpr Row {name}\[\] = \{{\n(.*?)^\}};"
ROW = re.compile(
    r'\{(?:always|with\("(?P<when>\w+)"\)(?:\.is\("\w+"\))?), +"[^"]*", +'
    r'(?:nothing|(?:verbatim|seconds|authType)\("(?P<value>\w+)"\))\},'
)
LOOK_UP = r'(?:has|hasValue|checkedAt)\({settings}, "(\w+)"|\b{settings}\.find\("(\w+)"\)'
NAMES_IN_TURN = r"for \(const char\* name : \{([^}]*)\}\) \{\s*const auto found = settings\.find\(name\);"


def table(source, name, breaches):
    """Returns the settings that a section's table reads, and those of them that it cannot do without."""
    found = re.search(TABLE.format(name=name), source, re.S | re.M)
    if not found:
        sys.exit(f"{ROWS} has no table {name}")
    read, required = set(), set()
    for line in (line.strip() for line in found[1].splitlines()):
        row = ROW.fullmatch(line)
        if row:
            read.update(setting for setting in row.groups() if setting)
            if row["value"] and row["value"] != row["when"]:
                required.add(row["value"])
        elif not line.startswith("//"):
            breaches.append(f"{ROWS}: this check cannot read the row: {line}")
    return read, required


def looked_up(source, settings):
    """Returns the settings that are looked up by name in a map of this name."""
    found = re.findall(LOOK_UP.format(settings=settings), source)
    return {name for names in found for name in names if name}


def comment_above(header, declaration):
    """Returns the lines of the comment above a declaration, without their slashes."""
    lines = header[: header.index(declaration)].splitlines()
    start = max(number for number, line in enumerate(lines) if not line.startswith("//"))
    return [line[2:] for line in lines[start + 1 :]]


def listing(lines, opening):
    """Returns the rows of the list below the line that contains the opening: the first column, and the text."""
    start = next((number + 1 for number, line in enumerate(lines) if opening in line), None)
    if start is None:
        sys.exit(f'{HEADER}: no line with "{opening}"')
    rows = []
    for line in lines[start:]:
        row = re.fullmatch(r"   (\S+(?:, \S+)*)  +(\S.*)", line)
        if row:
            rows.append([row[1], row[2]])
        elif rows and line.startswith("    "):
            rows[-1][1] += " " + line.strip()
        elif rows:
            break
    return rows


def names_in(text):
    return set(re.findall(r"\w+", text))


def compare(what, listed, read, breaches):
    breaches += [f"{HEADER}: {what}: {name} is listed, and nothing reads it" for name in sorted(listed - read)]
    breaches += [f"{HEADER}: {what}: {name} is read, and not listed" for name in sorted(read - listed)]


def compare_required(what, listed, required, breaches):
    breaches += [f"{HEADER}: {what}: {name} is not required" for name in sorted(listed - required)]
    breaches += [f"{HEADER}: {what}: {name} is required" for name in sorted(required - listed)]


def check_section(comment, tables, source, breaches):
    """The settings of the two sections. Returns those that are read, and those that the ordinary section requires."""
    read, required = table(tables, "ordinarySection", breaches)
    rows = listing(comment, "* are required:")
    starred = set(re.findall(r"(\w+)\*", " ".join(first + " " + text for first, text in rows)))
    compare("ordinary section", names_in(" ".join(first for first, _ in rows)) | starred, read, breaches)
    compare_required("ordinary section", starred, required, breaches)

    default_read, default_required = table(tables, "defaultSection", breaches)
    given = set(re.findall(r'settings\.emplace\("(\w+)"', source))
    sentence = re.search(r"The default section \w+ (.*?), all optional", " ".join(line.strip() for line in comment))
    if not sentence:
        sys.exit(f"{HEADER}: no sentence tells what the default section holds")
    compare("default section", names_in(sentence[1]) - {"and"}, default_read, breaches)
    compare_required("default section", set(), default_required - given, breaches)
    return read | default_read, required


def check_call(what, rows, read, required, breaches):
    """The settings that say what a call does, or are an entry."""
    compare(what, {first for first, _ in rows}, read, breaches)
    said = {first for first, text in rows if re.search(r"\brequired\b", text)}
    compare_required(what, said, required & read, breaches)


def checked(source, name):
    """Returns the settings in a table of the checks."""
    found = re.search(TABLE.format(name=name).replace("Row", "Setting"), source, re.S | re.M)
    if not found:
        sys.exit(f"{CHECK} has no table {name}")
    return set(re.findall(r'\{"(\w+)",', found[1]))


def compare_check(what, known, read, breaches):
    breaches += [f"{CHECK}: {what}: {name} is known, and nothing reads it" for name in sorted(known - read)]
    breaches += [f"{CHECK}: {what}: {name} is read, and not known" for name in sorted(read - known)]


def main():
    header, source, tables = ((ROOT / name).read_text() for name in (HEADER, SOURCE, ROWS))
    breaches = []
    comment = comment_above(header, "IPSEC_EXPORT void writeConnections(")
    sections, required = check_section(comment, tables, source, breaches)

    in_turn = re.search(NAMES_IN_TURN, source)
    call = looked_up(source, "settings") | (names_in(in_turn[1]) if in_turn else set())
    check_call("writeConnections", listing(comment, "what the call does"), call, required, breaches)

    entry = looked_up(source, "entry")
    entry_required = set(re.findall(r'checkedAt\(entry, "(\w+)"\)', source))
    comment = comment_above(header, "IPSEC_EXPORT void writeSecrets(")
    check_call("writeSecrets", listing(comment, "end."), entry | {"delete"}, entry_required, breaches)

    check = (ROOT / CHECK).read_text()
    compare_check("connection", checked(check, "connectionSettings"), sections | call, breaches)
    compare_check("secret", checked(check, "secretSettings"), entry | {"delete"}, breaches)

    for breach in breaches:
        print(breach)
    if breaches:
        return 1
    print(f"Settings: {len(call)} say what a connections call does, {len(entry) + 1} are read from an entry")
    return 0


if __name__ == "__main__":
    sys.exit(main())
