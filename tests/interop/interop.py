#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the agent of examples/agent against an unmodified strongSwan daemon that the library configures.

Every row is one negotiation: the keys that the agent derived are compared byte for byte with those that the daemon
logs, and an echo passes the tunnel. Then come rows on the life of the configuration. Needs root, TUN, namespaces and
strongSwan's starter; where something is missing it says so and exits with 77, or fails when CI is set.
"""

import argparse
import os
import re
import subprocess
import sys
import time

import charonlog
import life
import limits
import matrix
import sandbox
import scale

# This is long for a veth pair, but short enough for a run in which nothing works.
PATIENCE = ("--timeout", "400", "--tries", "3")
DEMO_STORY = """\
=== Does a real IKE daemon agree? ===
An unmodified strongSwan daemon, in a network namespace of its own, reads the connections and
secrets that the library has written. A small IKEv2 agent, whose every key comes from the library,
negotiates with it. The daemon logs its keys here, and each is compared with the agent's: the
secret, SKEYSEED, the keys of the IKE SA and of the tunnel. Then an echo passes the tunnel.
"""
ECHO = re.compile(r"^echo through \S+ in ([0-9.]+) ms$", re.MULTILINE)


class Library:
    """The program that configures the daemon through the library."""

    def __init__(self, program):
        self.process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def ask(self, *fields):
        self.process.stdin.write("\t".join(fields) + "\n")
        self.process.stdin.flush()
        verdict, _, text = self.process.stdout.readline().rstrip("\n").partition(" ")
        if verdict != "ok":
            raise RuntimeError(f"{fields[0]}: {verdict} {text}")
        return text

    def connection(self, **settings):
        self.ask("connection", *(f"{key}={value}" for key, value in settings.items()))

    def passes(self, **settings):
        """Says whether the check finds nothing wrong with a connection."""
        return self.ask("check-connection", *(f"{key}={value}" for key, value in settings.items())) == "true"

    def secret(self, **settings):
        self.ask("secret", *(f"{key}={value}" for key, value in settings.items()))

    def queue(self, kind, **settings):
        """Puts a change of a connection or a secret aside, for apply."""
        self.ask(f"queue-{kind}", *(f"{key}={value}" for key, value in settings.items()))

    def apply(self):
        """Makes all changes that were put aside, in one call for each file."""
        if self.ask("apply") != "true":
            raise RuntimeError("the changes were not applied")

    def list_connections(self):
        return self.ask("list-connections").split()

    def name(self, first, second, number):
        return self.ask("name", first, second, "local", str(number))

    def running(self):
        return self.ask("running") == "true"


class Bench:
    """Everything that a row needs: the daemon, the library, the agent, the results so far."""

    def __init__(self, place, library, agent):
        self.place = place
        self.library = library
        self.agent = agent
        self.log_path = sandbox.CONF_DIR / "charon.log"
        self.key_log = place.scratch / "agent.keys"
        self.psk_file = place.scratch / "agent.psk"
        self.failures = []
        self.passed = 0

    def log_size(self):
        return self.log_path.stat().st_size

    def log_since(self, offset):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            log.seek(offset)
            return log.read()

    def configure(self, address, number, suite, psk, expected=True, **more):
        """Writes a connection and its secret through the library; returns the connection's name. The check must find
        nothing wrong with it, or something if that is expected."""
        local = sandbox.DAEMON6 if ":" in address else sandbox.DAEMON
        name = self.library.name(local, address, number)
        settings = {
            "config": name,
            "ikeVersion": f"ikev{suite.version}",
            "authby": "pre-share",
            "reqid": str(number),
            "left": local,
            "right": address,
            "ike": suite.ike(),
            "esp": suite.esp(),
            **more,
        }
        if self.library.passes(**settings) != expected:
            raise RuntimeError(f"the check of {name} does not say {expected}")
        self.library.connection(**settings)
        self.library.secret(peerIp=address, key=f'"{psk}"')
        return name

    def negotiate(self, address, arguments, psk):
        """Runs the agent once."""
        self.psk_file.write_text(psk + "\n")
        self.key_log.unlink(missing_ok=True)
        peer = sandbox.DAEMON6 if ":" in address else sandbox.DAEMON
        command = [
            self.agent,
            "--peer",
            peer,
            "--local",
            address,
            "--psk-file",
            str(self.psk_file),
            "--key-log",
            str(self.key_log),
            *PATIENCE,
            *arguments,
        ]
        return subprocess.run(command, capture_output=True, text=True, timeout=120, check=False)

    def report(self, section, text, trouble, remark=""):
        """Counts one row and shows it; trouble is None for a row that passed."""
        if trouble is None:
            self.passed += 1
        else:
            self.failures.append(f"{section}: {text}: {trouble}")
        print(f"{'ok  ' if trouble is None else 'FAIL'}  {section:<25} {text:<58} {trouble or remark}", flush=True)

    def tally(self):
        for failure in self.failures:
            print(f"FAIL  {failure}")
        print(f"{self.passed} passed, {len(self.failures)} failed", flush=True)
        return 1 if self.failures else 0


def psk_of(row):
    return f"secret of {row.number}"


def compare(ours, theirs):
    """Says how two sets of keys differ, or returns None."""
    names = sorted((set(ours) | set(theirs)) - {"init.public"})
    wrong = [name for name in names if ours.get(name) != theirs.get(name)]
    if wrong:
        return "keys differ: " + ", ".join(wrong)
    expected = ("init.secret", "child1.encr_i", "child1.integ_i")
    return None if any(name in names for name in expected[1:]) and expected[0] in names else "no keys were logged"


def judge(bench, row, result, log):
    """Returns what is wrong with a row or None, how many keys were compared, and the last echo's time."""
    if result.returncode != 0:
        return f"exit code {result.returncode}: {result.stderr.strip()}", 0, ""
    ours = charonlog.agent_keys(bench.key_log.read_text())
    trouble = compare(ours, charonlog.keys(log))
    echoes = ECHO.findall(result.stdout)
    if trouble is None and len(echoes) != row.echoes:
        trouble = f"{len(echoes)} of {row.echoes} echoes"
    if trouble is None and row.zero and not ours[row.zero].startswith("00"):
        trouble = f"{row.zero} has no leading zero byte"
    return trouble, len(ours) - ("init.public" in ours), echoes[-1] if echoes else ""


def run_row(bench, row):
    offset = bench.log_size()
    result = bench.negotiate(row.agent_address(), [*row.suite.arguments(), *row.extra], psk_of(row))
    trouble, count, echo = judge(bench, row, result, bench.log_since(offset))
    bench.report(row.section, str(row.suite), trouble, f"{count} keys equal, echo {echo} ms")


def configure_rows(bench, rows):
    for row in rows:
        if row.ipv6:
            bench.place.add_agent_address6(row.agent_address())
        bench.configure(row.agent_address(), row.number, row.suite, psk_of(row))


def start_daemon(bench, rows):
    """Starts the daemon and waits until it has loaded the rows' connections."""
    bench.place.start_daemon()
    sandbox.wait_until(lambda: bench.log_since(0).count("added configuration '") >= len(rows), "the connections", 30)


def run_rows(bench, rows, most_failures):
    for done, row in enumerate(rows):
        if len(bench.failures) >= most_failures:
            bench.failures.append(f"given up after {most_failures} failures: {len(rows) - done} rows were not run")
            return
        run_row(bench, row)


def run_matrix(bench, options):
    rows = [row for row in matrix.all_rows() if options.only in row.section]
    bench.library.connection(default="%default", uniqueids="add")
    configure_rows(bench, rows)
    life.check_stopped(bench, "before the daemon's start")
    start_daemon(bench, rows)
    life.check_running(bench)
    run_rows(bench, rows, options.most_failures)
    if options.only in life.SECTION:
        life.run(bench)
    if options.only in limits.SECTION:
        limits.run(bench)
    if options.only in scale.SECTION:
        scale.run(bench, judge, psk_of)
    bench.place.stop_daemon()
    life.check_stopped(bench, "after the daemon's end")


def run_demo(bench):
    rows = matrix.demo_rows()
    bench.library.connection(default="%default", uniqueids="add")
    configure_rows(bench, rows)
    start_daemon(bench, rows)
    print(DEMO_STORY)
    width = max(len(row.suite.ike()) for row in rows)
    print(f"  {'Group':<15} {'IKE SA':<{width}} {'Tunnel':<14} {'Equal keys':<11} {'Echo ms':>7}")
    keys = 0
    for row in rows:
        offset = bench.log_size()
        result = bench.negotiate(row.agent_address(), row.suite.arguments(), psk_of(row))
        trouble, count, echo = judge(bench, row, result, bench.log_since(offset))
        if trouble is None:
            bench.passed += 1
            keys += count
        else:
            bench.failures.append(f"group {row.suite.group}: {trouble}")
        name = f"{row.suite.group:>2} {matrix.GROUPS[row.suite.group]}"
        verdict = f"{count} of {count}" if trouble is None else "none"
        ike, esp = row.suite.ike()[:-1], row.suite.esp()[:-1]
        print(f"  {name:<15} {ike:<{width}} {esp:<14} {verdict:<11} {echo:>7}", flush=True)
    bench.place.stop_daemon()
    well = "FAILED" if bench.failures else "All well"
    print(f"\n{well}: {bench.passed} of {len(rows)} negotiations, {keys} keys equal to the daemon's.", flush=True)
    for failure in bench.failures:
        print(failure, flush=True)
    return 1 if bench.failures else 0


def run_by_hand(bench, arguments):
    """Runs the agent once with the user's arguments, against a connection that accepts every suite."""
    address, psk = "10.51.0.1", "by hand"
    bench.library.connection(default="%default", uniqueids="add")
    bench.library.connection(
        config=bench.library.name(sandbox.DAEMON, address, 1),
        ikeVersion="ike",
        authby="pre-share",
        reqid="1",
        left=sandbox.DAEMON,
        right=address,
        ike=matrix.every_ike_proposal(),
        esp=matrix.every_esp_proposal(),
    )
    bench.library.secret(peerIp=address, key=f'"{psk}"')
    start_daemon(bench, [address])
    result = bench.negotiate(address, arguments, psk)
    print(result.stdout + result.stderr, end="")
    bench.place.stop_daemon()
    return result.returncode


def inside(options):
    """Runs in the private namespaces."""
    place = sandbox.Sandbox(options.inside)
    try:
        place.set_up()
        library = Library(options.config)  # it ends with its standard input
        bench = Bench(place, library, options.agent)
        if options.by_hand is not None:
            return run_by_hand(bench, options.by_hand)
        if options.demo:
            return run_demo(bench)
        run_matrix(bench, options)
        return bench.tally()
    except RuntimeError as error:
        print(f"interop: FAILED: {error}", flush=True)
        return 1
    finally:
        sandbox.keep_log(options.keep_log)
        place.close()


def outside(options):
    began = time.monotonic()
    code = sandbox.run_inside("interop")
    if not options.demo and options.by_hand is None:
        print(f"took {time.monotonic() - began:.0f} s", file=sys.stderr)
    return code


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--agent", required=True, help="the program ipsec-agent")
    parser.add_argument("--config", required=True, help="the program interop-config")
    parser.add_argument("--demo", action="store_true", help="negotiate each group once and show a table")
    parser.add_argument("--keep-log", metavar="FILE", help="copy the daemon's log, keys included, to FILE at the end")
    parser.add_argument("--only", default="", metavar="TEXT", help="run the sections whose name contains TEXT")
    parser.add_argument(
        "--most-failures",
        type=int,
        default=25,
        metavar="N",
        help="leave the rest of the matrix out after N failed rows (default 25)",
    )
    parser.add_argument(
        "--by-hand",
        nargs=argparse.REMAINDER,
        metavar="OPTION",
        help="run the agent once with these options, such as --by-hand -v --group 20 --prf sha384",
    )
    parser.add_argument("--inside", help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.agent = os.path.abspath(options.agent)
    options.config = os.path.abspath(options.config)
    return options


def main():
    options = parse_options()
    return inside(options) if options.inside else outside(options)


if __name__ == "__main__":
    sys.exit(main())
