// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The parts of an IKE message that both versions share: the header and the chain of payloads.
#pragma once

#include "Bytes.h"

#include <string>
#include <vector>

namespace Agent {

inline constexpr std::size_t headerSize = 28;
inline constexpr std::uint8_t version1 = 0x10;
inline constexpr std::uint8_t version2 = 0x20;

// Payload types. The first block is that of IKEv1.
enum PayloadType : std::uint8_t {
  noPayload = 0,
  sa1Payload = 1,
  ke1Payload = 4,
  id1Payload = 5,
  hash1Payload = 8,
  nonce1Payload = 10,
  notify1Payload = 11,
  delete1Payload = 12,
  vendor1Payload = 13,
  natD1Payload = 20,

  saPayload = 33,
  kePayload = 34,
  idIPayload = 35,
  idRPayload = 36,
  authPayload = 39,
  noncePayload = 40,
  notifyPayload = 41,
  deletePayload = 42,
  tsIPayload = 44,
  tsRPayload = 45,
  encryptedPayload = 46,
};

// Exchange types. The first block is that of IKEv1.
enum ExchangeType : std::uint8_t {
  mainModeExchange = 2,
  informationalExchange1 = 5,
  quickModeExchange = 32,

  ikeSaInit = 34,
  ikeAuth = 35,
  createChildSa = 36,
  informational = 37,
};

// Flags of the header. The first is that of IKEv1.
inline constexpr std::uint8_t encryptedFlag = 0x01;
inline constexpr std::uint8_t initiatorFlag = 0x08;
inline constexpr std::uint8_t responseFlag = 0x20;

struct Header {
  std::uint64_t spiI = 0;
  std::uint64_t spiR = 0;
  std::uint8_t firstPayload = noPayload;
  std::uint8_t version = version2;
  std::uint8_t exchange = 0;
  std::uint8_t flags = 0;
  std::uint32_t messageId = 0;
  std::uint32_t length = 0;
};

struct Payload {
  std::uint8_t type = noPayload;
  ByteVector body;
  std::uint8_t next = noPayload;  // set by parsing; for the Encrypted payload, the type of the first payload inside
};

struct Message {
  Header header;
  std::vector<Payload> payloads;
};

// Writes the header with the lengths and types that it states.
ByteVector encodeHeader(const Header& header);

// Writes payloads one after the other. The next payload field of the last one is set to last.
ByteVector encodePayloads(const std::vector<Payload>& payloads, std::uint8_t last = noPayload);

// Writes a message in the clear, and fills in the first payload and the length of its header.
ByteVector encodeMessage(Header header, const std::vector<Payload>& payloads);

// Reads a header. Throws Malformed when the length that it states is not that of the datagram.
Header parseHeader(ByteView datagram);

// Reads a chain of payloads whose first one has the type first. The Encrypted payload ends a chain. If padded is set,
// bytes after the last payload are skipped, because IKEv1 pads in that way. Throws Malformed.
std::vector<Payload> parsePayloads(std::uint8_t first, ByteView bytes, bool padded = false);

// Reads a message in the clear, or an IKEv2 message up to its Encrypted payload. Throws Malformed.
Message parseMessage(ByteView datagram);

// Returns the first payload of a type, or null.
const Payload* find(const std::vector<Payload>& payloads, std::uint8_t type);

// Returns the first payload of a type, and throws Malformed when there is none.
const Payload& need(const std::vector<Payload>& payloads, std::uint8_t type, const char* what);

}  // namespace Agent
