// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// ESP in UDP (RFC 4303, RFC 3948), tunnel mode, and one echo request through it.
#pragma once

#include "Cipher.h"
#include "Link.h"

#include <chrono>
#include <functional>
#include <optional>

namespace Agent {

// ChildSa is one pair of ESP security associations.
class ChildSa {
 public:
  ChildSa(const Protection& protection, std::uint32_t inbound, std::uint32_t outbound, ChildKeys keys)
      : spiIn(inbound),
        spiOut(outbound),
        out(protection, std::move(keys.initiator)),
        in(protection, std::move(keys.responder)) {}

  std::uint32_t inboundSpi() const noexcept { return spiIn; }
  const Protection& protection() const noexcept { return out.transforms(); }

  // Returns the ESP packet that carries an IP packet.
  ByteVector encapsulate(ByteView ipPacket);

  // Returns the IP packet in an ESP packet. Returns nothing when it belongs to another SA, is not authentic, is
  // malformed or was received before.
  std::optional<ByteVector> decapsulate(ByteView espPacket);

 private:
  std::uint32_t spiIn;
  std::uint32_t spiOut;
  std::uint32_t lastSent = 0;
  std::uint32_t lastReceived = 0;
  Sealer out;
  Sealer in;
};

// Returns an IP packet with an ICMP or ICMPv6 echo request; both addresses have 4 or 16 bytes.
ByteVector echoRequest(ByteView source, ByteView destination, std::uint16_t identifier, std::uint16_t number);

// Returns whether an IP packet is the answer to a request from echoRequest.
bool isEchoReply(ByteView ipPacket, ByteView request);

// Sends an echo request through the tunnel and waits for its answer. beforeRetry is called before each repetition.
// Returns how long the answer took, or nothing when none came.
std::optional<std::chrono::microseconds> echo(const Link& link, ChildSa& child, ByteView source, ByteView destination,
                                              const std::function<void()>& beforeRetry);

}  // namespace Agent
