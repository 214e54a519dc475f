// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Payloads1.h"

#include "Failure.h"

namespace Agent {
namespace {

constexpr std::uint32_t ipsecDoi = 1;
constexpr std::uint32_t identityOnly = 1;

// Phase 1 attributes, RFC 2409 appendix A.
enum : std::uint16_t {
  ikeEncryption = 1,
  ikeHash = 2,
  ikeAuthentication = 3,
  ikeGroup = 4,
  ikeLifeType = 11,
  ikeLifeDuration = 12,
  ikeKeyLength = 14,
};

// Phase 2 attributes, RFC 2407 section 4.5.
enum : std::uint16_t {
  espLifeType = 1,
  espLifeDuration = 2,
  espGroup = 3,
  espMode = 4,
  espIntegrity = 5,
  espKeyLength = 6,
};

constexpr std::uint64_t seconds = 1;
constexpr std::uint64_t sharedKey = 1;
constexpr std::uint64_t tunnelInUdp = 3;  // RFC 3947 section 5.1

struct NotifyRow {
  std::uint16_t type;
  const char* name;
};

constexpr NotifyRow notifyNames[] = {
    {1, "INVALID-PAYLOAD-TYPE"},      {4, "INVALID-COOKIE"},           {5, "INVALID-MAJOR-VERSION"},
    {7, "INVALID-EXCHANGE-TYPE"},     {9, "INVALID-MESSAGE-ID"},       {11, "INVALID-SPI"},
    {13, "ATTRIBUTES-NOT-SUPPORTED"}, {14, "NO-PROPOSAL-CHOSEN"},      {16, "PAYLOAD-MALFORMED"},
    {17, "INVALID-KEY-INFORMATION"},  {18, "INVALID-ID-INFORMATION"},  {23, "INVALID-HASH-INFORMATION"},
    {24, "AUTHENTICATION-FAILED"},    {30, "UNEQUAL-PAYLOAD-LENGTHS"},
};

std::uint64_t hashNumber(Ipsec::PrfType prf) {
  switch (prf) {
    case Ipsec::PRF_HMAC_SHA1:
      return 2;
    case Ipsec::PRF_HMAC_SHA2_256:
      return 4;
    case Ipsec::PRF_HMAC_SHA2_384:
      return 5;
    case Ipsec::PRF_HMAC_SHA2_512:
      return 6;
  }
  throw Failure(ExitCode::Internal, "a PRF without a number in IKEv1");
}

std::uint64_t integrityNumber(Ipsec::IntegrityAlgo integ) {
  switch (integ) {
    case Ipsec::AUTH_HMAC_SHA1_96:
      return 2;
    case Ipsec::AUTH_HMAC_SHA2_256_128:
      return 5;
    case Ipsec::AUTH_HMAC_SHA2_384_192:
      return 6;
    case Ipsec::AUTH_HMAC_SHA2_512_256:
      return 7;
  }
  throw Failure(ExitCode::Internal, "an integrity transform without a number in IKEv1");
}

ByteVector encodeAttributes(const Attributes& attributes) {
  ByteWriter out;
  for (const auto& [number, value] : attributes) {
    out.u16(0x8000U | number).u16(value);
  }
  return out.finish();
}

Attributes parseAttributes(ByteReader in) {
  Attributes attributes;
  while (!in.atEnd()) {
    const std::uint16_t number = in.u16();
    if ((number & 0x8000) != 0) {
      attributes[number & 0x7FFF] = in.u16();
      continue;
    }
    // The long form: a length, then a number of that length. Only lifetimes use it.
    std::uint64_t value = 0;
    for (const unsigned char byte : in.take(in.u16())) {
      value = value << 8 | byte;
    }
    attributes[number] = value;
  }
  return attributes;
}

// The peer may shorten a lifetime; everything else must be as offered.
Attributes withoutLifetime(Attributes attributes, std::uint8_t protocol) {
  const std::initializer_list<std::uint16_t> ofIke = {ikeLifeType, ikeLifeDuration};
  const std::initializer_list<std::uint16_t> ofEsp = {espLifeType, espLifeDuration};
  const auto& lifetimes = protocol == ikeProtocol ? ofIke : ofEsp;
  for (const std::uint16_t lifetime : lifetimes) {
    attributes.erase(lifetime);
  }
  return attributes;
}

}  // namespace

Offer1 ikeOffer1(const Protection& protection, Ipsec::PrfType prf, Ipsec::DhGroupNum group) {
  Offer1 offer;
  offer.attributes = {
      {ikeEncryption, protection.encr.algo == Ipsec::ENCR_3DES ? 5 : 7},
      {ikeHash, hashNumber(prf)},
      {ikeAuthentication, sharedKey},
      {ikeGroup, group},
      {ikeLifeType, seconds},
      {ikeLifeDuration, 28800},
  };
  if (protection.encr.keyLen != 0) {
    offer.attributes[ikeKeyLength] = protection.encr.keyLen;
  }
  return offer;
}

Offer1 espOffer1(const Protection& protection, ByteVector spi, Ipsec::DhGroupNum group) {
  Offer1 offer;
  offer.protocol = espProtocol;
  offer.spi = std::move(spi);
  offer.transform = static_cast<std::uint8_t>(protection.encr.algo);  // the same numbers as IKEv2's
  offer.attributes = {
      {espLifeType, seconds},
      {espLifeDuration, 3600},
      {espMode, tunnelInUdp},
  };
  if (!protection.isAead()) {
    offer.attributes[espIntegrity] = integrityNumber(protection.integ);
  }
  if (protection.encr.keyLen != 0) {
    offer.attributes[espKeyLength] = protection.encr.keyLen;
  }
  if (group != Ipsec::MODP_NONE) {
    offer.attributes[espGroup] = group;
  }
  return offer;
}

Payload makeSa1(const Offer1& offer) {
  const ByteVector attributes = encodeAttributes(offer.attributes);
  const ByteVector transform =
      ByteWriter().u8(0).u8(0).u16(8 + attributes.size()).u8(1).u8(offer.transform).u16(0).bytes(attributes).finish();
  ByteWriter out;
  out.u32(ipsecDoi).u32(identityOnly);
  out.u8(0).u8(0).u16(8 + offer.spi.size() + transform.size());
  out.u8(1).u8(offer.protocol).u8(offer.spi.size()).u8(1).bytes(offer.spi).bytes(transform);
  return {sa1Payload, out.finish()};
}

ByteVector parseSa1(ByteView body, const Offer1& offer) {
  ByteReader in(body);
  if (in.u32() != ipsecDoi || in.u32() != identityOnly) {
    throw Malformed("the peer's choice names another domain of interpretation");
  }
  (void)in.take(5);  // next, reserved, length, number: there is only one proposal, and its parts say where it ends
  const std::uint8_t protocol = in.u8();
  const std::size_t spiSize = in.u8();
  const std::uint8_t count = in.u8();
  ByteVector spi = toVector(in.take(spiSize));
  if (protocol != offer.protocol || count != 1 || (protocol == espProtocol && spiSize != offer.spi.size())) {
    throw Malformed("the peer's proposal is not the one offered");
  }
  (void)in.take(5);
  const std::uint8_t transform = in.u8();
  (void)in.u16();
  const Attributes chosen = withoutLifetime(parseAttributes(in), protocol);
  if (transform != offer.transform || chosen != withoutLifetime(offer.attributes, protocol)) {
    throw Malformed("the peer chose a transform that was not offered");
  }
  return spi;
}

Payload makeDelete1(std::uint8_t protocol, ByteView spi) {
  return {delete1Payload, ByteWriter().u32(ipsecDoi).u8(protocol).u8(spi.size()).u16(1).bytes(spi).finish()};
}

Payload makeSubnetId1(const Subnet& subnet) {
  const bool ipv4 = subnet.address.size() == 4;
  ByteWriter out;
  if (subnet.isHost()) {
    out.u8(ipv4 ? 1 : 5).u8(0).u16(0).bytes(subnet.address);
  } else {
    out.u8(ipv4 ? 4 : 6).u8(0).u16(0).bytes(subnet.lowest()).bytes(subnet.mask());
  }
  return {id1Payload, out.finish()};
}

std::uint16_t parseNotify1(ByteView body) {
  ByteReader in(body);
  (void)in.take(6);  // domain of interpretation, protocol, SPI size
  return in.u16();
}

std::string notifyName1(std::uint16_t type) {
  for (const NotifyRow& row : notifyNames) {
    if (row.type == type) {
      return row.name;
    }
  }
  return "type " + std::to_string(type);
}

}  // namespace Agent
