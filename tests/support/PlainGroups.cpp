// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/PlainGroups.h"

#include "base/OpenSslPtr.h"

#include <openssl/bn.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Ipsec::Testing {
namespace {

// --- Numbers ---------------------------------------------------------------------------------------------------------

void check(bool worked) {
  if (!worked) {
    throw std::runtime_error("a calculation with big numbers failed");
  }
}

BN_CTX* scratch() {
  static auto* const context = new Base::BnContextPtr(BN_CTX_new());
  return context->get();
}

// A whole number that is copied and calculated with like an int.
class Number {
 public:
  Number(BN_ULONG value = 0) : held(BN_new()) { check(BN_set_word(held.get(), value) == 1); }
  explicit Number(const ByteVector& bytes) : Number() {
    check(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), held.get()) != nullptr);
  }
  Number(const Number& other) : held(BN_dup(other.get())) {}
  Number(Number&&) noexcept = default;
  Number& operator=(Number other) noexcept {
    held.swap(other.held);
    return *this;
  }
  ~Number() = default;

  static Number fromHex(const char* digits) {
    Number number;
    BIGNUM* into = number.get();
    check(BN_hex2bn(&into, digits) != 0);
    return number;
  }
  static Number powerOfTwo(int exponent) {
    Number number;
    check(BN_set_bit(number.get(), exponent) == 1);
    return number;
  }

  BIGNUM* get() const { return held.get(); }
  bool isZero() const { return BN_is_zero(get()); }
  bool bit(int index) const { return BN_is_bit_set(get(), index) == 1; }
  int bits() const { return BN_num_bits(get()); }
  std::size_t size() const { return static_cast<std::size_t>(BN_num_bytes(get())); }

  ByteVector bytes(std::size_t length) const {
    ByteVector out(length);
    check(BN_bn2binpad(get(), out.data(), static_cast<int>(length)) == static_cast<int>(length));
    return out;
  }

  friend bool operator==(const Number& left, const Number& right) { return BN_cmp(left.get(), right.get()) == 0; }
  friend bool operator<(const Number& left, const Number& right) { return BN_cmp(left.get(), right.get()) < 0; }
  friend Number operator+(Number left, const Number& right) {
    check(BN_add(left.get(), left.get(), right.get()) == 1);
    return left;
  }
  friend Number operator-(Number left, const Number& right) {
    check(BN_sub(left.get(), left.get(), right.get()) == 1);
    return left;
  }
  friend Number operator*(const Number& left, const Number& right) {
    Number product;
    check(BN_mul(product.get(), left.get(), right.get(), scratch()) == 1);
    return product;
  }
  friend Number operator/(const Number& left, const Number& right) {
    Number quotient;
    check(BN_div(quotient.get(), nullptr, left.get(), right.get(), scratch()) == 1);
    return quotient;
  }
  // The remainder is never negative.
  friend Number operator%(const Number& left, const Number& right) {
    Number rest;
    check(BN_nnmod(rest.get(), left.get(), right.get(), scratch()) == 1);
    return rest;
  }

 private:
  Base::PublicBn held;
};

Number power(const Number& base, const Number& exponent, const Number& modulus) {
  Number result(1);
  for (int bit = exponent.bits() - 1; bit >= 0; --bit) {
    result = result * result % modulus;
    if (exponent.bit(bit)) {
      result = result * base % modulus;
    }
  }
  return result;
}

Number inverse(const Number& number, const Number& modulus) {
  Number result;
  check(BN_mod_inverse(result.get(), number.get(), modulus.get(), scratch()) != nullptr);
  return result;
}

// Returns 2^bits * arctan(1/x), by the series.
Number arctanOfInverse(BN_ULONG x, int bits) {
  Number total;
  Number term = Number::powerOfTwo(bits) / x;
  bool adds = true;
  for (BN_ULONG odd = 1; !term.isZero(); odd += 2) {
    total = adds ? total + term / odd : total - term / odd;
    term = term / (x * x);
    adds = !adds;
  }
  return total;
}

// Returns 2^bits * pi, rounded down, by Machin's formula.
Number pi(int bits) {
  constexpr int guard = 64;
  return (arctanOfInverse(5, bits + guard) * 16 - arctanOfInverse(239, bits + guard) * 4) / Number::powerOfTwo(guard);
}

// --- MODP groups -----------------------------------------------------------------------------------------------------

struct Modp {
  Number p;
  Number g;
  Number q;  // the order of g's subgroup, or half of p-1
  bool checksSubgroup;
};

// RFC 2409 section 6 and RFC 3526: p = 2^n - 2^(n-64) - 1 + 2^64 * ([2^(n-130) pi] + addend).
Modp safePrime(int bits, BN_ULONG addend) {
  const Number p =
      Number::powerOfTwo(bits) - Number::powerOfTwo(bits - 64) - 1 + Number::powerOfTwo(64) * (pi(bits - 130) + addend);
  return {p, 2, (p - 1) / 2, false};
}

// RFC 5114 section 2.3.
Modp subgroupOf256Bits() {
  const char* const p =
      "87a8e61db4b6663cffbbd19c651959998ceef608660dd0f25d2ceed4435e3b00e00df8f1d61957d4faf7df4561b2aa3016c3d9113409"
      "6faa3bf4296d830e9a7c209e0c6497517abd5a8a9d306bcf67ed91f9e6725b4758c022e0b1ef4275bf7b6c5bfc11d45f9088b941f54e"
      "b1e59bb8bc39a0bf12307f5c4fdb70c581b23f76b63acae1caa6b7902d52526735488a0ef13c6d9a51bfa4ab3ad8347796524d8ef6a1"
      "67b5a41825d967e144e5140564251ccacb83e6b486f6b3ca3f7971506026c0b857f689962856ded4010abd0be621c3a3960a54e710c3"
      "75f26375d7014103a4b54330c198af126116d2276e11715f693877fad7ef09cadb094ae91e1a1597";
  const char* const g =
      "3fb32c9b73134d0b2e77506660edbd484ca7b18f21ef205407f4793a1a0ba12510dbc15077be463fff4fed4aac0bb555be3a6c1b0c6b"
      "47b1bc3773bf7e8c6f62901228f8c28cbb18a55ae31341000a650196f931c77a57f2ddf463e5e9ec144b777de62aaab8a8628ac376d2"
      "82d6ed3864e67982428ebc831d14348f6f2f9193b5045af2767164e1dfc967c1fb3f2e55a4bd1bffe83b9c80d052b985d182ea0adb2a"
      "3b7313d3fe14c8484b1e052588b9b7d2bbd2df016199ecd06e1557cd0915b3353bbb64e0ec377fd028370df92b52c7891428cdc67eb6"
      "184b523d1db246c32f63078490f00ef8d647d148d47954515e2327cfef98c582664b4c0f6cc41659";
  const char* const q = "8cf83642a709a097b447997640129da299b1a47d1eb3750ba308b0fe64f5fbd3";
  return {Number::fromHex(p), Number::fromHex(g), Number::fromHex(q), true};
}

Modp makeModp(DhGroupNum group) {
  switch (group) {
    case MODP_768:
      return safePrime(768, 149686);
    case MODP_1024:
      return safePrime(1024, 129093);
    case MODP_1536:
      return safePrime(1536, 741804);
    case MODP_2048:
      return safePrime(2048, 124476);
    case MODP_3072:
      return safePrime(3072, 1690314);
    case MODP_4096:
      return safePrime(4096, 240904);
    case MODP_6144:
      return safePrime(6144, 929484);
    case MODP_2048_256:
      return subgroupOf256Bits();
    default:
      throw std::invalid_argument("no MODP group");
  }
}

std::optional<ByteVector> modpSecret(const Modp& modp, const ByteVector& priv, const ByteVector& peer) {
  const Number value(peer);
  const Number highest = modp.p - 1;
  if (value < 2 || !(value < highest)) {
    return std::nullopt;
  }
  if (modp.checksSubgroup && !(power(value, modp.q, modp.p) == 1)) {
    return std::nullopt;
  }
  const Number secret = power(value, Number(priv), modp.p);
  if (secret < 2 || secret == highest) {
    return std::nullopt;
  }
  return secret.bytes(modp.p.size());
}

// --- Curves ----------------------------------------------------------------------------------------------------------

struct Point {
  Number x;
  Number y;
};

using MaybePoint = std::optional<Point>;  // nothing: the point at infinity

// y^2 = x^3 - 3x + b modulo p.
struct Curve {
  DhGroupNum group;
  std::size_t size;  // of a coordinate, in bytes
  Number p;
  Number b;
  Point generator;
  Number order;

  bool contains(const Point& point) const {
    const Number& x = point.x;
    return (point.y * point.y - x * x * x + x * 3 - b) % p == 0;
  }

  MaybePoint add(const MaybePoint& left, const MaybePoint& right) const {
    if (!left || !right) {
      return left ? left : right;
    }
    if (left->x == right->x && (left->y + right->y) % p == 0) {
      return std::nullopt;
    }
    const Number slope = left->x == right->x ? (left->x * left->x * 3 - 3) % p * inverse(left->y * 2 % p, p)
                                             : (right->y - left->y) % p * inverse((right->x - left->x) % p, p);
    const Number x = (slope * slope - left->x - right->x) % p;
    return Point{x, (slope * (left->x - x) - left->y) % p};
  }

  MaybePoint multiply(const Number& factor, const Point& point) const {
    MaybePoint result;
    for (int bit = factor.bits() - 1; bit >= 0; --bit) {
      result = add(result, result);
      if (factor.bit(bit)) {
        result = add(result, point);
      }
    }
    return result;
  }

  ByteVector encode(const Point& point) const {
    ByteVector bytes = point.x.bytes(size);
    const ByteVector second = point.y.bytes(size);
    bytes.insert(bytes.end(), second.begin(), second.end());
    return bytes;
  }
};

struct CurveRow {
  DhGroupNum group;
  std::size_t size;
  const char* p;
  const char* b;
  const char* x;
  const char* y;
  const char* order;
};

// RFC 5903 section 3.
// clang-format off
constexpr CurveRow curveRows[] = {
  {ECP_256, 32,
    "ffffffff00000001000000000000000000000000ffffffffffffffffffffffff",
    "5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b",
    "6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296",
    "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5",
    "ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551"},
  {ECP_384, 48,
    "fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffeffffffff0000000000000000ffffffff",
    "b3312fa7e23ee7e4988e056be3f82d19181d9c6efe8141120314088f5013875ac656398d8a2ed19d2a85c8edd3ec2aef",
    "aa87ca22be8b05378eb1c71ef320ad746e1d3b628ba79b9859f741e082542a385502f25dbf55296c3a545e3872760ab7",
    "3617de4a96262c6f5d9e98bf9292dc29f8f41dbd289a147ce9da3113b5f0b8c00a60b1ce1d7e819d7a431d7c90ea0e5f",
    "ffffffffffffffffffffffffffffffffffffffffffffffffc7634d81f4372ddf581a0db248b0a77aecec196accc52973"},
  {ECP_521, 66,
    "1fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
    "fffffffffffffffffffffff",
    "51953eb9618e1c9a1f929a21a0b68540eea2da725b99b315f3b8b489918ef109e156193951ec7e937b1652c0bd3bb1bf073573df883d"
    "2c34f1ef451fd46b503f00",
    "c6858e06b70404e9cd9e3ecb662395b4429c648139053fb521f828af606b4d3dbaa14b5e77efe75928fe1dc127a2ffa8de3348b3c185"
    "6a429bf97e7e31c2e5bd66",
    "11839296a789a3bc0045c8a5fb42c7d1bd998f54449579b446817afbd17273e662c97ee72995ef42640c550b9013fad0761353c7086a"
    "272c24088be94769fd16650",
    "1fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa51868783bf2f966b7fcc0148f709a5d03bb5c9b88"
    "99c47aebb6fb71e91386409"},
};
// clang-format on

Curve makeCurve(const CurveRow& row) {
  return {row.group,
          row.size,
          Number::fromHex(row.p),
          Number::fromHex(row.b),
          {Number::fromHex(row.x), Number::fromHex(row.y)},
          Number::fromHex(row.order)};
}

std::optional<ByteVector> curveSecret(const Curve& curve, const ByteVector& priv, const ByteVector& peer) {
  const auto half = peer.begin() + static_cast<std::ptrdiff_t>(curve.size);
  const Point point = {Number(ByteVector(peer.begin(), half)) % curve.p,
                       Number(ByteVector(half, peer.end())) % curve.p};
  if (!curve.contains(point)) {
    return std::nullopt;
  }
  const MaybePoint shared = curve.multiply(Number(priv) % curve.order, point);
  return shared ? std::optional(shared->x.bytes(curve.size)) : std::nullopt;
}

// --- All groups ------------------------------------------------------------------------------------------------------

const Curve* findCurve(DhGroupNum group) {
  static const auto* const curves =
      new std::array<Curve, 3>{makeCurve(curveRows[0]), makeCurve(curveRows[1]), makeCurve(curveRows[2])};
  const auto* const found =
      std::find_if(curves->begin(), curves->end(), [group](const Curve& curve) { return curve.group == group; });
  return found == curves->end() ? nullptr : found;
}

const Modp& modpOf(DhGroupNum group) {
  static auto* const known = new std::vector<std::pair<DhGroupNum, Modp>>;
  for (const auto& [number, modp] : *known) {
    if (number == group) {
      return modp;
    }
  }
  known->reserve(plainGroups.size());  // so that what was returned stays in its place
  return known->emplace_back(group, makeModp(group)).second;
}

}  // namespace

std::size_t plainPublicBytes(DhGroupNum group) {
  const Curve* const curve = findCurve(group);
  return curve != nullptr ? 2 * curve->size : modpOf(group).p.size();
}

std::optional<ByteVector> plainPublic(DhGroupNum group, const ByteVector& priv) {
  if (const Curve* const curve = findCurve(group)) {
    const MaybePoint point = curve->multiply(Number(priv) % curve->order, curve->generator);
    return point ? std::optional(curve->encode(*point)) : std::nullopt;
  }
  const Modp& modp = modpOf(group);
  return power(modp.g, Number(priv), modp.p).bytes(modp.p.size());
}

std::optional<ByteVector> plainSecret(DhGroupNum group, const ByteVector& priv, const ByteVector& peer) {
  if (peer.size() != plainPublicBytes(group)) {
    return std::nullopt;
  }
  const Curve* const curve = findCurve(group);
  return curve != nullptr ? curveSecret(*curve, priv, peer) : modpSecret(modpOf(group), priv, peer);
}

std::vector<ByteVector> plainEdgePeers(DhGroupNum group) {
  const std::size_t size = plainPublicBytes(group);
  std::vector<ByteVector> edges = {ByteVector(size, 0), ByteVector(size, 0xFF)};
  const Curve* const curve = findCurve(group);
  if (curve == nullptr) {
    const Number& p = modpOf(group).p;
    for (const Number& value : {Number(1), Number(2), p - 2, p - 1, p, p + 1, p + 2}) {
      edges.push_back(value.bytes(size));
    }
    return edges;
  }
  const Number& x = curve->generator.x;
  const Number& y = curve->generator.y;
  const Number& p = curve->p;
  const Number root = power(curve->b, (p + 1) / 4, p);  // of b, if it has one: all three primes are 3 modulo 4
  for (const Point& point : {Point{x, y}, Point{x, p - y}, Point{y, x}, Point{x, 0}, Point{0, y}, Point{x, y + 1},
                             Point{p, p}, Point{0, p}, Point{0, root}, Point{p, root}}) {
    edges.push_back(curve->encode(point));
  }
  if ((x + p).size() <= curve->size) {  // group 21 alone has room for it
    edges.push_back(curve->encode({x + p, y}));
    edges.push_back(curve->encode({x + p, y + p}));
  }
  return edges;
}

std::vector<ByteVector> plainEdgePrivates(DhGroupNum group) {
  const Curve* const curve = findCurve(group);
  const Number& order = curve != nullptr ? curve->order : modpOf(group).q;
  std::vector<ByteVector> edges = {{}, {0}, {0, 0, 1}, {2}};
  for (const Number& value : {order - 1, order, order + 1, order * 2, order * 256 + 1}) {
    edges.push_back(value.bytes(value.size()));
  }
  return edges;
}

std::optional<ByteVector> plainReadBack(DhGroupNum group, const ByteVector& priv) {
  const Number number(priv);
  const Curve* const curve = findCurve(group);
  if (number.isZero() || (curve != nullptr && number.size() > curve->order.size())) {
    return std::nullopt;
  }
  return number.bytes(number.size());
}

}  // namespace Ipsec::Testing
