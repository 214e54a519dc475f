// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ipsec.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <locale>
#include <string>

namespace Ipsec::Testing {
namespace {

using Vrf::VrfIdMap;

ConnectionKey key(const char* first, const char* second, std::uint32_t connId = 7,
                  ConnIdSrc source = ConnIdSrc::Local) {
  return {VrfIdMap::VrfId::defaultVrf(), connId, source, Ipnet::IpGenAddr(first), Ipnet::IpGenAddr(second)};
}

std::string nameOf(const ConnectionKey& connection) {
  return getConnNameFromKey(connection).str();
}

TEST(ConnectionName, JoinsItsFiveFieldsByHyphens) {
  EXPECT_EQ(nameOf(key("10.0.0.1", "10.0.0.2")), "default-10.0.0.1-10.0.0.2-local-7");
}

TEST(ConnectionName, KeepsTheOrderOfTheAddresses) {
  EXPECT_EQ(nameOf(key("10.0.0.2", "10.0.0.1")), "default-10.0.0.2-10.0.0.1-local-7");
}

TEST(ConnectionName, HoldsIpv6AddressesAsTheyAreWritten) {
  EXPECT_EQ(nameOf(key("2001:db8::1", "fe80::2:3")), "default-2001:db8::1-fe80::2:3-local-7");
}

TEST(ConnectionName, NamesAnUnsetAddress) {
  const ConnectionKey connection(VrfIdMap::VrfId::defaultVrf(), 1, ConnIdSrc::Local, Ipnet::IpGenAddr(),
                                 Ipnet::IpGenAddr());
  EXPECT_EQ(nameOf(connection), "default-unset-unset-local-1");
}

TEST(ConnectionName, WritesTheNumberInDecimalWithoutSign) {
  EXPECT_EQ(nameOf(key("10.0.0.1", "10.0.0.2", 0)), "default-10.0.0.1-10.0.0.2-local-0");
  EXPECT_EQ(nameOf(key("10.0.0.1", "10.0.0.2", 4294967295)), "default-10.0.0.1-10.0.0.2-local-4294967295");
}

TEST(ConnectionName, DiffersByTheSourceOfTheNumber) {
  EXPECT_EQ(nameOf(key("10.0.0.1", "10.0.0.2", 7, ConnIdSrc::Remote)), "default-10.0.0.1-10.0.0.2-remote-7");
}

struct GroupedDigits : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(ConnectionName, StaysTheSameInALocaleThatGroupsDigits) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupedDigits));
  const std::string name = nameOf(key("10.0.0.1", "10.0.0.2", 1234567));
  std::locale::global(before);
  EXPECT_EQ(name, "default-10.0.0.1-10.0.0.2-local-1234567");
}

TEST(ConnectionName, IsTracedNowhere) {
  const TraceRecorder traces("IpsecUtils=0-31");
  (void)getConnNameFromKey(key("10.0.0.1", "10.0.0.2"));
  EXPECT_TRUE(traces.lines().empty());
}

TEST(ConnectionNameDeathTest, AVrfOtherThanTheDefaultStopsTheProcess) {
  for (const std::uint32_t vrf : {1U, 0xFFFFFFU, 4294967295U}) {
    const ConnectionKey connection(VrfIdMap::VrfId(vrf), 7, ConnIdSrc::Local, Ipnet::IpGenAddr("10.0.0.1"),
                                   Ipnet::IpGenAddr("10.0.0.2"));
    EXPECT_DEATH((void)getConnNameFromKey(connection),
                 "IpsecUtils\\.cpp:.*getConnNameFromKey.*"
                 "`key\\.vrfId\\(\\) == Vrf::VrfIdMap::VrfId::defaultVrf\\(\\)'");
  }
}

}  // namespace
}  // namespace Ipsec::Testing
