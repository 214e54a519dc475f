// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The bodies of IKEv2's payloads (RFC 7296 section 3).
#pragma once

#include "Message.h"
#include "Suite.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// Protocol numbers in proposals, notifies and deletes.
inline constexpr std::uint8_t ikeProtocol = 1;
inline constexpr std::uint8_t espProtocol = 3;

// Notify types that the agent acts upon. Types below firstStatus are errors.
inline constexpr std::uint16_t notifyInvalidKe = 17;
inline constexpr std::uint16_t firstStatus = 16384;
inline constexpr std::uint16_t notifyNatSource = 16388;
inline constexpr std::uint16_t notifyNatDestination = 16389;
inline constexpr std::uint16_t notifyCookie = 16390;

// What an SA payload negotiates. An IKE proposal has a PRF and groups; an ESP proposal has a group only with PFS.
struct Offer {
  std::uint8_t protocol = ikeProtocol;
  ByteVector spi;
  Protection protection;
  std::optional<Ipsec::PrfType> prf;
  std::vector<Ipsec::DhGroupNum> groups;
};

// The peer's choice from an offer.
struct Choice {
  ByteVector spi;
  Ipsec::DhGroupNum group = Ipsec::MODP_NONE;
};

struct KeyExchangeData {
  std::uint16_t group = 0;
  ByteVector value;
};

struct Notify {
  std::uint16_t type = 0;
  ByteVector data;
};

// An address or a prefix of addresses, in the form that IKE uses: 4 or 16 bytes.
struct Subnet {
  ByteVector address;
  unsigned prefixBits = 0;

  bool isHost() const { return prefixBits == address.size() * 8; }
  ByteVector mask() const;
  ByteVector lowest() const;
  ByteVector highest() const;
};

// Reads "10.0.0.1", "10.0.0.0/24" or the IPv6 forms. Throws Failure (Usage).
Subnet parseSubnet(const std::string& text);

// Returns the type (1 IPv4, 2 name, 3 name with an at sign inside, 5 IPv6) and the bytes of an identity.
struct Identity {
  std::uint8_t type = 0;
  ByteVector data;
};
Identity parseIdentity(const std::string& text);

Payload makeSa(const Offer& offer);
Payload makeKe(std::uint16_t group, ByteView value);
Payload makeNotify(std::uint16_t type, ByteView data);
Payload makeDelete(std::uint8_t protocol, ByteView spi);
Payload makeTs(std::uint8_t type, const Subnet& subnet);
ByteVector makeIdBody(const Identity& identity);

// Reads the peer's choice. Throws Malformed, also for a choice that was not offered.
Choice parseSa(ByteView body, const Offer& offer);
KeyExchangeData parseKe(ByteView body);
Notify parseNotify(ByteView body);

// Returns whether the peer's traffic selectors, one or more IPv4 or IPv6 ranges, are within what was offered.
bool tsWithin(ByteView body, const Subnet& offered);

// Returns the data of the first notify of a type.
std::optional<ByteVector> findNotify(const std::vector<Payload>& payloads, std::uint16_t type);

// Throws Failure (Refused) with the notify's name if there is an error notify.
void throwIfRefused(const std::vector<Payload>& payloads, const char* what);

// Returns the name of a notify, such as "NO_PROPOSAL_CHOSEN", or "type N" for one that has no name here.
std::string notifyName(std::uint16_t type);

}  // namespace Agent
