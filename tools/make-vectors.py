#!/usr/bin/env python3
"""Writes the known-answer files of tests/vectors with its own arithmetic, as an oracle that does not use OpenSSL.

Modular exponentiation is Python's pow. Elliptic curves, HMAC (RFC 2104) and prf+ are written out here with plain
integers and hashlib's digests. Primes come from the closed formulas of RFC 2409 and RFC 3526. Every "random" number is
a hash of its label, so the files are the same each time.

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

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "tests" / "vectors"


# --- Numbers ---------------------------------------------------------------------------------------------------------


def toInt(data):
    return int.from_bytes(data, "big")


def toBytes(number, size):
    return number.to_bytes(size, "big")


def minimalBytes(number):
    return toBytes(number, (number.bit_length() + 7) // 8)


def seededBytes(label, size):
    """Bytes that depend on nothing but the label."""
    blocks = (hashlib.sha256(f"{label}/{i}".encode()).digest() for i in itertools.count())
    return b"".join(itertools.islice(blocks, size // 32 + 1))[:size]


def seededInt(label, bits):
    """A number of exactly this many bits."""
    return toInt(seededBytes(label, (bits + 7) // 8)) % 2 ** (bits - 1) + 2 ** (bits - 1)


def hasLeadingZeros(number, size, count):
    return number >> (8 * (size - count)) == 0


def piTimesTwoTo(bits):
    """floor(pi * 2^bits), by Machin's formula: pi = 16 arctan(1/5) - 4 arctan(1/239)."""
    guard = 64
    one = 1 << (bits + guard)

    def arctanOfInverse(x):
        total, power, sign = 0, one // x, 1
        for odd in itertools.count(1, 2):
            if power == 0:
                return total
            total += sign * (power // odd)
            power //= x * x
            sign = -sign

    return (16 * arctanOfInverse(5) - 4 * arctanOfInverse(239)) >> guard


# --- MODP groups -----------------------------------------------------------------------------------------------------

# Group, bits of the prime, the constant added to pi in RFC 2409 section 6 and RFC 3526, bits of a sensible exponent.
SAFE_PRIMES = [
    (1, 768, 149686, 192),
    (2, 1024, 129093, 192),
    (5, 1536, 741804, 256),
    (14, 2048, 124476, 256),
    (15, 3072, 1690314, 320),
    (16, 4096, 240904, 384),
    (17, 6144, 929484, 384),
]

# RFC 5114 section 2.3.
GROUP_24_P = int(
    """
    87a8e61db4b6663cffbbd19c651959998ceef608660dd0f25d2ceed4435e3b00e00df8f1d61957d4faf7df4561b2aa3016c3d91134096faa
    3bf4296d830e9a7c209e0c6497517abd5a8a9d306bcf67ed91f9e6725b4758c022e0b1ef4275bf7b6c5bfc11d45f9088b941f54eb1e59bb8
    bc39a0bf12307f5c4fdb70c581b23f76b63acae1caa6b7902d52526735488a0ef13c6d9a51bfa4ab3ad8347796524d8ef6a167b5a41825d9
    67e144e5140564251ccacb83e6b486f6b3ca3f7971506026c0b857f689962856ded4010abd0be621c3a3960a54e710c375f26375d7014103
    a4b54330c198af126116d2276e11715f693877fad7ef09cadb094ae91e1a1597""".translate(
        {10: None, 32: None}
    ),
    16,
)
GROUP_24_G = int(
    """
    3fb32c9b73134d0b2e77506660edbd484ca7b18f21ef205407f4793a1a0ba12510dbc15077be463fff4fed4aac0bb555be3a6c1b0c6b47b1
    bc3773bf7e8c6f62901228f8c28cbb18a55ae31341000a650196f931c77a57f2ddf463e5e9ec144b777de62aaab8a8628ac376d282d6ed38
    64e67982428ebc831d14348f6f2f9193b5045af2767164e1dfc967c1fb3f2e55a4bd1bffe83b9c80d052b985d182ea0adb2a3b7313d3fe14
    c8484b1e052588b9b7d2bbd2df016199ecd06e1557cd0915b3353bbb64e0ec377fd028370df92b52c7891428cdc67eb6184b523d1db246c3
    2f63078490f00ef8d647d148d47954515e2327cfef98c582664b4c0f6cc41659""".translate(
        {10: None, 32: None}
    ),
    16,
)
GROUP_24_Q = 0x8CF83642A709A097B447997640129DA299B1A47D1EB3750BA308B0FE64F5FBD3


class ModpGroup:
    def __init__(self, number, p, g, q, exponentBits):
        self.number, self.p, self.g, self.q, self.exponentBits = number, p, g, q, exponentBits
        self.size = (p.bit_length() + 7) // 8
        self.isSafePrime = p == 2 * q + 1

    def encode(self, value):
        return toBytes(value, self.size)

    def public(self, private):
        return self.encode(pow(self.g, toInt(private), self.p))

    def secret(self, private, peer):
        return self.encode(pow(toInt(peer), toInt(private), self.p))

    def seededExponent(self, label):
        return seededInt(f"group {self.number} {label}", self.exponentBits)

    def searchExponent(self, base, label, zeros):
        """The first exponent, from the label's own on, whose power of base has that many leading zero bytes."""
        exponent = self.seededExponent(label)
        power = pow(base, exponent, self.p)
        while not hasLeadingZeros(power, self.size, zeros):
            exponent += 1
            power = power * base % self.p
        return exponent


def makeModpGroups():
    groups = []
    for number, bits, addend, exponentBits in SAFE_PRIMES:
        p = 2**bits - 2 ** (bits - 64) - 1 + 2**64 * (piTimesTwoTo(bits - 130) + addend)
        groups.append(ModpGroup(number, p, 2, (p - 1) // 2, exponentBits))
    groups.append(ModpGroup(24, GROUP_24_P, GROUP_24_G, GROUP_24_Q, 256))
    return {group.number: group for group in groups}


MODP_GROUPS = makeModpGroups()


# --- Elliptic curves -------------------------------------------------------------------------------------------------


class Curve:
    """y^2 = x^3 - 3x + b over the integers modulo p. Points are pairs, the point at infinity is None."""

    def __init__(self, number, p, b, order, generator):
        self.number, self.p, self.b, self.order, self.generator = number, p, b, order, generator
        self.size = (p.bit_length() + 7) // 8

    def encode(self, point):
        return toBytes(point[0], self.size) + toBytes(point[1], self.size)

    def decode(self, data):
        return toInt(data[: self.size]), toInt(data[self.size :])

    def contains(self, point):
        x, y = point
        return (y * y - x**3 + 3 * x - self.b) % self.p == 0

    def negated(self, point):
        return point[0], -point[1] % self.p

    def add(self, left, right):
        if left is None or right is None:
            return left or right
        if left[0] == right[0] and (left[1] + right[1]) % self.p == 0:
            return None
        if left == right:
            slope = (3 * left[0] ** 2 - 3) * pow(2 * left[1], -1, self.p)
        else:
            slope = (right[1] - left[1]) * pow(right[0] - left[0], -1, self.p)
        x = (slope * slope - left[0] - right[0]) % self.p
        return x, (slope * (left[0] - x) - left[1]) % self.p

    def multiply(self, number, point):
        result = None
        for bit in bin(number)[2:]:
            result = self.add(result, result)
            if bit == "1":
                result = self.add(result, point)
        return result

    def public(self, private):
        return self.encode(self.multiply(toInt(private) % self.order, self.generator))

    def secret(self, private, peer):
        return toBytes(self.multiply(toInt(private) % self.order, self.decode(peer))[0], self.size)

    def pointWithX(self, x):
        """The point with this x and the even y, or None. All three primes are 3 modulo 4."""
        square = (x**3 - 3 * x + self.b) % self.p
        root = pow(square, (self.p + 1) // 4, self.p)
        if root * root % self.p != square:
            return None
        return x, root if root % 2 == 0 else self.p - root

    def seededScalar(self, label):
        return seededInt(f"group {self.number} {label}", self.order.bit_length() - 1)

    def batchAdd(self, point, others):
        """point + other for each of others, with one inversion in all (none of the sums may be a doubling)."""
        products = list(
            itertools.accumulate(
                ((other[0] - point[0]) % self.p for other in others),
                lambda product, factor: product * factor % self.p,
                initial=1,
            )
        )
        inverse = pow(products[-1], -1, self.p)
        sums = [None] * len(others)
        for i in reversed(range(len(others))):
            x, y = others[i]
            slope = (y - point[1]) * inverse * products[i] % self.p
            inverse = inverse * (x - point[0]) % self.p
            sumX = (slope * slope - x - point[0]) % self.p
            sums[i] = sumX, (slope * (point[0] - sumX) - point[1]) % self.p
        return sums

    def searchScalar(self, base, label, accepts):
        """The first number above the label's own whose multiple of base is accepted."""
        scalar = self.seededScalar(label)
        steps = list(itertools.accumulate(itertools.repeat(base, 256), self.add))
        point = self.multiply(scalar, base)
        while True:
            sums = self.batchAdd(point, steps)
            for i, candidate in enumerate(sums, 1):
                if accepts(candidate):
                    return scalar + i
            scalar, point = scalar + 256, sums[-1]


# SP 800-186: the primes, the coefficients b, the orders and the generators of P-256, P-384 and P-521.
CURVES = {
    curve.number: curve
    for curve in (
        Curve(
            19,
            2**256 - 2**224 + 2**192 + 2**96 - 1,
            0x5AC635D8AA3A93E7B3EBBD55769886BC651D06B0CC53B0F63BCE3C3E27D2604B,
            0xFFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551,
            (
                0x6B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296,
                0x4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5,
            ),
        ),
        Curve(
            20,
            2**384 - 2**128 - 2**96 + 2**32 - 1,
            0xB3312FA7E23EE7E4988E056BE3F82D19181D9C6EFE8141120314088F5013875AC656398D8A2ED19D2A85C8EDD3EC2AEF,
            0xFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFC7634D81F4372DDF581A0DB248B0A77AECEC196ACCC52973,
            (
                0xAA87CA22BE8B05378EB1C71EF320AD746E1D3B628BA79B9859F741E082542A385502F25DBF55296C3A545E3872760AB7,
                0x3617DE4A96262C6F5D9E98BF9292DC29F8F41DBD289A147CE9DA3113B5F0B8C00A60B1CE1D7E819D7A431D7C90EA0E5F,
            ),
        ),
        Curve(
            21,
            2**521 - 1,
            int(
                "0051953eb9618e1c9a1f929a21a0b68540eea2da725b99b315f3b8b489918ef109e1"
                "56193951ec7e937b1652c0bd3bb1bf073573df883d2c34f1ef451fd46b503f00",
                16,
            ),
            int(
                "01fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa"
                "51868783bf2f966b7fcc0148f709a5d03bb5c9b8899c47aebb6fb71e91386409",
                16,
            ),
            (
                int(
                    "00c6858e06b70404e9cd9e3ecb662395b4429c648139053fb521f828af606b4d3dba"
                    "a14b5e77efe75928fe1dc127a2ffa8de3348b3c1856a429bf97e7e31c2e5bd66",
                    16,
                ),
                int(
                    "011839296a789a3bc0045c8a5fb42c7d1bd998f54449579b446817afbd17273e662c"
                    "97ee72995ef42640c550b9013fad0761353c7086a272c24088be94769fd16650",
                    16,
                ),
            ),
        ),
    )
}

GROUPS = MODP_GROUPS | CURVES


# --- HMAC and prf+ ---------------------------------------------------------------------------------------------------

HASHES = {
    "SHA-1": hashlib.sha1,
    "SHA-256": hashlib.sha256,
    "SHA-384": hashlib.sha384,
    "SHA-512": hashlib.sha512,
}


def hmac(hashName, key, data):
    """RFC 2104."""
    digest = HASHES[hashName]
    blockSize = digest().block_size
    if len(key) > blockSize:
        key = digest(key).digest()
    key = key.ljust(blockSize, b"\0")
    inner = digest(bytes(byte ^ 0x36 for byte in key) + data).digest()
    return digest(bytes(byte ^ 0x5C for byte in key) + inner).digest()


def prfPlusBlocks(hashName, mode, key, seed):
    """The blocks of the stream: RFC 7296 section 2.13, with a counter byte that wraps, or RFC 2409 section 5.5."""
    block = b""
    for i in itertools.count(1):
        suffix = bytes([i % 256]) if mode == "counter" else b""
        block = hmac(hashName, key, block + seed + suffix)
        yield block


# --- Files -----------------------------------------------------------------------------------------------------------


def formatValue(value):
    return value.hex() if isinstance(value, bytes) else str(value)


def formatBlock(block):
    return "".join(f"{name} = {formatValue(value)}".rstrip() + "\n" for name, value in block.items())


def formatFile(comment, blocks):
    head = "".join(f"# {line}\n" for line in comment.strip().splitlines())
    return head + "".join("\n" + formatBlock(block) for block in blocks)


def readBlocks(path):
    blocks = [{}]
    for line in path.read_text().splitlines():
        if not line:
            blocks.append({})
        elif not line.startswith("#"):
            name, value = line.split("=", 1)
            blocks[-1][name.strip()] = value.strip()
    return [block for block in blocks if block]


def exchangeBlock(note, group, private, peer):
    return {
        "Note": note,
        "Group": group.number,
        "Private": private,
        "Public": group.public(private),
        "Peer": peer,
        "Secret": group.secret(private, peer),
    }


def dhModpBlocks(group):
    def exponent(label):
        return minimalBytes(group.seededExponent(label))

    def found(base, label, zeros=1):
        return minimalBytes(group.searchExponent(base, label, zeros))

    own, peer = exponent("own"), group.public(exponent("peer"))
    peerValue = toInt(peer)
    bits = group.exponentBits
    yield exchangeBlock("random", group, own, peer)
    yield exchangeBlock("leading zero byte in the own public value", group, found(group.g, "public 1"), peer)
    yield exchangeBlock(
        "leading zero byte in the peer's public value", group, own, group.public(found(group.g, "peer 1"))
    )
    yield exchangeBlock("leading zero byte in the secret", group, found(peerValue, "secret 1"), peer)
    yield exchangeBlock("leading zero byte in the private key", group, b"\0" + exponent("private 1")[1:], peer)
    yield exchangeBlock(
        "private key above the order of the generator's subgroup",
        group,
        minimalBytes(group.q + seededInt(f"group {group.number} above", bits - 8)),
        peer,
    )
    yield exchangeBlock(
        "private key eight bytes longer than the prime",
        group,
        minimalBytes(seededInt(f"group {group.number} long", 8 * group.size + 64)),
        peer,
    )
    if group.isSafePrime:
        yield exchangeBlock("one-byte private key and smallest numbers: 3 squared", group, b"\x02", group.encode(3))
        yield exchangeBlock("largest public value in range, p - 2", group, b"\x03", group.encode(group.p - 2))
    else:
        yield exchangeBlock("one-byte private key", group, b"\x02", peer)
    # The long groups have none of these: they would take much space, and much time to find.
    if group.size <= 256:
        yield exchangeBlock(
            "two leading zero bytes in the own public value", group, found(group.g, "public 2", 2), peer
        )
        yield exchangeBlock("two leading zero bytes in the secret", group, found(peerValue, "secret 2", 2), peer)
        yield exchangeBlock("the peer's public value is the own one", group, own, group.public(own))


def dhEcpBlocks(curve):
    size = curve.size

    def scalar(label):
        return toBytes(curve.seededScalar(label), size)

    def found(base, label, accepts):
        return toBytes(curve.searchScalar(base, label, accepts), size)

    def xStartsWith(zeros):
        return lambda point: hasLeadingZeros(point[0], size, zeros)

    def yStartsWithZero(point):
        return hasLeadingZeros(point[1], size, 1)

    own, peer = scalar("own"), curve.public(scalar("peer"))
    peerPoint = curve.decode(peer)
    generator = curve.generator
    yield exchangeBlock("random", curve, own, peer)
    yield exchangeBlock("leading zero byte in the own x", curve, found(generator, "x 1", xStartsWith(1)), peer)
    yield exchangeBlock("leading zero byte in the own y", curve, found(generator, "y 1", yStartsWithZero), peer)
    yield exchangeBlock("two leading zero bytes in the own x", curve, found(generator, "x 2", xStartsWith(2)), peer)
    yield exchangeBlock(
        "leading zero byte in the peer's x", curve, own, curve.public(found(generator, "peer x 1", xStartsWith(1)))
    )
    yield exchangeBlock(
        "leading zero byte in the peer's y", curve, own, curve.public(found(generator, "peer y 1", yStartsWithZero))
    )
    yield exchangeBlock("leading zero byte in the secret", curve, found(peerPoint, "secret 1", xStartsWith(1)), peer)
    yield exchangeBlock(
        "two leading zero bytes in the secret", curve, found(peerPoint, "secret 2", xStartsWith(2)), peer
    )
    yield exchangeBlock("two leading zero bytes in the private key", curve, b"\0\0" + scalar("private 1")[2:], peer)
    yield exchangeBlock(
        "private key without padding", curve, minimalBytes(seededInt(f"group {curve.number} short", 200)), peer
    )
    yield exchangeBlock("private key 1: the generator, and the peer's x", curve, b"\x01", peer)
    yield exchangeBlock("one-byte private key", curve, b"\x02", peer)
    yield exchangeBlock(
        "private key n - 1: the generator's and the peer's x", curve, minimalBytes(curve.order - 1), peer
    )
    yield exchangeBlock("private key n + 2, above the order: acts as 2", curve, minimalBytes(curve.order + 2), peer)
    yield exchangeBlock(
        "private key eight bytes longer than the order",
        curve,
        minimalBytes(seededInt(f"group {curve.number} long", 8 * size + 64)),
        peer,
    ) | {"PrivateReadable": "no"}
    yield exchangeBlock("the peer's public value is the generator", curve, own, curve.encode(generator))
    yield exchangeBlock("the peer's public value is the own one", curve, own, curve.public(own))
    yield exchangeBlock(
        "the peer's public value is the negated own one",
        curve,
        own,
        curve.encode(curve.negated(curve.decode(curve.public(own)))),
    )
    if curve.pointWithX(0):
        yield exchangeBlock("the peer's x is zero", curve, own, curve.encode(curve.pointWithX(0)))


def smallPrimeFactors(number, limit):
    factor = 2
    while factor < limit:
        if number % factor == 0:
            yield factor
            while number % factor == 0:
                number //= factor
        factor += 1


def elementOfOrder(group, order):
    """An element of this order, which is a product of different primes and divides p - 1."""
    primes = list(smallPrimeFactors(order, order + 1)) if order < 2**32 else [order]
    for base in itertools.count(2):
        element = pow(base, (group.p - 1) // order, group.p)
        if all(pow(element, order // prime, group.p) != 1 for prime in primes):
            return element


def dhModpInvalidBlocks(group):
    def refused(note, value):
        return {"Note": note, "Group": group.number, "Peer": group.encode(value)}

    p = group.p
    yield refused("0", 0)
    yield refused("1", 1)
    yield refused("p - 1", p - 1)
    yield refused("p", p)
    yield refused("p + 1", p + 1)
    yield refused("all bytes FF, above p", 256**group.size - 1)
    if group.isSafePrime:
        return
    orders = [order for order in smallPrimeFactors((p - 1) // group.q, 2**20) if order > 2]
    for order in orders + [orders[0] * orders[1]]:
        yield refused(f"order {order}, outside the subgroup", elementOfOrder(group, order))
    order = orders[0]
    yield refused(
        f"order {order} times q, a subgroup element times one of order {order}",
        group.g * elementOfOrder(group, order) % p,
    )
    outside = next(value for value in itertools.count(2) if pow(value, group.q, p) != 1)
    yield refused(f"{outside}, outside the subgroup", outside)
    yield refused("the negated generator, outside the subgroup", p - group.g)


def dhEcpInvalidBlocks(curve):
    size, p = curve.size, curve.p
    private = toBytes(curve.seededScalar("own"), size)

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

    x, y = curve.decode(curve.public(toBytes(curve.seededScalar("peer"), size)))
    smallX, smallY = next(filter(None, map(curve.pointWithX, itertools.count(1))))
    offX = next(candidate for candidate in itertools.count(1) if curve.pointWithX(candidate) is None)
    allOnes = 256**size - 1
    yield judged("y one too large", x, (y + 1) % p)
    yield judged("x one too large", (x + 1) % p, y)
    yield judged("lowest bit of the last byte flipped", x, y ^ 1)
    yield judged("coordinates swapped", y, x)
    yield judged("(0, 0)", 0, 0)
    yield judged("(1, 1)", 1, 1)
    yield judged("y is zero", x, 0)
    yield judged("x that no point has", offX, y)
    yield judged("a point of a curve that differs in b", 0, pointOnShiftedCurve(curve))
    yield judged("all bytes FF", allOnes, allOnes)
    yield judged("unreduced (p, p), the point (0, 0)", p, p)
    yield judged("unreduced x, a point on the curve", smallX + p, smallY)
    yield judged("unreduced x, off the curve", smallX + p, (smallY + 1) % p)
    yield judged("unreduced x that no point has", offX + p, smallY)
    if curve.pointWithX(0):
        yield judged("unreduced x = p, the point with x = 0", p, curve.pointWithX(0)[1])
    # Only the 528 bits of group 21 have room for any y above p.
    if 2 * p <= allOnes:
        yield judged("unreduced y, a point on the curve", smallX, smallY + p)
        yield judged("unreduced x and y, a point on the curve", smallX + p, smallY + p)
        yield judged("twice unreduced x, a point on the curve", smallX + 2 * p, smallY)
        yield judged("unreduced y, off the curve", smallX, smallY + 1 + p)


def pointOnShiftedCurve(curve):
    """The y for x = 0 on y^2 = x^3 - 3x + b', with the first b' above b for which there is one."""
    for shifted in itertools.count(curve.b + 1):
        root = pow(shifted, (curve.p + 1) // 4, curve.p)
        if root * root % curve.p == shifted % curve.p:
            return root


def hmacBlocks(hashName):
    blockSize = HASHES[hashName]().block_size
    digestSize = HASHES[hashName]().digest_size
    # Length of the key and of the input: around the block size, and around the padding of the last block.
    lengths = [
        (0, 0),
        (0, 64),
        (1, 1),
        (digestSize, 0),
        (digestSize, blockSize - 17),
        (digestSize, blockSize - 8),
        (blockSize - 1, blockSize - 1),
        (blockSize, blockSize),
        (blockSize + 1, blockSize + 1),
        (2 * blockSize + 3, 3 * blockSize),
        (digestSize, 600),
        (16, 1000),
    ]
    for keySize, inputSize in lengths:
        key = seededBytes(f"hmac {hashName} key {keySize} {inputSize}", keySize)
        data = seededBytes(f"hmac {hashName} input {keySize} {inputSize}", inputSize)
        yield {
            "Note": f"key of {keySize} bytes, input of {inputSize} bytes",
            "Hash": hashName,
            "Key": key,
            "Input": data,
            "Output": hmac(hashName, key, data),
        }


def prfPlusCases(hashName):
    blockSize = HASHES[hashName]().block_size
    digestSize = HASHES[hashName]().digest_size
    # Length of the key, length of the seed.
    lengths = [(digestSize, 64), (0, 64), (1, 20), (blockSize, 1536), (blockSize + 1, 64), (3 * blockSize, 0)]
    for (keySize, seedSize), mode in itertools.product(lengths, ("counter", "chained")):
        yield prfPlusBlock(
            hashName,
            mode,
            seededBytes(f"prf+ {hashName} key {keySize} {seedSize}", keySize),
            seededBytes(f"prf+ {hashName} seed {keySize} {seedSize}", seedSize),
        )


def prfPlusBlock(hashName, mode, key, seed):
    count = 520
    blocks = list(itertools.islice(prfPlusBlocks(hashName, mode, key, seed), count))
    result = {
        "Note": f"key of {len(key)} bytes, seed of {len(seed)} bytes",
        "Hash": hashName,
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


def checkExchanges(path, groupNumbers):
    blocks = readBlocks(path)
    for number, block in enumerate(blocks, 1):
        group = GROUPS[int(block["Group"])]
        private, peer = bytes.fromhex(block["Private"]), bytes.fromhex(block["Peer"])
        require(group.public(private).hex() == block["Public"], path, number, "Public")
        require(group.secret(private, peer).hex() == block["Secret"], path, number, "Secret")
    # Both sides of each exchange must be there.
    if [int(block["Group"]) for block in blocks] != [group for group in groupNumbers for _ in range(2)]:
        sys.exit(f"{path}: there are not both sides of one exchange for each of the groups {groupNumbers}")


def publishedHmacBlocks(path):
    """The seven cases of RFC 2202 and the seven of RFC 4231 for each of our three SHA-2 digests."""
    blocks = [block for block in readBlocks(path) if block.get("Source", "").startswith("RFC ")]
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


def makeFiles():
    checkExchanges(FOLDER / "rfc5903.txt", [19, 20, 21])
    checkExchanges(FOLDER / "rfc5114.txt", [24, 19, 20, 21])
    return {
        "dh_modp.txt": formatFile(
            """
MODP known answers, made by tools/make-vectors.py. With the own private key Private, the own public value is Public,
and the secret with the peer's public value Peer is Secret. Public, Peer and Secret have the length of the prime.
Private is what setMyPrivateKey is given: it may have leading zero bytes, which getMyPrivateKey does not give back.
""",
            flattened(dhModpBlocks, MODP_GROUPS.values()),
        ),
        "dh_ecp.txt": formatFile(
            """
Elliptic-curve known answers, made by tools/make-vectors.py. With the own private key Private, the own public value is
Public, and the secret with the peer's public value Peer is Secret. Public and Peer are x and y, each of the length of
a field element; Secret is x. Private is what setMyPrivateKey is given: it may have leading zero bytes.
PrivateReadable, where present, is "no": OpenSSL computes with a private number that is longer than the order, but does
not hand it out again, so getMyPrivateKey fails.
""",
            flattened(dhEcpBlocks, CURVES.values()),
        ),
        "dh_modp_invalid.txt": formatFile(
            """
MODP values of the right length that must not become a secret (RFC 6989 sections 2.1 and 2.2), made by
tools/make-vectors.py. Every Peer must be refused.
""",
            flattened(dhModpInvalidBlocks, MODP_GROUPS.values()),
        ),
        "dh_ecp_invalid.txt": formatFile(
            """
Elliptic-curve values of the right length that name no point, or no reduced one, made by tools/make-vectors.py.
Verdict is refused or accepted: coordinates at or above p are reduced modulo p, and the reduced point is judged. An
accepted one comes with the secret for the own private key Private.
""",
            flattened(dhEcpInvalidBlocks, CURVES.values()),
        ),
        "hmac.txt": formatFile(
            """
HMAC known answers: Output is HMAC(Key, Input). The blocks with a Source are figures of RFC 2202 and RFC 4231, the
others are made by tools/make-vectors.py. Truncated, where present, is the number of bytes of the MAC that the RFC
publishes; Output then holds just those.
""",
            publishedHmacBlocks(FOLDER / "hmac.txt") + flattened(hmacBlocks, HASHES),
        ),
        "prf_plus.txt": formatFile(
            """
prf+ known answers, made by tools/make-vectors.py. Mode is counter (RFC 7296 section 2.13, the counter byte wraps: block
256 is made with 0x00, block 257 with 0x01) or chained (RFC 2409 section 5.5). Block<n> is the n-th block of the stream,
counted from 1; StreamSha256 is the SHA-256 of the first Blocks blocks together.
""",
            flattened(prfPlusCases, HASHES),
        ),
    }


def main():
    parser = argparse.ArgumentParser(description="Makes the known-answer files of tests/vectors.")
    parser.add_argument("--check", action="store_true", help="compare with the existing files and write nothing")
    arguments = parser.parse_args()
    stale = []
    for name, text in makeFiles().items():
        path = FOLDER / name
        if arguments.check and (not path.exists() or path.read_text() != text):
            stale.append(name)
        elif not arguments.check:
            path.write_text(text)
    if stale:
        sys.exit("these files differ from what tools/make-vectors.py writes: " + ", ".join(stale))


if __name__ == "__main__":
    main()
