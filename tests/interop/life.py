# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Rows about changes of the configuration, from the library through the daemon to the agent."""

import re
import socket
import time

import sandbox
from matrix import Suite

# The agent's exit codes.
SUCCESS, TIMEOUT, REFUSED, NOT_TRUSTED = 0, 3, 4, 5

SECTION = "life"
BULK = 200
FIRST_NUMBER = 5000  # of the connections here; the matrix counts from 1
IKE_PORTS = (500, 4500)
DSCP_110000 = 0xC0
ETH_P_ALL = 3
ETH_P_IP, ETH_P_IPV6 = 0x0800, 0x86DD


def check_stopped(bench, when):
    bench.report(SECTION, f"isSswanRunning is false {when}", None if not bench.library.running() else "it is true")


def check_running(bench):
    bench.report(
        SECTION, "isSswanRunning is true while the daemon lives", None if bench.library.running() else "it is false"
    )


def last_line(result):
    lines = (result.stderr or result.stdout).strip().splitlines()
    return lines[-1].removeprefix("ipsec-agent: ") if lines else ""


def expect(bench, text, address, suite, psk, code, message="", extra=()):
    """One negotiation with an expected exit code and, on failure, an expected word in the message."""
    result = bench.negotiate(address, [*suite.arguments(), *extra], psk)
    trouble = None
    if result.returncode != code:
        trouble = f"exit code {result.returncode}, not {code}: {result.stderr.strip()}"
    elif message not in result.stderr + result.stdout:
        trouble = f"no {message} in: {result.stderr.strip()}"
    bench.report(SECTION, text, trouble, last_line(result))
    return result


def reread(bench, *expected):
    """Makes the daemon reread the connections, and waits until its log has each of the expected texts."""
    offset = bench.log_size()
    bench.place.reread_connections()
    sandbox.wait_until(lambda: all(text in bench.log_since(offset) for text in expected), f"the log's {expected[0]}")


def added(name):
    return f"added configuration '{name}'"


def deleted(name):
    return f"deleted connection '{name}'"


def connection_rows(bench):
    """A connection is added, changed and removed. Another one, whose name begins with the same name, stays."""
    old, new = Suite(group=20, encr="aes128"), Suite(group=21, encr="aes256", prf="sha512")
    beside_suite = Suite(group=14)
    address, psk = "10.51.200.1", "of the changing connection"
    expect(bench, "a peer without a connection is refused", address, old, psk, REFUSED, "NO_PROPOSAL_CHOSEN")

    beside = bench.configure(address, FIRST_NUMBER * 10, beside_suite, psk)
    name = bench.configure(address, FIRST_NUMBER, old, psk)
    reread(bench, added(name), added(beside))
    bench.place.stroke("rereadsecrets")
    expect(bench, "an added connection is up after SIGHUP", address, old, psk, SUCCESS)
    expect(bench, "so is its neighbour", address, beside_suite, psk, SUCCESS)

    bench.configure(address, FIRST_NUMBER, new, psk)
    reread(bench, deleted(name), added(name))
    expect(bench, "a replaced connection refuses its old suite", address, old, psk, REFUSED, "NO_PROPOSAL_CHOSEN")
    expect(bench, "a replaced connection takes its new suite", address, new, psk, SUCCESS)
    expect(bench, "its neighbour is untouched by the replacement", address, beside_suite, psk, SUCCESS)

    bench.library.connection(config=name, delete="")
    reread(bench, deleted(name))
    expect(bench, "a deleted connection is refused", address, new, psk, REFUSED, "NO_PROPOSAL_CHOSEN")
    expect(bench, "its neighbour is untouched by the deletion", address, beside_suite, psk, SUCCESS)


def file_rows(bench):
    """The daemon accepts a section's lines in any order, so their order is read from the file."""
    suite, address, number = Suite(), "10.51.205.1", FIRST_NUMBER + 8
    name = bench.configure(
        address,
        number,
        suite,
        "of the file",
        leftsubnet="10.60.0.0/24",
        localid="10.50.0.1",
        remoteid=address,
        ikelifetime="7200",
        lifetime="900",
        action="clear",
        interval="30",
        timeout="120",
        type="tunnel",
        replayWindowSize="64",
        encap="",
        reauth="no",
    )
    expected = (
        [f"conn {name}"]
        + [
            "\t" + line
            for line in (
                "keyexchange=ikev2",
                "authby=secret",
                "ikelifetime=7200s",
                "lifetime=900s",
                f"reqid={number}",
                f"left={sandbox.DAEMON}",
                "leftsubnet=10.60.0.0/24",
                "leftid=10.50.0.1",
                f"right={address}",
                f"rightid={address}",
                "auto=add",
                f"ike={suite.ike()}",
                f"esp={suite.esp()}",
                "dpdaction=clear",
                "dpddelay=30",
                "dpdtimeout=120",
                "forceencaps=yes",
                "type=tunnel",
                "replay_window=64",
                "reauth=no",
                "mobike=no",
                "ikedscp=110000",
            )
        ]
        + [""]
    )
    written = (sandbox.CONF_DIR / "ipsec.conf").read_text().split("\n")[:-1]
    wrong = [line for line, right in zip(written[-len(expected) :], expected) if line != right]
    bench.report(SECTION, "a section's lines stand in their order", f"first wrong: {wrong[0]!r}" if wrong else None)
    reread(bench, added(name))
    bench.place.stroke("rereadsecrets")
    bench.place.daemon_run("ip", "addr", "add", "10.60.0.1/32", "dev", "lo")
    expect(
        bench,
        "an echo reaches the network behind leftsubnet",
        address,
        suite,
        "of the file",
        SUCCESS,
        "echo",
        extra=("--ts-remote", "10.60.0.1/24"),
    )


def secret_rows(bench):
    """A secret is added, changed and removed."""
    suite = Suite()
    address, neighbour = "10.51.201.1", "10.51.201.11"
    first, second, other, anybody = "the first", "the second", "the neighbour's", "anybody's"
    name = bench.configure(address, FIRST_NUMBER + 2, suite, first)
    beside = bench.configure(neighbour, FIRST_NUMBER + 3, suite, other)
    reread(bench, added(name), added(beside))
    bench.place.stroke("rereadsecrets")
    expect(bench, "an added secret is taken after rereadsecrets", address, suite, first, SUCCESS)
    expect(bench, "a wrong secret is refused", address, suite, second, REFUSED, "AUTHENTICATION_FAILED")

    bench.library.secret(peerIp=address, key=f'"{second}"')
    bench.place.stroke("rereadsecrets")
    expect(bench, "a replaced secret's old one is refused", address, suite, first, REFUSED, "AUTHENTICATION_FAILED")
    expect(bench, "a replaced secret's new one is taken", address, suite, second, SUCCESS)

    bench.library.secret(secret="%default", key=f'"{anybody}"')
    bench.place.stroke("rereadsecrets")
    # The daemon checks a peer against every secret that matches it, but signs with the best one.
    expect(bench, "a peer that signs with another secret is not trusted", address, suite, anybody, NOT_TRUSTED, "AUTH")

    bench.library.secret(peerIp=address, delete="")
    bench.place.stroke("rereadsecrets")
    expect(bench, "a deleted secret is refused", address, suite, second, REFUSED, "AUTHENTICATION_FAILED")
    expect(bench, "the default secret serves a peer without its own", address, suite, anybody, SUCCESS)

    bench.library.secret(secret="%default", delete="")
    bench.place.stroke("rereadsecrets")
    expect(bench, "the deleted default secret is refused", address, suite, anybody, REFUSED, "AUTHENTICATION_FAILED")
    expect(bench, "the neighbour's secret is untouched by all that", neighbour, suite, other, SUCCESS)


def protocol_rows(bench):
    """Cookies, other groups, wrong identities."""
    suite = Suite(group=19)
    address, psk = "10.51.202.1", "of the odd ways"
    name = bench.configure(address, FIRST_NUMBER + 4, suite, psk)
    reread(bench, added(name))
    bench.place.stroke("rereadsecrets")
    expect(
        bench,
        "a cookie is brought back",
        address,
        suite,
        psk,
        SUCCESS,
        "asks for a cookie",
        extra=("--half-open", "3", "-v"),
    )
    # The half-open exchanges count until they time out, so the next ones come from other addresses.
    address = "10.51.202.2"
    name = bench.configure(address, FIRST_NUMBER + 5, suite, psk)
    reread(bench, added(name))
    bench.place.stroke("rereadsecrets")
    expect(
        bench,
        "another group is used when asked for",
        address,
        suite,
        psk,
        SUCCESS,
        "asks for group ecp256",
        extra=("--group", "14,19", "-v"),
    )
    expect(bench, "a group that was not offered is not used", address, suite, psk, REFUSED, "", extra=("--group", "14"))
    expect(
        bench,
        "a peer with another identity is not trusted",
        address,
        suite,
        psk,
        NOT_TRUSTED,
        "is not 10.50.0.9",
        extra=("--peer-id", "10.50.0.9"),
    )
    expect(bench, "another cipher is refused", address, Suite(encr="3des"), psk, REFUSED, "NO_PROPOSAL_CHOSEN")
    expect(
        bench, "another tunnel cipher is refused", address, Suite(esp_encr="null"), psk, REFUSED, "NO_PROPOSAL_CHOSEN"
    )
    expect(
        bench,
        "another traffic selector is refused",
        address,
        suite,
        psk,
        REFUSED,
        "TS_UNACCEPTABLE",
        extra=("--ts-remote", "10.99.0.0/16"),
    )


def ike_packet(frame):
    """Returns type of service, destination and IKE header of an IKE packet from the daemon, None of other frames."""
    kind = int.from_bytes(frame[12:14], "big")
    packet = frame[14:]
    if kind == ETH_P_IP:
        tos, udp, is_udp = packet[1], packet[20:], packet[9] == socket.IPPROTO_UDP
        source, destination = (socket.inet_ntop(socket.AF_INET, packet[at : at + 4]) for at in (12, 16))
    elif kind == ETH_P_IPV6:
        tos, udp, is_udp = (packet[0] & 0x0F) << 4 | packet[1] >> 4, packet[40:], packet[6] == socket.IPPROTO_UDP
        source, destination = (socket.inet_ntop(socket.AF_INET6, packet[at : at + 16]) for at in (8, 24))
    else:
        return None
    if not is_udp or source not in (sandbox.DAEMON, sandbox.DAEMON6):
        return None
    port = int.from_bytes(udp[:2], "big")
    if port not in IKE_PORTS or (port == 4500 and udp[8:12] != bytes(4)):
        return None
    return tos, destination, udp[12:40] if port == 4500 else udp[8:36]


def marked_packets(sniffer, address):
    """Returns (type of service, exchange) of the daemon's IKE packets to an address that belong to a connection.

    An answer with a responder's SPI of zero (a COOKIE, say) does not: the daemon keeps no state for it, and has not
    looked a connection up yet.
    """
    packets = [packet for packet in map(ike_packet, captured(sniffer)) if packet is not None]
    return [
        (tos, header[18]) for tos, destination, header in packets if destination == address and header[8:16] != bytes(8)
    ]


def captured(sniffer):
    while True:
        try:
            yield sniffer.recv(65535)
        except BlockingIOError:
            return


def dscp_row(bench, address, number, psk):
    name = bench.configure(address, number, Suite(), psk)
    reread(bench, added(name))
    bench.place.stroke("rereadsecrets")
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL)) as sniffer:
        sniffer.bind(("to-daemon", ETH_P_ALL))
        sniffer.setblocking(False)
        result = bench.negotiate(address, Suite().arguments(), psk)
        seen = marked_packets(sniffer, address)
    trouble = None
    if result.returncode != SUCCESS or len(seen) < 3:
        trouble = f"exit code {result.returncode}, {len(seen)} IKE packets seen: {result.stderr.strip()}"
    elif any(tos != DSCP_110000 for tos, _ in seen):
        trouble = "seen were " + ", ".join(f"{tos:#x} in exchange {exchange}" for tos, exchange in seen)
    bench.report(SECTION, f"ikedscp is in all IKE packets to {address}", trouble, f"0xc0 in {len(seen)} packets")


def bulk_row(bench):
    """Many connections, each written by a separate call, and all of them are in the daemon."""
    suite, psk = Suite(), "of the many"
    began = time.monotonic()
    names = []
    for index in range(BULK):
        names.append(bench.configure(f"10.51.210.{index + 1}", FIRST_NUMBER + 100 + index, suite, psk))
    took = time.monotonic() - began
    reread(bench, *map(added, names))
    bench.place.stroke("rereadsecrets")
    loaded = set(re.findall(r"^ *(\S+):  ", bench.place.stroke("statusall"), re.MULTILINE))
    missing = [name for name in names if name not in loaded]
    trouble = f"{len(missing)} are not in statusall, {missing[0]} for one" if missing else None
    bench.report(SECTION, f"{BULK} connections written one by one are loaded", trouble, f"written in {took:.1f} s")
    for index in (0, BULK // 2, BULK - 1):
        expect(bench, f"of these, connection {index + 1} is up", f"10.51.210.{index + 1}", suite, psk, SUCCESS)


def silent_row(bench):
    """Nobody answers at an address that nobody has."""
    expect(
        bench,
        "silence is reported",
        "10.51.203.1",
        Suite(),
        "unused",
        TIMEOUT,
        "no answer",
        extra=("--peer", sandbox.AGENT_LINK, "--timeout", "20"),
    )


def dscp_rows(bench):
    bench.place.add_agent_address6("fd51::d5c")
    dscp_row(bench, "10.51.204.1", FIRST_NUMBER + 6, "of the marked packets")
    dscp_row(bench, "fd51::d5c", FIRST_NUMBER + 7, "of the marked packets")


def run(bench):
    for part in (connection_rows, file_rows, secret_rows, protocol_rows, dscp_rows, bulk_row, silent_row):
        try:
            part(bench)
        except RuntimeError as error:
            bench.report(SECTION, f"{part.__name__} goes to its end", str(error))
