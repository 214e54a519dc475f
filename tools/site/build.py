#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Builds the site: the Markdown pages, the headers as the manual that their comments are, and the man pages.

Usage: build.py FOLDER

Pages keep their place in the tree, and so their links to each other; what a page links to and is no page (a source, a
folder) gets a page of its own. Nothing may be wrong: a link that leads nowhere, or an exported name that no header
explains, is an error.
"""

import html
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

import manpages
from headers import Header, check_complete
from render import Linker, anchor, code, to_html

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
PUBLIC = ["include/Ipsec.h", "include/IpsecDaemon.h"]

# What the menu shows, in this order. A folder stands for its headers. Pages that are not here stand below "More".
MENU = [
    ("", ["README.md"]),
    ("Manual", [*PUBLIC, "docs/building.md", "docs/groups.md", "docs/strongswan.md"]),
    ("In operation", ["docs/messages.md", "docs/threats.md", "SECURITY.md", "docs/performance.md"]),
    ("Platform", ["platform/README.md", "platform/"]),
    ("Inside", ["docs/design.md", "docs/kept.md", "docs/clearings.md", "CONTRIBUTING.md", "CHANGELOG.md"]),
]


class SiteError(Exception):
    pass


def emptied(folder):
    """Removes an earlier site, and nothing else."""
    if folder.exists() and any(folder.iterdir()) and not (folder / "search.js").exists():
        sys.exit(f"{folder} holds something else than a site")
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def tracked():
    """The files of the project, also new ones, and also in an archive that is no clone."""
    command = ["git", "-C", ROOT, "ls-files", "--cached", "--others", "--exclude-standard"]
    done = subprocess.run(command, capture_output=True, text=True, check=False) if shutil.which("git") else None
    if done and done.returncode == 0 and done.stdout:
        return [line for line in done.stdout.splitlines() if (ROOT / line).is_file()]
    found = (path.relative_to(ROOT) for path in ROOT.rglob("*") if path.is_file())
    return sorted(str(path) for path in found if path.parts[0] != "build" and not path.parts[0].startswith("."))


class Page:
    """One page: where it comes from, where it goes, its title and its HTML."""

    def __init__(self, source, target):
        self.source = source
        self.target = target
        self.title = source
        self.body = ""
        self.entries = []  # (title, anchor, text) for the search

    def to(self, other):
        """The link from this page to another place of the site."""
        return os.path.relpath(other, os.path.dirname(self.target) or ".")


def target_of(source):
    """Where the page of a source, or of a folder, goes."""
    if source == "README.md":
        return "index.html"
    if os.path.basename(source) == "README.md":
        return os.path.join(os.path.dirname(source), "index.html")
    if source.endswith(".md"):
        return source.removesuffix(".md") + ".html"
    if (ROOT / source).is_dir():
        return os.path.join(source, "index.html")
    return source + ".html"


def plain(fragment):
    return html.unescape(re.sub(r"<[^>]+>", "", fragment))


def slug(title):
    """The id of a heading, as the forges make it."""
    return re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")


class Site:
    def __init__(self, folder):
        self.folder = folder
        self.files = tracked()
        self.folders = {str(parent) for name in self.files for parent in pathlib.PurePath(name).parents} - {"."}
        self.pages = {}  # source: Page
        self.headers = {name: Header((ROOT / name).read_text()) for name in self.files if self.is_header(name)}
        self.places = self.declared_names()
        self.wanted = [name for name in self.files if name.endswith(".md") or name in self.headers]
        self.pictures = set()

    @staticmethod
    def is_header(name):
        return re.fullmatch(r"(include|platform)/\w+\.h", name) is not None

    def declared_names(self):
        """Where the names of the public headers are declared, for links. Names like words of a sentence are none."""
        places = {}
        for header in PUBLIC:
            for item in self.headers[header].items():
                for name in item.names:
                    short = name.split("::")[-1]
                    if re.search(r"[a-z][A-Z]|_|^PRFunc|^IpsecDH", short) and "~" not in short:
                        places.setdefault(name, (target_of(header), name))
                        if item.scope[:1] in ([], ["IpsecDH"]):
                            places.setdefault(short, (target_of(header), name))
        return places

    def build(self):
        while self.wanted:
            source = self.wanted.pop(0)
            if source not in self.pages:
                self.pages[source] = page = Page(source, target_of(source))
                self.fill(page)
        check_complete([self.headers[name] for name in PUBLIC])
        for page in self.pages.values():
            path = self.folder / page.target
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(self.whole(page))
        for name in ["style.css", "search.js"]:
            shutil.copy(HERE / name, self.folder / name)
        for name in self.pictures:
            (self.folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, self.folder / name)
        (self.folder / "index.js").write_text(f"searchIndex = {json.dumps(self.search_index())};\n")

    def fill(self, page):
        if page.source.endswith(".md"):
            self.fill_markdown(page, (ROOT / page.source).read_text())
        elif page.source in self.headers:
            self.fill_header(page, self.headers[page.source])
        elif page.source in self.folders:
            self.fill_folder(page)
        else:
            self.fill_source(page)

    # --- Markdown -----------------------------------------------------------------------------------------------------

    def fill_markdown(self, page, text):
        command = ["cmark-gfm", "-e", "table", "-e", "strikethrough", "--unsafe"]
        page.body = subprocess.run(command, input=text, capture_output=True, text=True, check=True).stdout
        ids = set()
        page.body = re.sub(
            r"<h([1-6])>(.*?)</h\1>", lambda found: self.heading(ids, int(found[1]), found[2]), page.body, flags=re.S
        )
        page.title = plain(re.search(r"<h1[^>]*>(.*?)</h1>", page.body, re.S)[1])
        page.body = re.sub(
            r'(<(?:a href|img src)=")([^"]+)"', lambda found: self.link(page, *found.groups()), page.body
        )
        page.body = re.sub(r"<img [^>]+>", r'<span class="picture">\g<0></span>', page.body)
        page.body = re.sub(r"<table>.*?</table>", lambda found: table(found[0]), page.body, flags=re.S)
        page.entries = sections(page.title, page.body)

    @staticmethod
    def heading(ids, level, inner):
        name = first = slug(plain(inner))
        count = 0
        while name in ids:
            count += 1
            name = f"{first}-{count}"
        ids.add(name)
        return f'<h{level} id="{name}">{inner}</h{level}>'

    def link(self, page, start, target):
        """Leads a link of a Markdown page to the page of what it means."""
        target = html.unescape(target)
        if re.match(r"[a-z]+:|#", target):
            return f'{start}{html.escape(target)}"'
        path, _, fragment = target.partition("#")
        source = os.path.normpath(os.path.join(os.path.dirname(page.source), path))
        if source.endswith((".svg", ".png")) and source in self.files:
            self.pictures.add(source)
            return f'{start}{html.escape(page.to(source))}"'
        if source in self.folders and f"{source}/README.md" in self.files:
            source += "/README.md"
        if source not in self.files and source not in self.folders:
            raise SiteError(f"{page.source}: a link leads nowhere: {target}")
        self.wanted.append(source)
        return f'{start}{html.escape(page.to(target_of(source)) + (f"#{fragment}" if fragment else ""))}"'

    # --- Headers ------------------------------------------------------------------------------------------------------

    def fill_header(self, page, header):
        link = Linker(page, self.places)
        page.title = os.path.basename(page.source)
        parts = [f"<h1>{page.title}</h1>", self.contents(header)]
        used = set()
        for kind, node in header.nodes:
            if kind == "section":
                parts.append(f'<h2 id="{slug(node)}">{html.escape(node)}</h2>')
                page.entries.append((f"{page.title}: {node}", slug(node), ""))
            elif kind == "text":
                parts.append(to_html(node, link))
            else:
                parts.append(self.declaration(page, node, link, used))
        page.body = "\n".join(parts)

    @staticmethod
    def contents(header):
        """The types and the functions outside a type, below their sections."""
        lines = []
        for kind, node in header.nodes:
            if kind == "section":
                lines.append(f'</p><p><a href="#{slug(node)}">{html.escape(node)}</a>: ')
            elif kind == "item" and node.comment and not node.scope:
                lines += [
                    f'<a href="#{anchor(name)}"><code>{html.escape(name)}</code></a>'
                    for name in node.names
                    if "::" not in name
                ]
        return f'<nav class="contents"><p>{" ".join(lines)}</p></nav>'

    @staticmethod
    def declaration(page, item, link, used):
        names = [name for name in item.names if name not in used]
        used.update(names)
        spans = "".join(f'<span id="{html.escape(anchor(name))}"></span>' for name in names)
        shown = code(item.declaration)
        if not item.comment:
            return spans + shown
        level = 4 if item.scope else 3
        named = item.names[:1] if item.is_type else item.names
        title = ", ".join(html.escape(name) for name in named if "operator=" not in name)
        heading = f"<h{level}><code>{title}</code></h{level}>" if title else ""
        page.entries += [(name, anchor(name), " ".join(item.comment)) for name in names if "~" not in name]
        return f"{spans}{heading}\n{shown}\n{to_html(item.comment, link)}"

    # --- Sources and folders ------------------------------------------------------------------------------------------

    def fill_source(self, page):
        page.body = f"<h1><code>{html.escape(page.source)}</code></h1>\n{code((ROOT / page.source).read_text())}"

    def fill_folder(self, page):
        inside = [name for name in self.files if name.startswith(page.source + "/")]
        rows = "".join(f"<li><code>{html.escape(name)}</code></li>" for name in inside)
        page.body = f"<h1><code>{html.escape(page.source)}/</code></h1>\n<ul>{rows}</ul>"

    # --- The whole ----------------------------------------------------------------------------------------------------

    def menu(self, page):
        parts = []
        for title, names in self.menu_names():
            links = [self.menu_link(page, name) for name in names if name in self.pages]
            if links:
                parts.append((f"<h2>{title}</h2>" if title else "") + f"<ul>{''.join(links)}</ul>")
        return "\n".join(parts)

    def menu_names(self):
        def inside(folder):
            return sorted(name for name in self.headers if name.startswith(folder))

        groups = [
            (title, [each for name in names for each in (inside(name) if name.endswith("/") else [name])])
            for title, names in MENU
        ]
        listed = {name for _, names in groups for name in names}
        pages = [name for name in self.pages if name.endswith(".md") or name in self.headers]
        return [*groups, ("More", [name for name in pages if name not in listed])]

    def menu_link(self, page, name):
        other = self.pages[name]
        here = ' aria-current="page"' if other is page else ""
        return f'<li><a href="{html.escape(page.to(other.target))}"{here}>{html.escape(other.title)}</a></li>'

    def whole(self, page):
        template = (HERE / "page.html").read_text()
        values = {
            "title": html.escape(page.title),
            "root": html.escape(page.to(".") + "/"),
            "menu": self.menu(page),
            "body": page.body,
            "version": manpages.version(),
        }
        return re.sub(r"\{\{(\w+)\}\}", lambda found: values[found[1]], template)

    def search_index(self):
        return [
            [title, page.target + (f"#{place}" if place else ""), re.sub(r"\s+", " ", text)]
            for page in self.pages.values()
            for title, place, text in page.entries
        ]


def table(text):
    """A table that a narrow window shows row by row: each cell has the title of its column."""
    titles = [plain(cell) for cell in re.findall(r"<th[^>]*>(.*?)</th>", text, re.S)]

    def row(found):
        cells = iter(titles)
        return re.sub(r"<td", lambda _: f'<td data-title="{html.escape(next(cells))}"', found[0])

    return f'<div class="table">{re.sub(r"<tr>.*?</tr>", row, text, flags=re.S)}</div>'


def sections(title, body):
    """Yields what the search finds of a page: each part below a heading."""
    parts = re.split(r'<h[1-6] id="([^"]+)">(.*?)</h[1-6]>', body, flags=re.S)
    found = []
    for place, heading, text in zip(parts[1::3], parts[2::3], parts[3::3]):
        heading = plain(heading)
        found.append((heading if heading == title else f"{title}: {heading}", place, plain(text)))
    return found


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    site = Site(emptied(pathlib.Path(sys.argv[1])))
    try:
        site.build()
    except (SiteError, ValueError) as error:
        sys.exit(str(error))
    print(f"{len(site.pages)} pages, {len(site.search_index())} entries of the search")
    return 0


if __name__ == "__main__":
    sys.exit(main())
