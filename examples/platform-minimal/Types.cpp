// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The plain types: exceptions, formatting, addresses, names, and their texts.
#include "platform/AgentTypes.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>

namespace Vello {

RangeException::~RangeException() = default;
CorruptionDetectedException::~CorruptionDetectedException() = default;

}  // namespace Vello

namespace Cor {

String _fmt(const char* format, ...) {
  std::va_list values;
  va_start(values, format);
  const int length = std::vsnprintf(nullptr, 0, format, values);
  va_end(values);
  if (length < 0) {
    throw std::invalid_argument("Cor::_fmt: printf refuses the format");
  }
  std::string text(static_cast<std::size_t>(length), '\0');
  va_start(values, format);
  (void)std::vsnprintf(text.data(), text.size() + 1, format, values);  // it fits
  va_end(values);
  return text;
}

}  // namespace Cor

namespace L3 {

VrfName::VrfName(std::string_view text) : name(text) {
  if (text.size() > maxLength()) {
    throw Vello::RangeException("Cor::String::bytes > maxLength() not allowed");
  }
}

}  // namespace L3

namespace Ipnet {

IpGenAddr::IpGenAddr(const char* text) {
  if (text != nullptr && inet_pton(AF_INET, text, address.data()) == 1) {
    addressFamily = Family::Ipv4;
  } else if (text != nullptr && inet_pton(AF_INET6, text, address.data()) == 1) {
    addressFamily = Family::Ipv6;
  } else {
    throw std::invalid_argument("Ipnet::IpGenAddr: not an IPv4 or IPv6 address");
  }
}

std::ostream& operator<<(std::ostream& out, const IpGenAddr& address) {
  char text[INET6_ADDRSTRLEN] = "unset";
  if (address.family() != IpGenAddr::Family::Unset) {
    const int family = address.family() == IpGenAddr::Family::Ipv4 ? AF_INET : AF_INET6;
    (void)inet_ntop(family, address.bytes().data(), text, sizeof text);  // it fits
  }
  return out << text;
}

}  // namespace Ipnet

namespace Ipsec {

std::ostream& operator<<(std::ostream& out, const ConnIdSrc& source) {
  if (source != ConnIdSrc::Local && source != ConnIdSrc::Remote) {
    return out << "unknown(" + std::to_string(static_cast<unsigned>(source)) + ")";
  }
  return out << (source == ConnIdSrc::Local ? "local" : "remote");
}

Vello::String Ike::stringValue(IpsecAuthType type) {
  constexpr const char* texts[] = {"pre-share", "rsa-sig", "ecdsa-sig", "pki"};
  const auto number = static_cast<std::size_t>(type);
  return number < std::size(texts) ? texts[number] : "unknown";
}

}  // namespace Ipsec
