# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Writes the figures of a run as a page with pictures."""

import os
import platform

INTRODUCTION = """\
# Performance

This page is written by `./dev bench report`, and by nobody's hand: the figures are those of one run, on one machine, on
one day. [The page about the benchmarks](../bench/README.md) says what each of them measures, and how a ratio holds on a
busy machine. Times are processor time, except for those of threads and of the disk.

"""


# The heads of columns whose sides have names that are good for a list of results only.
TITLES = {
    "library read": "Library, read locks",
    "library write": "Library, write locks",
    "library mutex": "Library, mutexes",
    "openssl read": "Bare OpenSSL, read locks",
    "openssl write": "Bare OpenSSL, write locks",
    "openssl mutex": "Bare OpenSSL, mutexes",
    "apply to single call": "Times a single call",
    "apply to single calls": "Times as many single calls",
    "cp command": "`cp`",
    "library to copy by hand": "Library, times the copy by hand",
    "library to cp command": "Library, times `cp`",
}


def cell(value, digits=None):
    if value is None:
        return "-"
    if digits is None:
        digits = 0 if value >= 1000 else 1 if value >= 100 else 2 if value >= 0.1 or value == 0 else 4
    return f"{value:.{digits}f}"


def table(titles, rows):
    lines = ["| " + " | ".join(row) + " |" for row in [titles, *rows]]
    return "\n".join([lines[0], "|---" * len(titles) + "|", *lines[1:]]) + "\n"


def machine_facts(note, before, after):
    """What a reader must know about the machine. The load tells whether it was quiet."""
    with open("/proc/meminfo", encoding="utf-8") as info:
        memory = int(info.readline().split()[1]) / 1024 / 1024
    rows = [
        ["Processor, OpenSSL, day", note],
        ["Processors", str(os.cpu_count())],
        ["Memory", f"{memory:.0f} GiB"],
        ["System", f"{platform.system()} {platform.release()}, {platform.libc_ver()[0]} {platform.libc_ver()[1]}"],
        ["Load before and after (1 minute)", f"{before:.2f} and {after:.2f}"],
    ]
    return table(["Machine", ""], rows)


def goals_met(rows):
    return f"{sum(ratio <= goal for *_, ratio, goal in rows)} of {len(rows)} goals are met.\n"


def rated_table(results, rows, subject, other, title):
    """The rows of one subject, with a third contestant."""
    shown = []
    for found, case, label, ratio, goal in rows:
        if found == subject:
            times = [results.median(subject, case, side) for side in ("library", "openssl", other)]
            met = "yes" if ratio <= goal else "**no**"
            shown.append([label, cell(times[0]), cell(times[1]), cell(ratio, 3), cell(goal, 2), met, cell(times[2])])
    titles = ["", "Library, us", "Bare OpenSSL, us", "Ratio", "Goal", "Met", title]
    return table(titles, shown)


def threads_table(results, groups):
    rows = []
    for case in results.cases("threads"):
        group, threads = case.split()
        ours, theirs = (results.median("threads", case, side) for side in ("library", "openssl"))
        rows.append(
            [f"group {group}, {groups[group]}", threads, cell(ours, 0), cell(theirs, 0), cell(ours / theirs, 3)]
        )
    return table(["", "Threads", "Library, per second", "Bare OpenSSL, per second", "Ratio"], rows)


def applied_table(rows):
    shown = [
        [
            str(count),
            cell(at_once / 1000),
            cell(single / 1000) + ("*" if extrapolated else ""),
            cell(single / at_once, 0),
        ]
        for count, at_once, single, extrapolated in rows
    ]
    titles = ["New connections", "`applyConnections`, ms", "Single calls, ms", "Times"]
    return table(titles, shown) + "\n\\* extrapolated from the row above\n"


def with_unit(value, unit):
    if value is None:
        return ""
    whole = unit in ("bytes", "count") and value == int(value)
    return f"{cell(value, 0 if whole else None)} {unit if unit not in ('count', 'ratio') else ''}".strip()


def other_table(results, subject, groups, wanted=lambda case: True):
    """A row for each case, and a column for each side."""
    cases = [case for case in results.cases(subject) if wanted(case)]
    sides = list(dict.fromkeys(side for case in cases for side in results.sides(subject, case)))
    rows = [
        [f"group {case}, {groups[case]}" if case in groups else case]
        + [with_unit(results.median(subject, case, side), results.units.get((subject, case, side))) for side in sides]
        for case in cases
    ]
    return table(["", *(TITLES.get(side, side[:1].upper() + side[1:]) for side in sides)], rows)


def picture(name, text):
    """A picture that leads to itself: on a phone it is too small to read."""
    return f"[![{text}]({name})]({name})\n"


def write_report(path, machine, results, groups, rows):
    """Writes the page. rows has those of the comparisons: rated, writers and applied."""
    parts = [
        INTRODUCTION + machine,
        "## Setting up an IKE SA\n",
        "A key pair and its public value, the peer's value, the secret, nonces, seven keys. A ratio of 1.00 is bare "
        "OpenSSL,\ncalled in the best way that we know; Botan is for orientation.\n",
        picture("performance-ratios.svg", "The library's time as a multiple of bare OpenSSL's"),
        goals_met(rows["rated"]),
        rated_table(results, rows["rated"], "ike-sa", "botan", "Botan, us"),
        "## prf+\n",
        '"Joined" is bare OpenSSL with a block\'s input in one buffer, which is not possible for input in pieces.\n',
        rated_table(results, rows["rated"], "prf+", "openssl joined", "Joined, us"),
        "## Many threads\n",
        "Set-ups per second of all threads together, and the locks that one set-up takes.\n",
        threads_table(results, groups),
        other_table(results, "locks", groups),
        "## The daemon's files\n",
        "Many new connections in an empty file, with one call or with as many single calls:\n",
        picture("performance-apply.svg", "Time to configure connections against their number"),
        applied_table(rows["applied"]),
        "Changes in a file that is there already, and what the disk adds to one:\n",
        other_table(results, "apply", groups, lambda case: "among" in case or "disk" in case),
        "Replacing one section or entry of a large file. The goal is three times the time of `cp`.\n",
        goals_met(rows["writers"]),
        other_table(results, "writer", groups),
        "## Memory\n",
        other_table(results, "memory", groups),
        "## Loading\n",
        other_table(results, "load", groups),
        "## Traces that are off\n",
        other_table(results, "trace", groups),
    ]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(parts))
