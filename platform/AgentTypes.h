// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Types that the agents share, and their text forms.
#pragma once

#include "platform/Framework.h"
#include "platform/Vrf.h"

#include <array>
#include <cstdint>
#include <ostream>

#pragma GCC visibility push(default)

namespace Ipnet {

// An IPv4 or IPv6 address, or no address. It consists of 16 address bytes in network order (an IPv4 address is in the
// first four) and a family byte.
class IpGenAddr {
 public:
  enum class Family : std::uint8_t { Unset = 0, Ipv4 = 4, Ipv6 = 6 };

  IpGenAddr() = default;

  // Reads "10.0.0.1" or "2001:db8::1". Throws std::invalid_argument for any other text.
  explicit IpGenAddr(const char* text);

  Family family() const noexcept { return addressFamily; }
  const std::array<std::uint8_t, 16>& bytes() const noexcept { return address; }

  friend bool operator==(const IpGenAddr& left, const IpGenAddr& right) noexcept {
    return left.addressFamily == right.addressFamily && left.address == right.address;
  }
  friend bool operator!=(const IpGenAddr& left, const IpGenAddr& right) noexcept { return !(left == right); }

 private:
  std::array<std::uint8_t, 16> address = {};
  Family addressFamily = Family::Unset;
};

// Writes the address as inet_ntop does, as a dotted quad or in the colon form. Writes "unset" for no address.
std::ostream& operator<<(std::ostream& out, const IpGenAddr& address);

}  // namespace Ipnet

namespace Ipsec {

// The side that allocated a connection's number.
enum class ConnIdSrc : std::uint8_t {
  Local = 0,
  Remote = 1,
};

// Writes "local" or "remote". For any other value writes "unknown(N)" with the value's number.
std::ostream& operator<<(std::ostream& out, const ConnIdSrc& source);

// The key of one IPsec connection.
class ConnectionKey {
 public:
  ConnectionKey(Vrf::VrfIdMap::VrfId vrfId, std::uint32_t connId, ConnIdSrc connIdSrc,
                const Ipnet::IpGenAddr& firstAddr, const Ipnet::IpGenAddr& secondAddr) noexcept
      : vrf(vrfId), id(connId), source(connIdSrc), first(firstAddr), second(secondAddr) {}

  Vrf::VrfIdMap::VrfId vrfId() const noexcept { return vrf; }
  std::uint32_t connId() const noexcept { return id; }
  const ConnIdSrc& connIdSrc() const noexcept { return source; }
  const Ipnet::IpGenAddr& firstAddr() const noexcept { return first; }
  const Ipnet::IpGenAddr& secondAddr() const noexcept { return second; }

 private:
  Vrf::VrfIdMap::VrfId vrf;
  std::uint32_t id;
  ConnIdSrc source;
  Ipnet::IpGenAddr first;
  Ipnet::IpGenAddr second;
};

namespace Ike {

// How an IKE peer proves its identity.
enum class IpsecAuthType : std::uint32_t {
  PreSharedKey = 0,
  RsaSignature = 1,
  EcdsaSignature = 2,
  PublicKey = 3,
};

// Returns the type's text: "pre-share", "rsa-sig", "ecdsa-sig" or "pki". Returns "unknown" for any other value.
Vello::String stringValue(IpsecAuthType type);

}  // namespace Ike
}  // namespace Ipsec

#pragma GCC visibility pop
