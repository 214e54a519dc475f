#!/usr/bin/env python3
"""Runs every fuzzer of a build folder for some seconds each, beginning with an empty corpus.

Usage: run-fuzzers.py BUILD_DIR SECONDS
"""
import pathlib
import subprocess
import sys
import tempfile


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build, seconds = pathlib.Path(sys.argv[1]).resolve(), int(sys.argv[2])
    fuzzers = sorted(path for path in build.rglob("*-fuzz") if path.is_file())
    if not fuzzers:
        sys.exit(f"No fuzzer in {build}")
    failed = 0
    for fuzzer in fuzzers:
        with tempfile.TemporaryDirectory() as corpus:
            command = [
                str(fuzzer),
                f"-max_total_time={seconds}",
                "-max_len=1024",
                "-print_final_stats=1",
                "-timeout=25",
                corpus,
            ]
            finished = subprocess.run(
                command,
                cwd=build,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE,
                text=True,
                errors="replace",
                check=False,
            )
        stats = [line for line in finished.stderr.splitlines() if "number_of_executed_units" in line]
        runs = stats[0].split()[-1] if stats else "?"
        print(f"{fuzzer.name:20} {'ok' if finished.returncode == 0 else 'FAILED'}, {runs} inputs", flush=True)
        if finished.returncode != 0:
            failed += 1
            print("\n".join(finished.stderr.splitlines()[-40:]))
    print(f"{len(fuzzers) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
