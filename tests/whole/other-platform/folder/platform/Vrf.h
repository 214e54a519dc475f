// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A VRF table of another framework: what the library asks of one, and nothing else.
#pragma once

#include "platform/Framework.h"

#include <cstdint>
#include <map>
#include <string_view>

namespace L3 {

class VrfName {
 public:
  explicit VrfName(std::string_view text) : name(text) {}
  const Cor::String& string() const noexcept { return name; }
  explicit operator bool() const noexcept { return !name.empty(); }
  friend std::ostream& operator<<(std::ostream& out, const VrfName& vrf) { return out << vrf.name; }

 private:
  Cor::String name;
};

}  // namespace L3

namespace Vrf {

struct VrfIdMap {
  struct VrfId {
    std::uint32_t number;

    static constexpr VrfId defaultVrf() noexcept { return {0}; }
    static constexpr VrfId none() noexcept { return {0xFFFFFF}; }
    friend bool operator==(const VrfId&, const VrfId&) = default;
  };

  struct VrfEntry {
    VrfId id;
    std::string_view text;

    VrfEntry(VrfId vrf, std::string_view entryName = {}) : id(vrf), text(entryName) {}
    std::string_view name() const noexcept { return text; }
    friend bool operator==(const VrfEntry&, const VrfEntry&) = default;
  };

  class Status {
   public:
    VrfEntry vrfEntry(VrfId id) const { return {id, names.at(id.number)}; }
    VrfEntry defaultEntry() const noexcept { return {VrfId::none()}; }
    const std::function<void(const char* message)>& corruptionHandler() const noexcept { return handler; }

   private:
    std::map<std::uint32_t, std::string> names;
    std::function<void(const char* message)> handler;
  };
};

}  // namespace Vrf
