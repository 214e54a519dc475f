#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Draws the demo's output as pictures for the README: ./dev demo | picture.py draw FOLDER.

picture.py check FOLDER PROGRAM... runs programs of the demo, and fails when the pictures show something else than they
print: words, columns and rows, but not figures, which differ from run to run.
"""

import html
import pathlib
import re
import subprocess
import sys
import textwrap

# File, the title of its first step, and what a reader who does not see it is told.
PICTURES = (
    (
        "exchange",
        "Are the results right?",
        "The demo reproduces published key exchanges and exchanges keys in all groups",
    ),
    ("configuration", "Can one connection change", "The demo changes connections, secrets and kernel settings"),
    ("daemon", "Does a real IKE daemon agree?", "The demo negotiates with the strongSwan daemon, once in each group"),
)
COMMAND = "$ ./dev demo"
COLUMNS = 100
SHAPE = 'lengthAdjust="spacingAndGlyphs" xml:space="preserve"'
GLYPH, LINE, MARGIN = 8, 18, 16  # pixels

STYLE = """\
    rect { fill: #f6f8fa; stroke: #d0d7de; }
    text { fill: #1f2328; font: 13px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; white-space: pre; }
    .title { fill: #0550ae; font-weight: bold; }
    .result { fill: #116329; font-weight: bold; }
    .command { fill: #6e7781; }
    @media (prefers-color-scheme: dark) {
      rect { fill: #0d1117; stroke: #30363d; }
      text { fill: #e6edf3; }
      .title { fill: #79c0ff; }
      .result { fill: #7ee787; }
      .command { fill: #8b949e; }
    }
"""


def split(output):
    """The lines of each picture."""
    parts = {}
    name = None
    for line in output.splitlines():
        for picture, title, _ in PICTURES:
            if line.startswith(f"=== {title}"):
                name = picture
        if name is None:
            sys.exit(f"picture: the output does not begin with a picture's first step: {line!r}")
        parts.setdefault(name, []).append(line.expandtabs(4))
    return parts


def wrapped(lines):
    """As a terminal of 100 columns shows them, but long lines are broken between words."""
    for line in "\n".join(lines).strip().splitlines():
        yield from textwrap.wrap(line, COLUMNS, subsequent_indent="    ", drop_whitespace=False) or [""]


def kind(line):
    for start, name in (("=== ", "title"), ("All well", "result"), ("$ ", "command")):
        if line.startswith(start):
            return f' class="{name}"'
    return ""


def draw(lines, told):
    lines = list(wrapped(lines))
    width = COLUMNS * GLYPH + 2 * MARGIN
    height = len(lines) * LINE + 2 * MARGIN
    yield f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}"'
    yield f'  role="img" aria-label="{html.escape(told)}">'
    yield f"  <title>{html.escape(told)}</title>"
    yield f"  <style>\n{STYLE}  </style>"
    yield f'  <rect x="0.5" y="0.5" width="{width - 1}" height="{height - 1}" rx="6"/>'
    for number, line in enumerate(lines):
        text = line.strip()
        if not text:
            continue
        left = MARGIN + GLYPH * (len(line) - len(line.lstrip()))
        bottom = MARGIN + LINE * number + 13
        # The length holds the columns, whatever the font.
        yield f'  <text{kind(line)} x="{left}" y="{bottom}" textLength="{GLYPH * len(text)}" {SHAPE}'
        yield f"  >{html.escape(text, quote=False)}</text>"
    yield "</svg>"


def draw_all(folder, output):
    parts = split(output)
    parts["exchange"][:0] = [COMMAND, ""]
    missing = [name for name, _, _ in PICTURES if name not in parts]
    if missing:
        sys.exit(f"picture: the output has nothing for {', '.join(missing)}; nothing is drawn")
    for name, _, told in PICTURES:
        path = folder / f"{name}.svg"
        path.write_text("\n".join(draw(parts[name], told)) + "\n", encoding="utf-8")
        print(path)


def shown(picture):
    """The lines that a picture shows."""
    texts = re.findall(r"^  >(.*)</text>$", picture, re.MULTILINE)
    return [html.unescape(text) for text in texts if text != COMMAND]


def words(lines):
    """What must be the same in each run."""
    return re.sub(r"\d+", "0", " ".join(lines)).replace("../../src/", "src/").split()


def check(folder, programs):
    output = "\n".join(
        subprocess.run([program], capture_output=True, text=True, check=True, timeout=120).stdout
        for program in programs
    )
    stale = 0
    for name, lines in split(output).items():
        now = words(wrapped(lines))
        before = words(shown((folder / f"{name}.svg").read_text(encoding="utf-8")))
        for found, drawn in zip(now + [""], before + [""]):
            if found != drawn:
                print(
                    f"{folder}/{name}.svg is stale: it shows {drawn!r} where the demo prints {found!r}. ./dev picture"
                )
                stale += 1
                break
    return 1 if stale else 0


def main():
    if len(sys.argv) < 3 or sys.argv[1] not in ("draw", "check"):
        sys.exit(__doc__)
    folder = pathlib.Path(sys.argv[2])
    if sys.argv[1] == "check":
        return check(folder, sys.argv[3:])
    draw_all(folder, sys.stdin.read())
    return 0


if __name__ == "__main__":
    sys.exit(main())
