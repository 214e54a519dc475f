#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks of a build folder and prints one table; a CSV and a chart go to its folder bench.

The programs print "subject,case,side,unit,value". Each is run in several processes, and every figure and every ratio is
the median over them: a ratio moves a little from one process to the next with the layout of its memory.

The exit status says whether every program ran and all outputs agreed. Goals are printed, not enforced: times on a
shared machine are no assertion.
"""

import argparse
import csv
import datetime
import html
import math
import os
import re
import ssl
import statistics
import subprocess
import sys

from report import machine_facts, write_report

GROUPS = {
    "1": "MODP 768",
    "2": "MODP 1024",
    "5": "MODP 1536",
    "14": "MODP 2048",
    "15": "MODP 3072",
    "16": "MODP 4096",
    "17": "MODP 6144",
    "19": "ECP 256",
    "20": "ECP 384",
    "21": "ECP 521",
    "24": "MODP 2048/256",
}

# What the library may take at most, as a multiple of bare OpenSSL called in the best way.
EXCHANGE_GOALS = {
    "1": 1.08,
    "2": 1.08,
    "5": 1.03,
    "14": 1.03,
    "15": 1.03,
    "16": 1.03,
    "17": 1.03,
    "19": 1.03,
    "20": 1.01,
    "21": 1.01,
    "24": 1.03,
}
PRF_GOAL = 1.10
WRITER_GOAL = 3.00  # as a multiple of the cp command's CPU time for a copy of the same file
WRITER_RATIO = "library to cp command"
LOCK_KINDS = ("read", "write", "mutex")


class Results:
    """All figures by (subject, case, side), one list entry per process."""

    def __init__(self):
        self.values = {}
        self.units = {}
        self.failures = []

    def run(self, program, arguments, env=None, folder=None):
        done = subprocess.run(
            [os.path.abspath(program), *arguments], capture_output=True, text=True, env=env, cwd=folder
        )
        for line in done.stdout.splitlines():
            subject, case, side, unit, value = line.split(",")
            self.values.setdefault((subject, case, side), []).append(float(value))
            self.units[subject, case, side] = unit
        if done.returncode != 0:
            said = done.stderr.strip().splitlines()
            name = os.path.basename(program)
            self.failures.append(f"{name}: " + (said[-1] if said else f"exit status {done.returncode}"))

    def cases(self, subject):
        return list(dict.fromkeys(case for found, case, _ in self.values if found == subject))

    def sides(self, subject, case):
        return [side for found, name, side in self.values if (found, name) == (subject, case)]

    def median(self, subject, case, side):
        values = self.values.get((subject, case, side))
        return statistics.median(values) if values else None

    def ratio(self, subject, case, ours, theirs):
        """The median of the processes' ratios, which move together where the times do not."""
        pairs = zip(self.values.get((subject, case, ours), []), self.values.get((subject, case, theirs), []))
        ratios = [a / b for a, b in pairs]
        return statistics.median(ratios) if ratios else None


def measure(build, quick):
    programs = os.path.join(build, "bench")
    results = Results()
    processes, slices = (1, 60) if quick else (5, 300)
    for count in range(processes):
        for program, wanted in (("exchange-bench", slices), ("prf-bench", slices), ("writer-bench", slices // 10)):
            print(f"\r  process {count + 1} of {processes}: {program:<16}", end="", file=sys.stderr, flush=True)
            results.run(os.path.join(programs, program), ["--slices", str(wanted)])
    results.run(os.path.join(programs, "footprint-bench"), ["--slices", str(slices)])
    print(f"\r  {'apply-bench':<36}", end="", file=sys.stderr, flush=True)
    results.run(os.path.join(programs, "apply-bench"), ["--slices", "3" if quick else "10"], folder=programs)
    print(f"\r  {'thread-bench':<36}", end="", file=sys.stderr, flush=True)
    results.run(os.path.join(programs, "thread-bench"), ["--slices", "3" if quick else "25"])
    libraries = ["libcrypto.so.3", os.path.join(os.path.abspath(build), "libipsechelpers.so.1")]
    for _ in range(3 if quick else 15):
        results.run(os.path.join(programs, "load-bench"), libraries)
    relocations(os.path.join(programs, "load-bench"), libraries, results)
    print("\r" + " " * 50 + "\r", end="", file=sys.stderr, flush=True)
    return results


def relocations(program, libraries, results):
    """Asks the dynamic linker how many relocations a process ends with that loads one library more each time."""
    before = 0
    for count in range(len(libraries) + 1):
        done = subprocess.run(
            [program, *libraries[:count]], capture_output=True, text=True, env={**os.environ, "LD_DEBUG": "statistics"}
        )
        found = re.findall(r"number of relocations(?: from cache)?: *(\d+)", done.stderr)
        final = re.findall(r"final number of relocations: *(\d+)", done.stderr)
        if not final and not found:
            return
        total = int((final or found)[-1])
        if count > 0:
            key = ("load", os.path.basename(libraries[count - 1]), "relocations")
            results.values[key] = [float(total - before)]
            results.units[key] = "count"
        before = total


def rated(results):
    """Yields (subject, case, label, ratio, goal) for all that is compared with bare OpenSSL."""
    for case in results.cases("ike-sa"):
        label = f"IKE SA, group {case}, {GROUPS[case]}"
        yield "ike-sa", case, label, results.ratio("ike-sa", case, "library", "openssl"), EXCHANGE_GOALS[case]
    for case in results.cases("prf+"):
        label = "prf+ {}, {} bytes".format(*case.split())
        yield "prf+", case, label, results.ratio("prf+", case, "library", "openssl"), PRF_GOAL


def rated_writers(results):
    """Yields the same for the file writers, which are compared with the cp command."""
    for case in results.cases("writer"):
        yield "writer", case, f"{case}, to cp", results.median("writer", case, WRITER_RATIO), WRITER_GOAL


def figure(value, unit=""):
    if value is None:
        return "-"
    text = f"{value:.0f}" if value >= 1000 else f"{value:.1f}" if value >= 100 else f"{value:.2f}"
    return text + unit


def print_table(results):
    print("Times in microseconds of CPU. Ratio: the library to bare OpenSSL, called in the best way.")
    print("IKE SA: a key pair and its public value, the peer's value, the secret, nonces, seven keys.\n")
    head = f"{'':<34}{'library':>9}{'OpenSSL':>9}{'ratio':>8}{'goal':>7}  {'met':<4}"
    print(f"{head}{'Botan':>9}{'Botan/library':>15}")
    for subject, case, label, ratio, goal in rated(results):
        if subject != "ike-sa":
            continue
        ours, botan = results.median(subject, case, "library"), results.median(subject, case, "botan")
        print(
            f"{label:<34}{figure(ours):>9}{figure(results.median(subject, case, 'openssl')):>9}{ratio:>8.3f}"
            f"{goal:>7.2f}  {'yes' if ratio <= goal else 'NO':<4}{figure(botan):>9}"
            f"{figure(botan / ours) if botan else '-':>15}"
        )
    if not any(side == "botan" for _, _, side in results.values):
        print("Botan: not compared, because it was not found when the benchmarks were built")
    print(f"\n{head}{'joined':>9}{'ratio to it':>15}")
    for subject, case, label, ratio, goal in rated(results):
        if subject != "prf+":
            continue
        joined = results.ratio(subject, case, "library", "openssl joined")
        print(
            f"{label:<34}{figure(results.median(subject, case, 'library')):>9}"
            f"{figure(results.median(subject, case, 'openssl')):>9}{ratio:>8.3f}{goal:>7.2f}  "
            f"{'yes' if ratio <= goal else 'NO':<4}{figure(results.median(subject, case, 'openssl joined')):>9}"
            f"{joined:>15.3f}"
        )
    for title, subject in (("File writers", "writer"), ("Memory", "memory"), ("Loading", "load"), ("Tracing", "trace")):
        for number, case in enumerate(results.cases(subject)):
            if number == 0:
                print(f"\n{title}")
            name = f"group {case}, {GROUPS[case]}" if case in GROUPS else case
            sides = [
                f"{side} {figure(results.median(subject, case, side))} {results.units[subject, case, side]}"
                for side in results.sides(subject, case)
                if side != WRITER_RATIO
            ]
            print(f"  {name:<40}{'; '.join(sides)}")
        if subject == "writer":
            for _, _, label, ratio, goal in rated_writers(results):
                print(
                    f"  {label:<48}{'ratio':>6}{ratio:>8.3f}{'goal':>7}{goal:>6.2f}{'met':>6} "
                    f"{'yes' if ratio <= goal else 'NO'}"
                )
    print_threads(results)
    print_applied(results)


def print_threads(results):
    for number, case in enumerate(results.cases("threads")):
        if number == 0:
            print("\nIKE SA set-ups per second, of all threads together")
            print(f"  {'':<30}{'threads':>8}{'library':>10}{'OpenSSL':>10}{'ratio':>8}")
        group, threads = case.split()
        label = f"group {group}, {GROUPS[group]}"
        ours, theirs = (results.median("threads", case, side) for side in ("library", "openssl"))
        print(f"  {label:<30}{threads:>8}{ours:>10.0f}{theirs:>10.0f}{ours / theirs:>8.3f}")
    for number, case in enumerate(results.cases("locks")):
        if number == 0:
            print("\nLocks that a set-up takes, for reading + for writing + mutexes")
        label = f"group {case}, {GROUPS[case]}"
        sides = [
            f"{side} " + " + ".join(figure(results.median("locks", case, f"{side} {kind}")) for kind in LOCK_KINDS)
            for side in ("library", "openssl")
        ]
        print(f"  {label:<40}{'; '.join(sides)}")


def applied(results):
    """Yields the number of connections, the time of apply, that of single calls, and whether that is extrapolated."""
    single = None
    for case in results.cases("apply"):
        count, _, what = case.partition(" ")
        if what != "new":
            continue
        measured = results.median("apply", case, "single calls")
        # Each single call costs the whole file: ten times the connections cost a hundred times the time.
        single = measured if measured is not None else single * 100
        yield int(count), results.median("apply", case, "apply"), single, measured is None


def print_applied(results):
    rows = list(applied(results))
    if not rows:
        return
    print("\nNew connections in an empty file, one applyConnections or as many writeConnections, milliseconds of CPU")
    print(f"  {'connections':>11}{'apply':>12}{'single calls':>16}{'times':>9}")
    for count, at_once, single, extrapolated in rows:
        mark = "*" if extrapolated else " "
        print(f"  {count:>11}{at_once / 1000:>12.2f}{single / 1000:>15.1f}{mark}{single / at_once:>9.0f}")
    print("  * extrapolated from the row above")
    for case in results.cases("apply"):
        for side in results.sides("apply", case):
            value = results.median("apply", case, side)
            if results.units["apply", case, side] == "ratio":
                print(f"  {case + ', ' + side:<60}{value:.4f}")
            elif "on the disk" in case:
                print(f"  {case + ', ' + side:<60}{value / 1000:.2f} ms")


def write_csv(results, path):
    goals = [(subject, case, "library to openssl", ratio, goal) for subject, case, _, ratio, goal in rated(results)]
    goals += [(subject, case, WRITER_RATIO, ratio, goal) for subject, case, _, ratio, goal in rated_writers(results)]
    rows = {(subject, case, side) for subject, case, side, _, _ in goals}
    with open(path, "w", newline="", encoding="utf-8") as file:
        out = csv.writer(file)
        out.writerow(["subject", "case", "side", "unit", "value", "goal", "met"])
        for (subject, case, side), unit in results.units.items():
            if (subject, case, side) not in rows:
                out.writerow([subject, case, side, unit, f"{results.median(subject, case, side):.6g}", "", ""])
        for subject, case, side, ratio, goal in goals:
            met = "yes" if ratio <= goal else "no"
            out.writerow([subject, case, side, "ratio", f"{ratio:.4f}", f"{goal:.2f}", met])


def write_chart(results, path, note):
    """Draws each ratio as a bar from 1.00, with its goal as a line across."""
    rows = [(label, ratio, goal) for _, _, label, ratio, goal in rated(results)]
    step, left, right, top = 22, 230, 760, 60
    low, high = 0.95, max([1.20, *(ratio + 0.02 for _, ratio, _ in rows)])

    def x(value):
        return left + (right - left) * (max(value, low) - low) / (high - low)

    height = top + step * len(rows) + 40
    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{right + 130}" height="{height}" '
        'font-family="sans-serif" font-size="12">',
        '<rect width="100%" height="100%" fill="white"/>',
        '<text x="10" y="22" font-size="15">CPU time, the library to bare OpenSSL called the best way</text>',
        f'<text x="10" y="40" fill="#666">1.00 is bare OpenSSL, the dark line is the goal; {html.escape(note)}</text>',
    ]
    for tick in range(round(low * 100), int(high * 100) + 1, 5):
        out.append(
            f'<line x1="{x(tick / 100):.1f}" y1="{top - 6}" x2="{x(tick / 100):.1f}" y2="{height - 32}" '
            'stroke="#ddd"/>'
        )
        out.append(f'<text x="{x(tick / 100):.1f}" y="{height - 14}" text-anchor="middle">{tick / 100:.2f}</text>')
    for number, (label, ratio, goal) in enumerate(rows):
        y = top + step * number
        start, end = sorted((x(1.0), x(ratio)))
        colour = "#4a90a4" if ratio <= goal else "#c0504d"
        out.append(f'<text x="{left - 8}" y="{y + 12}" text-anchor="end">{label}</text>')
        out.append(f'<rect x="{start:.1f}" y="{y}" width="{max(end - start, 1):.1f}" height="15" fill="{colour}"/>')
        out.append(
            f'<line x1="{x(goal):.1f}" y1="{y - 2}" x2="{x(goal):.1f}" y2="{y + 17}" stroke="#222" '
            'stroke-width="2"/>'
        )
        out.append(f'<text x="{max(end, x(goal)) + 6:.1f}" y="{y + 12}">{ratio:.3f}, goal {goal:.2f}</text>')
    out.append("</svg>")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(out) + "\n")


def machine():
    """The processor, OpenSSL's version and the day, for a chart that is looked at later and elsewhere."""
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        models = [line.partition(":")[2].strip() for line in info if line.startswith("model name")]
    version = ssl.OPENSSL_VERSION.split()
    return f"{models[0] if models else 'unknown processor'}, {' '.join(version[:2])}, {datetime.date.today()}"


def write_applied(results, path, note):
    """Draws the time against the number of connections, both in powers of ten."""
    rows = list(applied(results))
    if not rows:
        return
    left, top, step_x, step_y, high = 90, 70, 130, 45, 8  # of a power of ten; the time begins at 10 us

    def place(count, microseconds):
        return (
            left + step_x * (math.log10(count) - 1),
            top + step_y * (high - math.log10(max(microseconds, 10)) + 1),
        )

    width, height = left + 4 * step_x + 190, top + step_y * high + 60
    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" font-family="sans-serif" '
        'font-size="12">',
        '<rect width="100%" height="100%" fill="white"/>',
        '<text x="10" y="22" font-size="15">CPU time to configure new connections in an empty file</text>',
        f'<text x="10" y="40" fill="#666">{html.escape(note)}</text>',
    ]
    names = ("10 us", "100 us", "1 ms", "10 ms", "100 ms", "1 s", "10 s", "100 s", "1000 s")
    for power, name in enumerate(names):
        y = place(10, 10 ** (power + 1))[1]
        out.append(f'<line x1="{left}" y1="{y:.1f}" x2="{left + 4 * step_x}" y2="{y:.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{left - 8}" y="{y + 4:.1f}" text-anchor="end">{name}</text>')
    for power in range(1, 6):
        x = place(10**power, 10)[0]
        out.append(f'<text x="{x:.1f}" y="{height - 30}" text-anchor="middle">{10 ** power}</text>')
    sides = (("one applyConnections", "#4a90a4", 1), ("single calls, * extrapolated", "#c0504d", 2))
    for label, colour, column in sides:
        points = [(*place(row[0], row[column]), row[3] and column == 2) for row in rows]
        line = " ".join(f"{x:.1f},{y:.1f}" for x, y, _ in points)
        out.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for x, y, extrapolated in points:
            out.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')
            if extrapolated:
                out.append(f'<text x="{x - 4:.1f}" y="{y - 6:.1f}">*</text>')
        out.append(f'<text x="{points[-1][0] + 8:.1f}" y="{points[-1][1] + 4:.1f}" fill="{colour}">{label}</text>')
    out.append("</svg>")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(out) + "\n")


def write_page(results, folder, note, load_before):
    """Writes the report. One with figures of programs that failed would be wrong, so there is none then."""
    write_chart(results, os.path.join(folder, "performance-ratios.svg"), note)
    write_applied(results, os.path.join(folder, "performance-apply.svg"), note)
    rows = {
        "rated": list(rated(results)),
        "writers": list(rated_writers(results)),
        "applied": list(applied(results)),
    }
    facts = machine_facts(note, load_before, os.getloadavg()[0])
    write_report(os.path.join(folder, "performance.md"), facts, results, GROUPS, rows)
    print(os.path.join(folder, "performance.md"))


def main():
    parser = argparse.ArgumentParser(description="Runs the benchmarks of a build folder.")
    parser.add_argument("build", help="a build folder configured with -DIPSEC_BENCH=ON, best as Release")
    parser.add_argument("--quick", action="store_true", help="one process and few slices: not a measurement")
    parser.add_argument("--report", metavar="FOLDER", help="also write the page performance.md with its pictures there")
    arguments = parser.parse_args()
    load_before = os.getloadavg()[0]
    results = measure(arguments.build, arguments.quick)
    if results.cases("ike-sa") or results.cases("prf+"):
        print_table(results)
        folder = os.path.join(arguments.build, "bench")
        write_csv(results, os.path.join(folder, "bench.csv"))
        note = machine() + (" (--quick: not a measurement)" if arguments.quick else "")
        write_chart(results, os.path.join(folder, "bench.svg"), note)
        write_applied(results, os.path.join(folder, "apply.svg"), note)
        print(f"\n{note}\n{folder}/bench.csv, {folder}/bench.svg, {folder}/apply.svg")
        if arguments.report and not results.failures:
            write_page(results, arguments.report, note, load_before)
    for failure in dict.fromkeys(results.failures):
        print(f"FAILED: {failure}", file=sys.stderr)
    return 1 if results.failures else 0


if __name__ == "__main__":
    sys.exit(main())
