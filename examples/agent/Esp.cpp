// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Esp.h"

#include <algorithm>

namespace Agent {
namespace {

constexpr std::uint8_t ipv4InIp = 4;
constexpr std::uint8_t ipv6InIp = 41;
constexpr std::uint8_t icmp = 1;
constexpr std::uint8_t icmpv6 = 58;
constexpr std::size_t ipv4HeaderSize = 20;
constexpr std::size_t ipv6HeaderSize = 40;
constexpr std::size_t echoDataSize = 56;

// RFC 1071.
std::uint16_t checksum(ByteView bytes) {
  std::uint32_t sum = 0;
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    sum += index % 2 == 0 ? std::uint32_t{bytes[index]} << 8 : bytes[index];
  }
  while (sum > 0xFFFF) {
    sum = (sum >> 16) + (sum & 0xFFFF);
  }
  return static_cast<std::uint16_t>(~sum);
}

void putAt(ByteVector* bytes, std::size_t offset, std::uint16_t value) {
  (*bytes)[offset] = static_cast<unsigned char>(value >> 8);
  (*bytes)[offset + 1] = static_cast<unsigned char>(value);
}

ByteVector ipv4Header(ByteView source, ByteView destination, std::size_t payloadSize) {
  ByteVector header = ByteWriter()
                          .u8(0x45)
                          .u8(0)
                          .u16(ipv4HeaderSize + payloadSize)
                          .u32(0)
                          .u8(64)
                          .u8(icmp)
                          .u16(0)
                          .bytes(source)
                          .bytes(destination)
                          .finish();
  putAt(&header, 10, checksum(header));
  return header;
}

ByteVector ipv6Header(ByteView source, ByteView destination, std::size_t payloadSize) {
  return ByteWriter().u32(0x60000000).u16(payloadSize).u8(icmpv6).u8(64).bytes(source).bytes(destination).finish();
}

std::size_t ipHeaderSize(ByteView packet) {
  return packet[0] >> 4 == 4 ? ipv4HeaderSize : ipv6HeaderSize;
}

// Returns the plaintext with its padding and trailer (RFC 4303 section 2.4): the bytes 1, 2, 3, ..., their count, and
// the type of what is inside.
ByteVector padded(ByteView ipPacket, std::size_t blockSize, std::uint8_t inside) {
  const std::size_t align = std::max<std::size_t>(blockSize, 4);
  const std::size_t count = (align - (ipPacket.size() + 2) % align) % align;
  ByteWriter out;
  out.bytes(ipPacket);
  for (std::size_t pad = 1; pad <= count; ++pad) {
    out.u8(pad);
  }
  return out.u8(count).u8(inside).finish();
}

}  // namespace

ByteVector ChildSa::encapsulate(ByteView ipPacket) {
  const std::uint8_t inside = ipPacket[0] >> 4 == 4 ? ipv4InIp : ipv6InIp;
  const ByteVector head = ByteWriter().u32(spiOut).u32(++lastSent).finish();
  return concat({head, out.seal(head, padded(ipPacket, protection().blockSize(), inside))});
}

std::optional<ByteVector> ChildSa::decapsulate(ByteView espPacket) {
  constexpr std::size_t headSize = 8;
  if (espPacket.size() < headSize) {
    return std::nullopt;
  }
  ByteReader reader(espPacket);
  const std::uint32_t spi = reader.u32();
  const std::uint32_t number = reader.u32();
  // A receiver of much traffic needs a replay window. For single packets it is enough that the numbers increase.
  if (spi != spiIn || number <= lastReceived) {
    return std::nullopt;
  }
  std::optional<ByteVector> plaintext = in.open(espPacket.first(headSize), espPacket.subspan(headSize));
  if (!plaintext || plaintext->size() < 2) {
    return std::nullopt;
  }
  lastReceived = number;
  const std::size_t padCount = (*plaintext)[plaintext->size() - 2];
  if (padCount + 2 > plaintext->size()) {
    return std::nullopt;
  }
  plaintext->resize(plaintext->size() - 2 - padCount);
  return plaintext;
}

ByteVector echoRequest(ByteView source, ByteView destination, std::uint16_t identifier, std::uint16_t number) {
  const bool ipv4 = source.size() == 4;
  ByteVector message = ByteWriter().u8(ipv4 ? 8 : 128).u8(0).u16(0).u16(identifier).u16(number).finish();
  for (std::size_t index = 0; index < echoDataSize; ++index) {
    message.push_back(static_cast<unsigned char>(index));
  }
  if (ipv4) {
    putAt(&message, 2, checksum(message));
    return concat({ipv4Header(source, destination, message.size()), message});
  }
  // ICMPv6's checksum covers a pseudo-header (RFC 8200 section 8.1).
  const ByteVector pseudo = ByteWriter().bytes(source).bytes(destination).u32(message.size()).u32(icmpv6).finish();
  putAt(&message, 2, checksum(concat({pseudo, message})));
  return concat({ipv6Header(source, destination, message.size()), message});
}

bool isEchoReply(ByteView ipPacket, ByteView request) {
  if (ipPacket.size() != request.size() || ipPacket[0] >> 4 != request[0] >> 4) {
    return false;
  }
  const std::size_t header = ipHeaderSize(request);
  const bool ipv4 = header == ipv4HeaderSize;
  const std::size_t addressSize = ipv4 ? 4 : 16;
  const std::size_t sourceAt = ipv4 ? 12 : 8;
  const ByteView askedFrom = request.subspan(sourceAt, addressSize);
  const ByteView askedTo = request.subspan(sourceAt + addressSize, addressSize);
  const ByteView answerFrom = ipPacket.subspan(sourceAt, addressSize);
  const ByteView answerTo = ipPacket.subspan(sourceAt + addressSize, addressSize);
  const ByteView reply = ipPacket.subspan(header);
  const ByteView asked = request.subspan(header);
  const std::uint8_t replyType = ipv4 ? 0 : 129;
  constexpr std::size_t afterChecksum = 4;  // identifier, number and data come back unchanged
  return equal(askedFrom, answerTo) && equal(askedTo, answerFrom) && reply[0] == replyType && reply[1] == 0 &&
         equal(reply.subspan(afterChecksum), asked.subspan(afterChecksum));
}

std::optional<std::chrono::microseconds> echo(const Link& link, ChildSa& child, ByteView source, ByteView destination,
                                              const std::function<void()>& beforeRetry) {
  using Clock = std::chrono::steady_clock;
  const std::uint16_t identifier = ByteReader(randomBytes(2)).u16();
  // The first request may overtake IKEv1's last message, without which the peer cannot accept it: the first wait is
  // short.
  std::chrono::milliseconds patience{20};
  std::uint16_t number = 0;
  for (; patience <= link.settings().timeout; patience *= 2) {
    if (number > 0) {
      beforeRetry();
    }
    const ByteVector request = echoRequest(source, destination, identifier, ++number);
    const Clock::time_point sent = Clock::now();
    link.sendEsp(child.encapsulate(request));
    while (const std::optional<ByteVector> packet = link.receiveEsp(sent + patience)) {
      const std::optional<ByteVector> inside = child.decapsulate(*packet);
      if (inside && isEchoReply(*inside, request)) {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent);
      }
    }
  }
  return std::nullopt;
}

}  // namespace Agent
