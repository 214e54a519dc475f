#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Converts NIST's and other published test files into the block files that tests/support/VectorFile reads.

  tools/nist-vectors.py --package [DIR] --out DIR   Debian's python3-cryptography-vectors
  tools/nist-vectors.py --shared DIR --out DIR      a folder with nist/ (CAVS, ACVP) and boringssl/ test files

Sets that are not for our groups, digests or key forms are dropped. The number of blocks of each file that were kept and
dropped is printed. Nothing is computed here: every figure is in the source, and is only renamed, joined or padded.
"""

import argparse
import collections
import json
import pathlib
import re

from oracle import MODP_GROUPS

PACKAGE = pathlib.Path("/usr/lib/python3/dist-packages/cryptography_vectors")

# Group and length of a coordinate.
CURVES = {"P-256": (19, 32), "P-384": (20, 48), "P-521": (21, 66)}
KAS_SECTIONS = {"EC": "P-256", "ED": "P-384", "EE": "P-521"}
HASHES = {"SHA1": "SHA-1", "SHA256": "SHA-256", "SHA384": "SHA-384", "SHA512": "SHA-512"}
DIGEST_SIZES = {"SHA-1": 20, "SHA-256": 32, "SHA-384": 48, "SHA-512": 64}


class Output:
    """Collects the blocks of each file and counts how many came from which source."""

    def __init__(self, folder):
        self.folder = folder
        self.comments = {}
        self.blocks = collections.defaultdict(list)
        self.dropped = collections.Counter()

    def describe(self, name, comment):
        self.comments[name] = comment

    def keep(self, name, block):
        self.blocks[name].append(block)

    def drop(self, reason):
        self.dropped[reason] += 1

    def write(self):
        self.folder.mkdir(parents=True, exist_ok=True)
        for name, comment in self.comments.items():
            if not self.blocks[name]:
                raise SystemExit(f"{name}: the source has no block for it")
            lines = [f"# {line}\n" for line in comment.strip().splitlines()]
            for block in self.blocks[name]:
                lines.append("\n")
                lines += [f"{attribute} = {value}".rstrip() + "\n" for attribute, value in block.items()]
            (self.folder / name).write_text("".join(lines))
            print(f"{name}: {len(self.blocks[name])} kept")
        for reason, count in self.dropped.items():
            print(f"dropped, {reason}: {count}")


# --- Reading ---------------------------------------------------------------------------------------------------------


def read_blocks(path):
    """Yields (section, block) of a text file. The section is the list of bracketed lines above the block.

    A block ends at a blank line or where "COUNT" starts the next one. A name without a value gets an empty one.
    """
    section, block, section_is_open = [], {}, False
    for line in path.read_text().splitlines() + [""]:
        line = line.strip()
        if block and (not line or line.startswith(("[", "COUNT"))):
            yield section, block
            block, section_is_open = {}, False
        if line.startswith("["):
            section = (section if section_is_open else []) + [line.strip("[]")]
            section_is_open = True
        elif line and not line.startswith("#"):
            name, _, value = line.partition("=")
            block[name.strip()] = value.strip()


def padded(hex_text, size):
    """The same number with this length: some sources pad to whole words, and some not at all."""
    return int(hex_text, 16).to_bytes(size, "big").hex()


def even_hex(hex_text):
    return hex_text.lower().zfill((len(hex_text) + 1) // 2 * 2)


def hex_or_quoted(value):
    return value[1:-1].encode().hex() if value.startswith('"') else value.lower()


# --- Debian's package ------------------------------------------------------------------------------------------------


def convert_kas_ecdh(path, out):
    """NIST's validity tests of ECDH. Result says what was made wrong on purpose, if anything."""
    for section, block in read_blocks(path):
        if "Result" not in block:
            continue
        parameter_set = section[-1].split(" ")[0]
        if parameter_set not in KAS_SECTIONS:
            out.drop("ECDH curve that is not one of our groups")
            continue
        group, size = CURVES[KAS_SECTIONS[parameter_set]]
        result = re.search(r"\((.*)\)", block["Result"]).group(1).strip()
        peer = padded(block["QsCAVSx"], size) + padded(block["QsCAVSy"], size)
        own = padded(block["QsIUTx"], size) + padded(block["QsIUTy"], size)
        head = {"Source": f"NIST {path.name} [{section[-1]}] COUNT {block['COUNT']}", "Note": result, "Group": group}
        private = {"Private": padded(block["dsIUT"], size)}
        secret = padded(block["Z"], size)
        if "CAVS's Static public key" in result:
            out.keep("kas_ecdh_invalid.txt", head | {"Peer": peer})
        elif "IUT's Static public key" in result:
            out.keep("kas_ecdh_invalid.txt", head | {"Peer": own})
        elif "private key d changed" in result:
            out.keep("kas_ecdh_wrong.txt", head | private | {"WrongPublic": own})
        elif "Z changed" in result:
            out.keep("kas_ecdh_wrong.txt", head | private | {"Public": own, "Peer": peer, "WrongSecret": secret})
        else:
            out.keep("kas_ecdh.txt", head | private | {"Public": own, "Peer": peer, "Secret": secret})


def convert_kas_dh(path, group_of_prime, out):
    prime = None
    for _, block in read_blocks(path):
        prime = int(block["P"], 16) if "P" in block else prime
        if "Result" not in block:
            continue
        # All of these sets have their own primes.
        if prime in group_of_prime:
            raise SystemExit(f"{path.name}: a set for one of our groups, which this script does not convert yet")
        out.drop("finite-field DH set with its own prime")


def convert_rfc5114(path, group_of_prime, out):
    merged = []
    for _, block in read_blocks(path):
        if "COUNT" in block:
            merged.append({})
        merged[-1].update(block)
    for block in merged:
        group = group_of_prime.get(int(block["P"], 16))
        if group is None:
            out.drop("RFC 5114 group that is not one of ours")
            continue
        size = (int(block["P"], 16).bit_length() + 7) // 8
        public = {side: padded(block[f"Ystat{side}"], size) for side in ("CAVS", "IUT")}
        for own, peer in (("CAVS", "IUT"), ("IUT", "CAVS")):
            out.keep(
                "rfc5114_dh.txt",
                {
                    "Source": f"RFC 5114 as in {path.name}",
                    "Group": group,
                    "Private": even_hex(block[f"Xstat{own}"]),
                    "Public": public[own],
                    "Peer": public[peer],
                    "Secret": padded(block["Z"], size),
                },
            )


def convert_parameters(path, group_of_prime, out):
    for _, block in read_blocks(path):
        group = group_of_prime.get(int(block["P"], 16))
        if group is None:
            out.drop("RFC 3526 group that is not one of ours")
            continue
        out.keep(
            "rfc3526_parameters.txt",
            {
                "Source": f"RFC 3526 as in {path.name}",
                "Group": group,
                "Prime": block["P"].lower(),
                "Generator": even_hex(block["G"]),
            },
        )


def convert_package(folder, out):
    if not folder.is_dir():
        raise SystemExit(f"{folder}: no such folder; install python3-cryptography-vectors or name its folder")
    group_of_prime = {group.p: number for number, group in MODP_GROUPS.items()}
    out.describe(
        "kas_ecdh.txt",
        """
NIST CAVS validity tests of ECDH, the correct ones: with Private the public value is Public, and the secret with
Peer is Secret. In the form of tests/vectors/dh_ecp.txt.
""",
    )
    out.describe(
        "kas_ecdh_invalid.txt",
        """
NIST CAVS validity tests of ECDH, public values that fail the validation of SP 800-56A: every Peer must be refused.
""",
    )
    out.describe(
        "kas_ecdh_wrong.txt",
        """
NIST CAVS validity tests of ECDH with one figure changed. WrongPublic is not the public value of Private; WrongSecret is
not the secret of Private and Peer, while Public is the public value of Private.
""",
    )
    out.describe("rfc5114_dh.txt", "The exchange of RFC 5114 appendix A.3, in the form of tests/vectors/dh_modp.txt.")
    out.describe("rfc3526_parameters.txt", "The primes and generators of RFC 3526 for our groups.")
    ecdh, dh = folder / "asymmetric" / "ECDH", folder / "asymmetric" / "DH"
    for path in sorted(ecdh.glob("KASValidityTest_*.fax")):
        convert_kas_ecdh(path, out)
    for path in sorted(dh.glob("KASValidityTest_*.fax")):
        convert_kas_dh(path, group_of_prime, out)
    convert_rfc5114(dh / "RFC5114.txt", group_of_prime, out)
    convert_parameters(dh / "rfc3526.txt", group_of_prime, out)


# --- A folder with CAVS, ACVP and BoringSSL files --------------------------------------------------------------------

# Our name and the name in the CAVS file.
IKEV2_NAMES = {
    "Ni": "Ni",
    "Nr": "Nr",
    "SpiI": "SPIi",
    "SpiR": "SPIr",
    "Secret": "g^ir",
    "NewSecret": "g^ir (new)",
    "SkeySeed": "SKEYSEED",
    "Keys": "DKM",
    "ChildKeys": "DKM(Child SA)",
    "ChildDhKeys": "DKM(Child SA D-H)",
    "RekeySkeySeed": "SKEYSEED(Rekey)",
}
IKEV1_NAMES = {
    "CookieI": "CKY_I",
    "CookieR": "CKY_R",
    "Ni": "Ni",
    "Nr": "Nr",
    "Secret": "g^xy",
    "SkeyId": "SKEYID",
    "SkeyIdD": "SKEYID_d",
    "SkeyIdA": "SKEYID_a",
    "SkeyIdE": "SKEYID_e",
}


def convert_cavs_ike(path, target, names, out):
    for section, block in read_blocks(path):
        hash_name = next(line for line in section if line.startswith("SHA-"))
        if hash_name not in DIGEST_SIZES:
            out.drop("IKE set for another digest")
            continue
        result = {"Source": f"NIST CAVS {path.name} [{'] ['.join(section)}] COUNT {block['COUNT']}", "Hash": hash_name}
        if "pre-shared-key" in block:
            result["PreSharedKey"] = block["pre-shared-key"].lower()
        out.keep(target, result | {ours: block[theirs].lower() for ours, theirs in names.items()})


def convert_ecc_cdh(path, out):
    for _, block in read_blocks(path):
        group, size = CURVES[block["Curve"]]
        out.keep(
            "cavp_ecdh.txt",
            {
                "Source": f"NIST CAVP {path.name}",
                "Group": group,
                "Private": padded(block["Private"], size),
                "Public": padded(block["X"], size) + padded(block["Y"], size),
                "Peer": padded(block["PeerX"], size) + padded(block["PeerY"], size),
                "Secret": padded(block["Z"], size),
            },
        )


def acvp_tests(path):
    for group in json.loads(path.read_text())["testGroups"]:
        for test in group["tests"]:
            yield group, test


def convert_acvp_hmac(path, hash_name, out):
    for _, test in acvp_tests(path):
        if (test["keyLen"] | test["msgLen"] | test["macLen"]) % 8 != 0:
            out.drop("HMAC set that is not in whole bytes")
            continue
        mac_size = test["macLen"] // 8
        truncated = {"Truncated": mac_size} if mac_size < DIGEST_SIZES[hash_name] else {}
        out.keep(
            "acvp_hmac.txt",
            {
                "Source": f"NIST ACVP {path.name} tcId {test['tcId']}",
                "Hash": hash_name,
                "Key": test["key"].lower(),
                "Input": test["msg"].lower(),
            }
            | truncated
            | {"Output": test["mac"].lower()[: 2 * mac_size]},
        )


def convert_acvp_keys(path, out):
    for group, test in acvp_tests(path):
        if group["safePrimeGroup"] != "MODP-2048":
            out.drop("safe-prime set for another group")
            continue
        name = "Public" if test.get("testPassed", True) else "WrongPublic"
        out.keep(
            "acvp_dh_keys.txt",
            {
                "Source": f"NIST ACVP {path.name} tcId {test['tcId']}",
                "Group": 14,
                "Private": even_hex(test["x"]),
                name: padded(test["y"], 256),
            },
        )


def convert_boring_hmac(path, out):
    for _, block in read_blocks(path):
        if block["HMAC"] not in HASHES:
            out.drop("HMAC set for another digest")
            continue
        out.keep(
            "boringssl_hmac.txt",
            {
                "Source": f"BoringSSL {path.name}",
                "Hash": HASHES[block["HMAC"]],
                "Key": hex_or_quoted(block["Key"]),
                "Input": hex_or_quoted(block["Input"]),
                "Output": block["Output"].lower(),
            },
        )


def convert_boring_dh(path, out):
    group_of_prime = {group.p: number for number, group in MODP_GROUPS.items()}
    keys = {}
    for _, block in read_blocks(path):
        if "DHKey" in block:
            keys[block["DHKey"]] = block
        elif "DiffieHellmanPad" not in block:
            out.drop("DH derivation without padding, or with keys that do not match")
        else:
            own, peer = keys[block["Derive"]], keys[block["DerivePeer"]]
            out.keep(
                "boringssl_dh.txt",
                {
                    "Source": f"BoringSSL {path.name}",
                    "Note": "leading zero byte in the secret",
                    "Group": group_of_prime[int(own["P"], 16)],
                    "Private": own["Private"].lower(),
                    "Public": own["Public"].lower(),
                    "Peer": peer["Public"].lower(),
                    "Secret": block["Output"].lower(),
                },
            )


def convert_shared(folder, out):
    if not folder.is_dir():
        raise SystemExit(f"{folder}: no such folder")
    out.describe(
        "cavs_ikev2.txt",
        """
NIST CAVS tests of IKEv2's key derivation (RFC 7296). Secret is g^ir, NewSecret the one of a new exchange, SK_d the
first bytes of Keys, as many as the digest has.
  SkeySeed = prf(Ni | Nr, Secret), Keys = prf+(SkeySeed, Ni | Nr | SpiI | SpiR)
  ChildKeys = prf+(SK_d, Ni | Nr), ChildDhKeys = prf+(SK_d, NewSecret | Ni | Nr)
  RekeySkeySeed = prf(SK_d, NewSecret | Ni | Nr)
""",
    )
    out.describe(
        "cavs_ikev1.txt",
        """
NIST CAVS tests of IKEv1's key derivation (RFC 2409 section 5). Secret is g^xy.
  SkeyId = prf(PreSharedKey, Ni | Nr), or, in blocks without PreSharedKey (signatures), prf(Ni | Nr, Secret)
  SkeyIdD = prf(SkeyId, Secret | CookieI | CookieR | 00)
  SkeyIdA = prf(SkeyId, SkeyIdD | Secret | CookieI | CookieR | 01)
  SkeyIdE = prf(SkeyId, SkeyIdA | Secret | CookieI | CookieR | 02)
""",
    )
    out.describe("cavp_ecdh.txt", "NIST CAVP tests of the ECC CDH primitive, in the form of tests/vectors/dh_ecp.txt.")
    out.describe("acvp_hmac.txt", "NIST ACVP tests of HMAC, in the form of tests/vectors/hmac.txt.")
    out.describe(
        "acvp_dh_keys.txt",
        """
NIST ACVP tests of safe-prime key pairs: Public is the public value of Private, WrongPublic is not.
""",
    )
    out.describe("boringssl_hmac.txt", "BoringSSL's HMAC tests (Apache-2.0), in the form of tests/vectors/hmac.txt.")
    out.describe("boringssl_dh.txt", "BoringSSL's DH tests (Apache-2.0), in the form of tests/vectors/dh_modp.txt.")
    nist, boringssl = folder / "nist", folder / "boringssl"
    convert_cavs_ike(nist / "cavs_ikev2.txt", "cavs_ikev2.txt", IKEV2_NAMES, out)
    convert_cavs_ike(nist / "cavs_ikev1_psk.txt", "cavs_ikev1.txt", IKEV1_NAMES, out)
    convert_cavs_ike(nist / "cavs_ikev1_dsa.txt", "cavs_ikev1.txt", IKEV1_NAMES, out)
    convert_ecc_cdh(nist / "ecc_cdh_p256_p384_p521.txt", out)
    convert_acvp_hmac(nist / "acvp_hmac_sha_1.json", "SHA-1", out)
    convert_acvp_hmac(nist / "acvp_hmac_sha2_256.json", "SHA-256", out)
    convert_acvp_hmac(nist / "acvp_hmac_sha2_384.json", "SHA-384", out)
    convert_acvp_hmac(nist / "acvp_hmac_sha2_512.json", "SHA-512", out)
    convert_acvp_keys(nist / "acvp_safePrimes_keyGen_modp2048.json", out)
    convert_acvp_keys(nist / "acvp_safePrimes_keyVer_modp2048.json", out)
    convert_boring_hmac(boringssl / "hmac_tests.txt", out)
    convert_boring_dh(boringssl / "dh_tests.txt", out)


def main():
    parser = argparse.ArgumentParser(description="Turns published test files into block files.")
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument(
        "--package",
        type=pathlib.Path,
        nargs="?",
        const=PACKAGE,
        metavar="DIR",
        help=f"the folder of Debian's python3-cryptography-vectors, by default {PACKAGE}",
    )
    source.add_argument("--shared", type=pathlib.Path, metavar="DIR", help="a folder with nist/ and boringssl/")
    parser.add_argument("--out", type=pathlib.Path, required=True, metavar="DIR", help="the folder for the block files")
    arguments = parser.parse_args()
    out = Output(arguments.out)
    if arguments.package:
        convert_package(arguments.package, out)
    else:
        convert_shared(arguments.shared, out)
    out.write()


if __name__ == "__main__":
    main()
