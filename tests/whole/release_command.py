#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Tests of tools/release.py in small repositories of their own.

Usage: release_command.py SOURCE
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
TAKEN = ["CMakeLists.txt", "include", "debian", "packaging/abi", "tools"]
DAY = 1767225600  # 1 January 2026
NEWS = "### Added\n\n- A thing that was missing.\n"
CHANGELOG = "# Changelog\n\nAll that is new.\n\n## [Unreleased]\n\n"
BASELINE = "packaging/abi/libipsechelpers.so.1.abi"


class Repository:
    """What a release touches, in a repository below the folder."""

    def __init__(self, folder):
        self.tree = folder / "tree"
        self.out = folder / "out"
        for name in TAKEN:
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            copy = shutil.copytree if (SOURCE / name).is_dir() else shutil.copy2
            copy(SOURCE / name, self.tree / name)
        for cache in self.tree.rglob("__pycache__"):
            shutil.rmtree(cache)
        (self.tree / ".gitignore").write_text("__pycache__/\n")
        self.write("CHANGELOG.md", CHANGELOG + NEWS)
        self.git("init", "-q", "-b", "main")
        self.commit("Begin")

    def git(self, *arguments):
        identity = ["-c", "user.name=Somebody", "-c", "user.email=somebody@example.invalid"]
        done = subprocess.run(["git", *identity, *arguments], cwd=self.tree, capture_output=True, text=True, check=True)
        return done.stdout.strip()

    def commit(self, message):
        self.git("add", "-A")
        self.git("commit", "-q", "-m", message)

    def read(self, name):
        return (self.tree / name).read_text()

    def write(self, name, text):
        (self.tree / name).write_text(text)

    def edit(self, name, before, after):
        text = self.read(name)
        assert before in text, f"{name} has no {before!r}"
        self.write(name, text.replace(before, after, 1))

    def release(self, *arguments, zone="UTC", umask=0o022):
        environment = {**os.environ, "SOURCE_DATE_EPOCH": str(DAY + 3600), "TZ": zone, "PYTHONDONTWRITEBYTECODE": "1"}
        command = [sys.executable, self.tree / "tools" / "release.py", *arguments]
        return subprocess.run(command, env=environment, umask=umask, capture_output=True, text=True, check=False)

    def package_version(self):
        """The version that packages of this tree get in the place of the newest in debian/changelog."""
        code = "import pathlib, package; print(package.snapshot_version(pathlib.Path('..')))"
        command = [sys.executable, "-B", "-c", code]
        done = subprocess.run(command, cwd=self.tree / "tools", capture_output=True, text=True, check=True)
        return done.stdout.strip()


class ReleaseCommand(unittest.TestCase):
    def repository(self):
        folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, folder)
        return Repository(folder)

    def prepared(self, repository, version, **how):
        done = repository.release("prepare", version, repository.out, **how)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def released(self, version):
        """A repository whose release has been committed and tagged."""
        repository = self.repository()
        self.prepared(repository, version)
        repository.commit(f"Release {version}")
        repository.git("tag", "-a", "--cleanup=whitespace", "-F", str(repository.out / "tag.txt"), f"v{version}")
        return repository

    def refused(self, repository, version, reason):
        before = repository.git("status", "--porcelain")
        done = repository.release("prepare", version, repository.out)
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertRegex(done.stderr, reason)
        self.assertEqual(repository.git("status", "--porcelain"), before)

    def test_version_and_date_stand_wherever_they_belong(self):
        repository = self.repository()
        self.prepared(repository, "7.8.9")
        self.assertIn("project(ipsec-helpers VERSION 7.8.9 ", repository.read("CMakeLists.txt"))
        self.assertEqual(repository.read("CHANGELOG.md"), f"{CHANGELOG}## [7.8.9] - 2026-01-01\n\n{NEWS}")
        entry = repository.read("debian/changelog")
        self.assertRegex(entry, r"\Aipsec-helpers \(7\.8\.9-1\) unstable; urgency=medium\n")
        self.assertIn(">  Thu, 01 Jan 2026 00:00:00 +0000\n", entry)
        self.assertNotIn("UNRELEASED", entry)
        if (repository.tree / "include/IpsecVersion.h").exists():
            header = repository.read("include/IpsecVersion.h")
            for line in ("MAJOR 7", "MINOR 8", "PATCH 9", 'STRING "7.8.9"'):
                self.assertIn(f"#define IPSEC_HELPERS_VERSION_{line}\n", header)

    def test_nothing_is_committed_and_the_printed_commands_do_the_rest(self):
        repository = self.repository()
        head = repository.git("rev-parse", "HEAD")
        printed = self.prepared(repository, "7.8.9")
        self.assertEqual(repository.git("rev-parse", "HEAD"), head)
        self.assertEqual(repository.git("tag"), "")
        for command in re.findall(r"(?m)^  git ((?:commit|tag) .*?)(?:    .*)?$", printed):
            repository.git(*[word.strip('"') for word in re.findall(r'"[^"]*"|\S+', command)])
        self.assertEqual(repository.git("status", "--porcelain"), "")
        self.assertEqual(repository.git("tag", "-l", "--format=%(contents)"), f"ipsec-helpers 7.8.9\n\n{NEWS}".strip())

    def test_the_archive_is_the_tree_of_the_tag_and_always_the_same(self):
        repository = self.released("7.8.9")
        first = repository.out
        with tarfile.open(first / "ipsec-helpers-7.8.9.tar.gz") as archive:
            self.assertEqual({entry.mtime for entry in archive}, {DAY})
            names = [name.removeprefix("ipsec-helpers-7.8.9/") for name in archive.getnames()]
            self.assertEqual(sorted(names), sorted(repository.git("ls-files").splitlines()))
            for name in names:
                content = archive.extractfile(f"ipsec-helpers-7.8.9/{name}").read()
                self.assertEqual(content, (repository.tree / name).read_bytes(), name)
        other = self.repository()
        other.out = other.out.with_name("another name")
        for file in other.git("ls-files").splitlines():  # a checkout by another user
            (other.tree / file).chmod((other.tree / file).stat().st_mode & 0o700)
        self.prepared(other, "7.8.9", zone="Pacific/Kiritimati", umask=0o077)
        self.assertEqual((other.out / "SHA256SUMS").read_text(), (first / "SHA256SUMS").read_text())
        checked = subprocess.run(["sha256sum", "-c", "SHA256SUMS"], cwd=first, capture_output=True, check=False)
        self.assertEqual(checked.returncode, 0)

    def test_what_cannot_become_a_release_is_refused(self):
        repository = self.released("7.8.9")
        self.refused(repository, "7.8.10", r"\[Unreleased\] .* is empty")
        repository.edit("CHANGELOG.md", "## [Unreleased]\n", f"## [Unreleased]\n\n{NEWS}")
        self.refused(repository, "7.8.10", "the tree has changes")
        repository.commit("Add a thing")
        for version in ("7.8.9", "7.8.8", "7.7.10", "6.9.9"):
            self.refused(repository, version, rf"{version} is not above 7\.8\.9")
        for version in ("7.9", "v7.9.0", "7.9.0-rc1", "07.9.0", ""):
            self.refused(repository, version, "is no version")
        (repository.tree / "new file").touch()
        self.refused(repository, "7.8.10", "the tree has changes")
        (repository.tree / "new file").unlink()
        self.prepared(repository, "7.8.10")
        self.assertIn(f"## [7.8.10] - 2026-01-01\n\n{NEWS}\n## [7.8.9] - ", repository.read("CHANGELOG.md"))
        self.assertEqual(
            len(re.findall(r"(?m)^ipsec-helpers \(7\.8\.\d+-1\) ", repository.read("debian/changelog"))), 2
        )

    def test_packages_of_a_tree_that_has_moved_on_have_a_version_above_the_release(self):
        repository = self.released("7.8.9")
        self.assertEqual(repository.package_version(), "None")
        repository.edit("CHANGELOG.md", "## [Unreleased]\n", f"## [Unreleased]\n\n{NEWS}")
        repository.commit("Add a thing")
        version = repository.package_version()
        self.assertRegex(version, rf"^7\.8\.9\+git\d{{8}}\.{repository.git('rev-parse', '--short', 'HEAD')}-1$")

    def test_the_interface_may_grow_and_not_shrink_within_a_major_version(self):
        symbol = "function _ZN5Ipsec10HmacPRFunc6setKey"
        value = "  MODP_NONE = 0"
        field = "  at 0: private unsigned long int nonceLen"
        edits = [  # what is edited, how, and whether it is a loss
            (symbol, "function _ZN5Ipsec10HmacPRFunc6putKey", True),
            ("class Ipsec::NonceGenerator, size 8", "class Ipsec::NonceGenerator, size 16", True),
            (field, f"{field}\n  slot 0: f", True),
            (value, "  MODP_NONE = 7", True),
            (value, f"{value}\n  MODP_NEW = 99", False),
            (symbol, f"function _ZN5Ipsec3newEv V, returns int\n{symbol}", False),
            ("class Ipsec::NonceGenerator", "class Ipsec::New, size 1\n\nclass Ipsec::NonceGenerator", False),
        ]
        repository = self.released("7.8.9")
        repository.edit("CHANGELOG.md", "## [Unreleased]\n", f"## [Unreleased]\n\n{NEWS}")
        repository.commit("Add a thing")
        for before, after, loss in edits:
            repository.edit(BASELINE, before, after)
            repository.commit("Move the interface")
            done = repository.release("check", "7.9.0")
            self.assertEqual(done.returncode, 1 if loss else 0, after)
            self.assertEqual("callers of version 7.8.9 rely on this line" in done.stderr, loss)
            repository.git("reset", "-q", "--hard", "HEAD^")
        repository.edit(BASELINE, symbol, "function gone")
        repository.commit("Lose a function")
        self.assertEqual(repository.release("check", "8.0.0").returncode, 0)


if __name__ == "__main__":
    if not shutil.which("git"):
        print("SKIPPED: releases are not tested, git is missing")
        sys.exit(1 if os.environ.get("CI") else 77)
    unittest.main()
