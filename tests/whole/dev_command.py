#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Tests of the command ./dev itself, with stand-ins for the programs that it calls.

Usage: dev_command.py PATH_OF_DEV
"""
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

DEV = pathlib.Path(sys.argv.pop(1)).resolve()
TOOLS = "bash cat dirname env find grep id mkdir mktemp nproc readlink rm sh sleep tail tput tr"


class DevCommand(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.programs = self.folder / "programs"
        self.scratch = self.folder / "scratch"
        self.programs.mkdir()
        self.scratch.mkdir()
        self.dev = self.folder / "tree" / "dev"
        self.dev.parent.mkdir()
        shutil.copy2(DEV, self.dev)
        for tool in TOOLS.split():
            (self.programs / tool).symlink_to(shutil.which(tool))
        self.program("dpkg-query", "printf 'install ok installed\\n'")
        self.program("apt-get", "exit 0")
        self.program("cmake", 'mkdir -p build/dev; echo "cmake $*" >>calls')
        self.program("ctest", 'echo "ctest $*" >>calls')

    def program(self, name, script):
        path = self.programs / name
        path.unlink(missing_ok=True)
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def environment(self):
        return {"PATH": str(self.programs), "TMPDIR": str(self.scratch), "TERM": "xterm"}

    def run_dev(self, *arguments, cwd=None):
        return subprocess.run(
            [self.dev, *arguments],
            env=self.environment(),
            cwd=cwd,
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )

    def calls(self):
        return (self.dev.parent / "calls").read_text()

    def cache(self, home):
        folder = self.dev.parent / "build" / "dev"
        folder.mkdir(parents=True)
        (folder / "CMakeCache.txt").write_text(f"CMAKE_HOME_DIRECTORY:INTERNAL={home}\n")
        (folder / "left over").touch()
        return folder / "left over"

    def test_help_lists_every_command_and_a_wrong_one_is_refused(self):
        lists = re.findall(r"^  ([a-z |\\\n]+)\) \"\$1\" ", DEV.read_text(), re.MULTILINE)
        commands = re.findall("[a-z]+", " ".join(lists))
        self.assertGreater(len(commands), 8)
        shown = self.run_dev("help")
        self.assertEqual(shown.returncode, 0)
        for command in [*commands, "test"]:
            self.assertRegex(shown.stdout, rf"(?m)^  {command}  ")
        self.assertEqual(self.run_dev("nonsense").returncode, 2)

    def test_a_platform_is_named_by_its_folder_as_the_caller_sees_it(self):
        self.program("python3", "exit 0")
        for wrong in ([], ["no-such-folder"]):
            done = self.run_dev("platform", *wrong)
            self.assertEqual((done.returncode, len(done.stderr.splitlines())), (2, 1), done.stderr)
        mine = self.folder / "mine"
        mine.mkdir()
        done = self.run_dev("platform", "mine", "-R", "Some", cwd=self.folder)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn(f"cmake --preset platform -B build/platform -DIPSEC_PLATFORM={mine.resolve()}", self.calls())
        self.assertRegex(self.calls(), r"ctest --test-dir build/platform .*-R Some")

    def test_without_apt_one_sentence_says_what_is_needed(self):
        for missing in ("apt-get", "dpkg-query"):
            (self.programs / missing).rename(self.folder / missing)
            done = self.run_dev("test")
            (self.folder / missing).rename(self.programs / missing)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
            for word in ("apt", "dpkg", "g++", "libgtest-dev", "cmake --preset dev"):
                self.assertIn(word, done.stderr)

    def test_without_root_the_command_that_installs_is_told(self):
        self.program("dpkg-query", "exit 1")
        self.program("id", "echo 1000")
        done = self.run_dev("test")
        self.assertEqual(done.returncode, 1)
        self.assertIn("As root, run: apt-get update && apt-get install", done.stderr)

    def test_a_log_gets_whole_lines_with_durations(self):
        done = self.run_dev("test", "-R", "Some")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stderr, r"(?m)^Building \(dev\) \.\.\.$")
        self.assertRegex(done.stderr, r"(?m)^Building \(dev\): done in \d+ s\.$")
        self.assertNotIn("\r", done.stderr)
        self.assertEqual(done.stdout, "")  # left to what the user asked for: a demo's JSON, say
        self.assertRegex(self.calls(), r"ctest .*-j \d+ --no-tests=error .*-R Some")
        self.assertEqual(os.listdir(self.scratch), [])

    def test_a_failed_step_shows_what_it_wrote(self):
        self.program("cmake", "echo 'the compiler is not amused'; exit 1")
        done = self.run_dev("test")
        self.assertEqual(done.returncode, 1)
        self.assertIn("the compiler is not amused", done.stderr)
        self.assertEqual(os.listdir(self.scratch), [])

    def test_a_build_folder_is_kept_or_made_anew(self):
        left_over = self.cache(self.dev.parent)
        self.assertEqual(self.run_dev("test").returncode, 0)
        self.assertTrue(left_over.exists())
        shutil.rmtree(left_over.parent)
        left_over = self.cache("/elsewhere")
        self.assertEqual(self.run_dev("test").returncode, 0)
        self.assertFalse(left_over.exists())
        shutil.rmtree(left_over.parent)
        left_over = self.cache(self.dev.parent)
        self.program("cmake", "[ ! -e 'build/dev/left over' ]")
        done = self.run_dev("test")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("stale", done.stderr)
        self.assertFalse(left_over.exists())

    def start_on_terminal(self):
        """Starts ./dev test in a session of its own on a new terminal."""
        child, terminal = pty.fork()
        if child == 0:
            os.execve(self.dev, [str(self.dev), "test"], self.environment())
        self.addCleanup(os.close, terminal)
        return child, terminal

    def read(self, terminal, until, seconds=30):
        """What the terminal shows until the text appears."""
        shown = ""
        deadline = time.monotonic() + seconds
        while until not in shown:
            ready, _, _ = select.select([terminal], [], [], max(0.0, deadline - time.monotonic()))
            try:
                got = os.read(terminal, 4096) if ready else b""
            except OSError:  # the other end is closed
                got = b""
            if not got:
                self.fail(f"No {until!r} in {shown!r}")
            shown += got.decode()
        return shown

    def test_coverage_forgets_what_is_no_longer_built(self):
        folder = self.dev.parent / "build" / "coverage"
        folder.mkdir(parents=True)
        for name in ("built.cpp.gcno", "built.cpp.o", "built.cpp.gcda", "gone.cpp.gcno"):
            (folder / name).touch()
        self.program("python3", "exit 0")
        self.assertEqual(self.run_dev("coverage").returncode, 0)
        self.assertEqual(sorted(path.name for path in folder.iterdir()), ["built.cpp.gcno", "built.cpp.o"])

    def test_a_terminal_shows_how_far_a_step_is_and_for_how_long(self):
        self.program("cmake", '[ "$1" != --build ] || { echo "[7/9] Building a.o"; sleep 3; }')
        child, terminal = self.start_on_terminal()
        self.assertRegex(self.read(terminal, "done in"), r"\r\x1b\[K\d s: \[7/9\] Building a\.o")
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 0)
        self.assertEqual(os.listdir(self.scratch), [])

    def test_an_interrupt_ends_the_step_and_leaves_nothing(self):
        self.program("cmake", '[ "$1" != --build ] || { echo $$ >pid; echo begun; exec sleep 60; }')
        child, terminal = self.start_on_terminal()
        self.read(terminal, "begun")
        os.write(terminal, b"\x03")
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        self.assertIn(status, (-signal.SIGINT, 128 + signal.SIGINT))
        self.assertEqual(os.listdir(self.scratch), [])
        with self.assertRaises(ProcessLookupError):
            os.kill(int((self.dev.parent / "pid").read_text()), 0)


if __name__ == "__main__":
    unittest.main()
