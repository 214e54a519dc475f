# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""The rows of the matrix: the agent's arguments, and how the daemon is configured for them."""

import dataclasses

GROUPS = {
    1: "modp768",
    2: "modp1024",
    5: "modp1536",
    14: "modp2048",
    15: "modp3072",
    16: "modp4096",
    17: "modp6144",
    19: "ecp256",
    20: "ecp384",
    21: "ecp521",
    24: "modp2048s256",
}
HASHES = ("sha1", "sha256", "sha384", "sha512")
BLOCK_CIPHERS = ("3des", "aes128", "aes192", "aes256")
GCM_CIPHERS = tuple(f"aes{size}gcm{icv}" for icv in (8, 12, 16) for size in (128, 192, 256))

# A secret begins with a zero byte once in 256 exchanges. That many have none with a probability of 1 in 120,000.
ZERO_SECRET_TRIES = 3000


def every_ike_proposal():
    """Returns proposals that accept every suite of both versions."""
    prfs = "-".join(f"prf{name}" for name in HASHES)
    tail = "-".join(GROUPS.values())
    return (
        f"{'-'.join(BLOCK_CIPHERS)}-{'-'.join(HASHES)}-{prfs}-{tail},{'-'.join(GCM_CIPHERS)}-{prfs}-{tail},"
        f"{'-'.join(BLOCK_CIPHERS)}-{'-'.join(HASHES)}-{tail}!"
    )


def every_esp_proposal():
    """Returns proposals that accept every tunnel, with its own exchange or without one."""
    blocks, gcm = f"{'-'.join(BLOCK_CIPHERS)}-null-{'-'.join(HASHES)}", "-".join(GCM_CIPHERS)
    tail = "-".join(GROUPS.values())
    return f"{blocks},{gcm},{blocks}-{tail},{gcm}-{tail}!"


@dataclasses.dataclass
class Suite:
    """One negotiation. A cipher with its own integrity ignores integ."""

    group: int = 19
    prf: str = "sha256"
    encr: str = "aes128"
    integ: str = "sha256"
    esp_encr: str = "aes128"
    esp_integ: str = "sha256"
    pfs: int = 0
    version: int = 2

    def arguments(self):
        """Returns the agent's arguments."""
        arguments = [
            "--version",
            str(self.version),
            "--group",
            str(self.group),
            "--prf",
            self.prf,
            "--encr",
            self.encr,
            "--integ",
            self.integ,
            "--esp-encr",
            self.esp_encr,
            "--esp-integ",
            self.esp_integ,
        ]
        return arguments + (["--pfs", str(self.pfs)] if self.pfs else [])

    def ike(self):
        """Returns the daemon's proposal for the IKE SA; the mark at its end forbids any other."""
        if self.version == 1:
            return f"{self.encr}-{self.prf}-{GROUPS[self.group]}!"
        integ = "" if "gcm" in self.encr else f"-{self.integ}"
        return f"{self.encr}{integ}-prf{self.prf}-{GROUPS[self.group]}!"

    def esp(self):
        """Returns the daemon's proposal for the tunnel."""
        integ = "" if "gcm" in self.esp_encr else f"-{self.esp_integ}"
        pfs = f"-{GROUPS[self.pfs]}" if self.pfs else ""
        return f"{self.esp_encr}{integ}{pfs}!"

    def __str__(self):
        return f"IKEv{self.version} {self.ike()} {self.esp()}"


@dataclasses.dataclass
class Row:
    """One row. number makes the agent's address; zero names a key that must begin with a zero byte."""

    section: str
    suite: Suite
    extra: tuple = ()
    echoes: int = 1
    ipv6: bool = False
    zero: str = ""
    number: int = 0

    def agent_address(self):
        high, low = divmod(self.number, 200)
        return f"fd51::{self.number:x}" if self.ipv6 else f"10.51.{high}.{low + 1}"


def ike2_rows():
    for group in GROUPS:
        for prf in HASHES:
            yield Row("group x prf", Suite(group=group, prf=prf))
    for encr in BLOCK_CIPHERS:
        for integ in HASHES:
            for prf in HASHES:
                yield Row("cipher x integrity x prf", Suite(encr=encr, integ=integ, prf=prf))
    for encr in GCM_CIPHERS:
        for prf in HASHES:
            yield Row("gcm x prf", Suite(encr=encr, prf=prf))


def esp_rows():
    for encr in BLOCK_CIPHERS + ("null",):
        for integ in HASHES:
            yield Row("esp cipher x integrity", Suite(esp_encr=encr, esp_integ=integ))
    for encr in GCM_CIPHERS:
        yield Row("esp gcm", Suite(esp_encr=encr))


def rekey_rows():
    for group in GROUPS:
        yield Row("pfs", Suite(pfs=group), echoes=2)
    for group, prf in zip(GROUPS, HASHES * 3):
        yield Row("rekey", Suite(group=group, prf=prf), extra=("--rekey",), echoes=2)


def ike1_rows():
    for group in GROUPS:
        for prf in HASHES:
            yield Row("ikev1 group x prf", Suite(version=1, group=group, prf=prf))
    # The keys of the longer ciphers do not fit one output of the shorter hashes: both chains without the counter.
    for encr in BLOCK_CIPHERS:
        for prf in HASHES:
            yield Row("ikev1 cipher x prf", Suite(version=1, encr=encr, prf=prf, esp_encr=encr, esp_integ="sha512"))
    for encr in GCM_CIPHERS + ("null",):
        yield Row("ikev1 esp", Suite(version=1, prf="sha1", esp_encr=encr))
    for group in GROUPS:
        yield Row("ikev1 pfs", Suite(version=1, pfs=group))


def zero_rows():
    for group in GROUPS:
        yield Row("zero public", Suite(group=group), extra=("--zero-public",), zero="init.public")
    for group in GROUPS:
        yield Row("zero public ikev1", Suite(version=1, group=group), extra=("--zero-public",), zero="init.public")
    for group in GROUPS:
        yield Row(
            "zero secret",
            Suite(group=group),
            extra=("--zero-secret", str(ZERO_SECRET_TRIES)),
            echoes=2,
            zero="rekey.secret",
        )


def ipv6_rows():
    yield Row("ipv6", Suite(group=14), ipv6=True)
    yield Row("ipv6", Suite(group=21, encr="aes256gcm16", esp_encr="aes256gcm16", pfs=20), echoes=2, ipv6=True)
    yield Row("ipv6", Suite(group=17, prf="sha512"), extra=("--rekey",), echoes=2, ipv6=True)
    yield Row("ipv6", Suite(version=1, group=14, prf="sha1"), ipv6=True)
    yield Row("ipv6", Suite(version=1, group=5, pfs=24, esp_encr="3des", esp_integ="sha1"), ipv6=True)


def numbered(rows):
    rows = list(rows)
    for number, row in enumerate(rows, start=1):
        row.number = number
    return rows


def all_rows():
    return numbered([*ike2_rows(), *esp_rows(), *rekey_rows(), *ike1_rows(), *zero_rows(), *ipv6_rows()])


def demo_rows():
    return numbered(Row("group", Suite(group=group)) for group in GROUPS)
