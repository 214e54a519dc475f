# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Turns the blocks of a header's comments into HTML and into man pages."""

import html
import re

from headers import blocks

RFC = re.compile(r"\bRFC (\d{4})\b")
WORD = re.compile(r"[A-Za-z_~]\w*(?:::[A-Za-z_~]\w*)*(?:\(\))?")


def anchor(name):
    """The id of a declaration."""
    return re.sub(r"[^\w:~-]", lambda found: f"{ord(found[0]):x}", name)


# --- HTML -------------------------------------------------------------------------------------------------------------


class Linker:
    """Links the names of declarations and RFCs in a text."""

    def __init__(self, page, places):
        self.page = page
        self.places = places  # name: path of the page that declares it

    def __call__(self, text):
        linked = WORD.sub(lambda found: self.name(found[0]), html.escape(text, quote=False))
        return RFC.sub(r'<a href="https://www.rfc-editor.org/rfc/rfc\1">RFC \1</a>', linked)

    def name(self, word):
        place = self.places.get(word.removesuffix("()"))
        if place is None:
            return word
        target = "" if place[0] == self.page else self.page.to(place[0])
        return f'<a href="{target}#{anchor(place[1])}"><code>{word}</code></a>'


def code(lines):
    return (
        f"<pre><code>{html.escape(lines if isinstance(lines, str) else chr(10).join(lines), quote=False)}</code></pre>"
    )


def to_html(comment, link):
    parts = []
    for kind, content in blocks(comment):
        if kind == "text":
            parts.append(f"<p>{link(content)}</p>")
        elif kind == "warning":
            parts.append(f'<p class="warning"><strong>Warning:</strong> {link(content)}</p>')
        elif kind == "list":
            parts.append("<ul>" + "".join(f"<li>{link(each)}</li>" for each in content) + "</ul>")
        elif kind == "terms":
            rows = "".join(f"<dt><code>{html.escape(term)}</code></dt><dd>{link(text)}</dd>" for term, text in content)
            parts.append(f"<dl>{rows}</dl>")
        elif kind == "example":
            parts.append(f'<p class="label">Example</p>{code(content)}')
        else:
            parts.append(code(content))
    return "\n".join(parts)


# --- Man pages --------------------------------------------------------------------------------------------------------


def roff(text):
    """Escapes a text. A line may not begin with what would be a request."""
    escaped = text.replace("\\", "\\e").replace("-", "\\-").replace("^", "\\(ha").replace("~", "\\(ti")
    return "\n".join("\\&" + line if line.startswith((".", "'")) else line for line in escaped.split("\n"))


def roff_code(lines):
    text = lines if isinstance(lines, str) else "\n".join(lines)
    return f".PP\n.in +4n\n.nf\n{roff(text)}\n.fi\n.in"


def to_roff(comment):
    parts = []
    for kind, content in blocks(comment):
        if kind == "text":
            parts.append(f".PP\n{roff(content)}")
        elif kind == "warning":
            parts.append(f".PP\n.B Warning:\n{roff(content)}")
        elif kind == "list":
            parts += [f".IP \\(bu 2\n{roff(each)}" for each in content]
        elif kind == "terms":
            parts += [f".TP\n.B {roff(term)}\n{roff(text)}" for term, text in content]
        elif kind == "example":
            parts.append(f".PP\nExample:\n{roff_code(content)}")
        else:
            parts.append(roff_code(content))
    return "\n".join(parts)
