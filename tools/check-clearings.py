#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Compares each line of the code that clears memory with the rows of docs/clearings.md, which explains them.

Usage: check-clearings.py [--mutate [TEXT]]

With --mutate, each clearing of a secret is removed in turn, in a copy of the tree, and the test of its row must fail
then. TEXT limits this to the rows that contain it.
"""

import collections
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIST = "docs/clearings.md"
CODE = ("base", "platform", "src")
PROGRAMS = ("RemainsTest", "SecretsRemainsTest")

ROW = re.compile(r"\| `([^`]+)` \| `([^`]+)` \| (secret|part|public) \| `?([^`]+)`? \|")
TABLE_FRAME = re.compile(r"\|(---\||.* \| Kind \|)")

CLEARING = re.compile(
    r"OPENSSL_cleanse\(|clearAll\(|clear_free|clearAndFree|\bclear\(\)|ValuesCleared \w+\(|\bfill(_n)?\(|memset|bzero"
    r"|resize\([\w.]*capacity\(\)\)|\bSecret(Bytes|Bn|PointPtr|Text)\b|\bParamsPtr\b"
)
# Declarations, whose bodies and uses are what clears.
DECLARATION = re.compile(r"(inline )?void clear\w*\(|struct SecretBytes|using Base::|#include")

# What a clearing becomes when it is removed. A call vanishes; a type or function gives way to one that does not clear.
CALL = re.compile(r"(Base::)?(OPENSSL_cleanse|clearAll|([\w.>-]+\.)?\b(clear|resize))\(|const ValuesCleared \w+\(")
SWAPS = (
    (re.compile(r"(Base::)?SecretBytes<([^>]+)>"), r"std::array<unsigned char, \2>"),
    (re.compile(r"FreeWith<BN_clear_free>"), "FreeWith<BN_free>"),
    (re.compile(r"FreeWith<clearAndFree>"), "FreeWith<OSSL_PARAM_free>"),
    (re.compile(r", ClearingAllocator<char>"), ""),
    (re.compile(r"\bSecretBn\b"), "PublicBn"),
    (re.compile(r"\bParamsPtr\b"), "std::unique_ptr<OSSL_PARAM, Base::FreeWith<OSSL_PARAM_free>>"),
    (re.compile(r"Base::SecretText\b"), "std::vector<char>"),
)

Row = collections.namedtuple("Row", "file code kind note")
Place = collections.namedtuple("Place", "file code number")


def rows(breaches):
    found = []
    for number, line in enumerate((ROOT / LIST).read_text().splitlines(), 1):
        row = ROW.fullmatch(line)
        if row:
            found.append(Row(*row.groups()))
        elif line.startswith("|") and not TABLE_FRAME.match(line):
            breaches.append(f"{LIST}:{number}: a row needs a file, code, a kind and a note")
    return found


def places():
    """Returns the lines of the code that clear, in the order of the files and lines."""
    found = []
    for folder in CODE:
        for path in sorted((ROOT / folder).rglob("*.[ch]*")):
            for number, line in enumerate(path.read_text().splitlines(), 1):
                code = line.split("//")[0].strip()
                if CLEARING.search(code) and not DECLARATION.match(code):
                    found.append(Place(str(path.relative_to(ROOT)), code, number))
    return found


def compare(all_rows, all_places, breaches):
    listed = collections.Counter((row.file, row.code) for row in all_rows)
    for place in all_places:
        if listed[place.file, place.code] == 0:
            breaches.append(f"{place.file}:{place.number}: this clearing has no row in {LIST}: {place.code}")
        else:
            listed[place.file, place.code] -= 1
    breaches += [f"{LIST}: no such line in {file}: {code}" for (file, code), left in listed.items() if left > 0]
    wholes = {row.code for row in all_rows if row.kind == "secret"}
    for row in all_rows:
        if row.kind == "part" and row.note not in wholes:
            breaches.append(f"{LIST}: this is a part of no row: {row.code}")
        if row.kind == "secret" and not test_exists(row.note):
            breaches.append(f"{LIST}: no such test: {row.note}")


def test_exists(test):
    """Returns whether a source of the memory tests defines the test."""
    suite, _, name = test.partition(".")
    wanted = re.compile(rf"TEST(_F|_P)?\({re.escape(suite)}, {re.escape(name)}\)")
    return any(wanted.search(path.read_text()) for path in (ROOT / "tests" / "memory").glob("*.cpp"))


# --- Removing ---------------------------------------------------------------------------------------------------------


def without_calls(code):
    """Returns the code without its calls that clear."""
    while True:
        call = CALL.search(code)
        if not call:
            return code
        depth, end = 1, call.end()
        while depth:
            depth += {"(": 1, ")": -1}.get(code[end], 0)
            end += 1
        code = code[: call.start()] + code[end:].removeprefix(";")


def removed(code):
    changed = without_calls(code)
    if changed == code:
        for pattern, replacement in SWAPS:
            changed, count = pattern.subn(replacement, code)
            if count:
                break
    if changed == code:
        sys.exit(f"No rule removes the clearing of: {code}")
    return changed


class Copy:
    """A copy of the tree with a build folder of its own."""

    def __init__(self, folder):
        self.tree = pathlib.Path(folder) / "tree"
        self.build = pathlib.Path(folder) / "build"
        self.output = ""  # of the test that failed last
        listed = subprocess.run(
            ["git", "-C", str(ROOT), "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            stdout=subprocess.PIPE,
            check=True,
        ).stdout.decode()
        for name in filter(None, listed.split("\0")):
            if (ROOT / name).is_file():
                (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / name, self.tree / name)
        options = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DIPSEC_EXAMPLES=OFF"]
        options.append("-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG")
        self.run("cmake", "-S", str(self.tree), "-B", str(self.build), *options)
        self.make(*PROGRAMS)

    def run(self, *command):
        finished = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if finished.returncode != 0:
            raise RuntimeError(f"failed: {' '.join(command[:4])}\n{finished.stdout[-4000:]}")

    def make(self, *targets):
        self.run("cmake", "--build", str(self.build), "--target", *targets)

    def fails(self, test):
        """Returns whether the test fails. Throws RuntimeError if it does not run."""
        ran = False
        for program in PROGRAMS:
            pattern = f"--gtest_filter={test}:*/{test}/*"
            finished = subprocess.run(
                [str(self.build / "tests" / program), pattern, "--gtest_fail_fast"],
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                text=True,
                check=False,
            )
            if finished.returncode not in (0, 1):
                raise RuntimeError(f"{program} ended with {finished.returncode}, and not with a result")
            if finished.returncode == 1:
                self.output = finished.stdout
                return True
            ran = ran or "[       OK ]" in finished.stdout
        if not ran:
            raise RuntimeError(f"{test} did not run")
        return False

    def fails_without(self, test, clearings):
        """Returns whether the test fails when these places are removed. Puts the files back."""
        originals = {place.file: (self.tree / place.file).read_text() for place in clearings}
        try:
            for file, text in originals.items():
                lines = text.splitlines()
                for place in clearings:
                    if place.file == file:
                        lines[place.number - 1] = lines[place.number - 1].replace(place.code, removed(place.code))
                (self.tree / file).write_text("\n".join(lines) + "\n")
            self.make("ipsechelpers")
            return self.fails(test)
        finally:
            for file, text in originals.items():
                (self.tree / file).write_text(text)


def mutate(all_rows, all_places, wanted):
    """Removes the clearings in turn. Returns how many of them no test misses."""
    where = place_of_each(all_rows, all_places)
    survivors = 0
    with tempfile.TemporaryDirectory(prefix="clearings-") as folder:
        copy = Copy(folder)
        for test in sorted({row.note for row in all_rows if row.kind == "secret"}):
            if copy.fails(test):
                sys.exit(f"{copy.output}{test} fails although nothing has been removed")
        for index, row in enumerate(all_rows):
            if row.kind != "secret" or wanted not in " ".join(row):
                continue
            parts = [where[i] for i, other in enumerate(all_rows) if other.kind == "part" and other.note == row.code]
            started = time.monotonic()
            try:
                missed = copy.fails_without(row.note, [where[index], *parts])
            except RuntimeError as error:
                print(error)
                missed = False
            survivors += not missed
            result = "fails" if missed else "*** SURVIVES ***"
            place = f"{where[index].file}:{where[index].number}"
            print(f"{result}  {time.monotonic() - started:4.0f} s  {place}  {row.code}  ({row.note})", flush=True)
    return survivors


def place_of_each(all_rows, all_places):
    """Rows with the same code stand for its places in their order."""
    waiting = collections.defaultdict(collections.deque)
    for place in all_places:
        waiting[place.file, place.code].append(place)
    return [waiting[row.file, row.code].popleft() for row in all_rows]


def main():
    arguments = sys.argv[1:]
    if arguments and (arguments[0] != "--mutate" or len(arguments) > 2):
        sys.exit(__doc__)
    breaches = []
    all_rows, all_places = rows(breaches), places()
    compare(all_rows, all_places, breaches)
    for breach in breaches:
        print(breach)
    kinds = collections.Counter(row.kind for row in all_rows)
    summary = ", ".join(f"{kinds[kind]} {kind}" for kind in ("secret", "part", "public"))
    print(f"{len(all_places)} clearings, {len(all_rows)} rows ({summary}), {len(breaches)} breaches")
    if breaches or not all_rows:
        return 1
    if not arguments:
        return 0
    # The copy is removed at the end, however the end comes.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    survivors = mutate(all_rows, all_places, "".join(arguments[1:]))
    print(f"{survivors} removals survive")
    return 1 if survivors else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
