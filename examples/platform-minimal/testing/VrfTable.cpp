// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The tests' hand on a text file as VRF table.
#include "platform/testing/VrfTable.h"

#include "base/CancellationHeld.h"

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>

namespace Vrf {

namespace {

std::string pathOf(const std::string& name) {
  return "/dev/shm" + name + ".vrf";
}

std::string lineOf(VrfIdMap::VrfId id, std::size_t length, std::string_view name) {
  return std::to_string(id.value()) + " " + std::to_string(length) + " " + std::string(name) + "\n";
}

// Puts a new file in place of the old one. The edit is given the old one's lines, one after the other.
void rewrite(const std::string& path, const std::function<std::string(const std::string& line)>& edit) {
  const Base::CancellationHeld held;
  std::ifstream old(path);
  std::string text;
  for (std::string line; std::getline(old, line);) {
    text += edit(line + "\n");
  }
  std::ofstream(path + ".new") << text;
  if (std::rename((path + ".new").c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot replace " + path);
  }
}

bool isOf(VrfIdMap::VrfId id, const std::string& line) {
  return line.rfind(std::to_string(id.value()) + " ", 0) == 0;
}

}  // namespace

TestTable::TestTable(const std::string& tableName) : name(tableName) {
  rewrite(pathOf(name), [](const std::string&) { return std::string(); });
}

TestTable::~TestTable() {
  (void)std::remove(pathOf(name).c_str());
}

void TestTable::set(const VrfIdMap::VrfEntry& entry) const {
  const Base::CancellationHeld held;
  rewrite(pathOf(name), [&](const std::string& line) { return isOf(entry.vrfId(), line) ? "" : line; });
  std::ofstream(pathOf(name), std::ios::app) << lineOf(entry.vrfId(), entry.name().size(), entry.name());
}

Vello::Ptr<VrfIdMap::Status> TestTable::open() const {
  return std::const_pointer_cast<VrfIdMap::Status>(VrfIdMap::Status::open(name.c_str()));
}

void TestTable::damage(std::string_view storedName) const {
  bool found = false;
  rewrite(pathOf(name), [&](const std::string& line) {
    const bool holds = line.find(" " + std::string(storedName) + "\n") != std::string::npos;
    found = found || holds;
    return holds ? "X" + line : line;
  });
  if (!found) {
    throw std::runtime_error("no entry has this name");
  }
}

void TestTable::setStoredLength(VrfIdMap::VrfId id, std::uint32_t length) const {
  bool found = false;
  rewrite(pathOf(name), [&](const std::string& line) {
    found = found || isOf(id, line);
    const std::string stored = line.substr(line.find(' ', line.find(' ') + 1) + 1);
    return isOf(id, line) ? lineOf(id, length, stored.substr(0, stored.size() - 1)) : line;
  });
  if (!found) {
    throw std::runtime_error("the table does not hold the VRF");
  }
}

}  // namespace Vrf
