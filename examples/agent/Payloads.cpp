// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Payloads.h"

#include "Failure.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace Agent {
namespace {

constexpr std::uint8_t encrTransform = 1;
constexpr std::uint8_t prfTransform = 2;
constexpr std::uint8_t integTransform = 3;
constexpr std::uint8_t groupTransform = 4;
constexpr std::uint8_t esnTransform = 5;
constexpr std::uint16_t keyLengthAttribute = 14;

struct Transform {
  std::uint8_t type;
  std::uint16_t id;
  std::uint64_t keyBits;  // 0: no attribute

  friend bool operator==(const Transform&, const Transform&) = default;
};

struct NotifyRow {
  std::uint16_t type;
  const char* name;
};

constexpr NotifyRow notifyNames[] = {
    {1, "UNSUPPORTED_CRITICAL_PAYLOAD"}, {4, "INVALID_IKE_SPI"},
    {5, "INVALID_MAJOR_VERSION"},        {7, "INVALID_SYNTAX"},
    {9, "INVALID_MESSAGE_ID"},           {11, "INVALID_SPI"},
    {14, "NO_PROPOSAL_CHOSEN"},          {17, "INVALID_KE_PAYLOAD"},
    {24, "AUTHENTICATION_FAILED"},       {34, "SINGLE_PAIR_REQUIRED"},
    {35, "NO_ADDITIONAL_SAS"},           {36, "INTERNAL_ADDRESS_FAILURE"},
    {37, "FAILED_CP_REQUIRED"},          {38, "TS_UNACCEPTABLE"},
    {39, "INVALID_SELECTORS"},           {43, "TEMPORARY_FAILURE"},
    {44, "CHILD_SA_NOT_FOUND"},
};

std::vector<Transform> transformsOf(const Offer& offer) {
  std::vector<Transform> transforms;
  const Protection& protection = offer.protection;
  transforms.push_back({encrTransform, static_cast<std::uint16_t>(protection.encr.algo), protection.encr.keyLen});
  if (!protection.isAead()) {
    transforms.push_back({integTransform, static_cast<std::uint16_t>(protection.integ), 0});
  }
  if (offer.prf) {
    transforms.push_back({prfTransform, static_cast<std::uint16_t>(*offer.prf), 0});
  }
  for (const Ipsec::DhGroupNum group : offer.groups) {
    transforms.push_back({groupTransform, static_cast<std::uint16_t>(group), 0});
  }
  if (offer.protocol == espProtocol) {
    transforms.push_back({esnTransform, 0, 0});  // no extended sequence numbers
  }
  return transforms;
}

ByteVector encodeTransform(const Transform& transform, bool last) {
  ByteWriter out;
  out.u8(last ? 0 : 3).u8(0).u16(transform.keyBits != 0 ? 12 : 8).u8(transform.type).u8(0).u16(transform.id);
  if (transform.keyBits != 0) {
    out.u16(0x8000 | keyLengthAttribute).u16(transform.keyBits);
  }
  return out.finish();
}

Transform parseTransform(ByteReader& in) {
  (void)in.u8();  // whether another one follows; the proposal's count says so too
  (void)in.u8();
  const std::size_t length = in.u16();
  if (length < 8) {
    throw Malformed("a transform is shorter than its header");
  }
  ByteReader body(in.take(length - 4));
  Transform transform = {};
  transform.type = body.u8();
  (void)body.u8();
  transform.id = body.u16();
  while (!body.atEnd()) {
    const std::uint16_t attribute = body.u16();
    const std::uint16_t value = body.u16();
    if ((attribute & 0x8000) == 0) {
      (void)body.take(value);
      continue;
    }
    if ((attribute & 0x7FFF) == keyLengthAttribute) {
      transform.keyBits = value;
    }
  }
  return transform;
}

// A choice must have exactly one transform of each offered type, and each must be one that was offered.
void checkChoice(const std::vector<Transform>& offered, const std::vector<Transform>& chosen, Choice* choice) {
  for (const Transform& transform : chosen) {
    if (std::find(offered.begin(), offered.end(), transform) == offered.end()) {
      throw Malformed("the peer chose a transform that was not offered");
    }
    if (transform.type == groupTransform) {
      choice->group = static_cast<Ipsec::DhGroupNum>(transform.id);
    }
  }
  for (const std::uint8_t type : {encrTransform, prfTransform, integTransform, groupTransform, esnTransform}) {
    const auto ofType = [type](const Transform& transform) { return transform.type == type; };
    const bool wasOffered = std::any_of(offered.begin(), offered.end(), ofType);
    if (std::count_if(chosen.begin(), chosen.end(), ofType) != (wasOffered ? 1 : 0)) {
      throw Malformed("the peer did not choose one transform of each type");
    }
  }
}

}  // namespace

Payload makeSa(const Offer& offer) {
  const std::vector<Transform> transforms = transformsOf(offer);
  ByteWriter body;
  for (const Transform& transform : transforms) {
    body.bytes(encodeTransform(transform, &transform == &transforms.back()));
  }
  const ByteVector encoded = body.finish();
  ByteWriter out;
  out.u8(0).u8(0).u16(8 + offer.spi.size() + encoded.size());
  out.u8(1).u8(offer.protocol).u8(offer.spi.size()).u8(transforms.size()).bytes(offer.spi).bytes(encoded);
  return {saPayload, out.finish()};
}

Choice parseSa(ByteView body, const Offer& offer) {
  ByteReader in(body);
  const std::uint8_t more = in.u8();
  (void)in.u8();
  const std::size_t length = in.u16();
  if (more != 0 || length != body.size()) {
    throw Malformed("the peer's choice is not one proposal");
  }
  const std::uint8_t number = in.u8();
  const std::uint8_t protocol = in.u8();
  const std::size_t spiSize = in.u8();
  const std::size_t count = in.u8();
  Choice choice;
  choice.spi = toVector(in.take(spiSize));
  if (number != 1 || protocol != offer.protocol || choice.spi.size() != offer.spi.size()) {
    throw Malformed("the peer's proposal is not the one offered");
  }
  std::vector<Transform> chosen;
  for (std::size_t index = 0; index < count; ++index) {
    chosen.push_back(parseTransform(in));
  }
  if (!in.atEnd()) {
    throw Malformed("bytes follow the peer's proposal");
  }
  checkChoice(transformsOf(offer), chosen, &choice);
  return choice;
}

Payload makeKe(std::uint16_t group, ByteView value) {
  return {kePayload, ByteWriter().u16(group).u16(0).bytes(value).finish()};
}

KeyExchangeData parseKe(ByteView body) {
  ByteReader in(body);
  KeyExchangeData ke;
  ke.group = in.u16();
  (void)in.u16();
  ke.value = toVector(in.takeRest());
  return ke;
}

Payload makeNotify(std::uint16_t type, ByteView data) {
  return {notifyPayload, ByteWriter().u8(0).u8(0).u16(type).bytes(data).finish()};
}

Notify parseNotify(ByteView body) {
  ByteReader in(body);
  (void)in.u8();  // the protocol of the SPI that follows
  const std::size_t spiSize = in.u8();
  Notify notify;
  notify.type = in.u16();
  (void)in.take(spiSize);
  notify.data = toVector(in.takeRest());
  return notify;
}

Payload makeDelete(std::uint8_t protocol, ByteView spi) {
  const std::size_t count = spi.empty() ? 0 : 1;
  return {deletePayload, ByteWriter().u8(protocol).u8(spi.size()).u16(count).bytes(spi).finish()};
}

ByteVector Subnet::mask() const {
  ByteVector bits(address.size());
  for (std::size_t bit = 0; bit < prefixBits; ++bit) {
    bits[bit / 8] = static_cast<unsigned char>(bits[bit / 8] | (0x80U >> (bit % 8)));
  }
  return bits;
}

ByteVector Subnet::lowest() const {
  ByteVector bytes = mask();
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    bytes[index] = static_cast<unsigned char>(bytes[index] & address[index]);
  }
  return bytes;
}

ByteVector Subnet::highest() const {
  ByteVector bytes = mask();
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    bytes[index] = static_cast<unsigned char>(~bytes[index] | address[index]);
  }
  return bytes;
}

Subnet parseSubnet(const std::string& text) {
  const std::size_t slash = text.find('/');
  const std::string host = text.substr(0, slash);
  Subnet subnet;
  subnet.address.resize(host.find(':') == std::string::npos ? 4 : 16);
  subnet.prefixBits = static_cast<unsigned>(subnet.address.size() * 8);
  const unsigned most = subnet.prefixBits;
  bool readable = inet_pton(most == 32 ? AF_INET : AF_INET6, host.c_str(), subnet.address.data()) == 1;
  if (slash != std::string::npos) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, subnet.prefixBits);
    readable = readable && error == std::errc() && stop == end && subnet.prefixBits <= most;
  }
  if (!readable) {
    throw Failure(ExitCode::Usage, "'" + text + "' is neither an address nor a subnet");
  }
  return subnet;
}

Identity parseIdentity(const std::string& text) {
  ByteVector address(16);
  if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
    address.resize(4);
    return {1, address};
  }
  if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) {
    return {5, address};
  }
  const auto type = static_cast<std::uint8_t>(text.find('@') == std::string::npos ? 2 : 3);
  return {type, ByteVector(text.begin(), text.end())};
}

ByteVector makeIdBody(const Identity& identity) {
  return ByteWriter().u8(identity.type).u8(0).u16(0).bytes(identity.data).finish();
}

Payload makeTs(std::uint8_t type, const Subnet& subnet) {
  const bool ipv4 = subnet.address.size() == 4;
  ByteWriter out;
  out.u8(1).u8(0).u16(0);
  out.u8(ipv4 ? 7 : 8).u8(0).u16(8 + 2 * subnet.address.size()).u16(0).u16(0xFFFF);
  return {type, out.bytes(subnet.lowest()).bytes(subnet.highest()).finish()};
}

bool tsWithin(ByteView body, const Subnet& offered) {
  ByteReader in(body);
  const std::size_t count = in.u8();
  (void)in.take(3);
  const ByteVector lowest = offered.lowest();
  const ByteVector highest = offered.highest();
  for (std::size_t index = 0; index < count; ++index) {
    const std::uint8_t type = in.u8();
    (void)in.take(7);  // protocol; length, which follows from the type; ports, which the peer may narrow
    const std::size_t size = type == 7 ? 4 : 16;
    const ByteView from = in.take(size);
    const ByteView to = in.take(size);
    const auto below = [](ByteView left, ByteView right) {
      return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
    };
    if (size != lowest.size() || below(from, lowest) || below(to, from) || below(highest, to)) {
      return false;
    }
  }
  return count > 0 && in.atEnd();
}

std::optional<ByteVector> findNotify(const std::vector<Payload>& payloads, std::uint16_t type) {
  for (const Payload& payload : payloads) {
    if (payload.type != notifyPayload) {
      continue;
    }
    Notify notify = parseNotify(payload.body);
    if (notify.type == type) {
      return std::move(notify.data);
    }
  }
  return std::nullopt;
}

void throwIfRefused(const std::vector<Payload>& payloads, const char* what) {
  for (const Payload& payload : payloads) {
    if (payload.type != notifyPayload) {
      continue;
    }
    const Notify notify = parseNotify(payload.body);
    if (notify.type < firstStatus) {
      throw Failure(ExitCode::Refused, std::string("the peer refuses ") + what + ": " + notifyName(notify.type));
    }
  }
}

std::string notifyName(std::uint16_t type) {
  for (const NotifyRow& row : notifyNames) {
    if (row.type == type) {
      return row.name;
    }
  }
  return "type " + std::to_string(type);
}

}  // namespace Agent
