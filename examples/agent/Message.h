// The parts of an IKE message that both versions share: the header and the chain of payloads.
#pragma once

#include "Bytes.h"

#include <string>
#include <vector>

namespace Agent {

inline constexpr std::size_t headerSize = 28;
inline constexpr std::uint8_t version1 = 0x10;
inline constexpr std::uint8_t version2 = 0x20;

// Payload types; the first block is IKEv1's.
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

// Exchange types; the first block is IKEv1's.
enum ExchangeType : std::uint8_t {
  mainModeExchange = 2,
  informationalExchange1 = 5,
  quickModeExchange = 32,

  ikeSaInit = 34,
  ikeAuth = 35,
  createChildSa = 36,
  informational = 37,
};

// Flags of the header; the first is IKEv1's.
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
  std::uint8_t next = noPayload;  // set by parsing; of the Encrypted payload, the first payload inside
};

struct Message {
  Header header;
  std::vector<Payload> payloads;
};

// Writes the header with the lengths and types as given in it.
ByteVector encodeHeader(const Header& header);

// Writes payloads one after the other; the last one's next payload field says last.
ByteVector encodePayloads(const std::vector<Payload>& payloads, std::uint8_t last = noPayload);

// Writes a message in the clear; the header's first payload and length are filled in.
ByteVector encodeMessage(Header header, const std::vector<Payload>& payloads);

// Reads a header. Throws Malformed when the length that it states is not the datagram's.
Header parseHeader(ByteView datagram);

// Reads a chain of payloads that begins with the type first. The Encrypted payload ends a chain. With padded, bytes
// after the last payload are skipped (IKEv1 pads that way). Throws Malformed.
std::vector<Payload> parsePayloads(std::uint8_t first, ByteView bytes, bool padded = false);

// Reads a message in the clear, or an IKEv2 message down to its Encrypted payload. Throws Malformed.
Message parseMessage(ByteView datagram);

// Returns the first payload of a type, or null.
const Payload* find(const std::vector<Payload>& payloads, std::uint8_t type);

// Returns the first payload of a type, and throws Malformed when there is none.
const Payload& need(const std::vector<Payload>& payloads, std::uint8_t type, const char* what);

}  // namespace Agent
