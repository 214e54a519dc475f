#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks docs/messages.md both ways: no text that the sources can write is missing, and none is out of date.

Usage: check-messages.py

A text of the sources is a string literal with words in it, except for those listed below with the reason why nobody
reads them. The page has texts as code spans, in which <value> stands for what differs from line to line. For an error
line whose function and text stand in the call, the two must be in one row of a table.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = "docs/messages.md"
CODE = ("base", "platform", "src")

# The lines of the daemon's files, and words that only the sources compare.
NO_MESSAGES = {
    "src/DaemonFiles.cpp": {"config setup\\n\\tuniqueids=no\\n", " : PSK", " : PSK "},
    "src/DaemonFiles.h": {"config setup", "conn "},
    "src/DaemonSyntax.cpp": {"include "},
    "src/SettingCheck.cpp": {"conn "},
    "platform/linux/TextSink.cpp": {"TextSink 0"},  # the handle and the level of the sink's own line
    "src/IpsecUtils.cpp": {"%F %T"},  # how a time looks
    "platform/linux/Trace.cpp": {"%Y-%m-%dT%H:%M:%S.%f%z %n %g:%# %! %*"},  # how a line looks
}
ONLY_FILE_LINES = {"src/SectionRows.h"}

TOKEN = re.compile(r"""//[^\n]*|/\*.*?\*/|"((?:[^"\\\n]|\\.)*)"|'(?:[^'\\\n]|\\.)*'""", re.S)
HAS_WORDS = re.compile(r"[A-Za-z] |\w \w| [A-Za-z]|::|^[A-Z]+_[A-Z_]+$")
ERROR_LINE = re.compile(r"\btrace\.failed\(\s*\"([\w:]+)\",\s*")
STATIC_ASSERTION = re.compile(r"\bstatic_assert\([^;]*\);")  # read by the compiler alone
ASSERTION = re.compile(r"\bassert\((.*)\);")
TRACER = re.compile(r'const Tracer<(\w+)> trace\("(\w+)"\);')
PIECE_END = re.compile(r"<[a-z]+>|: |:$")
PRINTF_VALUE = re.compile(r"%(?:lu|[su])|\\n")


def literals(source):
    """Yields (begin, end, text) of each string literal, with those that the compiler joins as one."""
    joined = None
    for token in TOKEN.finditer(source):
        if token[1] is None:
            continue
        if joined and not source[joined[1] : token.start()].strip():
            joined = (joined[0], token.end(), joined[2] + token[1])
            continue
        if joined:
            yield joined
        joined = (token.start(), token.end(), token[1])
    if joined:
        yield joined


def plain(text):
    """Returns a literal as it is read, with printf's values as a mark."""
    return PRINTF_VALUE.sub("\0", text).replace('\\"', '"')


def without_comments(source):
    return TOKEN.sub(lambda token: token[0] if token[0][0] in "\"'" else "", source)


def call_arguments(source, begin):
    """Returns the text from begin to the end of the call that it is in."""
    depth = 0
    for token in re.finditer(r'"(?:[^"\\]|\\.)*"|[()]', source[begin:]):
        depth += {"(": 1, ")": -1}.get(token[0], 0)
        if depth < 0:
            return source[begin : begin + token.start()]
    raise ValueError("a call without an end")


def written_lines(source):
    """Yields (function, literals) of each error line whose function stands in the call. Several literals without a
    comma between them are alternatives, of which each is a text of its own."""
    for call in ERROR_LINE.finditer(source):
        arguments = call_arguments(source, call.end())
        texts = [plain(text) for _, _, text in literals(arguments)]
        if "?" in TOKEN.sub("", arguments):
            yield from ((call[1], [text]) for text in texts)
        elif texts:
            yield call[1], texts


class Sources:
    """What the sources can write."""

    def __init__(self):
        self.texts = {}  # text: where
        self.lines = []  # (where, function, literals)
        self.assertions = {}
        self.tracers = {}
        self.unused = {(name, text) for name, texts in NO_MESSAGES.items() for text in texts}
        for folder in CODE:
            for path in sorted((ROOT / folder).rglob("*.[ch]*")):
                if path.suffix in (".h", ".cpp") and path.parent.name != "testing":  # what only tests are linked with
                    self.read(str(path.relative_to(ROOT)), path.read_text())

    def read(self, name, raw):
        source = without_comments(re.sub(r"^#.*$", "", raw, flags=re.M))
        for _, _, text in literals(STATIC_ASSERTION.sub("", source)):
            if text in NO_MESSAGES.get(name, ()):
                self.unused.discard((name, text))
            elif HAS_WORDS.search(text) and name not in ONLY_FILE_LINES:
                self.texts.setdefault(plain(text), name)
        self.lines += [(name, *line) for line in written_lines(source)]
        for expression in ASSERTION.findall(source):
            if "static_" not in expression:
                self.assertions[expression] = name
        for level, handle in TRACER.findall(source):
            if not level.isdigit():
                level = re.search(rf"unsigned {level} = (\d+);", source)[1]
            self.tracers[name] = (handle, level)


class Page:
    """What the page says: the code spans of each row of a table, and all code spans."""

    def __init__(self, text):
        text = re.sub(r"^```.*?^```", "", text, flags=re.S | re.M)
        self.spans = re.findall(r"`([^`]+)`", text)
        self.rows = []  # (what the row is about, all spans)
        for row in re.findall(r"^\| `.*", text, re.M):
            spans = re.findall(r"`([^`]+)`", row)
            self.rows.append((spans[0], spans))
        self.levels = re.findall(r"^\| `(src/\w+\.cpp)` \| `(\w+)` \| 0 \| (\d+) \|", text, re.M)

    def texts(self):
        """What the tables list, except for those of levels and of files."""
        return [listed for listed, _ in self.rows if not re.search(r"\.(cpp|conf|secrets)(\.|$)", listed)]


def missing_texts(sources, page):
    everything = "\n".join(page.spans)
    for text, where in sources.texts.items():
        for piece in text.split("\0"):
            if piece.strip() and piece.strip() not in everything:
                yield f"{where}: not in {PAGE}: {piece.strip()}"
    for expression, where in sources.assertions.items():
        if expression not in page.spans:
            yield f"{where}: not in {PAGE}: the assertion {expression}"
    for name, (handle, level) in sources.tracers.items():
        if (name, handle, level) not in page.levels:
            yield f"{name}: {PAGE} has no row with the handle {handle} and the entry level {level}"


def missing_lines(sources, page):
    """Error lines whose function and text are in no row together."""
    for where, function, texts in sources.lines:
        pattern = re.compile(r"(?:<[a-z]+>)".join(re.escape(text) for text in texts) + r"(?:<[a-z]+>)?")
        if not any(pattern.fullmatch(listed) and function in spans for listed, spans in page.rows):
            yield f"{where}: no row of {PAGE} has {function} and: {'<value>'.join(texts)}"


def stale_texts(sources, page):
    """Texts of the page that no source has, piece by piece."""
    known = "\n".join([*sources.texts, *sources.assertions, "stoi"]).replace("\0", "\n")
    for text in page.texts():
        if not all(piece.strip() in known for piece in PIECE_END.split(text)):
            yield f"{PAGE}: nothing writes: {text}"


def main():
    sources, page = Sources(), Page((ROOT / PAGE).read_text())
    breaches = [*missing_texts(sources, page), *missing_lines(sources, page), *stale_texts(sources, page)]
    breaches += [
        f"{name}: this check excepts a text that is not there: {text}" for name, text in sorted(sources.unused)
    ]
    for breach in breaches:
        print(breach)
    if breaches or not sources.texts or not sources.lines:
        print(f"{len(breaches)} breaches")
        return 1
    print(f"{len(sources.texts)} texts, {len(sources.lines)} error lines, {len(sources.assertions)} assertions")
    return 0


if __name__ == "__main__":
    sys.exit(main())
