#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Runs exchange-demo as a user would, and with each of its faults: check.py PROGRAM."""

import json
import subprocess
import sys
import time

PROGRAM = sys.argv[1]

# Group: name, bytes of a public value, bytes of a shared secret (RFC 2409, RFC 3526, RFC 5903, RFC 5114).
GROUPS = {
    1: ("MODP-768", 96, 96),
    2: ("MODP-1024", 128, 128),
    5: ("MODP-1536", 192, 192),
    14: ("MODP-2048", 256, 256),
    15: ("MODP-3072", 384, 384),
    16: ("MODP-4096", 512, 512),
    17: ("MODP-6144", 768, 768),
    19: ("ECP-256", 64, 32),
    20: ("ECP-384", 96, 48),
    21: ("ECP-521", 132, 66),
    24: ("MODP-2048-256", 256, 256),
}
PRFS = ["HMAC-SHA1", "HMAC-SHA2-256", "HMAC-SHA2-384", "HMAC-SHA2-512"]
KEY_BYTES = [132, 224, 216, 384]  # SK_d, 2 SK_a, 2 SK_e, 2 SK_p of the suite with that PRF

passed = 0
failed = 0


def check(what, condition, seen=""):
    global passed, failed
    if condition:
        passed += 1
        return
    failed += 1
    print(f"FAILED: {what}\n{seen}")


def run(*arguments):
    started = time.monotonic()
    done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    done.seconds = time.monotonic() - started
    return done


def check_table():
    done = run()
    check(
        "a run without arguments succeeds and is silent on standard error",
        done.returncode == 0 and not done.stderr,
        done.stderr,
    )
    lines = done.stdout.splitlines()
    wide = [line for line in lines if len(line) > 100]
    check("the output fits 100 columns", not wide, "\n".join(wide))
    for number, (name, public, secret) in GROUPS.items():
        start = [str(number), name, str(public), str(secret), "yes,", "4", "of", "4", "PRFs"]
        rows = [line.split() for line in lines if line.split()[:4] == start[:4]]
        check(f"group {number} has one row and agrees", len(rows) == 1 and rows[0][:9] == start, rows)
    for source in [
        "RFC 5903 section 8.1",
        "RFC 5903 section 8.2",
        "RFC 5903 section 8.3",
        "RFC 5114 appendix A.3",
        "RFC 5114 appendix A.6",
        "RFC 5114 appendix A.7",
        "RFC 5114 appendix A.8",
    ]:
        rows = [line for line in lines if source in line and line.endswith("yes")]
        check(f"both sides of {source} are reproduced", len(rows) == 2, rows)
    check("the last line sums up", lines[-1].startswith("All well: 14 of 14") and "44 of 44" in lines[-1], lines[-1])


def check_json():
    done = run("--json")
    check("--json succeeds", done.returncode == 0, done.stderr)
    document = json.loads(done.stdout)
    found = {one["group"]: (one["name"], one["publicBytes"], one["secretBytes"]) for one in document["groups"]}
    check("--json has every group", found == GROUPS and len(document["groups"]) == len(GROUPS), found)
    for group in document["groups"]:
        exchanges = [(one["prf"], one["agrees"], one["keyBytes"]) for one in group["exchanges"]]
        wanted = [(prf, True, size) for prf, size in zip(PRFS, KEY_BYTES)]
        check(f"--json has all exchanges of group {group['group']}", exchanges == wanted, exchanges)
        check(
            f"group {group['group']} took time",
            group["initMicroseconds"] > 0 and group["agreementMicroseconds"] > 0 and group["agrees"] is True,
            group,
        )
    sums = [sum(suite["keyBytes"].values()) for suite in document["suites"]]
    check("--json has the suites", sums == KEY_BYTES, sums)
    check(
        "--json has the published exchanges",
        len(document["published"]) == 14 and all(one["asPublished"] for one in document["published"]),
    )
    check("--json has no failures", document["failures"] == [] and document["agrees"] is True)


def check_one_group():
    document = json.loads(run("--group", "20", "--json").stdout)
    check(
        "--group 20 runs group 20 only",
        {one["group"] for one in document["groups"] + document["published"]} == {20},
        document,
    )
    done = run("--group", "14")
    check(
        "--group 14 says that nothing is published for it",
        done.returncode == 0 and "no exchange for group 14" in done.stdout,
        done.stdout,
    )


def check_fault(arguments, *texts):
    done = run(*arguments, "--timeout", "1", "--json")
    what = " ".join(arguments)
    check(f"{what} fails within the timeouts", done.returncode == 1 and done.seconds < 30, done)
    check(f"{what} says what differs", all(text in done.stderr for text in texts), done.stderr)
    document = json.loads(done.stdout)
    check(
        f"{what} is a failure in the JSON document too",
        document["agrees"] is False and len(document["failures"]) == 1,
        document["failures"],
    )


def check_faults():
    check_fault(
        ["--break", "public-value", "--group", "14"],
        "group 14 (MODP-2048) with HMAC-SHA1",
        "the responder's public value, the shared secret, SKEYSEED, SK_d, SK_ai",
    )
    check_fault(["--break", "public-value", "--group", "19"], "group 19 (ECP-256)", "refused the peer's public value")
    check_fault(
        ["--break", "public-value", "--group", "24"], "group 24 (MODP-2048-256)", "refused the peer's public value"
    )
    check_fault(["--break", "key", "--group", "21"], "both sides find that these differ: SK_ei\n")
    check_fault(["--break", "key"], "group 1 (MODP-768)", "both sides find that these differ: SK_ei\n")
    check_fault(["--break", "published"], "RFC 5903 section 8.1, initiator's side", "the shared secret differs")
    check_fault(["--break", "silent-peer", "--group", "19"], "the peer process is silent")
    check_fault(["--break", "dead-peer", "--group", "19"], "the peer process is gone")
    check_fault(["--vectors", "/nonexistent"], "/nonexistent/rfc5903.txt: cannot be read")


def check_usage():
    for arguments in (
        ["--group"],
        ["--group", "3"],
        ["--group", "14x"],
        ["--timeout", "0"],
        ["--break", "nothing"],
        ["--unknown"],
        ["extra"],
    ):
        done = run(*arguments)
        check(
            f"{' '.join(arguments)} is refused with one line",
            done.returncode == 2 and not done.stdout and len(done.stderr.splitlines()) == 1,
            done,
        )
    done = run("--help")
    check("--help succeeds", done.returncode == 0 and done.stdout.startswith("Usage: exchange-demo"), done)
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run([PROGRAM, "--group", "19"], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    check(
        "output that cannot be written is a failure", done.returncode == 1 and "cannot be written" in done.stderr, done
    )


check_table()
check_json()
check_one_group()
check_faults()
check_usage()
print(f"{passed} passed, {failed} failed")
sys.exit(1 if failed else 0)
