# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""Arithmetic of IKE's key exchange and key material, as an oracle that does not use OpenSSL.

Modular exponentiation is Python's pow. Elliptic curves, HMAC (RFC 2104) and prf+ are written out here with plain
integers and hashlib's digests. Primes come from the closed formulas of RFC 2409 and RFC 3526.
"""

import hashlib
import itertools


# --- Numbers ---------------------------------------------------------------------------------------------------------


def to_int(data):
    return int.from_bytes(data, "big")


def to_bytes(number, size):
    return number.to_bytes(size, "big")


def minimal_bytes(number):
    return to_bytes(number, (number.bit_length() + 7) // 8)


def seeded_bytes(label, size):
    """Bytes that depend on nothing but the label."""
    blocks = (hashlib.sha256(f"{label}/{i}".encode()).digest() for i in itertools.count())
    return b"".join(itertools.islice(blocks, size // 32 + 1))[:size]


def seeded_int(label, bits):
    """A number of exactly this many bits."""
    return to_int(seeded_bytes(label, (bits + 7) // 8)) % 2 ** (bits - 1) + 2 ** (bits - 1)


def has_leading_zeros(number, size, count):
    return number >> (8 * (size - count)) == 0


def pi_times_two_to(bits):
    """floor(pi * 2^bits), by Machin's formula: pi = 16 arctan(1/5) - 4 arctan(1/239)."""
    guard = 64
    one = 1 << (bits + guard)

    def arctan_of_inverse(x):
        total, power, sign = 0, one // x, 1
        for odd in itertools.count(1, 2):
            if power == 0:
                return total
            total += sign * (power // odd)
            power //= x * x
            sign = -sign

    return (16 * arctan_of_inverse(5) - 4 * arctan_of_inverse(239)) >> guard


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
    def __init__(self, number, p, g, q, exponent_bits):
        self.number, self.p, self.g, self.q, self.exponent_bits = number, p, g, q, exponent_bits
        self.size = (p.bit_length() + 7) // 8
        self.is_safe_prime = p == 2 * q + 1

    def encode(self, value):
        return to_bytes(value, self.size)

    def public(self, private):
        return self.encode(pow(self.g, to_int(private), self.p))

    def secret(self, private, peer):
        return self.encode(pow(to_int(peer), to_int(private), self.p))

    def seeded_exponent(self, label):
        return seeded_int(f"group {self.number} {label}", self.exponent_bits)

    def search_exponent(self, base, label, zeros):
        """The first exponent, from the label's own on, whose power of base has that many leading zero bytes."""
        exponent = self.seeded_exponent(label)
        power = pow(base, exponent, self.p)
        while not has_leading_zeros(power, self.size, zeros):
            exponent += 1
            power = power * base % self.p
        return exponent


def make_modp_groups():
    groups = []
    for number, bits, addend, exponent_bits in SAFE_PRIMES:
        p = 2**bits - 2 ** (bits - 64) - 1 + 2**64 * (pi_times_two_to(bits - 130) + addend)
        groups.append(ModpGroup(number, p, 2, (p - 1) // 2, exponent_bits))
    groups.append(ModpGroup(24, GROUP_24_P, GROUP_24_G, GROUP_24_Q, 256))
    return {group.number: group for group in groups}


MODP_GROUPS = make_modp_groups()


# --- Elliptic curves -------------------------------------------------------------------------------------------------


class Curve:
    """y^2 = x^3 - 3x + b over the integers modulo p. Points are pairs, the point at infinity is None."""

    def __init__(self, number, p, b, order, generator):
        self.number, self.p, self.b, self.order, self.generator = number, p, b, order, generator
        self.size = (p.bit_length() + 7) // 8

    def encode(self, point):
        return to_bytes(point[0], self.size) + to_bytes(point[1], self.size)

    def decode(self, data):
        return to_int(data[: self.size]), to_int(data[self.size :])

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
        return self.encode(self.multiply(to_int(private) % self.order, self.generator))

    def secret(self, private, peer):
        return to_bytes(self.multiply(to_int(private) % self.order, self.decode(peer))[0], self.size)

    def point_with_x(self, x):
        """The point with this x and the even y, or None. All three primes are 3 modulo 4."""
        square = (x**3 - 3 * x + self.b) % self.p
        root = pow(square, (self.p + 1) // 4, self.p)
        if root * root % self.p != square:
            return None
        return x, root if root % 2 == 0 else self.p - root

    def seeded_scalar(self, label):
        return seeded_int(f"group {self.number} {label}", self.order.bit_length() - 1)

    def batch_add(self, point, others):
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
            sum_x = (slope * slope - x - point[0]) % self.p
            sums[i] = sum_x, (slope * (point[0] - sum_x) - point[1]) % self.p
        return sums

    def search_scalar(self, base, label, accepts):
        """The first number above the label's own whose multiple of base is accepted."""
        scalar = self.seeded_scalar(label)
        steps = list(itertools.accumulate(itertools.repeat(base, 256), self.add))
        point = self.multiply(scalar, base)
        while True:
            sums = self.batch_add(point, steps)
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


def hmac(hash_name, key, data):
    """RFC 2104."""
    digest = HASHES[hash_name]
    block_size = digest().block_size
    if len(key) > block_size:
        key = digest(key).digest()
    key = key.ljust(block_size, b"\0")
    inner = digest(bytes(byte ^ 0x36 for byte in key) + data).digest()
    return digest(bytes(byte ^ 0x5C for byte in key) + inner).digest()


def prf_plus_blocks(hash_name, mode, key, seed):
    """The blocks of the stream: RFC 7296 section 2.13, with a counter byte that wraps, or RFC 2409 section 5.5."""
    block = b""
    for i in itertools.count(1):
        suffix = bytes([i % 256]) if mode == "counter" else b""
        block = hmac(hash_name, key, block + seed + suffix)
        yield block
