#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Runs every fuzzer of a build folder for some seconds each, side by side, beginning with the kept inputs.

Usage: run-fuzzers.py BUILD_DIR SECONDS
       run-fuzzers.py --keep BUILD_DIR

With --keep, the inputs that reach something new are kept: those that the fuzzers wrote in an earlier run are merged
into tests/fuzz/corpus, which becomes as small as it can be. Inputs named seed-... stay in any case.

A finding is an input with which a fuzzer stopped. Its path is printed, and the command fails.
"""
import concurrent.futures
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

FUZZ = pathlib.Path(__file__).resolve().parent.parent / "tests" / "fuzz"
OPTIONS = ["-timeout=25", "-rss_limit_mb=4096", "-print_final_stats=1"]
LONGEST = {"agent": 1024, "groups": 1024}  # a public value of group 17 alone has 768 bytes


class Target:
    def __init__(self, program):
        self.program = program
        self.name = program.name.removesuffix("-fuzz")
        self.kept = FUZZ / "corpus" / self.name
        self.found = program.parent / "found" / self.name  # what earlier runs found too
        self.findings = program.parent / "findings" / self.name
        for folder in (self.kept, self.found, self.findings):
            folder.mkdir(parents=True, exist_ok=True)

    def run(self, options, *corpora):
        """Returns the exit code, the log and the seconds of CPU time."""
        longest = f"-max_len={LONGEST.get(self.name, 512)}"
        command = [str(self.program), *OPTIONS, longest, *options, f"-artifact_prefix={self.findings}/"]
        dictionary = FUZZ / "dictionaries" / f"{self.name}.dict"
        if dictionary.exists():
            command.append(f"-dict={dictionary}")
        # Traces of what the library refuses would be most of the output.
        environment = dict(os.environ, TRACE_LEVELS="IpsecKeyGen=31,IpsecUtils=31")
        with tempfile.TemporaryFile("w+", errors="replace") as log:
            process = subprocess.Popen(
                [*command, *map(str, corpora)], stdout=subprocess.DEVNULL, stderr=log, env=environment
            )
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            log.seek(0)
            return process.returncode, log.read(), usage.ru_utime + usage.ru_stime


def statistic(log, name):
    values = [line.split()[-1] for line in log.splitlines() if line.startswith(f"stat::{name}:")]
    return int(values[-1]) if values else 0


def fuzz(target, seconds):
    """Runs one fuzzer. Returns whether it found nothing."""
    before = set(target.findings.iterdir())
    code, log, cpu_seconds = target.run([f"-max_total_time={seconds}"], target.found, target.kept)
    executions = statistic(log, "number_of_executed_units")
    print(
        f"{target.name:14} {'ok' if code == 0 else 'FAILED':6} {executions:9} inputs,"
        f" {statistic(log, 'average_exec_per_sec'):6} a second,"
        f" {executions / cpu_seconds:6.0f} a second of CPU time, {statistic(log, 'new_units_added'):4} new",
        flush=True,
    )
    if code == 0:
        return True
    reproducers = sorted(set(target.findings.iterdir()) - before)
    for path in reproducers:
        print(f"  FINDING: {path}\n  again:   {target.program} {path}", flush=True)
    print("\n".join("  " + line for line in log.splitlines()[-40:]), flush=True)
    return False


def keep(target):
    """Merges what was found into the kept inputs. Returns whether that worked."""
    with tempfile.TemporaryDirectory() as merged:
        code, log, _ = target.run(["-set_cover_merge=1"], merged, target.kept, target.found)
        if code != 0:
            print(log[-2000:])
            return False
        seeds = {path.read_bytes() for path in target.kept.glob("seed-*")}
        for path in target.kept.iterdir():
            if not path.name.startswith("seed-"):
                path.unlink()
        for path in sorted(pathlib.Path(merged).iterdir()):
            if path.read_bytes() not in seeds:
                shutil.copy(path, target.kept)
    inputs = list(target.kept.iterdir())
    print(f"{target.name:14} {len(inputs):5} inputs, {sum(path.stat().st_size for path in inputs)} bytes", flush=True)
    return True


def main():
    arguments = sys.argv[1:]
    keeps = arguments[:1] == ["--keep"]
    arguments = arguments[1:] if keeps else arguments
    if len(arguments) != (1 if keeps else 2):
        sys.exit(__doc__)
    build = pathlib.Path(arguments[0]).resolve()
    programs = sorted(path for path in build.rglob("*-fuzz") if path.is_file())
    if not programs:
        sys.exit(f"No fuzzer in {build}")
    targets = [Target(program) for program in programs]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        work = keep if keeps else lambda target: fuzz(target, int(arguments[1]))
        results = list(pool.map(work, targets))
    if not all(results):
        print(f"{results.count(False)} of {len(results)} FAILED")
        return 1
    print(f"{len(results)} fuzzers, no finding" if not keeps else f"{len(results)} corpora merged")
    return 0


if __name__ == "__main__":
    sys.exit(main())
