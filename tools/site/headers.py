# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Reads a header as the manual that it is: sections, text, and declarations with the comments above them.

A comment block directly above code belongs to that code; one with an empty line after it is text of its own. Comments
have paragraphs, "- " lists, "Warning:" and "Example:", tables of terms and indented text, as the headers of this
project write them.
"""

import pathlib
import re

EXPORTED = pathlib.Path(__file__).resolve().parents[2] / "tests" / "whole" / "exported_symbols.txt"

SECTION = re.compile(r"// --- (.+?) -+$")
SKIPPED = re.compile(r"#|namespace |}  // namespace|// SPDX-|using namespace ")
SCOPE = re.compile(r"^(?:template <[^>]*>\s*)?(?:class|struct|enum)(?: class)? (?:IPSEC_EXPORT )?([\w:]+)")
FUNCTION = re.compile(r"(?<![\w.>])(operator\W{1,3}|~?[A-Za-z_]\w*)\(")
ALIAS = re.compile(r"^using (\w+) =")
NO_NAMES = {"__attribute__", "if", "for", "return", "sizeof", "noexcept", "decltype", "defined"}
TERM = re.compile(r"  (\S+(?:, \S+)*)  +(\S.*)")


class Item:
    """One declaration, or several that share a comment."""

    def __init__(self, comment, scope):
        self.comment = comment
        self.scope = list(scope)
        self.code = []
        self.names = []

    @property
    def is_type(self):
        return any(SCOPE.match(line.strip()) and "{" in line for line in self.code)

    @property
    def declaration(self):
        """The code without what only the compiler needs to know, and without common indentation."""
        indent = min((len(line) - len(line.lstrip()) for line in self.code if line.strip()), default=0)
        return "\n".join(line[indent:].replace("IPSEC_EXPORT ", "") for line in self.code)


class Header:
    """The nodes of a header in their order: ("section", title), ("text", lines), ("item", Item)."""

    def __init__(self, source):
        self.nodes = []
        self.scope = []  # (name, depth of braces outside it)
        self.depth = 0
        self.comment = []
        self.item = None
        for line in re.sub(r"\\\n *", "", source).splitlines():
            self.take(line)
        self.flush()

    def take(self, line):
        stripped = line.strip()
        section = SECTION.match(stripped)
        if section:
            self.flush()
            self.nodes.append(("section", section[1]))
        elif SKIPPED.match(stripped):
            self.flush()
        elif stripped.startswith("//"):
            if self.item:
                self.flush()
            self.comment.append(stripped[2:].removeprefix(" "))
        elif not stripped:
            self.flush()
        else:
            self.take_code(line)

    def take_code(self, line):
        if self.item is None:
            self.item = Item(self.comment, (name for name, _ in self.scope))
            self.comment = []
        code = re.sub(r'//.*|"(?:[^"\\]|\\.)*"', "", line)
        if self.depth == (self.scope[-1][1] + 1 if self.scope else 0):
            self.take_names(code)
        self.item.code.append(line)
        self.depth += code.count("{") - code.count("}")
        while self.scope and self.depth <= self.scope[-1][1]:
            self.scope.pop()

    def take_names(self, code):
        opened = SCOPE.match(code.strip())
        if opened and "{" in code:
            self.item.names.append("::".join([*(name for name, _ in self.scope), opened[1]]))
            self.scope.append((opened[1], self.depth))
            return
        found = ALIAS.match(code.strip()) or FUNCTION.search(code)
        if found and found[1] not in NO_NAMES and not code.strip().startswith((":", "return")):
            name = "::".join([*(name for name, _ in self.scope), found[1].strip()])
            if name not in self.item.names:
                self.item.names.append(name)

    def flush(self):
        if self.item:
            self.nodes.append(("item", self.item))
        elif self.comment:
            self.nodes.append(("text", self.comment))
        self.item, self.comment = None, []

    def items(self):
        return [item for kind, item in self.nodes if kind == "item"]

    def introduction(self):
        kind, lines = self.nodes[0]
        if kind != "text":
            raise ValueError("a header begins with a comment about all of it")
        return lines


def check_complete(headers):
    """Every name that the library exports is declared in a public header, and every declaration there is explained."""
    items = [item for header in headers for item in header.items()]
    declared = {name for item in items for name in item.names}
    exported = [re.split(r"[(\[]", line)[0] for line in EXPORTED.read_text().splitlines() if line.startswith("Ipsec::")]
    missing = sorted({name for name in exported if name.removeprefix("Ipsec::") not in declared})
    if missing or not exported:
        raise ValueError(f"exported, and in no public header: {missing}")
    for item in items:
        if not item.comment and not item.scope:
            raise ValueError(f"no comment explains {item.declaration}")


def blocks(lines):
    """Returns the blocks of a comment: ("text" | "warning", text), ("list", [text]), ("terms", [(term, text)]),
    ("example" | "verbatim", [line])."""
    found = []
    current = None  # kind of the block that the next line may continue
    for line in lines:
        indented = line.startswith("  ")
        if not line.strip():
            if current in ("example", "verbatim"):
                found[-1][1].append("")
            else:
                current = None
        elif current == "example" and line.startswith("    "):
            found[-1][1].append(line[4:])
        elif line.strip() == "Example:":
            found.append(("example", []))
            current = "example"
        elif line.startswith("- "):
            if current != "list":
                found.append(("list", []))
                current = "list"
            found[-1][1].append(line[2:].strip())
        elif current == "list" and indented:
            found[-1][1][-1] += " " + line.strip()
        elif indented:
            current = take_indented(found, current, line)
        elif line.startswith("Warning: "):
            found.append(("warning", line.removeprefix("Warning: ")))
            current = "warning"
        elif current in ("text", "warning"):
            found[-1] = (current, found[-1][1] + " " + line)
        else:
            found.append(("text", line))
            current = "text"
    return [(kind, strip_end(content)) for kind, content in found]


def take_indented(found, current, line):
    """A row of a table, its continuation, or a line that stands as it is."""
    term = TERM.fullmatch(line)
    if term and current != "verbatim":
        if current != "terms":
            found.append(("terms", []))
        found[-1][1].append((term[1], term[2]))
        return "terms"
    if current == "terms":
        name, text = found[-1][1][-1]
        found[-1][1][-1] = (name, text + " " + line.strip())
        return "terms"
    if current != "verbatim":
        found.append(("verbatim", []))
    found[-1][1].append(line[2:])
    return "verbatim"


def strip_end(content):
    if isinstance(content, list):
        while content and content[-1] == "":
            content.pop()
    return content
