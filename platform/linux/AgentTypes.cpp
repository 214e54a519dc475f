// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/AgentTypes.h"

#include <arpa/inet.h>

#include <stdexcept>
#include <string>

namespace Ipnet {

IpGenAddr::IpGenAddr(const char* text) {
  if (text != nullptr && inet_pton(AF_INET, text, address.data()) == 1) {
    addressFamily = Family::Ipv4;
    return;
  }
  if (text != nullptr && inet_pton(AF_INET6, text, address.data()) == 1) {
    addressFamily = Family::Ipv6;
    return;
  }
  throw std::invalid_argument("Ipnet::IpGenAddr: not an IPv4 or IPv6 address");
}

std::ostream& operator<<(std::ostream& out, const IpGenAddr& address) {
  if (address.family() == IpGenAddr::Family::Unset) {
    return out << "unset";
  }
  const int family = address.family() == IpGenAddr::Family::Ipv4 ? AF_INET : AF_INET6;
  char text[INET6_ADDRSTRLEN] = {};
  (void)inet_ntop(family, address.bytes().data(), text, sizeof(text));  // cannot fail: family and size are right
  return out << text;
}

}  // namespace Ipnet

namespace Ipsec {

std::ostream& operator<<(std::ostream& out, const ConnIdSrc& source) {
  switch (source) {
    case ConnIdSrc::Local:
      return out << "local";
    case ConnIdSrc::Remote:
      return out << "remote";
  }
  return out << "unknown(" + std::to_string(static_cast<unsigned>(source)) + ")";
}

namespace Ike {

Vello::String stringValue(IpsecAuthType type) {
  switch (type) {
    case IpsecAuthType::PreSharedKey:
      return "pre-share";
    case IpsecAuthType::RsaSignature:
      return "rsa-sig";
    case IpsecAuthType::EcdsaSignature:
      return "ecdsa-sig";
    case IpsecAuthType::PublicKey:
      return "pki";
  }
  return "unknown";
}

}  // namespace Ike
}  // namespace Ipsec
