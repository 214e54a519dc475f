#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Writes the man pages (section 3) of the public headers: one for each class and function, and one for each header.

Usage: manpages.py FOLDER

Needs only Python: a package can make its pages while it is built.
"""

import pathlib
import re
import sys

from headers import Header, check_complete
from render import roff, roff_code, to_roff

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADERS = ("Ipsec.h", "IpsecDaemon.h")
SECTION = "3"


def version():
    return re.search(r"project\(ipsec-helpers VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]


def first_sentence(comment, name=""):
    """What a page is about, for its line of names: the first sentence without the name that it begins with."""
    text = " ".join(line for line in comment[: comment.index("") if "" in comment else None] if line.strip())
    sentence = re.split(r"(?<=[\w)\"])[.:](?: |$)", text)[0]
    if sentence.count("(") > sentence.count(")"):
        sentence = sentence[: sentence.rindex("(")].strip()
    if name:
        sentence = sentence.removeprefix(f"{name} ").removeprefix("is ")
    return re.sub(r"^[A-Z](?=[a-z]* )", lambda found: found[0].lower(), sentence)


class Pages:
    def __init__(self, folder):
        self.folder = folder
        self.names = []

    def write(self, names, about, parts):
        """Writes a page under its first name, and each further name as a link to it."""
        title = names[0]
        head = f'.TH "{title}" {SECTION} "" "ipsec-helpers {version()}" "IPsec helpers"\n.ad l\n.nh'
        listed = ", ".join(roff(name) for name in names)
        text = "\n".join([head, f".SH NAME\n{listed} \\- {roff(about)}", *parts])
        text = re.sub(r"^(\.SH .*)\n\.PP$", r"\1", text, flags=re.M)
        (self.folder / f"{title}.{SECTION}").write_text(text + "\n")
        for name in names[1:]:
            link = self.folder / f"{name}.{SECTION}"
            link.unlink(missing_ok=True)
            link.symlink_to(f"{title}.{SECTION}")
        self.names += names


def synopsis(header, code):
    return f".SH SYNOPSIS\n.nf\n.B #include <{header}>\n.PP\nnamespace Ipsec {{\n.PP\n{roff(code)}\n.PP\n}}\n.fi"


def see_also(header, more=()):
    pages = [f"Ipsec::{header}", *more]
    return ".SH SEE ALSO\n" + ",\n".join(f".BR {roff(page)} ({SECTION})" for page in pages)


def members_of(items, name):
    return [item for item in items if item.scope[:1] == [name]]


def shown(item):
    """The declaration of a class ends where its members begin."""
    return re.sub(r"\n( public:)?$", "", item.declaration.split("\n public:")[0]) + (" ... };" if item.is_type else "")


def class_page(pages, header, item, members):
    name = item.names[0]
    parts = [synopsis(header, shown(item)), ".SH DESCRIPTION\n" + to_roff(item.comment)]
    for member in [item, *members]:
        functions = [each for each in member.names if each != name and not each.endswith("operator=")]
        private = re.search(r"^ *(private|protected):", member.declaration, re.M)
        if not functions or private or (member.comment == [] and "override" not in member.declaration):
            continue
        declared = member.declaration.split(" public:\n")[-1]
        parts.append(f".SH {roff(', '.join(each.split('::')[-1] for each in functions))}\n{roff_code(declared)}")
        parts.append(to_roff(member.comment) if member is not item else "")
    parts.append(see_also(header))
    pages.write([f"Ipsec::{name}"], first_sentence(item.comment, name), [part for part in parts if part])


def header_page(pages, header, source):
    parts = [f".SH SYNOPSIS\n.B #include <{header}>", ".SH DESCRIPTION\n" + to_roff(source.introduction()[2:])]
    for kind, node in source.nodes[1:]:
        if kind == "section":
            parts.append(f".SH {roff(node.upper())}")
        elif kind == "text":
            parts.append(to_roff(node))
        elif node.names and not node.scope:
            functions = [name for name in node.names if "::" not in name]
            parts.append("\n".join(f".PP\n.BR Ipsec::{roff(name)} ({SECTION})" for name in functions))
    pages.write([f"Ipsec::{header}"], source.introduction()[0].rstrip("."), parts)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = pathlib.Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    pages = Pages(folder)
    sources = {header: Header((ROOT / "include" / header).read_text()) for header in HEADERS}
    check_complete(sources.values())
    for header, source in sources.items():
        header_page(pages, header, source)
        common = []  # what the section says about all of its functions
        for kind, item in source.nodes[1:]:
            if kind == "section":
                common = [f".SH {roff(item.upper())}"]
            elif kind == "text":
                common.append(to_roff(item))
            if kind != "item" or not item.comment or not item.names or item.scope:
                continue
            if item.is_type and "class" in item.code[0]:
                class_page(pages, header, item, members_of(source.items(), item.names[0]))
            else:
                names = [f"Ipsec::{name}" for name in item.names]
                parts = [synopsis(header, item.declaration), ".SH DESCRIPTION\n" + to_roff(item.comment)]
                parts += common if len(common) > 1 else []
                pages.write(names, first_sentence(item.comment), [*parts, see_also(header)])
    print(f"{len(pages.names)} man pages")
    return 0


if __name__ == "__main__":
    sys.exit(main())
