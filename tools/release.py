#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Makes a release ready. It commits nothing and tags nothing.

Usage: release.py check VERSION
       release.py prepare VERSION OUT

check refuses what cannot become a release: a tree with changes, a version that is not above the last one, a changelog
without news, a binary interface that has lost something within a major version. prepare checks the same, then writes
the version and the date into the tree, the tag's text, the source archive, its bill of materials and their checksums
into the folder OUT, and says what is left to do. Dates are those of UTC, or of SOURCE_DATE_EPOCH.
"""

import datetime
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import package

ROOT = pathlib.Path(__file__).resolve().parent.parent
VERSION = re.compile(r"(0|[1-9]\d*)\.(0|[1-9]\d*)\.(0|[1-9]\d*)")
BASELINES = "packaging/abi"
NEXT_STEPS = """\
Left to do, after a look at what has changed (git diff):
  git commit -a -m "Release {version}"
  git tag -a --cleanup=whitespace -F {out}/tag.txt v{version}    (-s in place of -a signs it)
  git push origin HEAD v{version}
Then publish {out}/{archive}, its bill of materials and SHA256SUMS with the tag.
"""


def refuse(reason):
    sys.exit(f"release: {reason}")


def read(name):
    return (ROOT / name).read_text()


def parts(version):
    return tuple(int(part) for part in version.split("."))


def last_release():
    """Returns the highest version that the changelog dates, or nothing."""
    dated = re.findall(r"(?m)^## \[(\d+\.\d+\.\d+)\]", read("CHANGELOG.md"))
    return max(dated, key=parts, default=None)


# --- The binary interface since the last release ----------------------------------------------------------------------


def baseline_blocks(text):
    """Returns the symbols of a baseline, and for each type its lines under its name."""
    head, *blocks = text.strip().split("\n\n")
    symbols = {line for line in head.splitlines() if not line.startswith("#")}
    types = [block.splitlines() for block in blocks]
    return symbols, {lines[0].split(",")[0]: lines for lines in types}


def lost(before, now):
    """Returns the lines of a baseline that callers of the release before rely on, and that are gone or have moved.

    New symbols, new types and new enumerators are no loss. A type with a new field or a new virtual function is one.
    """
    old_symbols, old_types = baseline_blocks(before)
    new_symbols, new_types = baseline_blocks(now)
    gone = sorted(old_symbols - new_symbols)
    for name, lines in old_types.items():
        left = new_types.get(name, [])
        moved = [line for line in lines if line not in left]
        grown = not name.startswith("enum ") and lines != left
        gone += [f"{name}: {line.strip()}" for line in moved] or ([f"{name}: has other members"] if grown else [])
    return gone


def check_interface(version, last):
    if last is None or parts(version)[0] > parts(last)[0]:
        return
    for name in package.git(ROOT, "ls-tree", "--name-only", f"v{last}", f"{BASELINES}/").split():
        now = read(name) if (ROOT / name).exists() else ""
        for line in lost(package.git(ROOT, "show", f"v{last}:{name}"), now):
            refuse(f"{name}: callers of version {last} rely on this line; only a new major version may lose it: {line}")


def check(version):
    if not VERSION.fullmatch(version):
        refuse(f'"{version}" is no version: it takes three numbers, as in 1.0.0')
    if package.git(ROOT, "status", "--porcelain"):
        refuse("the tree has changes: commit them, or set them aside, first")
    last = last_release()
    if last and parts(version) <= parts(last):
        refuse(f"{version} is not above {last}, the last release in CHANGELOG.md")
    if not package.news(ROOT):
        refuse("[Unreleased] in CHANGELOG.md is empty: there is nothing to release")
    check_interface(version, last)


# --- Writing ----------------------------------------------------------------------------------------------------------


def replace(name, pattern, text):
    """Replaces the one place in a file that matches."""
    changed, count = re.subn(pattern, lambda _: text, read(name), flags=re.MULTILINE)
    if count != 1:
        refuse(f"{name}: {count} places match {pattern}, and not one")
    (ROOT / name).write_text(changed)


def write_version(version):
    replace("CMakeLists.txt", r"^project\(ipsec-helpers VERSION [\d.]+", f"project(ipsec-helpers VERSION {version}")
    header = "include/IpsecVersion.h"
    if (ROOT / header).exists():
        for name, number in zip(("MAJOR", "MINOR", "PATCH"), version.split(".")):
            macro = f"#define IPSEC_HELPERS_VERSION_{name}"
            replace(header, rf"^{macro} \d+$", f"{macro} {number}")
        macro = "#define IPSEC_HELPERS_VERSION_STRING"
        replace(header, rf'^{macro} ".*"$', f'{macro} "{version}"')


def write_changelogs(version, when):
    replace("CHANGELOG.md", r"^## \[Unreleased\]$", f"## [Unreleased]\n\n## [{version}] - {when:%Y-%m-%d}")
    text = read("debian/changelog")
    if package.top_entry(ROOT).group("suite") == "UNRELEASED":
        text = re.sub(r"(?s)\A.*?^ -- [^\n]*\n\n?", "", text, flags=re.MULTILINE)  # the release takes its place
    entry = package.new_entry(ROOT, f"{version}-1", "unstable", "New release.", when)
    (ROOT / "debian" / "changelog").write_text(entry + ("\n" + text if text else ""))


def write_bill(archive, version, seconds, out):
    """Writes the bill of materials of the source: its files are those of the archive."""
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["tar", "-xf", str(archive), "-C", folder, "--strip-components=1"], check=True)
        command = [sys.executable, str(ROOT / "tools" / "sbom.py"), "--package", "ipsec-helpers", "--version", version]
        environment = {**os.environ, "SOURCE_DATE_EPOCH": str(seconds)}
        subprocess.run([*command, "--folder", folder, "--out", str(out)], env=environment, check=True)


def write_output(version, when, out):
    out.mkdir(parents=True, exist_ok=True)
    (out / "tag.txt").write_text(f"ipsec-helpers {version}\n\n{package.news(ROOT, version)}\n")
    top = f"ipsec-helpers-{version}"
    archive = out / f"{top}.tar.gz"
    bill = out / f"{top}.spdx.json"
    seconds = int(when.timestamp())
    package.write_archive(ROOT, package.source_files(ROOT), top, seconds, archive)
    write_bill(archive, version, seconds, bill)
    sums = [f"{package.digest(file)}  {file.name}\n" for file in (archive, bill)]
    (out / "SHA256SUMS").write_text("".join(sums))
    print(NEXT_STEPS.format(version=version, out=out, archive=archive.name), end="")


def prepare(version, out):
    now = os.environ.get("SOURCE_DATE_EPOCH")
    day = (
        datetime.datetime.fromtimestamp(float(now), datetime.timezone.utc)
        if now
        else datetime.datetime.now(datetime.timezone.utc)
    )
    when = day.replace(hour=0, minute=0, second=0, microsecond=0)
    write_version(version)
    write_changelogs(version, when)
    write_output(version, when, out)


def main():
    if len(sys.argv) not in (3, 4) or sys.argv[1:2] != [["check"], ["prepare"]][len(sys.argv) - 3]:
        sys.exit(__doc__)
    check(sys.argv[2])
    if sys.argv[1] == "prepare":
        prepare(sys.argv[2], pathlib.Path(sys.argv[3]))


if __name__ == "__main__":
    main()
