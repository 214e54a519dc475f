// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A VRF status table for tests: what a test does to a table as its writer, and as somebody who damages it. How that is
// done depends on what the platform keeps a table in, so each platform has its own.
#pragma once

#include "platform/Vrf.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Vrf {

class TestTable {
 public:
  // Creates an empty table with a name of the form "/name". The destructor removes it.
  explicit TestTable(const std::string& tableName);
  ~TestTable();
  TestTable(const TestTable&) = delete;
  TestTable& operator=(const TestTable&) = delete;

  // Adds or replaces one VRF, as the table's writer does.
  void set(const VrfIdMap::VrfEntry& entry) const;

  // Opens the table as a reader does. The result is not const, so that a test can install a handler.
  Vello::Ptr<VrfIdMap::Status> open() const;

  // Changes the entry with this name in a way that no writer does. Throws std::runtime_error if there is none.
  void damage(std::string_view storedName) const;

  // Gives the entry of a VRF another length of its name, as a faulty writer would: nothing else about it looks wrong.
  // Throws std::runtime_error if the table does not hold the VRF.
  void setStoredLength(VrfIdMap::VrfId id, std::uint32_t length) const;

 private:
  std::string name;
  Vello::Ptr<VrfIdMap::Status> writer;  // null where the table has no writer of its own
};

}  // namespace Vrf
