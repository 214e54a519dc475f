# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Reads the keys that charon writes to its log at ike = 4 and chd = 4, and names them as in the agent's key log."""

import re

HEAD = re.compile(r"^\d+\[(?P<part>IKE|CHD)\] (?P<label>.+?) => (?P<size>\d+) bytes @ ")
DUMP = re.compile(r"^\d+\[(?:IKE|CHD)\] +\d+: (?P<hex>(?:[0-9A-F]{2} )+)")

IKE_LABELS = {
    "SKEYSEED": "skeyseed",
    "Sk_d secret": "sk_d",
    "Sk_ai secret": "sk_ai",
    "Sk_ar secret": "sk_ar",
    "Sk_ei secret": "sk_ei",
    "Sk_er secret": "sk_er",
    "Sk_pi secret": "sk_pi",
    "Sk_pr secret": "sk_pr",
    "SKEYID": "skeyid",
    "SKEYID_d": "skeyid_d",
    "SKEYID_a": "skeyid_a",
    "SKEYID_e": "skeyid_e",
    "encryption key Ka": "ka",
}

CHILD_LABELS = {
    "encryption initiator key": "encr_i",
    "integrity initiator key": "integ_i",
    "encryption responder key": "encr_r",
    "integrity responder key": "integ_r",
}

# Its name differs between releases.
SECRETS = ("shared Diffie Hellman secret", "key exchange secret", "DH secret")
CHILD_SEEDS = ("seed", "initiator SA seed")


def dumps(text):
    """Yields (part of the daemon, label, hex digits) for every dump in the log."""
    part, label, size, digits = None, None, 0, ""
    for line in text.splitlines():
        head = HEAD.match(line)
        if head:
            part, label, size, digits = head["part"], head["label"], int(head["size"]), ""
        dump = DUMP.match(line)
        if dump and label:
            digits += dump["hex"].replace(" ", "").lower()
        if label and len(digits) >= 2 * size:
            # The last column shows the bytes as text, and may look like more digits.
            yield part, label, digits[: 2 * size]
            label = None


def keys(text):
    """Returns {name: hex digits} of one agent's run: init.*, rekey.* (the last one), child1.*, child2.*."""
    found = {}
    phase, child, pending = None, 0, None
    for part, label, digits in dumps(text):
        if label in SECRETS and part == "IKE":
            phase = "init" if phase is None else "rekey"
            found[f"{phase}.secret"] = digits
        elif label in IKE_LABELS:
            found[f"{phase}.{IKE_LABELS[label]}"] = digits
        elif label in SECRETS:
            pending = digits
        elif label in CHILD_SEEDS:
            child += 1
            if pending is not None:
                found[f"child{child}.secret"] = pending
            pending = None
        elif label in CHILD_LABELS:
            found[f"child{child}.{CHILD_LABELS[label]}"] = digits
    return {name: digits for name, digits in found.items() if digits}


def agent_keys(text):
    """Reads the agent's key log. If a name occurs twice, the last one counts."""
    found = dict(line.partition(" ")[::2] for line in text.splitlines())
    return {name: digits for name, digits in found.items() if digits}
