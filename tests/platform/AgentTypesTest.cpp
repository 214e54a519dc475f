// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The agent's types: addresses, VRF names and entries, texts of enumerations.

#include "platform/AgentTypes.h"
#include "platform/Vrf.h"
#include "tests/platform/Messages.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Ipsec::Testing {
namespace {

using Vrf::VrfIdMap;
using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;

template <class T>
std::string textOf(const T& value) {
  std::ostringstream out;
  out << std::hex << value;
  return out.str();
}

TEST(VrfName, HoldsAtMostAHundredBytes) {
  EXPECT_EQ(L3::VrfName(std::string(100, 'x')).string(), Cor::String(std::string(100, 'x')));
  EXPECT_TRUE(L3::VrfName().empty());
  EXPECT_FALSE(L3::VrfName(""));
  EXPECT_TRUE(L3::VrfName("default"));
  EXPECT_EQ(textOf(L3::VrfName("default")), "default");
  EXPECT_THROW((void)L3::VrfName(std::string(101, 'x')), Vello::RangeException);
  EXPECT_EQ(messageOf([] { (void)L3::VrfName(std::string(101, 'x')); }),
            "Cor::String::bytes > maxLength() not allowed");
}

TEST(VrfEntry, HoldsAtMostAHundredAndOneBytes) {
  EXPECT_EQ(VrfEntry(VrfId(1), std::string(101, 'x')).name(), std::string(101, 'x'));
  EXPECT_THROW((void)VrfEntry(VrfId(1), std::string(102, 'x')), Vello::RangeException);
  EXPECT_NE(VrfEntry(VrfId(1), "a"), VrfEntry(VrfId(2), "a"));
  EXPECT_NE(VrfEntry(VrfId(1), "a"), VrfEntry(VrfId(1), "b"));
}

TEST(IpGenAddr, WritesTheUsualTextForms) {
  const std::map<std::string, std::string> cases = {
      {"10.0.0.1", "10.0.0.1"},
      {"255.255.255.255", "255.255.255.255"},
      {"0.0.0.0", "0.0.0.0"},
      {"2001:DB8:0::1", "2001:db8::1"},
      {"::", "::"},
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(textOf(Ipnet::IpGenAddr(text.c_str())), expected);
  }
  EXPECT_EQ(textOf(Ipnet::IpGenAddr()), "unset");
}

TEST(IpGenAddr, HoldsNetworkOrderAndFamily) {
  const Ipnet::IpGenAddr four("1.2.3.4");
  EXPECT_EQ(four.family(), Ipnet::IpGenAddr::Family::Ipv4);
  EXPECT_EQ(four.bytes(), (std::array<std::uint8_t, 16>{1, 2, 3, 4}));
  const Ipnet::IpGenAddr six("102:304::");
  EXPECT_EQ(six.family(), Ipnet::IpGenAddr::Family::Ipv6);
  EXPECT_EQ(six.bytes(), four.bytes());
  EXPECT_NE(six, four);
  EXPECT_EQ(four, Ipnet::IpGenAddr("1.2.3.4"));
}

TEST(IpGenAddr, RefusesEveryOtherText) {
  for (const char* text : {"", "10.0.0", "10.0.0.256", "10.0.0.1 ", "010.0.0.1", "fe80::1%eth0", "localhost", ":::"}) {
    EXPECT_THROW((void)Ipnet::IpGenAddr(text), std::invalid_argument) << text;
  }
  EXPECT_THROW((void)Ipnet::IpGenAddr(nullptr), std::invalid_argument);
}

TEST(ConnIdSrc, WritesItsName) {
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc::Local), "local");
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc::Remote), "remote");
  EXPECT_EQ(textOf(Ipsec::ConnIdSrc{200}), "unknown(200)");
}

TEST(IpsecAuthType, HasText) {
  using Ipsec::Ike::IpsecAuthType;
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::PreSharedKey), "pre-share");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::RsaSignature), "rsa-sig");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::EcdsaSignature), "ecdsa-sig");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType::PublicKey), "pki");
  EXPECT_EQ(Ipsec::Ike::stringValue(IpsecAuthType{77}), "unknown");
}

}  // namespace
}  // namespace Ipsec::Testing
