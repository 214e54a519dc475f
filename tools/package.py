#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Builds the Debian packages from the tracked files of a tree, and has lintian judge them.

Usage: package.py build [--tree DIR] [--version VERSION] OUT
       package.py twice [--tree DIR] OUT

build leaves the packages and the build's log in the folder OUT. twice builds them in a second folder as well, with
another umask, time zone and language: both must be the same, byte by byte.

A tree without a repository, such as a source archive, is taken as it is. What has changed since the release that
debian/changelog names gets a version of its own, and so does a tree for which --version gives one.
"""

import argparse
import datetime
import email.utils
import gzip
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOP_ENTRY = re.compile(r"ipsec-helpers \((?P<upstream>[^-)]+)-(?P<revision>[^)]+)\) (?P<suite>\w+);")
# Debian wants its number of the request for a package in a first upload. These packages go to no archive of Debian's.
NOT_JUDGED = "initial-upload-closes-no-bugs"
# What a user's shell may bring along and a package must not depend on.
ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "LC_ALL": "C.UTF-8", "TZ": "UTC"}
ELSEWHERE = {"LC_ALL": "C", "TZ": "Pacific/Kiritimati", "DEB_BUILD_OPTIONS": "parallel=1"}


def run(*command, folder, log, changed=(), umask=0o022):
    """Runs a command, adds its output to the log, and ends with the log's last lines if the command fails."""
    with open(log, "ab") as output:
        environment = {**ENVIRONMENT, "DEB_BUILD_OPTIONS": f"parallel={os.cpu_count()}", **dict(changed)}
        finished = subprocess.run(
            command, cwd=folder, env=environment, stdout=output, stderr=subprocess.STDOUT, umask=umask, check=False
        )
    if finished.returncode != 0:
        print("\n".join(log.read_text(errors="replace").splitlines()[-40:]))
        sys.exit(f"package: {command[0]} failed; the whole log is {log}")


def git(tree, *arguments):
    return subprocess.run(["git", "-C", str(tree), *arguments], capture_output=True, text=True, check=True).stdout


def has_history(tree):
    return (tree / ".git").exists() and shutil.which("git") is not None


def source_files(tree):
    """Returns the paths of what belongs to the source, relative to the tree."""
    if has_history(tree):
        names = git(tree, "ls-files", "-z").split("\0")
        return sorted(name for name in names if name and os.path.lexists(tree / name))
    found = (path.relative_to(tree) for path in tree.rglob("*") if path.is_symlink() or path.is_file())
    made = {"build", ".git"}
    return sorted(str(path) for path in found if path.parts[0] not in made and path.parent.name != "__pycache__")


def write_archive(tree, names, top, seconds, target):
    """Writes the files as a compressed archive that depends on nothing but their names, contents and x bits."""

    def plain(entry):
        entry.uid = entry.gid = 0
        entry.uname = entry.gname = ""
        entry.mtime = seconds
        entry.mode = 0o755 if entry.mode & 0o100 else 0o644
        return entry

    with open(target, "wb") as file, gzip.GzipFile("", "wb", 9, file, mtime=0) as packed:
        with tarfile.open(fileobj=packed, mode="w", format=tarfile.GNU_FORMAT) as archive:
            for name in names:
                archive.add(tree / name, f"{top}/{name}", recursive=False, filter=plain)


def top_entry(tree):
    return TOP_ENTRY.match((tree / "debian" / "changelog").read_text())


def news(tree, title="Unreleased"):
    """Returns what CHANGELOG.md says of a version, or of the release to come."""
    changelog = (tree / "CHANGELOG.md").read_text()
    section = re.search(rf"(?ms)^## \[{re.escape(title)}\][^\n]*\n(.*?)(?=^## \[|\Z)", changelog)
    return section.group(1).strip() if section else ""


def snapshot_version(tree):
    """Returns the version of a tree that has moved on since its release, or nothing."""
    entry = top_entry(tree)
    if entry.group("suite") == "UNRELEASED" or not news(tree) or not has_history(tree):
        return None
    commit = git(tree, "log", "-1", "--date=format:%Y%m%d", "--format=%cd.%h").strip()
    return f"{entry.group('upstream')}+git{commit}-1"


def new_entry(tree, version, suite, text, when):
    """Returns an entry for debian/changelog."""
    maintainer = re.search(r"(?m)^Maintainer: (.*)$", (tree / "debian" / "control").read_text()).group(1)
    head = f"ipsec-helpers ({version}) {suite}; urgency=medium\n\n  * {text}\n"
    return f"{head}\n -- {maintainer}  {email.utils.format_datetime(when)}\n"


def add_entry(tree, version, when):
    changelog = tree / "debian" / "changelog"
    entry = new_entry(tree, version, "UNRELEASED", "Built from a tree without a release.", when)
    changelog.write_text(f"{entry}\n{changelog.read_text()}")


def entry_time(tree):
    """Returns the time of the newest entry of debian/changelog."""
    text = re.search(r"(?m)^ -- .*>  (.*)$", (tree / "debian" / "changelog").read_text()).group(1)
    return email.utils.parsedate_to_datetime(text)


def prepare(tree, version, folder):
    """Copies the source into the folder, next to the archive that Debian calls the original one."""
    shutil.rmtree(folder, ignore_errors=True)
    copy = folder / "source"
    names = source_files(tree)
    for name in names:
        (copy / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(tree / name, copy / name, follow_symlinks=False)
    version = version or snapshot_version(tree)
    if version:
        when = entry_time(copy)
        if has_history(tree):
            seconds = int(git(tree, "log", "-1", "--format=%ct"))
            when = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
        add_entry(copy, version, when)
    upstream = top_entry(copy).group("upstream")
    original = folder / f"ipsec-helpers_{upstream}.orig.tar.gz"
    upstream_files = [name for name in names if not name.startswith("debian/")]
    write_archive(copy, upstream_files, f"ipsec-helpers-{upstream}", int(entry_time(copy).timestamp()), original)


def build(folder, changed=(), umask=0o022):
    """Builds what has been prepared in the folder, and returns the packages."""
    log = folder / "build.log"
    run("dpkg-buildpackage", "-uc", "-us", folder=folder / "source", log=log, changed=changed, umask=umask)
    return sorted(folder.glob("*.deb"))


def judge(folder):
    changes = next(folder.glob("*.changes"))
    options = ["--allow-root", "--fail-on", "error,warning", "--suppress-tags", NOT_JUDGED]
    log = folder / "lintian.log"
    run("lintian", *options, changes.name, folder=folder, log=log, changed={"HOME": str(folder)})


def deliver(folder, packages, out):
    for old in [*out.glob("*.deb"), *out.glob("*.log")]:
        old.unlink()
    for file in [*packages, *folder.glob("*.log")]:
        shutil.copy2(file, out)


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def compare(packages, others):
    """Fails if the packages of two builds differ."""
    if [path.name for path in packages] != [path.name for path in others]:
        sys.exit("package: the two builds made different packages")
    moved = [path for path, other in zip(packages, others) if digest(path) != digest(other)]
    for path in moved:
        print(f"not the same when built in another folder: {path.name}")
    if moved:
        sys.exit(1)
    print(f"{len(packages)} packages are the same, built in two folders")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("action", choices=["build", "twice"])
    parser.add_argument("--tree", type=pathlib.Path, default=ROOT)
    parser.add_argument("--version")
    parser.add_argument("out", type=pathlib.Path)
    chosen = parser.parse_args()
    out = chosen.out.resolve()
    out.mkdir(parents=True, exist_ok=True)
    first = out / "work"
    second = out / "the-other-build-whose-path-is-longer"
    tree = chosen.tree.resolve()
    prepare(tree, chosen.version, first)
    if chosen.action == "twice":
        prepare(tree, chosen.version, second)  # before the builds: somebody may edit the tree in the meantime
        packages = build(first)
        compare(packages, build(second, ELSEWHERE, 0o077))
        shutil.rmtree(second)
    else:
        packages = build(first)
        judge(first)
    deliver(first, packages, out)
    shutil.rmtree(first)


if __name__ == "__main__":
    main()
