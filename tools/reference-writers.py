#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""A second, slow implementation of the two file writers. It prints random cases with its answers.

Usage: reference-writers.py SEED COUNT

Writes COUNT cases to standard output for WriterDifferentialTest. A case is a list of byte strings, each as its length
in decimal, a colon and the bytes:

    writer          "connections" or "secrets"
    settings        their number, then name and value of each
    before          "1" and the old file, or "0" if there is none
    outcome         "done", or "missing" if the call is refused because of a setting
    after           the file after a call that is done, the temporary file after a refused one

This program and the library share no code. Where their results differ, one of them is wrong.
"""

import random
import re
import sys

AUTH_WORDS = {b"pre-share": b"secret", b"pki": b"pubkey"}

# All characters of names and addresses here stand for themselves in every regular-expression dialect, except the dot.
# In the library's dialect the dot does not match a carriage return.
DOT = b"[^\r\n]"


def expression(text):
    return DOT.join(re.escape(part) for part in text.split(b"."))


def lines_of(text):
    lines = text.split(b"\n")
    return lines[:-1] if lines[-1] == b"" else lines


class Missing(Exception):
    """A setting that the call needs is missing, or an authentication type is unknown."""


def need(settings, name):
    if name not in settings:
        raise Missing
    return settings[name]


def auth_word(text):
    if text not in AUTH_WORDS:
        raise Missing
    return AUTH_WORDS[text]


def copied_connections(settings, before):
    """Returns the lines above the new section."""
    name = settings.get("default", settings.get("config", b""))
    own_head = re.compile(b"\\Aconn " + expression(name) + b"\\Z")
    kept = []
    dropping = dropped = found = done = False
    for line in lines_of(before):
        is_head = line.startswith(b"conn ")
        if "uniqueids" in settings and not dropping and b"config setup" in line:
            dropping = True
            continue
        if dropping and not dropped:
            if not is_head:
                continue
            dropped = True
        if not found:
            if own_head.search(line):
                found = True
                continue
        elif not done:
            if not is_head:
                continue
            done = True
        kept.append(line)
    header = [b"config setup", b"\tuniqueids=no"] if settings.get("uniqueids") == b"add" else []
    return header + kept


def default_section(settings):
    section = [
        b"conn %default",
        b"\tauthby=" + auth_word(settings.get("authby", b"pre-share")),
        b"\tikelifetime=" + settings.get("ikelifetime", b"28800") + b"s",
        b"\tlifetime=" + settings.get("lifetime", b"3600") + b"s",
        b"\trekeymargin=3m",
        b"\tkeyingtries=1",
        b"\tmobike=no",
        b"\tkeyexchange=" + settings.get("ikeVersion", b"2"),
        b"\tauto=add",
    ]
    for name, key in (
        ("esp", "esp"),
        ("ike", "ike"),
        ("packetLimit", "lifepackets"),
        ("marginpackets", "marginpackets"),
        ("byteLimit", "lifebytes"),
        ("marginbytes", "marginbytes"),
    ):
        if name in settings:
            section.append(b"\t" + key.encode() + b"=" + settings[name])
    return section + [b"\tikedscp=110000", b""]


def ordinary_section(settings):
    section = [b"conn " + need(settings, "config")]

    def line(key, value):
        section.append(b"\t" + key.encode() + b"=" + value)

    def line_if(name, key, ending=b""):
        if name in settings:
            line(key, settings[name] + ending)

    line_if("ikeVersion", "keyexchange")
    if "authby" in settings:
        line("authby", auth_word(settings["authby"]))
    line_if("ikelifetime", "ikelifetime", b"s")
    line_if("lifetime", "lifetime", b"s")
    line("reqid", need(settings, "reqid"))
    line("left", need(settings, "left"))
    line_if("leftsubnet", "leftsubnet")
    line_if("localid", "leftid")
    line("right", need(settings, "right"))
    line_if("remoteid", "rightid")
    line("auto", b"add")
    line_if("ike", "ike")
    line_if("esp", "esp")
    if settings.get("tunnelMode") == b"IpsecGre":
        line("leftprotoport", b"47")
        line("rightprotoport", b"47")
    if settings.get("tunnelMode") == b"IpsecVti":
        line("leftsubnet", b"0.0.0.0/0")
        line("rightsubnet", b"0.0.0.0/0")
    line_if("mark", "mark")
    if "action" in settings:
        line("dpdaction", settings["action"])
        line("dpddelay", need(settings, "interval"))
        line("dpdtimeout", need(settings, "timeout"))
    if "encap" in settings:
        line("forceencaps", b"yes")
    line_if("type", "type")
    line_if("replayWindowSize", "replay_window")
    line_if("packetLimit", "lifepackets")
    line_if("marginpackets", "marginpackets")
    line_if("byteLimit", "lifebytes")
    line_if("marginbytes", "marginbytes")
    line_if("reauth", "reauth")
    line("mobike", b"no")
    line("ikedscp", b"110000")
    section.append(b"")
    return section


def text_of(lines):
    return b"".join(line + b"\n" for line in lines)


def write_connections(settings, before):
    """Returns the outcome and the resulting file."""
    copy = copied_connections(settings, before)
    if "delete" in settings:
        return b"done", text_of(copy)
    try:
        is_default = settings.get("default") == b"%default"
        section = default_section(settings) if is_default else ordinary_section(settings)
    except Missing:
        return b"missing", text_of(copy)
    return b"done", text_of(copy + section)


def write_secrets(settings, before):
    """Returns the outcome and the resulting file."""
    is_default = settings.get("secret") == b"%default"
    pattern = None
    if is_default:
        pattern = re.compile(b"\\A : PSK")
    elif "peerIp" in settings:
        pattern = re.compile(b"\\A" + expression(settings["peerIp"]) + b" :")
    copy = []
    for line in lines_of(before):
        if pattern is not None and pattern.search(line):
            pattern = None
            continue
        copy.append(line)
    if "delete" in settings:
        return b"done", text_of(copy)
    try:
        peer = b"" if is_default else need(settings, "peerIp")
        entry = peer + b" : PSK " + need(settings, "key")
    except Missing:
        return b"missing", text_of(copy)
    return b"done", text_of(copy + [entry])


# --- Random cases -----------------------------------------------------------------------------------------------------

NAMES = [
    b"a",
    b"b",
    b"ab",
    b"a.b",
    b"a-b",
    b"%default",
    b"",
    b"default-10.0.0.1-10.0.0.2-local-7",
    b"default-10.0.0.1-10.0.0.12-local-7",
    b"default-2001:db8::1-2001:db8::2-remote-4294967295",
    b"site/x",
    b".",
]
PEERS = [b"10.0.0.1", b"10.0.0.11", b"10.0.0.2", b"2001:db8::1", b"", b"%any", b"peer.example"]
VALUES = [b"", b"1", b"no", b"10.0.0.1", b"a b", b'"C=US, O=x"', b"x\ny", b"\xff\x00\r", b"aes256-sha256!"]
OPTIONAL = [
    "ikeVersion",
    "ikelifetime",
    "lifetime",
    "leftsubnet",
    "localid",
    "remoteid",
    "ike",
    "esp",
    "mark",
    "action",
    "interval",
    "timeout",
    "encap",
    "type",
    "replayWindowSize",
    "packetLimit",
    "marginpackets",
    "byteLimit",
    "marginbytes",
    "reauth",
    "colour",
]


def altered(name):
    """Returns the name with some bytes changed: to what a dot may match, or just to another name."""
    return bytes(random.choice(b"x.-\r\x00\xff") if random.random() < 0.15 else byte for byte in name)


def sometimes(chance):
    return random.random() < chance


def connection_line():
    name = random.choice(NAMES)
    return random.choice(
        [
            lambda: b"conn " + name,
            lambda: b"conn " + name,
            lambda: b"conn " + altered(name),
            lambda: b"conn " + name + random.choice([b" ", b"\r", b"x"]),
            lambda: random.choice([b" conn ", b"conn", b"Conn ", b"xconn ", b"conn  "]) + name,
            lambda: b"config setup",
            lambda: random.choice([b"# config setup", b"config  setup", b"config setup\r", b"xconfig setupx"]),
            lambda: b"",
            lambda: b"# comment",
            lambda: b"\tx=" + random.choice(VALUES).replace(b"\n", b" "),
            lambda: bytes(random.choice(b"conf setup\r\x00\xff\t") for _ in range(random.randrange(12))),
        ]
    )()


def secret_line():
    peer = random.choice(PEERS)
    return random.choice(
        [
            lambda: peer + b" : PSK x",
            lambda: peer + b" : PSK x",
            lambda: altered(peer) + b" : PSK x",
            lambda: peer + random.choice([b" :", b": PSK x", b"  : PSK x", b" : RSA x", b""]),
            lambda: b" : PSK y",
            lambda: random.choice([b": PSK y", b" : PSKy", b" :PSK y", b"\t: PSK y", b" : RSA y"]),
            lambda: b"",
            lambda: b"# comment",
            lambda: bytes(random.choice(b"10.: PSK\r\x00\xff") for _ in range(random.randrange(12))),
        ]
    )()


def old_file(line):
    lines = [line() for _ in range(random.choice([0, 1, 2, 5, 10, 20]))]
    text = b"\n".join(lines)
    return text + b"\n" if sometimes(0.7) else text


def connection_settings():
    settings = {}
    for name, chance in (("config", 0.97), ("reqid", 0.97), ("left", 0.97), ("right", 0.97)):
        if sometimes(chance):
            settings[name] = random.choice(NAMES) if name == "config" else random.choice(VALUES)
    for name in random.sample(OPTIONAL, random.choice([0, 0, 1, 3, 10, len(OPTIONAL)])):
        settings[name] = random.choice(VALUES)
    if sometimes(0.3):
        settings["authby"] = random.choice([b"pre-share", b"pki"] * 4 + [b"rsa-sig", b""])
    if sometimes(0.2):
        settings["tunnelMode"] = random.choice([b"IpsecGre", b"IpsecVti", b"other"])
    if sometimes(0.25):
        settings["default"] = random.choice([b"%default", b"%default", random.choice(NAMES)])
    if sometimes(0.4):
        settings["uniqueids"] = random.choice([b"add", b"add", b"delete", b""])
    if sometimes(0.2):
        settings["delete"] = random.choice(VALUES)
    return settings


def secret_settings():
    settings = {}
    if sometimes(0.9):
        settings["peerIp"] = random.choice(PEERS)
    if sometimes(0.9):
        settings["key"] = random.choice(VALUES)
    if sometimes(0.3):
        settings["secret"] = random.choice([b"%default", b"%default", b"other"])
    if sometimes(0.2):
        settings["delete"] = random.choice(VALUES)
    return settings


def random_case():
    """Returns the fields of one case."""
    is_secret = sometimes(0.3)
    settings = secret_settings() if is_secret else connection_settings()
    before = None if sometimes(0.03) else old_file(secret_line if is_secret else connection_line)
    outcome, after = (write_secrets if is_secret else write_connections)(settings, before or b"")
    fields = [b"secrets" if is_secret else b"connections", str(len(settings)).encode()]
    for name, value in settings.items():
        fields += [name.encode(), value]
    fields += [b"0"] if before is None else [b"1", before]
    return fields + [outcome, after]


def main():
    random.seed(int(sys.argv[1]))
    for _ in range(int(sys.argv[2])):
        for field in random_case():
            sys.stdout.buffer.write(str(len(field)).encode() + b":" + field)


if __name__ == "__main__":
    main()
