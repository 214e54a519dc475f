// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The groups that the library offers, by IANA's numbers.
#pragma once

#include "Ipsec.h"

#include <array>

namespace Exchange {

struct Group {
  Ipsec::DhGroupNum number;
  const char* name;
};

inline constexpr std::array<Group, 11> groups = {{
    {Ipsec::MODP_768, "MODP-768"},
    {Ipsec::MODP_1024, "MODP-1024"},
    {Ipsec::MODP_1536, "MODP-1536"},
    {Ipsec::MODP_2048, "MODP-2048"},
    {Ipsec::MODP_3072, "MODP-3072"},
    {Ipsec::MODP_4096, "MODP-4096"},
    {Ipsec::MODP_6144, "MODP-6144"},
    {Ipsec::ECP_256, "ECP-256"},
    {Ipsec::ECP_384, "ECP-384"},
    {Ipsec::ECP_521, "ECP-521"},
    {Ipsec::MODP_2048_256, "MODP-2048-256"},
}};

// Returns the group with this number, or null if the library does not offer it.
inline const Group* findGroup(unsigned long number) {
  for (const Group& group : groups) {
    if (group.number == number) {
      return &group;
    }
  }
  return nullptr;
}

}  // namespace Exchange
