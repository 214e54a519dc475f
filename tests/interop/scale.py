# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Rows about thousands of connections that are made and removed in one step."""

import random
import time

import matrix
import sandbox

SECTION = "scale"
COUNT = 5000
FIRST_NUMBER = 20000  # of the connections here; the matrix counts from 1
PATIENCE = 120.0  # seconds for the daemon


def rows():
    made = [matrix.Row(SECTION, matrix.Suite()) for _ in range(COUNT)]
    for number, row in enumerate(made, start=FIRST_NUMBER):
        row.number = number
    return made


def reread(bench, offset, counted, expected, what):
    """Makes the daemon reread both files, and returns how long it takes for the connections and for the secrets."""
    begun = time.monotonic()
    bench.place.reread_connections()
    sandbox.wait_until(lambda: bench.log_since(offset).count(counted) >= expected, what, PATIENCE)
    connections = time.monotonic() - begun
    bench.place.stroke("rereadsecrets")
    return connections, time.monotonic() - begun - connections


def memory(bench):
    """The daemon's resident memory in MB."""
    with open(f"/proc/{bench.place.daemon_pid()}/status", encoding="utf-8") as status:
        kilobytes = [int(line.split()[1]) for line in status if line.startswith("VmRSS:")]
    return kilobytes[0] // 1024


def negotiate(bench, row, judge, psk_of):
    """One negotiation with all of its keys compared."""
    offset = bench.log_size()
    result = bench.negotiate(row.agent_address(), row.suite.arguments(), psk_of(row))
    trouble, count, echo = judge(bench, row, result, bench.log_since(offset))
    bench.report(
        SECTION, f"connection {row.number - FIRST_NUMBER} of {COUNT}", trouble, f"{count} keys equal, echo {echo} ms"
    )


def timed(call):
    begun = time.monotonic()
    call()
    return time.monotonic() - begun


def run(bench, judge, psk_of):
    chosen = random.Random(time.time_ns())
    made = rows()
    names = {row.number: bench.library.name(sandbox.DAEMON, row.agent_address(), row.number) for row in made}
    before = memory(bench)

    for row in made:
        bench.library.queue(
            "connection",
            config=names[row.number],
            ikeVersion="ikev2",
            authby="pre-share",
            reqid=str(row.number),
            left=sandbox.DAEMON,
            right=row.agent_address(),
            ike=row.suite.ike(),
            esp=row.suite.esp(),
        )
        bench.library.queue("secret", peerIp=row.agent_address(), key=f'"{psk_of(row)}"')
    offset = bench.log_size()
    applied = timed(bench.library.apply)
    listed = set(bench.library.list_connections()) >= set(names.values())
    loaded, secrets = reread(bench, offset, "added configuration '", COUNT, "the new connections")
    remark = (
        f"applied in {applied:.2f} s; the daemon takes {loaded:.1f} s for the connections, {secrets:.1f} s for the "
        f"secrets and {memory(bench) - before} MB"
    )
    bench.report(SECTION, f"{COUNT} connections and secrets in two calls", None if listed else "not all listed", remark)
    for row in chosen.sample(made, 3):
        negotiate(bench, row, judge, psk_of)

    removed = chosen.sample(made, COUNT // 2)
    for row in removed:
        bench.library.queue("connection", config=names[row.number], delete="")
        bench.library.queue("secret", peerIp=row.agent_address(), delete="")
    offset = bench.log_size()
    applied = timed(bench.library.apply)
    gone = not set(bench.library.list_connections()) & {names[row.number] for row in removed}
    loaded, secrets = reread(bench, offset, "deleted connection '", len(removed), "the removals")
    remark = f"applied in {applied:.2f} s; the daemon takes {loaded:.1f} s and {secrets:.1f} s"
    bench.report(SECTION, f"{len(removed)} of them removed in two calls", None if gone else "some are listed", remark)
    staying = [row for row in made if row not in removed]
    for row in chosen.sample(staying, 3):
        negotiate(bench, row, judge, psk_of)
    result = bench.negotiate(removed[0].agent_address(), removed[0].suite.arguments(), psk_of(removed[0]))
    bench.report(SECTION, "a removed one is refused", None if result.returncode != 0 else "it is accepted")
