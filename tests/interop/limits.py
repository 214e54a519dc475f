# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Rows about limits that only a tunnel shows: what the daemon makes of margins and of very long times."""

import re

import life
from matrix import Suite

SECTION = "limits"
FIRST_NUMBER = 6000  # of the connections here; the matrix counts from 1
MOST32 = 2**32 - 1
TUNNELS = 10  # the end of a short one may overtake the daemon's decision to rekey it


def established(bench, number, text, passes, tunnels=1, **settings):
    """Checks and writes a connection, and sets it up. Returns the daemon's log of it, or None."""
    address, suite = f"10.51.230.{number}", Suite()
    psk = f"secret of {text}"
    name = bench.configure(address, FIRST_NUMBER + number, suite, psk, expected=passes, **settings)
    life.reread(bench, life.added(name))
    bench.place.stroke("rereadsecrets")
    offset = bench.log_size()
    for _ in range(tunnels):
        result = bench.negotiate(address, suite.arguments(), psk)
        if result.returncode != 0:
            bench.report(SECTION, text, f"exit code {result.returncode}: {result.stderr.strip()}")
            return None
    return bench.log_since(offset)


def margin_row(bench, number, margin, passes):
    """The echo is a tunnel's first packet. With the margin at its largest, the daemon begins to rekey at it."""
    text = f"three packets with a margin of {margin}"
    log = established(bench, number, text, passes, TUNNELS, packetLimit="3", marginpackets=margin)
    if log is not None:
        rekeyed = log.count("creating rekey job for CHILD_SA")
        trouble = None if (rekeyed > 0) == passes else f"the daemon rekeys {rekeyed} of {TUNNELS} tunnels"
        bench.report(SECTION, text, trouble, f"{rekeyed} of {TUNNELS} tunnels are rekeyed")


def lifetime_row(bench, number, seconds, passes):
    text = f"ikelifetime of {seconds} s"
    log = established(bench, number, text, passes, ikelifetime=str(seconds))
    if log is None:
        return
    found = re.search(r"maximum IKE_SA lifetime (\d+)s", log)
    most = int(found[1]) if found else 0
    trouble = None if found and (abs(most - seconds) < 2000) == passes else f"its longest life is {most} s"
    bench.report(SECTION, text, trouble, f"its longest life is {most} s")


def run(bench):
    margin_row(bench, 1, "1", True)
    margin_row(bench, 2, "3", False)
    margin_row(bench, 3, "4", False)
    lifetime_row(bench, 4, 28800, True)
    lifetime_row(bench, 5, MOST32 + 28801, False)
