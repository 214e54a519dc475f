# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""The values of settings that the check and the daemon are compared over, and what the daemon makes of each.

A verdict is one of these:
  taken     the daemon means what the value says; the fact is what it shows of it
  refused   the daemon's parser refuses the section
  fatal     the daemon's parser refuses the whole file
  dropped   the parser takes the section, and the daemon drops it
  misread   the daemon loads the section with another meaning; the fact is what it made of the value
Where the value names a host or a subnet, the fact is whether the daemon finds the connection for a packet of that host.
"""

import dataclasses

import matrix

TAKEN, REFUSED, FATAL, DROPPED, MISREAD = "taken", "refused", "fatal", "dropped", "misread"

AGENT, AGENT6 = "10.51.0.9", "fd51::9"
HOSTS = {"nine": AGENT, "n-i_n.e": AGENT, "10-51-0-9": AGENT, "nine6": AGENT6, "ten": "10.51.0.10"}

MOST32, MOST64 = 2**32 - 1, 2**64 - 1
UNIQUE, UNIQUE_DIR = MOST32, MOST32 - 1


@dataclasses.dataclass
class Row:
    setting: str
    value: str
    verdict: str = TAKEN
    fact: object = None  # None: it is only looked whether the section is loaded
    more: dict = dataclasses.field(default_factory=dict)  # other settings of the section
    since: int = 0  # the daemon's first version with it
    until: int = 99  # the first without

    def __str__(self):
        return f"{self.setting}={self.value!r}" + (f" with {self.more}" if self.more else "")


def rows_of(setting, verdict, values, **more):
    return [Row(setting, value, verdict, None, more) for value in values]


def facts(setting, verdict, pairs, **more):
    return [Row(setting, value, verdict, fact, more) for value, fact in pairs.items()]


# --- Words and numbers ------------------------------------------------------------------------------------------------


def word_rows():
    version = {
        "ikev1": "IKEv1",
        "ikev2": "IKEv2",
        "ike": "IKEv1/2",
        "": "IKEv1/2",
        " ikev2 ": "IKEv2",
        '"ikev1"': "IKEv1",
    }
    kind = {
        "tunnel": "TUNNEL",
        "transport": "TRANSPORT",
        "transport_proxy": "TRANSPORT",
        "passthrough": "PASS",
        "pass": "PASS",
        "drop": "DROP",
        "reject": "DROP",
        "beet": "BEET",
        "": "TUNNEL",
        '"transport"': "TRANSPORT",
    }
    action = {"none": 0, "clear": 1, "hold": 2, "restart": 3, '"hold"': 2}
    dpd = {"interval": "30", "timeout": "150"}
    return [
        *facts("ikeVersion", TAKEN, version),
        *rows_of("ikeVersion", REFUSED, ("2", "1", "IKEv2", "ikev3", "v2", "ikev2 ikev1")),
        *facts("type", TAKEN, kind),
        *rows_of("type", REFUSED, ("Tunnel", "TRANSPORT", "transport-proxy", "esp", "tunnel mode")),
        *facts("action", TAKEN, action, **dpd),
        *rows_of("action", REFUSED, ("Clear", "restart_by_peer", "trap", "start", "yes"), **dpd),
        *facts("reauth", TAKEN, {"yes": 1, "no": 0, '"no"': 0, "": 1}),
        *rows_of("reauth", REFUSED, ("YES", "No", "true", "0", "1", "on", "never")),
        *rows_of("authby", TAKEN, ("pre-share", "pki")),
    ]


def number_rows():
    beyond32, beyond64 = str(MOST32 + 8), "18446744073709551617"
    none = ("abc", "0x10", "7x", "7.5", "7 8", "7,8", "%unique", "--7", '"7 "')
    rows = []
    for setting, most in (("reqid", MOST32), ("packetLimit", MOST64), ("byteLimit", MOST64)):
        rows += facts(setting, TAKEN, {"7": 7, "0": 0, str(most): most, "010": 10, "+7": 7, " 7 ": 7, '"7"': 7})
        rows += facts(setting, MISREAD, {"-1": most, "-4": most - 3})
        rows += rows_of(setting, REFUSED, none)
    rows += facts("reqid", MISREAD, {beyond32: 7, beyond64: MOST32, "": 0})
    rows += facts("packetLimit", MISREAD, {beyond64: MOST64})
    rows += facts("byteLimit", MISREAD, {beyond64: MOST64})
    for margin, limit in (("marginpackets", "packetLimit"), ("marginbytes", "byteLimit")):
        rows += facts(margin, TAKEN, {"4": 4, "11": 11, "0": 0, "": 0}, **{limit: "12"})
        rows += facts(margin, MISREAD, {"-4": MOST64 - 3, beyond64: MOST64})
        rows += rows_of(margin, REFUSED, none)
        rows += facts(margin, TAKEN, {"4": 4})  # the limit may be in the default section
        rows += facts(margin, TAKEN, {"4": 4}, **{limit: "0"})
    window = {"0": 0, "64": 64, "65536": 65536, "-1": MOST32, str(MOST32 - 1): MOST32 - 1, "": MOST32, "+32": 32}
    rows += facts("replayWindowSize", TAKEN, window)
    # The highest number is the daemon's -1: its own size.
    rows += facts("replayWindowSize", MISREAD, {str(MOST32): MOST32, "-2": MOST32 - 1, str(MOST32 + 1): 0})
    rows += rows_of("replayWindowSize", REFUSED, none)
    return rows


def time_rows():
    rows = []
    for setting in ("ikelifetime", "lifetime"):
        rows += facts(setting, TAKEN, {"28800": 28800, "0": 0, "86400": 86400, "010": 10, "+5": 5, str(MOST32): MOST32})
        rows += facts(setting, MISREAD, {"": 0, "-5": MOST64 - 4, "18446744073709551617": MOST64})
        rows += rows_of(setting, REFUSED, ("1h", "28800s", "0x10", "1.5", "3600 ", '"3600"', "60m", "abc"))
    rows += facts("lifetime", TAKEN, {str(MOST32 + 8): MOST32 + 8, str(MOST64): MOST64})
    delay = {"30": 30, "30s": 30, "2m": 120, "1h": 3600, "1d": 86400, "0": 0, "+30": 30, '"30"': 30, "030": 30}
    dpd = {"action": "clear", "timeout": "150"}
    rows += facts("interval", TAKEN, {**delay, str(MOST32): MOST32}, **dpd)
    rows += facts("interval", MISREAD, {"": 30, "m": 0, "s": 0, "-5": MOST64 - 4}, **dpd)
    rows += facts("interval", MISREAD, {"71582789m": MOST32 + 45, "307445734561825861m": 44}, **dpd)
    none = ("abc", "1.5", "30ms", "30S", "1w", "30 s", "0x1e")
    rows += rows_of("interval", REFUSED, none, **dpd)
    # The list of connections shows what is left of it in 32 bits.
    rows += [Row("interval", str(MOST32 + 31), MISREAD, "dpddelay=30s", dpd)]
    dpd = {"action": "clear", "interval": "30"}
    rows += facts("timeout", TAKEN, delay, **dpd)
    rows += facts("timeout", MISREAD, {"": 150, "m": 0, "-5": MOST64 - 4, "18446744073709551617": MOST64}, **dpd)
    rows += rows_of("timeout", REFUSED, none, **dpd)
    return rows


def mark_rows():
    taken = {
        "5": (5, MOST32),
        "0": (0, MOST32),
        "0x10": (16, MOST32),
        "5/0xff": (5, 255),
        "5/255": (5, 255),
        "0x10/0xFFFFFFFF": (16, MOST32),
        "0XFF/0XFF": (255, 255),
        "0/0": (0, 0),
        "0/0xff": (0, 255),
        "010": (8, MOST32),
        "+5": (5, MOST32),
        "5/ 255": (5, 255),
        '"5/255"': (5, 255),
        "%unique": (UNIQUE, MOST32),
        "%unique-dir": (UNIQUE_DIR, MOST32),
        "%Unique": (UNIQUE, MOST32),
        "%unique/0xff": (UNIQUE, 255),
        "%unique-dir/0xff": (UNIQUE_DIR, 255),
        str(MOST32 - 2): (MOST32 - 2, MOST32),
        "": (0, 0),
    }
    misread = {
        "-1": (UNIQUE, MOST32),
        str(MOST32): (UNIQUE, MOST32),
        "0xfffffffe": (UNIQUE_DIR, MOST32),
        str(MOST32 + 1): (0, MOST32),
        "0x1ffffffff": (UNIQUE, MOST32),
        "18446744073709551617": (UNIQUE, MOST32),
        "5/": (0, 0),
        "/5": (0, 5),
        "%unique/": (UNIQUE, 0),
        "5/4294967296": (0, 0),
        "5/-1": (5, MOST32),
        "7/3": (3, 3),
        "5/0": (0, 0),
    }
    refused = ("abc", "5x", "5/0xffx", "0x", "09", "5 / 255", "%same", "%uniquex", "%unique-", "5//255", "5/%unique")
    return [*facts("mark", TAKEN, taken), *facts("mark", MISREAD, misread), *rows_of("mark", REFUSED, refused)]


# --- Addresses --------------------------------------------------------------------------------------------------------


def host_rows():
    taken = f"""{AGENT}|%any|%any4|%any6|%defaultroute|10.51.0.1-10.51.0.20|10.51.0.0/24|{AGENT}/32|10.51.0.0/0
        |0.0.0.0/0|0.0.0.0|::|0::0|::/0|{AGENT6}|fd51::/64|fd51::1-fd51::20|FD51:0::9|fd51:0:0:0:0:0:0:9
        |{AGENT6}/128|fd51::0.0.0.9|10.51.0.7,{AGENT}|10.51.0.7, {AGENT}|10.51.0.7 ,{AGENT}|10.51.0.7,,{AGENT}
        |10.51.0.7,{AGENT},|,{AGENT}|10.51.0.7,10.51.0.0/24,fd51::/64|{AGENT6},{AGENT}|fd51::7,{AGENT6}
        |10.51.0.7,10.51.0.1-10.51.0.20|10.51.0.7,%any|10.51.0.7,%any4|10.51.0.7,%any6|%10.51.0.7|%fd51::7|%ten
        |%ten,nine|%nine|%fd51::/64|10.51.0.1 - 10.51.0.20|10.51.0.1- 10.51.0.20|10.51.0.1 -10.51.0.20|10.51.0.0/ 24
        |10.51.0.0/+24|10.51.0.0/024|nine|NINE|nine6|n-i_n.e|10-51-0-9|nine,10.51.0.7|10.51.0.7,nine|"{AGENT}"
        |"10.51.0.7, {AGENT}\""""
    unknown = f"""{AGENT}.|10.51.0.256|10.51.0|10|10.51.0.009|169739273|10.51.0.20-10.51.0.1|10.51.0.1-20|{AGENT}-
        |-{AGENT}|10.51.0.7 {AGENT}|10.51.0.7;{AGENT}|10.51.0.0/255.255.255.0|10.51.0.0 /24|10.51.0.0 / 24
        |10.51.0.0/-1|nine/24|10.51.0.7,%defaultroute|10.51.0.7,%nine|{AGENT}[500]|[{AGENT6}]|{AGENT6}%lo|fd51::9::1
        |fd51:9|fd51::1-10.51.0.20|fd51::20-fd51::1|10.51.0.1-10.51.0.9-10.51.0.20|{AGENT}:500"""
    # The daemon finds these connections too, but not by what they say.
    ignored = """10.51.0.0/24x|10.51.0.0/|10.51.0.9/33|fd51::9/129|%any4,10.51.0.7|%any,10.51.0.7
        |%defaultroute,10.51.0.7|%|%%any|% nine|%any/0|10.51.0.0/24/24|10.51.9|10.51.0.0/4294967320"""
    rows = [Row("right", value.strip(), TAKEN, True) for value in taken.split("|")]
    rows += [Row("right", f" {AGENT} ", TAKEN, True)]
    rows += [Row("right", value.strip(), MISREAD, False) for value in unknown.split("|")]
    rows += [Row("right", value.strip(), MISREAD, True) for value in ignored.split("|")]
    rows += [Row("right", f"{AGENT}#x", MISREAD, AGENT), Row("right", f"{AGENT} #x", MISREAD, AGENT)]
    rows += [Row("right", "", MISREAD, "%any"), Row("right", "10.51.0.1-fd51::20", MISREAD, False)]
    near = (
        "10.50.0.1|%any|%any4|%defaultroute|10.50.0.1-10.50.0.9|10.50.0.0/24|fd50::1|fd50::/64|fd50::1-fd50::20|%any6"
    )
    near += "|10.50.0.7,10.50.0.1|%10.50.0.7|%no.example.org|fd50::7,fd50::1|0.0.0.0|::|10.50.0.7,%any"
    rows += [Row("left", value, TAKEN, True) for value in near.split("|")]
    far = "10.50.0.256|10.50.0|10.50.0.9-10.50.0.1|10.50.0.0/255.255.255.0|fd50::1%lo|10.50.0.7 10.50.0.1|fd50:1"
    rows += [Row("left", value, MISREAD, False) for value in far.split("|")]
    return rows + [Row("left", "", MISREAD, "%any")]


def subnet_rows():
    taken = {
        "10.1.0.0/16": "10.1.0.0/16",
        "10.1.0.1": "10.1.0.1/32",
        "10.1.0.1/16": "10.1.0.0/16",
        "10.1.0.0/0": "0.0.0.0/0",
        "0.0.0.0/0": "0.0.0.0/0",
        "::/0": "::/0",
        "%any/0": "0.0.0.0/0",
        "%any6/0": "::/0",
        "FD50::1": "fd50::1/128",
        "fd50::/64": "fd50::/64",
        "10.1.0.0/16,10.2.0.0/16": "10.1.0.0/16 10.2.0.0/16",
        "10.1.0.0/16, 10.2.0.0/16": "10.1.0.0/16 10.2.0.0/16",
        "10.1.0.0/16,,10.2.0.0/16,": "10.1.0.0/16 10.2.0.0/16",
        "0.0.0.0/0,::/0": "0.0.0.0/0 ::/0",
        "10.0.0.1[tcp/http],10.0.0.2[6/80]": "10.0.0.1/32[tcp/http] 10.0.0.2/32[tcp/http]",
        "fec1::1[udp],10.0.0.0/16[/53]": "fec1::1/128[udp] 10.0.0.0/16[0/domain]",
        "fec1::1[udp/%any],10.0.0.0/16[%any/53]": "fec1::1/128[udp] 10.0.0.0/16[0/domain]",
        "%dynamic": "dynamic",
        "%dynamic[tcp]": "dynamic[tcp]",
        "%dynamic[udp/4500],10.1.0.0/16": "dynamic[udp/ipsec-nat-t] 10.1.0.0/16",
        "10.1.0.0/16[icmp/2048]": "10.1.0.0/16[icmp/8]",
        "10.1.0.0/16[ipv6-icmp/128]": "10.1.0.0/16[ipv6-icmp/128]",
        "10.1.0.0/16[tcp/%opaque]": "10.1.0.0/16[tcp/OPAQUE]",
        "10.1.0.0/16[6/1024-65535]": "10.1.0.0/16[tcp/1024-65535]",
        "10.1.0.0/16[6/0x10-0x20]": "10.1.0.0/16[tcp/16-32]",
        "10.1.0.0/16[0x6]": "10.1.0.0/16[tcp]",
        "10.1.0.0/16[255]": "10.1.0.0/16[255]",
        "10.1.0.0/16[6/65534]": "10.1.0.0/16[tcp/65534]",
        "10.1.0.0/16[]": "10.1.0.0/16",
        "10.1.0.0/16[/]": "10.1.0.0/16",
        "10.1.0.0/16[6/]": "10.1.0.0/16[tcp]",
        "10.1.0.0/16[TCP]": "10.1.0.0/16[tcp]",
        "10.1.0.0/016": "10.1.0.0/16",
        "10.1.0.0/ 16": "10.1.0.0/16",
        '"10.1.0.0/16"': "10.1.0.0/16",
        "": "dynamic",
    }
    misread = {
        "10.1.0.0/255.255.0.0": "10.1.0.0/32",
        "10.1.0.0/33": "10.1.0.0/32",
        "fd50::/129": "fd50::/128",
        "10.1.0.0/-1": "10.1.0.0/32",
        "10.1.0.0/x": "0.0.0.0/0",
        "10.1.0.0/": "0.0.0.0/0",
        "10.1.0.0/0x10": "0.0.0.0/0",
        "10.1.0.0/16x": "10.1.0.0/16",
        "10.1.0.0/4294967312": "10.1.0.0/16",
        "10.1.0.0/16 10.2.0.0/16": "10.1.0.0/16",
        "10.1.0.0/16;10.2.0.0/16": "10.1.0.0/16",
        "10.1.0.0/16[6/80]x": "10.1.0.0/16[tcp/http]",
        "10.1.0.0[6]/16": "10.1.0.0/32[tcp]",
        "%any": "0.0.0.0/32",
        "%any6": "::/128",
        "%any4/16": "0.0.0.0/16",
        "10.1.0.0/16,10.1/16": "10.1.0.0/16",
        "10.1.0.0/16,10.2.0.0-10.2.0.9": "10.1.0.0/16",
        "10.1.0.0/16,fd50::0.0.0.1": "10.1.0.0/16",
        "10.1.0.0/16,010.2.0.0/16": "10.1.0.0/16",
        "10.1.0.0/16,host.example.org": "10.1.0.0/16",
        "10.1.0.0/16,fe80::1%eth0": "10.1.0.0/16",
        "10.1.0.0/16,%DYNAMIC": "10.1.0.0/16",
        "10.1.0.0/16,vhost:%no": "10.1.0.0/16",
        "10.1.0.0/16,10.2.0.0 /16": "10.1.0.0/16",
        "10.1.0.0/16,/16": "10.1.0.0/16",
    }
    lost = ("300", "-1", "6/65536", "6/-1", "%ANY", "6/%OPAQUE", "6/80/1", "[6]", "6]", "6][17", "6x", "6/1-2x")
    misread |= {f"10.1.0.0/16,10.2.0.0/16[{inside}]": "10.1.0.0/16" for inside in lost}
    misread["10.1.0.0/16,10.2.0.0/16[6/80"] = "10.1.0.0/16"
    return [*facts("leftsubnet", TAKEN, taken), *facts("leftsubnet", MISREAD, misread)]


def identity_rows():
    same = (
        "10.0.0.1",
        "fqdn.example.org",
        "user@example.org",
        "fd50::1",
        "a,b",
        "a;b",
        "a:b",
        "a!",
        "a'b",
        "$HOME",
        "a{b}",
    )
    same += ("10.0.0.0/8", "a b", "x-y_z.example.org", "include", "conn", "config setup", "999.1.1.1")
    taken = {value: value for value in same} | {
        "@fqdn.example.org": "fqdn.example.org",
        "@@user": "user",
        "@#30313233": "0123",
        '"@#30313233"': "0123",
        "%any": "",
        "*": "",
        "": "%default",
        '"C=CH, O=strongSwan, CN=peer"': "C=CH, O=strongSwan, CN=peer",
        '"CN=peer"': "CN=peer",
        '"/C=CH/O=strongSwan/CN=peer"': "C=CH, O=strongSwan, CN=peer",
        '"C=CH, O=strongSwan, CN=*"': "C=CH, O=strongSwan, CN=*",
        "keyid:foo": "foo",
        '"keyid:#616263"': "abc",
        '"ipv4:#0a000001"': "10.0.0.1",
        "fqdn:foo": "foo",
        "email:foo@bar": "foo@bar",
        "{11}:foo": "foo",
        '"a#b"': "a#b",
        '"a  b"': "a  b",
        '"a\\"b"': 'a"b',
        '"a\\\\b"': "a\\b",
        '"include b"': "include b",
    }
    misread = {
        "a#b": "a",
        "a #b": "a",
        "keyid:#616263": "",
        "@#30#31": "0",
        "x@#30": "x@",
        "a  b": "a b",
        '"a" b': "a b",
        'a "b"': "a b",
        '"a""b"': "a b",
        '"a\\q"': "aq",
        "@#zz": "00",
        '"@#30 31"': "03:00:31",
        "a include b": "a",
        "a\tb": "a b",
    }
    fatal = ("C=CH, O=strongSwan, CN=peer", "CN=peer", "a=", "=a", '"a', 'a"b', '"a\\"')
    return [
        *facts("localid", TAKEN, taken),
        *facts("localid", MISREAD, misread),
        *rows_of("localid", FATAL, fatal),
        *facts(
            "remoteid", TAKEN, {'"C=CH, CN=peer"': "C=CH, CN=peer", "@host.example.org": "host.example.org", "%a": "a"}
        ),
        *facts("remoteid", MISREAD, {"host#1": "host"}),
        *rows_of("remoteid", FATAL, ("CN=peer",)),
    ]


# --- Proposals --------------------------------------------------------------------------------------------------------

CIPHERS = """3des aes aes128 aes128ctr aes192 aes192ctr aes256 aes256ctr blowfish blowfish128 blowfish192 blowfish256
    camellia camellia128 camellia128ctr camellia192 camellia192ctr camellia256 camellia256ctr cast128 des null serpent
    serpent128 serpent192 serpent256 twofish twofish128 twofish192 twofish256""".split()
LENGTHS = ("8", "12", "16", "64", "96", "128")
AEADS = [f"aes{size}{mode}{icv}" for size in (128, 192, 256) for mode in ("ccm", "gcm") for icv in ("", *LENGTHS)]
AEADS += [f"aes{size}gmac" for size in (128, 192, 256)]
AEADS += [f"camellia{size}ccm{icv}" for size in (128, 192, 256) for icv in LENGTHS]
AEADS += ["chacha20poly1305", "chacha20poly1305compat"]
INTEGRITY = """aescmac aesxcbc camelliaxcbc md5 md5_128 sha sha1 sha1_160 sha256 sha2_256 sha2_384 sha2_512 sha384
    sha512""".split()
SHORT_INTEGRITY = ["sha256_96", "sha2_256_96"]
PRFS = [f"prf{name}" for name in "aescmac aesxcbc camelliaxcbc md5 sha1 sha256 sha384 sha512".split()]
GROUPS = """curve25519 curve448 ecp192 ecp224 ecp224bp ecp256 ecp256bp ecp384 ecp384bp ecp512bp ecp521 modp1024
    modp1024s160 modp1536 modp2048 modp2048s224 modp2048s256 modp3072 modp4096 modp6144 modp768 modp8192 modpnull x25519
    x448""".split()
OLD_GROUPS = "newhope128 ntru112 ntru128 ntru192 ntru256".split()  # up to 5.9
NEW_GROUPS = "gost256 gost512 mlkem512 mlkem768 mlkem1024".split()  # from 6.0 on
NO_GROUPS = ["none", "modpnone"]


def keyword_rows():
    for word in CIPHERS:
        yield from rows_of("ike", TAKEN, (f"{word}-sha256-modp2048!",))
        yield from rows_of("esp", TAKEN, (f"{word}-sha256!", f"{word}!"))
    for word in AEADS:
        yield from rows_of("ike", TAKEN, (f"{word}-prfsha256-modp2048!",))
        yield from rows_of("esp", TAKEN, (f"{word}!",))
    for word in INTEGRITY:
        yield from rows_of("ike", TAKEN, (f"aes256-{word}-modp2048!", f"aes256gcm16-{word}-modp2048!"))
        yield from rows_of("esp", TAKEN, (f"aes256-{word}!",))
    for word in SHORT_INTEGRITY:
        yield from rows_of("ike", TAKEN, (f"aes256-{word}-prfsha256-modp2048!",))
        yield from rows_of("ike", DROPPED, (f"aes256-{word}-modp2048!", f"aes256gcm16-{word}-modp2048!"))
        yield from rows_of("esp", TAKEN, (f"aes256-{word}!",))
    for word in PRFS:
        yield from rows_of("ike", TAKEN, (f"aes256-sha256-{word}-modp2048!",))
        yield from rows_of("ike", DROPPED, (f"aes256-{word}-modp2048!",))
    for word, since, until in (
        *((word, 0, 99) for word in GROUPS),
        *((word, 0, 6) for word in OLD_GROUPS),
        *((word, 6, 99) for word in NEW_GROUPS),
    ):
        yield Row("ike", f"aes256-sha256-{word}!", since=since, until=until)
        yield Row("esp", f"aes256-sha256-{word}!", since=since, until=until)
        if not until < 99:
            for number in range(1, 8):
                yield Row("ike", f"aes256-sha256-modp2048-ke{number}_{word}!", since=6)
    for word in NO_GROUPS:
        yield from rows_of("ike", DROPPED, (f"aes256-sha256-{word}!",))
        yield from rows_of("ike", TAKEN, (f"aes256-sha256-modp2048-{word}!",))
        yield from rows_of("esp", TAKEN, (f"aes256-sha256-{word}!",))
        yield Row("ike", f"aes256-sha256-x25519-ke1_{word}!", since=6)


def proposal_rows():
    ike = """aes256-sha256-modp2048|aes256-sha256-modp2048,aes128-sha1-modp1024!
        |aes256-sha256-modp2048, aes128-sha1-modp1024|aes256-sha256-modp2048 ,aes128-sha1-modp1024 !
        |aes256-sha256-modp2048 !|aes256 - sha256-modp2048|aes256--sha256-modp2048|-aes256-sha256-modp2048-
        |"aes256-sha256-modp2048!"|aes256-sha256-modp2048-modp1024|aes256-aes128-sha256-sha1-modp2048
        |aes256-sha256-prfsha1-prfsha256-modp2048|aes256-sha256-modp2048-esn|aes256-sha256-modp2048-noesn
        |aes256gcm16-aes128gcm16-prfsha256-modp2048|modp2048-sha256-aes256"""
    esp = """aes256-sha256|aes256-sha256-modp2048!|aes256-sha256-esn|aes256-sha256-esn-noesn!|aes256gcm16-esn
        |aes256gcm16-sha256|aes256-sha256-prfsha256|aes256, aes128!|aes256-|null-sha256|aes256-null
        |aes256ccm-aes256gcm|sha256-aes256"""
    ike_dropped = """foo|aes256-sha256|aes256-modp2048|sha256-modp2048|modp2048|esn|!|,|-|aes256gcm16-modp2048
        |aes256gcm16-aes128-prfsha256-modp2048|aes256-aes256gmac-prfsha256-modp2048|aes256-prfsha256-modp2048
        |null-prfsha256-modp2048|aes256-sha256-prfsha256|AES256-SHA256-MODP2048|aes256-sha256-modp2048,
        |,aes256-sha256-modp2048|aes256-sha256-modp2048,,aes128-sha1-modp1024|aes256-sha256-modp2048, !
        |aes256-sha256-modp2048!,aes128-sha1-modp1024|aes256-sha256-modp2048!!|!aes256-sha256-modp2048
        |aes256-sha256-modp2048,foo|foo,aes256-sha256-modp2048|aes512-sha256-modp2048|aes256-sha256-modp2048x
        |default|aes256-sha256-modp2048 aes128|aes256_sha256_modp2048|aes256-sha256-ke1_x25519
        |aes256-sha256-modp2048-ke8_x25519|aes256-sha256-modp2048-ke0_x25519|aes256-sha256-modp2048-ke1_ntru128
        |aes256-sha256-modp2048-ke1_sha256|aes256-sha256-modp2048-ke1_|aes256-sha256-modp2048-ke_x25519
        |ke1_aes256-sha256-modp2048|" " """
    esp_dropped = """foo|sha256|modp2048|esn|prfsha256|!|-|aes256,|aes256gcm16-aes256|aes256gcm16-null
        |aes256-aes256gmac-sha256|AES256|aes256!aes128|aes256-sha265|des_iv64-md5|" " """
    rows = [*keyword_rows()]
    for setting, verdict, values in (
        ("ike", TAKEN, ike),
        ("esp", TAKEN, esp),
        ("ike", DROPPED, ike_dropped),
        ("esp", DROPPED, esp_dropped),
    ):
        rows += rows_of(setting, verdict, [value.strip() for value in values.split("|")])
    rows += rows_of("ike", DROPPED, ("aes256-sha256", "foo"), ikeVersion="ikev1")
    rows += rows_of("esp", DROPPED, ("foo",), type="passthrough")
    return [*rows, *rows_of("ike", TAKEN, ("",)), *rows_of("esp", TAKEN, ("",))]


# --- Sections ---------------------------------------------------------------------------------------------------------


def section_rows():
    dpd = {"action": "clear", "interval": "30", "timeout": "150"}
    return [
        Row("tunnelMode", "IpsecGre", TAKEN, "dynamic[gre] === dynamic[gre]"),
        Row("tunnelMode", "IpsecVti", TAKEN, "0.0.0.0/0 === 0.0.0.0/0"),
        Row("tunnelMode", "IpsecVti", TAKEN, "0.0.0.0/0 === 0.0.0.0/0", {"leftsubnet": "nothing"}),
        Row("tunnelMode", "none", TAKEN, "dynamic === dynamic"),
        Row("tunnelMode", "ipsecgre", MISREAD, "dynamic === dynamic"),
        Row("tunnelMode", "IpsecVTI", MISREAD, "dynamic === dynamic"),
        Row("tunnelMode", "", TAKEN, "dynamic === dynamic"),
        *rows_of("encap", TAKEN, ("", "no", "anything")),
        *rows_of("interval", TAKEN, ("not used",)),
        *rows_of("timeout", TAKEN, ("not used",)),
        Row("secret", "x", MISREAD, "dynamic === dynamic"),
        Row("IkeVersion", "ikev1", MISREAD, "IKEv2"),
        Row("byteLimit", "1000", TAKEN, 1000, {**dpd, "marginbytes": "10", "mark": "5/0xff", "reauth": "no"}),
        Row("right", f"{AGENT}\n\treqid=9", MISREAD, AGENT),
        Row("right", f"{AGENT}\r", MISREAD, False),
    ]


NAMES_TAKEN = (
    "a",
    "a.b",
    "a,b",
    "a:b",
    "a%b",
    "a/b",
    "a@b",
    "a!b",
    "a&b",
    "a;b",
    "a<b",
    "a_b",
    "-a",
    "0",
    "conn",
    "config",
)
NAMES_TAKEN += (
    "default-10.0.0.1-10.0.0.2-local-7",
    "default-2001:db8::1-2001:db8::2-remote-4294967295",
    "@#30",
    "%any",
)
NAMES_QUOTED = {'"a b"': "a b", '"a=b"': "a=b", '"a#b"': "a#b"}
NAMES_MISREAD = {"a#b": "a", " a": "a", "%default": None, '"%default"': None}
NAMES_FATAL = ("a b", "a=b", "#a", 'a"b', '"a', '""', "include x")
# The writer would take these for another name's, or would not find them again.
NAMES_EXPRESSIONS = ("a+b", "a*", "(a)", "[a]", "a?", "a|b", "^a", "a$", "{1}", "a\\b")


def connection_rows():
    return [
        *word_rows(),
        *number_rows(),
        *time_rows(),
        *mark_rows(),
        *host_rows(),
        *subnet_rows(),
        *identity_rows(),
        *proposal_rows(),
        *section_rows(),
    ]


def matrix_settings():
    """The settings of every connection that the matrix negotiates over."""
    for row in matrix.all_rows():
        yield {"ike": row.suite.ike(), "esp": row.suite.esp(), "ikeVersion": f"ikev{row.suite.version}"}
    yield {"ike": matrix.every_ike_proposal(), "esp": matrix.every_esp_proposal(), "ikeVersion": "ike"}


# --- Secrets ----------------------------------------------------------------------------------------------------------

# The key as it is in the file, and the bytes that the daemon reads.
KEYS_TAKEN = {
    '"abc"': b"abc",
    "abc": b"abc",
    '"a b"': b"a b",
    "'a b'": b"a b",
    '"it\'s"': b"it's",
    "'a\"b'": b'a"b',
    "0x616263": b"abc",
    "0X6162": b"ab",
    "0xABcd": b"\xab\xcd",
    "0x6162636": b"\x06\x16\x26\x36",
    "0x61:62:63": b"abc",
    "0sYWJj": b"abc",
    "0SYWJj": b"abc",
    "0sYWJjZA==": b"abcd",
    "0sYWI=": b"ab",
    "0s+/+/": b"\xfb\xff\xbf",
    '"0x616263"': b"0x616263",
    "0x": b"0x",
    "a#b": b"a#b",
    "x#": b"x#",
    '"a#b"': b"a#b",
    'a"bc': b'a"bc',
    "it's": b"it's",
    "a\\b": b"a\\b",
    '"a\\b"': b"a\\b",
    "a:b": b"a:b",
    ":": b":",
    "=": b"=",
    "%prompt": b"%prompt",
    " abc ": b"abc",
    ' "abc" ': b"abc",
    "bücher": "bücher".encode(),
    "a" * 5000: b"a" * 5000,
}
KEYS_MISREAD = {
    "a b": b"a",
    "a : b": b"a",
    '"a" b': b"a",
    '"a"b': b"a",
    '"a"b"': b"a",
    '"a\\"b"': b"a\\",
    "'it's'": b"it",
    '"a" #c': b"a",
    "abc #x": b"abc",
    "0x61 62": b"a",
    "0xzz": b"\x00",
    "0x61_62": b"\x06\x10\x62",
    "0x61:6": b"\x01\x06",
    "0s!!": b"",
    "0sYWJjZA": b"abc",
    "0sYQ=": b"",
    "0s YWJj": b"0s",
    "a\tb": b"a",
}
KEYS_REFUSED = ("", " ", '"abc', "'ab", '"', "#ab", "a\nb c")

PEERS_TAKEN = (
    "10.0.0.1",
    "2001:db8::1",
    "%any",
    "%any4",
    "%any6",
    "0.0.0.0",
    "::",
    "host.example.org",
    "@host.example.org",
)
PEERS_TAKEN += (
    "user@example.org",
    "10.0.0.0/24",
    "10.0.0.1-10.0.0.9",
    "10.0.0.1 10.0.0.2",
    "%any 10.0.0.1",
    "host-1_a",
)
PEERS_TAKEN += ('"C=CH, O=x"', "@#3031", "keyid:foo", "fqdn:foo", "included")
# The daemon loads the key under a name that no peer has.
PEERS_MISREAD = ("10.0.0.256", "10.0.0", "10.0.0.1, 10.0.0.2", "10.0.0.1,10.0.0.2", "2001:db8::1::2", "fe80::1%eth0")
PEERS_MISREAD += ("10.0.0.1:", "10.0.0.1/33", "%defaultroute", "%foo", "a :b", "10.0.0.9-10.0.0.1")
PEERS_REFUSED = ("a :", '"a b', "include", "include x", "#a")
