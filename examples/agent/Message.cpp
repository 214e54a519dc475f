// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Message.h"

namespace Agent {

ByteVector encodeHeader(const Header& header) {
  return ByteWriter()
      .u64(header.spiI)
      .u64(header.spiR)
      .u8(header.firstPayload)
      .u8(header.version)
      .u8(header.exchange)
      .u8(header.flags)
      .u32(header.messageId)
      .u32(header.length)
      .finish();
}

ByteVector encodePayloads(const std::vector<Payload>& payloads, std::uint8_t last) {
  ByteWriter out;
  for (std::size_t index = 0; index < payloads.size(); ++index) {
    const ByteVector& body = payloads[index].body;
    const std::uint8_t next = index + 1 < payloads.size() ? payloads[index + 1].type : last;
    out.u8(next).u8(0).u16(body.size() + 4).bytes(body);
  }
  return out.finish();
}

ByteVector encodeMessage(Header header, const std::vector<Payload>& payloads) {
  const ByteVector body = encodePayloads(payloads);
  header.firstPayload = payloads.empty() ? static_cast<std::uint8_t>(noPayload) : payloads.front().type;
  header.length = static_cast<std::uint32_t>(headerSize + body.size());
  return concat({encodeHeader(header), body});
}

Header parseHeader(ByteView datagram) {
  ByteReader in(datagram);
  Header header;
  header.spiI = in.u64();
  header.spiR = in.u64();
  header.firstPayload = in.u8();
  header.version = in.u8();
  header.exchange = in.u8();
  header.flags = in.u8();
  header.messageId = in.u32();
  header.length = in.u32();
  if (header.length != datagram.size()) {
    throw Malformed("the length in the header is not that of the datagram");
  }
  return header;
}

std::vector<Payload> parsePayloads(std::uint8_t first, ByteView bytes, bool padded) {
  std::vector<Payload> payloads;
  ByteReader in(bytes);
  std::uint8_t type = first;
  while (type != noPayload) {
    const std::uint8_t next = in.u8();
    (void)in.u8();  // the critical bit: all types that matter here are known, and others are skipped
    const std::size_t length = in.u16();
    if (length < 4) {
      throw Malformed("a payload is shorter than its header");
    }
    payloads.push_back({type, toVector(in.take(length - 4)), next});
    type = type == encryptedPayload ? static_cast<std::uint8_t>(noPayload) : next;
  }
  if (!padded && !in.atEnd()) {
    throw Malformed("bytes follow the last payload");
  }
  return payloads;
}

Message parseMessage(ByteView datagram) {
  Message message;
  message.header = parseHeader(datagram);
  message.payloads = parsePayloads(message.header.firstPayload, datagram.subspan(headerSize));
  return message;
}

const Payload* find(const std::vector<Payload>& payloads, std::uint8_t type) {
  for (const Payload& payload : payloads) {
    if (payload.type == type) {
      return &payload;
    }
  }
  return nullptr;
}

const Payload& need(const std::vector<Payload>& payloads, std::uint8_t type, const char* what) {
  const Payload* found = find(payloads, type);
  if (found == nullptr) {
    throw Malformed(std::string("the answer has no ") + what);
  }
  return *found;
}

}  // namespace Agent
