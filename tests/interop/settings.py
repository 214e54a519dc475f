#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the library's check of settings with an unmodified strongSwan daemon, value by value and in both directions.

Every row of settingrows.py is checked by the library, written by the library and read by the daemon: what the check
lets pass must be loaded as it was meant, and what it calls a problem must be refused, dropped or misread. Skips and
fails as interop.py does.
"""

import argparse
import os
import re
import socket
import struct
import sys
import time

import interop
import sandbox
import settingrows
from settingrows import AGENT, AGENT6, DROPPED, FATAL, MISREAD, REFUSED, TAKEN

# Fields of the message in which the daemon's starter passes a section on, by a number that occurs nowhere else in it.
FIELDS = {
    "reqid": (4, 0x51525354),
    "ikelifetime": (8, 0x61626364),
    "lifetime": (8, 0x41424344),
    "packetLimit": (8, 0x1122334455667788),
    "marginpackets": (8, 0x0122334455667788),
    "byteLimit": (8, 0x2122334455667788),
    "marginbytes": (8, 0x2022334455667788),
    "replayWindowSize": (4, 0x71727374),
    "interval": (8, 0x31323334),
    "timeout": (8, 0x21222324),
    "mark": (4, 0x11121314),
}


class Sections:
    """What the daemon has made of the sections of one file."""

    def __init__(self, log, status, starter):
        self.log, self.starter = log, starter
        self.lines = {}
        for line in status.splitlines():
            found = re.match(r"\s*(\w+):  +(.*)", line)
            if found:
                self.lines.setdefault(found[1], []).append(found[2])
        self.messages = dict(self.read_messages(log))
        self.near, self.far = set(), set()
        self.offsets = {}

    @staticmethod
    def read_messages(log):
        bytes_read = b""
        for line in log.splitlines():
            row = re.search(r"\[CFG\] +\d+: ((?:[0-9A-F]{2} )+)", line)
            name = re.search(r"received stroke: add connection '(\w+)'", line)
            if "stroke message =>" in line:
                bytes_read = b""
            elif row:
                bytes_read += bytes.fromhex(row[1])
            elif name:
                yield name[1], bytes_read

    def ignored(self, name):
        return f"# ignored conn '{name}'" in self.starter

    def loaded(self, name):
        return any("===" in line for line in self.lines.get(name, []))

    def line(self, name, pattern):
        found = (re.search(pattern, line) for line in self.lines.get(name, []))
        return next((match[1] for match in found if match), None)

    def calibrate(self, names):
        """Finds the fields by the sections that hold their numbers."""
        for field, (size, number) in FIELDS.items():
            message, known = self.messages[names[field]], number.to_bytes(size, "little")
            places = [at for at in range(len(message)) if message.startswith(known, at)]
            if not places or len(places) > (2 if field == "mark" else 1):
                raise RuntimeError(f"{field} is found {len(places)} times in the starter's message")
            self.offsets[field] = places[0]
        self.find_flag("reauth", names["no reauth"], names["reauth"], 0, 1)
        self.find_flag("action", names["hold"], names["restart"], 2, 3)

    def find_flag(self, field, first, second, first_value, second_value):
        """Finds a field by two sections that differ in nothing else."""
        left, right = self.messages[first], self.messages[second]
        places = [
            at for at in range(min(len(left), len(right))) if (left[at], right[at]) == (first_value, second_value)
        ]
        if len(places) != 1:
            raise RuntimeError(f"{field} is found {len(places)} times in the starter's messages")
        self.offsets[field] = places[0]

    def number(self, field, name, ahead=0):
        size, at = FIELDS.get(field, (4, 0))[0], self.offsets[field] + ahead
        return int.from_bytes(self.messages[name][at : at + size], "little")

    def fact(self, row, name):
        """What the daemon shows of the row's setting, in the form of the expected fact."""
        expected = row.fact
        if expected is None:
            return None
        if row.setting == "mark":
            return self.number("mark", name), self.number("mark", name, 4)
        if isinstance(expected, bool):
            return self.end(row.setting, name) in (self.far if row.setting == "right" else self.near)
        if isinstance(expected, int):
            return self.number(row.setting, name)
        return self.text(row, name)

    def end(self, side, name):
        return self.line(name, r"^(.*)\.\.\..*  IKEv" if side == "left" else r"^.*\.\.\.(.*?)  IKEv")

    def text(self, row, name):
        if row.setting in ("left", "right"):
            return self.end(row.setting, name)
        if row.setting == "localid":
            return self.line(name, r"^local:  (?:\[(.*)\] )?uses") or ""
        if row.setting == "remoteid":
            return self.line(name, r"^remote: (?:\[(.*)\] )?uses") or ""
        if row.setting == "leftsubnet":
            return self.line(name, r"^ *child:  (.*) === ")
        if row.setting == "type":
            return self.line(name, r"=== .* (\w+)(?:, dpdaction=.*)?$")
        if row.setting in ("tunnelMode", "secret"):
            return self.line(name, r"^ *child:  (.* === .*) TUNNEL")
        return self.line(name, r"IKEv.*(dpddelay=\w+)" if row.setting == "interval" else r"  (IKEv[12/]+)")


class Proof:
    def __init__(self, place, library):
        self.place, self.library = place, library
        self.failures, self.counts = [], {}
        self.version = 0

    # --- Counting ---

    def count(self, text, verdict, trouble):
        self.counts[verdict] = self.counts.get(verdict, 0) + 1
        if trouble:
            self.failures.append(f"{text}: {trouble}")

    def judge(self, text, verdict, passed, trouble):
        """Counts a row whose trouble with the daemon is known, and compares the check's answer."""
        if trouble is None and passed != (verdict == TAKEN):
            trouble = f"the check says {'nothing' if passed else 'there is a problem'}, and the daemon: {verdict}"
        self.count(text, verdict, trouble)

    # --- The library ---

    def fields(self, settings):
        escaped = lambda text: "".join(c if " " <= c != "\x7f" and c != "\\" else f"\\x{ord(c):02x}" for c in text)
        return [f"{escaped(key)}={escaped(value)}" for key, value in settings.items()]

    def passes(self, command, settings):
        return self.library.ask(command, *self.fields(settings)) == "true"

    def write(self, settings):
        self.library.ask("connection", *self.fields(settings))

    # --- The daemon ---

    def log(self):
        return (sandbox.CONF_DIR / "charon.log").read_text(encoding="utf-8", errors="replace")

    def starter_says(self):
        return (self.place.scratch / "starter.txt").read_text(errors="replace")

    def clear(self):
        for name in ("ipsec.conf", "ipsec.secrets", "charon.log"):
            (sandbox.CONF_DIR / name).write_text("")
        (self.place.scratch / "starter.txt").write_text("")

    def start(self, last):
        """Starts the daemon, and waits until it has loaded the last section. Returns whether it starts."""
        try:
            self.place.start_daemon()
        except RuntimeError:
            if "fatal errors in config" not in self.starter_says():
                raise
            return False
        sandbox.wait_until(
            lambda: re.search(rf"'{last}'$", self.log(), re.M) and f" {last}:" in self.status(), last, 60
        )
        return True

    def status(self):
        return self.place.stroke("statusall")


# --- Connections ------------------------------------------------------------------------------------------------------


def base(name, **more):
    settings = {"config": name, "ikeVersion": "ikev2", "authby": "pre-share", "reqid": "7", "left": "%any"}
    return settings | {"right": AGENT, "localid": name} | more


def settings_of(row, name):
    settings = base(name)
    # Sections whose peers are alike become one: each has an identity of its own, on the side that is not looked at.
    if row.setting == "localid":
        settings["remoteid"] = settings.pop("localid")
    if row.fact == "%default":
        settings["left"] = "10.50.0.1"
    if row.setting == "left":
        settings["right"] = "%any"
    return settings | row.more | {row.setting: row.value}


def calibration():
    dpd = {"action": "clear", "interval": "30", "timeout": "150"}
    for field, (_, number) in FIELDS.items():
        more = dpd if field in dpd else {}
        yield field, more | {field: str(number)}
    yield "no reauth", {"reauth": "no", "localid": "alike"}
    yield "reauth", {"reauth": "yes", "localid": "alike"}
    yield "hold", {**dpd, "action": "hold", "localid": "alike"}
    yield "restart", {**dpd, "action": "restart", "localid": "alike"}


def packet():
    """An IKE_SA_INIT request that the daemon looks a connection up for."""
    transforms = b""
    for kind, number in ((1, 12), (2, 5), (3, 12), (4, 19)):
        attributes = struct.pack(">HH", 0x800E, 128) if kind == 1 else b""
        more = 0 if kind == 4 else 3
        transforms += struct.pack(">BBHBBH", more, 0, 8 + len(attributes), kind, 0, number) + attributes
    proposal = struct.pack(">BBHBBBB", 0, 0, 8 + len(transforms), 1, 1, 0, 4) + transforms
    exchange = struct.pack(">HH", 19, 0) + bytes(64)
    body = b""
    for following, payload in ((34, proposal), (40, exchange), (0, os.urandom(32))):
        body += struct.pack(">BBH", following, 0, 4 + len(payload)) + payload
    return os.urandom(8) + bytes(8) + struct.pack(">BBBBII", 33, 0x20, 34, 8, 0, 28 + len(body)) + body


def send_packets(proof):
    """Lets the daemon look for the connections of both of the agent's addresses. Returns their ends."""
    near, far = set(), set()
    for family, source, target in (
        (socket.AF_INET, AGENT, sandbox.DAEMON),
        (socket.AF_INET6, AGENT6, sandbox.DAEMON6),
    ):
        before = len(proof.log())
        with socket.socket(family, socket.SOCK_DGRAM) as sender:
            sender.bind((source, 500))
            sender.sendto(packet(), (target, 500))
        sandbox.wait_until(lambda: "found matching ike config" in proof.log()[before:], "the look-up of a connection")
        for ends in re.findall(r"candidate: (.*)\.\.\.(.*), prio", proof.log()[before:]):
            near.add(ends[0])
            far.add(ends[1])
    return near, far


def judge_loaded(proof, sections, row, name):
    """Says how a loaded or missing section differs from what its row says, or returns None."""
    verdict = row.verdict
    if not row.since <= proof.version < row.until:
        verdict = DROPPED  # the check knows the words of the other release too
    if verdict == REFUSED:
        return None if sections.ignored(name) else "the parser takes it"
    if sections.ignored(name):
        return "the parser refuses it"
    if verdict == DROPPED:
        return "it is loaded" if sections.loaded(name) else None
    if not sections.loaded(name):
        return "it is not loaded"
    fact = row.fact
    if fact == "%default":
        fact = "10.50.0.1"
    made = sections.fact(row, name)
    if row.fact is not None and made != fact:
        return f"the daemon made {made!r} of it, not {fact!r}"
    return None


def read_sections(proof, rows):
    """All sections that the parser reads, in one file."""
    proof.clear()
    names = {}
    for number, (field, more) in enumerate(calibration()):
        names[field] = f"c{number}"
        proof.write(base(f"c{number}", **more))
    for number, row in enumerate(rows):
        proof.write(settings_of(row, f"r{number}"))
    proof.write(base("last"))
    if not proof.start("last"):
        raise RuntimeError("a section costs the whole file: " + proof.starter_says())
    near, far = send_packets(proof)
    sections = Sections(proof.log(), proof.status(), proof.starter_says())
    sections.near, sections.far = near, far
    sections.calibrate(names)
    proof.version = int(re.search(r"strongSwan (\d+)\.", proof.starter_says())[1])
    proof.place.stop_daemon()
    return sections


def prove_connections(proof):
    rows = [row for row in settingrows.connection_rows() if row.verdict != FATAL]
    sections = read_sections(proof, rows)
    for number, row in enumerate(rows):
        passed = proof.passes("check-connection", settings_of(row, f"r{number}"))
        proof.judge(str(row), row.verdict, passed, judge_loaded(proof, sections, row, f"r{number}"))


def prove_fatal(proof):
    for row in (row for row in settingrows.connection_rows() if row.verdict == FATAL):
        settings = settings_of(row, "alone")
        proof.clear()
        proof.write(settings)
        proof.write(base("last"))
        trouble = "the daemon takes the file" if proof.start("last") else None
        proof.judge(str(row), row.verdict, proof.passes("check-connection", settings), trouble)
        if trouble:
            proof.place.stop_daemon()


# --- Names ------------------------------------------------------------------------------------------------------------


def prove_names(proof):
    loaded = {name: name for name in settingrows.NAMES_TAKEN} | settingrows.NAMES_QUOTED
    for verdict, names in ((TAKEN, loaded), (MISREAD, settingrows.NAMES_MISREAD)):
        proof.clear()
        for number, name in enumerate(names):
            proof.write(base(name, localid=f"n{number}"))
        proof.write(base("last"))
        proof.start("last")
        known = set(re.findall(r"added configuration '(.*)'$", proof.log(), re.M))
        proof.place.stop_daemon()
        for name, made in names.items():
            right = made in known if made is not None else name.strip('"') not in known
            trouble = None if right else f"not loaded as {made!r}"
            proof.judge(f"config={name!r}", verdict, proof.passes("check-connection", base(name)), trouble)
    for name in settingrows.NAMES_FATAL:
        proof.clear()
        proof.write(base(name, localid="alone"))
        proof.write(base("last"))
        trouble = "the daemon takes the file" if proof.start("last") else None
        proof.judge(f"config={name!r}", FATAL, proof.passes("check-connection", base(name)), trouble)
        if trouble:
            proof.place.stop_daemon()


def prove_expressions(proof):
    """The writer does not find its own section again, or finds another one."""
    for name in settingrows.NAMES_EXPRESSIONS:
        proof.clear()
        for other in ("a", "ab", "aa"):
            proof.write(base(other))
        proof.write(base(name))
        proof.write(base(name))
        heads = re.findall(r"^conn (.*)$", (sandbox.CONF_DIR / "ipsec.conf").read_text(), re.M)
        trouble = None if sorted(heads) != sorted(["a", "ab", "aa", name]) else "the writer finds the section again"
        proof.judge(f"config={name!r}", MISREAD, proof.passes("check-connection", base(name)), trouble)


# --- The default section, and what cannot be written ------------------------------------------------------------------


def prove_default_section(proof):
    for more, verdict in (
        ({"ikeVersion": "ikev2"}, TAKEN),
        ({"ikeVersion": "ikev1", "ike": "aes256-sha256-modp2048!", "esp": "aes256gcm16!", "packetLimit": "9"}, TAKEN),
        ({}, REFUSED),
        ({"ikeVersion": "2"}, REFUSED),
        ({"ikeVersion": "ikev2", "ike": "foo"}, DROPPED),
        ({"ikeVersion": "ikev2", "lifetime": "1h"}, REFUSED),
    ):
        settings = {"default": "%default", **more}
        proof.clear()
        proof.write(settings)
        relying = base("relying", right="%any")
        del relying["ikeVersion"]
        proof.write(relying)
        proof.write(base("last", ike="", lifetime="60"))
        proof.start("last")
        sections = Sections(proof.log(), proof.status(), proof.starter_says())
        taken = sections.loaded("relying")
        trouble = (
            None if taken == (verdict == TAKEN) else f"the section that relies on it is{'' if taken else ' not'} loaded"
        )
        proof.judge(f"%default with {more}", verdict, proof.passes("check-connection", settings), trouble)
        proof.place.stop_daemon()


def prove_missing(proof):
    dpd = {"action": "clear", "interval": "30", "timeout": "150"}
    whole = base("whole", **dpd)
    for name in ("config", "reqid", "left", "right", "interval", "timeout"):
        settings = {key: value for key, value in whole.items() if key != name}
        throws_without(proof, "connection", settings, f"without {name}")
    for value in ("psk", "rsa-sig", "", "Pre-share"):
        throws_without(proof, "connection", {**whole, "authby": value}, f"authby={value!r}")
    throws_without(proof, "secret", {"key": "k"}, "without peerIp")
    throws_without(proof, "secret", {"peerIp": "10.0.0.1"}, "without key")


def throws_without(proof, command, settings, text):
    try:
        proof.library.ask(command, *proof.fields(settings))
        trouble = "the writer takes it"
    except RuntimeError:
        trouble = None
    proof.judge(text, REFUSED, proof.passes(f"check-{command}", settings), trouble)


def prove_matrix(proof):
    for settings in settingrows.matrix_settings():
        proof.judge(str(settings), TAKEN, proof.passes("check-connection", base("m", **settings)), None)


# --- Secrets ----------------------------------------------------------------------------------------------------------


def read_entry(proof, entry):
    """Lets the daemon read one entry and another below it. Returns the first one's key, and what is said of both."""
    for name in ("ipsec.secrets", "charon.log"):
        (sandbox.CONF_DIR / name).write_text("")
    for settings in (entry, {"peerIp": "9.9.9.9", "key": "last"}):
        proof.library.ask("secret", *proof.fields(settings))
    proof.place.stroke("rereadsecrets")
    end = time.monotonic() + 0.05
    while "secret: 6c:61:73:74" not in proof.log() and time.monotonic() < end:
        time.sleep(0.002)
    text = proof.log()
    keys = re.findall(r"secret: ([0-9a-f:]*)$", text, re.M)
    return [bytes.fromhex(key.replace(":", "")) for key in keys], re.findall(r"loaded IKE secret for (.*)$", text, re.M)


def prove_secrets(proof):
    proof.clear()
    proof.write(base("last"))
    proof.start("last")
    peer = "10.0.0.1"
    for verdict, keys in ((TAKEN, settingrows.KEYS_TAKEN), (MISREAD, settingrows.KEYS_MISREAD)):
        for key, made in keys.items():
            entry = {"peerIp": peer, "key": key}
            read, names = read_entry(proof, entry)
            trouble = None if read == [made, b"last"] and names == [peer, "9.9.9.9"] else f"read {read} for {names}"
            proof.judge(f"key={key[:40]!r}", verdict, proof.passes("check-secret", entry), trouble)
    for key in settingrows.KEYS_REFUSED:
        entry = {"peerIp": peer, "key": key}
        trouble = "the file is read to its end" if "9.9.9.9" in read_entry(proof, entry)[1] else None
        proof.judge(f"key={key!r}", REFUSED, proof.passes("check-secret", entry), trouble)
    for verdict, peers in ((TAKEN, settingrows.PEERS_TAKEN), (MISREAD, settingrows.PEERS_MISREAD)):
        for name in peers:
            entry = {"peerIp": name, "key": "k"}
            read, names = read_entry(proof, entry)
            trouble = None if read == [b"k", b"last"] and names == [name, "9.9.9.9"] else f"read {read} for {names}"
            proof.judge(f"peerIp={name!r}", verdict, proof.passes("check-secret", entry), trouble)
    for name in settingrows.PEERS_REFUSED:
        entry = {"peerIp": name, "key": "k"}
        names = read_entry(proof, entry)[1]
        trouble = f"loaded for {names}" if names == [name, "9.9.9.9"] else None
        proof.judge(f"peerIp={name!r}", REFUSED, proof.passes("check-secret", entry), trouble)
    anyone = {"secret": "%default", "key": "k"}
    trouble = None if read_entry(proof, anyone)[1] == ["%any", "9.9.9.9"] else "it is not loaded for %any"
    proof.judge("secret=%default", TAKEN, proof.passes("check-secret", anyone), trouble)
    nobody = {"peerIp": "", "key": "k"}
    trouble = None if read_entry(proof, nobody)[1] == ["%any", "9.9.9.9"] else "it is not loaded for %any"
    proof.judge("peerIp=''", MISREAD, proof.passes("check-secret", nobody), trouble)
    proof.place.stop_daemon()


# --- Length -----------------------------------------------------------------------------------------------------------


def prove_length(proof):
    for length, verdict in ((64000, TAKEN), (66000, DROPPED)):
        settings = base("long", localid="a" * length)
        proof.clear()
        proof.write(settings)
        proof.write(base("last"))
        proof.start("last")
        loaded = "added configuration 'long'" in proof.log()
        trouble = None if loaded == (verdict == TAKEN) else f"the section is{'' if loaded else ' not'} loaded"
        proof.judge(f"an identity of {length} bytes", verdict, proof.passes("check-connection", settings), trouble)
        proof.place.stop_daemon()


# --- The run ----------------------------------------------------------------------------------------------------------


def name_hosts(place):
    """Gives the hosts of the rows their addresses."""
    hosts = place.scratch / "hosts"
    hosts.write_text(
        "127.0.0.1 localhost\n" + "".join(f"{address} {name}\n" for name, address in settingrows.HOSTS.items())
    )
    sandbox.run("mount", "--bind", str(hosts), "/etc/hosts")


def inside(options):
    place = sandbox.Sandbox(options.inside, ("cfg = 4",))
    try:
        place.set_up()
        place.add_agent_address6(AGENT6)
        name_hosts(place)
        proof = Proof(place, interop.Library(options.config))
        for prove in (
            prove_connections,
            prove_fatal,
            prove_names,
            prove_expressions,
            prove_default_section,
            prove_missing,
            prove_matrix,
            prove_secrets,
            prove_length,
        ):
            began = time.monotonic()
            prove(proof)
            print(f"{prove.__name__.replace('prove_', ''):<16} {time.monotonic() - began:5.1f} s", flush=True)
    except RuntimeError as error:
        print(f"settings: FAILED: {error}", flush=True)
        return 1
    finally:
        sandbox.keep_log(options.keep_log)
        place.close()
    for failure in proof.failures:
        print(f"FAIL  {failure}")
    print(f"strongSwan {proof.version}: {proof.counts}, {len(proof.failures)} failed", flush=True)
    return 1 if proof.failures or proof.counts.get(TAKEN, 0) < 200 else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--config", required=True, help="the program interop-config")
    parser.add_argument("--keep-log", metavar="FILE", help="copy the last daemon's log to FILE at the end")
    parser.add_argument("--inside", help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.config = os.path.abspath(options.config)
    return inside(options) if options.inside else sandbox.run_inside("settings")


if __name__ == "__main__":
    sys.exit(main())
