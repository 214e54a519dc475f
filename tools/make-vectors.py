#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Writes the known-answer files of tests/vectors with the arithmetic of oracle.py, which does not use OpenSSL.

Every "random" number is a hash of its label, so the files are the same each time.

Published figures (rfc5903.txt, rfc5114.txt and the RFC blocks of hmac.txt) are transcribed, not computed. They are
never changed, and the oracle recomputes each of them before it writes or checks anything.

  tools/make-vectors.py           writes the files
  tools/make-vectors.py --check   fails if a committed file differs from what would be written
"""

import argparse
import hashlib
import itertools
import pathlib
import sys

from oracle import (
    CURVES,
    GROUPS,
    HASHES,
    MODP_GROUPS,
    has_leading_zeros,
    hmac,
    minimal_bytes,
    prf_plus_blocks,
    seeded_bytes,
    seeded_int,
    to_bytes,
    to_int,
)

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "tests" / "vectors"


# --- Files -----------------------------------------------------------------------------------------------------------


def format_value(value):
    return value.hex() if isinstance(value, bytes) else str(value)


def format_block(block):
    return "".join(f"{name} = {format_value(value)}".rstrip() + "\n" for name, value in block.items())


def format_file(comment, blocks):
    head = "".join(f"# {line}\n" for line in comment.strip().splitlines())
    return head + "".join("\n" + format_block(block) for block in blocks)


def read_blocks(path):
    blocks = [{}]
    for line in path.read_text().splitlines():
        if not line:
            blocks.append({})
        elif not line.startswith("#"):
            name, value = line.split("=", 1)
            blocks[-1][name.strip()] = value.strip()
    return [block for block in blocks if block]


def exchange_block(note, group, private, peer):
    return {
        "Note": note,
        "Group": group.number,
        "Private": private,
        "Public": group.public(private),
        "Peer": peer,
        "Secret": group.secret(private, peer),
    }


def dh_modp_blocks(group):
    def exponent(label):
        return minimal_bytes(group.seeded_exponent(label))

    def found(base, label, zeros=1):
        return minimal_bytes(group.search_exponent(base, label, zeros))

    own, peer = exponent("own"), group.public(exponent("peer"))
    peer_value = to_int(peer)
    bits = group.exponent_bits
    yield exchange_block("random", group, own, peer)
    yield exchange_block("leading zero byte in the own public value", group, found(group.g, "public 1"), peer)
    yield exchange_block(
        "leading zero byte in the peer's public value", group, own, group.public(found(group.g, "peer 1"))
    )
    yield exchange_block("leading zero byte in the secret", group, found(peer_value, "secret 1"), peer)
    yield exchange_block("leading zero byte in the private key", group, b"\0" + exponent("private 1")[1:], peer)
    yield exchange_block(
        "private key above the order of the generator's subgroup",
        group,
        minimal_bytes(group.q + seeded_int(f"group {group.number} above", bits - 8)),
        peer,
    )
    yield exchange_block(
        "private key eight bytes longer than the prime",
        group,
        minimal_bytes(seeded_int(f"group {group.number} long", 8 * group.size + 64)),
        peer,
    )
    if group.is_safe_prime:
        yield exchange_block("one-byte private key and smallest numbers: 3 squared", group, b"\x02", group.encode(3))
        yield exchange_block("largest public value in range, p - 2", group, b"\x03", group.encode(group.p - 2))
    else:
        yield exchange_block("one-byte private key", group, b"\x02", peer)
    # The long groups have none of these: they would take much space, and much time to find.
    if group.size <= 256:
        yield exchange_block(
            "two leading zero bytes in the own public value", group, found(group.g, "public 2", 2), peer
        )
        yield exchange_block("two leading zero bytes in the secret", group, found(peer_value, "secret 2", 2), peer)
        yield exchange_block("the peer's public value is the own one", group, own, group.public(own))


def dh_ecp_blocks(curve):
    size = curve.size

    def scalar(label):
        return to_bytes(curve.seeded_scalar(label), size)

    def found(base, label, accepts):
        return to_bytes(curve.search_scalar(base, label, accepts), size)

    def x_starts_with(zeros):
        return lambda point: has_leading_zeros(point[0], size, zeros)

    def y_starts_with_zero(point):
        return has_leading_zeros(point[1], size, 1)

    own, peer = scalar("own"), curve.public(scalar("peer"))
    peer_point = curve.decode(peer)
    generator = curve.generator
    yield exchange_block("random", curve, own, peer)
    yield exchange_block("leading zero byte in the own x", curve, found(generator, "x 1", x_starts_with(1)), peer)
    yield exchange_block("leading zero byte in the own y", curve, found(generator, "y 1", y_starts_with_zero), peer)
    yield exchange_block("two leading zero bytes in the own x", curve, found(generator, "x 2", x_starts_with(2)), peer)
    yield exchange_block(
        "leading zero byte in the peer's x", curve, own, curve.public(found(generator, "peer x 1", x_starts_with(1)))
    )
    yield exchange_block(
        "leading zero byte in the peer's y", curve, own, curve.public(found(generator, "peer y 1", y_starts_with_zero))
    )
    yield exchange_block(
        "leading zero byte in the secret", curve, found(peer_point, "secret 1", x_starts_with(1)), peer
    )
    yield exchange_block(
        "two leading zero bytes in the secret", curve, found(peer_point, "secret 2", x_starts_with(2)), peer
    )
    yield exchange_block("two leading zero bytes in the private key", curve, b"\0\0" + scalar("private 1")[2:], peer)
    yield exchange_block(
        "private key without padding", curve, minimal_bytes(seeded_int(f"group {curve.number} short", 200)), peer
    )
    yield exchange_block("private key 1: the generator, and the peer's x", curve, b"\x01", peer)
    yield exchange_block("one-byte private key", curve, b"\x02", peer)
    yield exchange_block(
        "private key n - 1: the generator's and the peer's x", curve, minimal_bytes(curve.order - 1), peer
    )
    yield exchange_block("private key n + 2, above the order: acts as 2", curve, minimal_bytes(curve.order + 2), peer)
    yield exchange_block(
        "private key eight bytes longer than the order",
        curve,
        minimal_bytes(seeded_int(f"group {curve.number} long", 8 * size + 64)),
        peer,
    ) | {"PrivateReadable": "no"}
    yield exchange_block("the peer's public value is the generator", curve, own, curve.encode(generator))
    yield exchange_block("the peer's public value is the own one", curve, own, curve.public(own))
    yield exchange_block(
        "the peer's public value is the negated own one",
        curve,
        own,
        curve.encode(curve.negated(curve.decode(curve.public(own)))),
    )
    if curve.point_with_x(0):
        yield exchange_block("the peer's x is zero", curve, own, curve.encode(curve.point_with_x(0)))


def small_prime_factors(number, limit):
    factor = 2
    while factor < limit:
        if number % factor == 0:
            yield factor
            while number % factor == 0:
                number //= factor
        factor += 1


def element_of_order(group, order):
    """An element of this order, which is a product of different primes and divides p - 1."""
    primes = list(small_prime_factors(order, order + 1)) if order < 2**32 else [order]
    for base in itertools.count(2):
        element = pow(base, (group.p - 1) // order, group.p)
        if all(pow(element, order // prime, group.p) != 1 for prime in primes):
            return element


def dh_modp_invalid_blocks(group):
    def refused(note, value):
        return {"Note": note, "Group": group.number, "Peer": group.encode(value)}

    p = group.p
    yield refused("0", 0)
    yield refused("1", 1)
    yield refused("p - 1", p - 1)
    yield refused("p", p)
    yield refused("p + 1", p + 1)
    yield refused("all bytes FF, above p", 256**group.size - 1)
    if group.is_safe_prime:
        return
    orders = [order for order in small_prime_factors((p - 1) // group.q, 2**20) if order > 2]
    for order in orders + [orders[0] * orders[1]]:
        yield refused(f"order {order}, outside the subgroup", element_of_order(group, order))
    order = orders[0]
    yield refused(
        f"order {order} times q, a subgroup element times one of order {order}",
        group.g * element_of_order(group, order) % p,
    )
    outside = next(value for value in itertools.count(2) if pow(value, group.q, p) != 1)
    yield refused(f"{outside}, outside the subgroup", outside)
    yield refused("the negated generator, outside the subgroup", p - group.g)


def dh_ecp_invalid_blocks(curve):
    size, p = curve.size, curve.p
    private = to_bytes(curve.seeded_scalar("own"), size)

    def judged(note, x, y):
        """What OpenSSL does with the value: coordinates are reduced modulo p, and the reduced point is checked."""
        block = {"Note": note, "Group": curve.number, "Peer": curve.encode((x, y))}
        reduced = x % p, y % p
        if not curve.contains(reduced):
            return block | {"Verdict": "refused"}
        return block | {
            "Verdict": "accepted",
            "Private": private,
            "Secret": curve.secret(private, curve.encode(reduced)),
        }

    x, y = curve.decode(curve.public(to_bytes(curve.seeded_scalar("peer"), size)))
    small_x, small_y = next(filter(None, map(curve.point_with_x, itertools.count(1))))
    off_x = next(candidate for candidate in itertools.count(1) if curve.point_with_x(candidate) is None)
    all_ones = 256**size - 1
    yield judged("y one too large", x, (y + 1) % p)
    yield judged("x one too large", (x + 1) % p, y)
    yield judged("lowest bit of the last byte flipped", x, y ^ 1)
    yield judged("coordinates swapped", y, x)
    yield judged("(0, 0)", 0, 0)
    yield judged("(1, 1)", 1, 1)
    yield judged("y is zero", x, 0)
    yield judged("x that no point has", off_x, y)
    yield judged("a point of a curve that differs in b", 0, point_on_shifted_curve(curve))
    yield judged("all bytes FF", all_ones, all_ones)
    yield judged("unreduced (p, p), the point (0, 0)", p, p)
    yield judged("unreduced x, a point on the curve", small_x + p, small_y)
    yield judged("unreduced x, off the curve", small_x + p, (small_y + 1) % p)
    yield judged("unreduced x that no point has", off_x + p, small_y)
    if curve.point_with_x(0):
        yield judged("unreduced x = p, the point with x = 0", p, curve.point_with_x(0)[1])
    # Only the 528 bits of group 21 have room for any y above p.
    if 2 * p <= all_ones:
        yield judged("unreduced y, a point on the curve", small_x, small_y + p)
        yield judged("unreduced x and y, a point on the curve", small_x + p, small_y + p)
        yield judged("twice unreduced x, a point on the curve", small_x + 2 * p, small_y)
        yield judged("unreduced y, off the curve", small_x, small_y + 1 + p)


def point_on_shifted_curve(curve):
    """The y for x = 0 on y^2 = x^3 - 3x + b', with the first b' above b for which there is one."""
    for shifted in itertools.count(curve.b + 1):
        root = pow(shifted, (curve.p + 1) // 4, curve.p)
        if root * root % curve.p == shifted % curve.p:
            return root


def hmac_blocks(hash_name):
    block_size = HASHES[hash_name]().block_size
    digest_size = HASHES[hash_name]().digest_size
    # Length of the key and of the input: around the block size, and around the padding of the last block.
    lengths = [
        (0, 0),
        (0, 64),
        (1, 1),
        (digest_size, 0),
        (digest_size, block_size - 17),
        (digest_size, block_size - 8),
        (block_size - 1, block_size - 1),
        (block_size, block_size),
        (block_size + 1, block_size + 1),
        (2 * block_size + 3, 3 * block_size),
        (digest_size, 600),
        (16, 1000),
    ]
    for key_size, input_size in lengths:
        key = seeded_bytes(f"hmac {hash_name} key {key_size} {input_size}", key_size)
        data = seeded_bytes(f"hmac {hash_name} input {key_size} {input_size}", input_size)
        yield {
            "Note": f"key of {key_size} bytes, input of {input_size} bytes",
            "Hash": hash_name,
            "Key": key,
            "Input": data,
            "Output": hmac(hash_name, key, data),
        }


def prf_plus_cases(hash_name):
    block_size = HASHES[hash_name]().block_size
    digest_size = HASHES[hash_name]().digest_size
    # Length of the key, length of the seed.
    lengths = [(digest_size, 64), (0, 64), (1, 20), (block_size, 1536), (block_size + 1, 64), (3 * block_size, 0)]
    for (key_size, seed_size), mode in itertools.product(lengths, ("counter", "chained")):
        yield prf_plus_block(
            hash_name,
            mode,
            seeded_bytes(f"prf+ {hash_name} key {key_size} {seed_size}", key_size),
            seeded_bytes(f"prf+ {hash_name} seed {key_size} {seed_size}", seed_size),
        )


def prf_plus_block(hash_name, mode, key, seed):
    count = 520
    blocks = list(itertools.islice(prf_plus_blocks(hash_name, mode, key, seed), count))
    result = {
        "Note": f"key of {len(key)} bytes, seed of {len(seed)} bytes",
        "Hash": hash_name,
        "Mode": mode,
        "Key": key,
        "Seed": seed,
        "Blocks": count,
    }
    for i in (1, 2, 255, 256, 257, count):
        result[f"Block{i}"] = blocks[i - 1]
    return result | {"StreamSha256": hashlib.sha256(b"".join(blocks)).digest()}


# --- Published figures -----------------------------------------------------------------------------------------------


def require(condition, path, number, what):
    if not condition:
        sys.exit(f"{path}: block {number}: {what} does not agree with the other figures")


def check_exchanges(path, group_numbers):
    blocks = read_blocks(path)
    for number, block in enumerate(blocks, 1):
        group = GROUPS[int(block["Group"])]
        private, peer = bytes.fromhex(block["Private"]), bytes.fromhex(block["Peer"])
        require(group.public(private).hex() == block["Public"], path, number, "Public")
        require(group.secret(private, peer).hex() == block["Secret"], path, number, "Secret")
    # Both sides of each exchange must be there.
    if [int(block["Group"]) for block in blocks] != [group for group in group_numbers for _ in range(2)]:
        sys.exit(f"{path}: there are not both sides of one exchange for each of the groups {group_numbers}")


def published_hmac_blocks(path):
    """The seven cases of RFC 2202 and the seven of RFC 4231 for each of our three SHA-2 digests."""
    blocks = [block for block in read_blocks(path) if block.get("Source", "").startswith("RFC ")]
    for number, block in enumerate(blocks, 1):
        output = hmac(block["Hash"], bytes.fromhex(block["Key"]), bytes.fromhex(block["Input"])).hex()
        published = 2 * int(block.get("Truncated", len(output) // 2))
        require(output[:published] == block["Output"], path, number, "Output")
    if len({(block["Hash"], block["Source"]) for block in blocks}) != 28:
        sys.exit(f"{path}: there are not 7 published cases for each of the 4 digests")
    return blocks


# --- The files -------------------------------------------------------------------------------------------------------


def flattened(function, arguments):
    return [block for argument in arguments for block in function(argument)]


def make_files():
    check_exchanges(FOLDER / "rfc5903.txt", [19, 20, 21])
    check_exchanges(FOLDER / "rfc5114.txt", [24, 19, 20, 21])
    return {
        "dh_modp.txt": format_file(
            """
MODP known answers, written by tools/make-vectors.py. This side's private key is Private and its public value is Public.
The secret with the peer's public value Peer is Secret. Public, Peer and Secret have the length of the prime. Private is
given to setMyPrivateKey. It may have leading zero bytes, which getMyPrivateKey does not return.
""",
            flattened(dh_modp_blocks, MODP_GROUPS.values()),
        ),
        "dh_ecp.txt": format_file(
            """
Elliptic-curve known answers, written by tools/make-vectors.py. This side's private key is Private and its public value
is Public. The secret with the peer's public value Peer is Secret. Public and Peer are x and y, each of the length of a
field element, and Secret is x. Private is given to setMyPrivateKey, and may have leading zero bytes. If PrivateReadable
is present, it is "no": OpenSSL computes with a private number that is longer than the order but does not return it, so
getMyPrivateKey fails.
""",
            flattened(dh_ecp_blocks, CURVES.values()),
        ),
        "dh_modp_invalid.txt": format_file(
            """
MODP values of the right length that must not give a secret (RFC 6989 sections 2.1 and 2.2), written by
tools/make-vectors.py. Every Peer must be refused.
""",
            flattened(dh_modp_invalid_blocks, MODP_GROUPS.values()),
        ),
        "dh_ecp_invalid.txt": format_file(
            """
Elliptic-curve values of the right length that are not a point, or not a reduced one, written by tools/make-vectors.py.
Verdict is refused or accepted: coordinates equal to or above p are reduced modulo p, and the reduced point is checked.
An accepted value has the secret for this side's private key Private.
""",
            flattened(dh_ecp_invalid_blocks, CURVES.values()),
        ),
        "hmac.txt": format_file(
            """
HMAC known answers: Output is HMAC(Key, Input). The blocks with a Source are figures of RFC 2202 and RFC 4231, the
others are written by tools/make-vectors.py. If Truncated is present, it is the number of bytes of the MAC that the RFC
publishes, and Output holds only those.
""",
            published_hmac_blocks(FOLDER / "hmac.txt") + flattened(hmac_blocks, HASHES),
        ),
        "prf_plus.txt": format_file(
            """
prf+ known answers, written by tools/make-vectors.py. Mode is counter (RFC 7296 section 2.13; the counter byte wraps,
so block 256 is computed with 0x00 and block 257 with 0x01) or chained (RFC 2409 section 5.5). Block<n> is the n-th
block of the stream, counted from 1. StreamSha256 is the SHA-256 of the first Blocks blocks together.
""",
            flattened(prf_plus_cases, HASHES),
        ),
    }


def main():
    parser = argparse.ArgumentParser(description="Writes the known-answer files of tests/vectors.")
    parser.add_argument("--check", action="store_true", help="compare with the existing files and write nothing")
    arguments = parser.parse_args()
    stale = []
    for name, text in make_files().items():
        path = FOLDER / name
        if arguments.check and (not path.exists() or path.read_text() != text):
            stale.append(name)
        elif not arguments.check:
            path.write_text(text)
    if stale:
        sys.exit("these files differ from what tools/make-vectors.py writes: " + ", ".join(stale))


if __name__ == "__main__":
    main()
