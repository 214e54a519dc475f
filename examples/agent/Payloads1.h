// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The bodies of IKEv1's payloads (RFC 2407, RFC 2408, RFC 2409).
#pragma once

#include "Message.h"
#include "Payloads.h"
#include "Suite.h"

#include <map>
#include <string>

namespace Agent {

// The attributes of a transform, by their numbers.
using Attributes = std::map<std::uint16_t, std::uint64_t>;

// One proposal with one transform. The agent offers nothing else, and a peer may answer nothing else.
struct Offer1 {
  std::uint8_t protocol = ikeProtocol;
  ByteVector spi;
  std::uint8_t transform = 1;
  Attributes attributes;
};

// Phase 1: the ISAKMP SA with a pre-shared key.
Offer1 ikeOffer1(const Protection& protection, Ipsec::PrfType prf, Ipsec::DhGroupNum group);

// Phase 2: ESP in UDP, tunnel mode. The group MODP_NONE means no key exchange.
Offer1 espOffer1(const Protection& protection, ByteVector spi, Ipsec::DhGroupNum group);

Payload makeSa1(const Offer1& offer);

// Returns the SPI of the peer's choice. Throws Malformed, also for a choice that was not offered.
ByteVector parseSa1(ByteView body, const Offer1& offer);

Payload makeDelete1(std::uint8_t protocol, ByteView spi);
Payload makeSubnetId1(const Subnet& subnet);

// Returns the notify's type. Throws Malformed.
std::uint16_t parseNotify1(ByteView body);
std::string notifyName1(std::uint16_t type);

}  // namespace Agent
