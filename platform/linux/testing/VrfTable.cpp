// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The tests' hand on a table in shared memory.
#include "platform/testing/VrfTable.h"

#include "base/Descriptor.h"
#include "platform/linux/VrfSegment.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Vrf {

namespace {

// Maps a table as a third party that may do anything with it.
MappedSegment mapped(const std::string& name) {
  const Base::Descriptor file(shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
  void* const memory = mmap(nullptr, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("cannot map " + name);
  }
  return MappedSegment(static_cast<Segment*>(memory));
}

// Returns the current copy of the entry that the condition holds for.
template <class Condition>
SlotCopy& findCopy(Segment& segment, const Condition& wanted) {
  for (Slot& slot : segment.slots) {
    SlotCopy& copy = slot.copyOf(slot.changes);
    if (copy[StateWord] == slotUsed && wanted(copy)) {
      return copy;
    }
  }
  throw std::runtime_error("the table has no such entry");
}

std::string nameIn(const SlotCopy& copy) {
  std::string bytes;
  for (std::size_t word = NameWord; word < ChecksumWord; ++word) {
    const std::uint32_t four = copy[word];
    bytes.append(reinterpret_cast<const char*>(&four), sizeof four);
  }
  return bytes.substr(0, copy[LengthWord]);
}

}  // namespace

TestTable::TestTable(const std::string& tableName)
    : name(tableName), writer(VrfIdMap::Status::create(tableName.c_str())) {}

TestTable::~TestTable() {
  VrfIdMap::Status::remove(name.c_str());
}

void TestTable::set(const VrfIdMap::VrfEntry& entry) const {
  writer->set(entry);
}

Vello::Ptr<VrfIdMap::Status> TestTable::open() const {
  return std::const_pointer_cast<VrfIdMap::Status>(VrfIdMap::Status::open(name.c_str()));
}

void TestTable::damage(std::string_view storedName) const {
  const MappedSegment segment = mapped(name);
  findCopy(*segment, [&](const SlotCopy& copy) { return nameIn(copy) == storedName; })[NameWord] ^= 1;
}

void TestTable::setStoredLength(VrfIdMap::VrfId id, std::uint32_t length) const {
  const MappedSegment segment = mapped(name);
  SlotCopy& copy = findCopy(*segment, [&](const SlotCopy& each) { return each[IdWord] == id.value(); });
  copy[LengthWord] = length;
  SlotWords words;
  std::copy(copy.begin(), copy.end(), words.begin());
  copy[ChecksumWord] = checksumOf(words);
}

}  // namespace Vrf
