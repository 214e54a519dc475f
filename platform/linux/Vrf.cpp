// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/Vrf.h"

#include "base/CancellationHeld.h"
#include "platform/linux/VrfFile.h"
#include "platform/linux/VrfSegment.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

namespace L3 {

VrfName::VrfName(std::string_view text) {
  if (text.size() > maxLength()) {
    throw Vello::RangeException("Cor::String::bytes > maxLength() not allowed");
  }
  name = Cor::String(text);
}

}  // namespace L3

namespace Vrf {

VrfIdMap::VrfEntry::VrfEntry(VrfId id, std::string_view name) : number(id), nameLength(name.size()) {
  if (name.size() > maxNameLength) {
    throw Vello::RangeException("Vrf::VrfIdMap::VrfEntry: name > maxNameLength not allowed");
  }
  name.copy(nameBytes, maxNameLength);
}

namespace {

using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;

SlotWords wordsOf(const VrfEntry& entry) noexcept {
  SlotWords words = {};
  words[StateWord] = slotUsed;
  words[IdWord] = entry.vrfId().value();
  words[LengthWord] = static_cast<std::uint32_t>(entry.name().size());
  std::memcpy(&words[NameWord], entry.name().data(), entry.name().size());
  return words;
}

constexpr SlotWords freeWords = {};  // in the state slotFree

// The checksum proves only that a writer put the words there, not that they are right. So the length is checked too.
VrfEntry entryOf(const SlotWords& words) {
  const std::uint32_t length = words[LengthWord];
  if (length > VrfEntry::maxNameLength) {
    throw Vello::RangeException("VRF status table: stored name of " + std::to_string(length) +
                                " bytes > maxNameLength not allowed");
  }
  char name[nameWords * sizeof(std::uint32_t)];
  std::memcpy(name, &words[NameWord], sizeof(name));
  return {VrfId(words[IdWord]), std::string_view(name, length)};
}

// Writes a slot: fills the copy that is not the current one, then makes it that. A writer that ends before the last
// store has changed nothing that is read, and the next one fills the same copy again.
//
// The copy's number goes first, and everything is stored with release. A reader that meets a word of this change
// therefore also meets this number when it looks at the number again.
void writeSlot(Slot& slot, SlotWords words) noexcept {
  const std::uint32_t change = slot.changes.load(std::memory_order_relaxed) + 1;
  words[ChangeWord] = change;
  words[ChecksumWord] = checksumOf(words);
  SlotCopy& copy = slot.copyOf(change);
  for (std::size_t index = 0; index < SlotWordCount; ++index) {
    copy[index].store(words[index], std::memory_order_release);
  }
  slot.changes.store(change, std::memory_order_release);
}

// What a slot holds: the count of its changes, and the words of the copy that this makes the current one.
struct SlotContent {
  std::uint32_t change;
  SlotWords words;
};

// Reads a slot. The copy being read is written over only by the second change after it. If that has begun, the reader
// looks again. It does so only if the writer made a whole change during the look, and never if the writer stands still.
// There is no other limit. But a look is thirty loads, and a change is more than that.
SlotContent readSlot(const Slot& slot) noexcept {
  for (;;) {
    SlotContent content;
    content.change = slot.changes.load(std::memory_order_acquire);
    const SlotCopy& copy = slot.copyOf(content.change);
    for (std::size_t index = ChangeWord + 1; index < SlotWordCount; ++index) {
      content.words[index] = copy[index].load(std::memory_order_acquire);
    }
    content.words[ChangeWord] = copy[ChangeWord].load(std::memory_order_acquire);
    // Another number without another change is damage, and for the caller to find.
    if (content.words[ChangeWord] == content.change || slot.changes.load(std::memory_order_relaxed) == content.change) {
      return content;
    }
  }
}

// Returns what is wrong with what a slot holds, or nullptr. No writer leaves any of this, wherever it ends.
const char* damageOf(const SlotContent& content) noexcept {
  if (content.words[ChecksumWord] != checksumOf(content.words)) {
    return "its checksum is wrong";
  }
  if (content.words[ChangeWord] != content.change) {
    return "its count of changes is wrong";
  }
  if (content.words[StateWord] != slotFree && content.words[StateWord] != slotUsed) {
    return "its state is wrong";
  }
  return nullptr;
}

SlotWords intactWords(const Segment& segment, const Slot& slot) {
  const SlotContent content = readSlot(slot);
  if (const char* const damage = damageOf(content)) {
    const auto index = static_cast<std::size_t>(&slot - segment.slots.data());
    throw Vello::CorruptionDetectedException("VRF status table: entry " + std::to_string(index) +
                                             " is damaged: " + damage);
  }
  return content.words;
}

bool holds(const SlotWords& words, VrfId id) noexcept {
  return words[StateWord] == slotUsed && words[IdWord] == id.value();
}

// Returns whether a slot seems to hold a VRF. This is quick and checks nothing else.
bool seemsToHold(const Slot& slot, VrfId id) noexcept {
  const SlotCopy& copy = slot.copyOf(slot.changes.load(std::memory_order_relaxed));
  return copy[StateWord].load(std::memory_order_relaxed) == slotUsed &&
         copy[IdWord].load(std::memory_order_relaxed) == id.value();
}

// Returns whether a VRF may be put into a slot. A damaged slot is not free even if it looks so: it may have held a VRF.
bool isFree(const Slot& slot) noexcept {
  const SlotContent content = readSlot(slot);
  return content.words[StateWord] == slotFree && damageOf(content) == nullptr;
}

bool isTable(const Segment& segment) noexcept {
  return segment.magic.load(std::memory_order_acquire) == segmentMagic &&
         segment.version.load(std::memory_order_relaxed) == segmentVersion &&
         segment.size.load(std::memory_order_relaxed) == sizeof(Segment);
}

bool isSetUp(const Segment& segment) noexcept {
  return segment.magic.load(std::memory_order_acquire) != 0;
}

// Nobody reads the segment before its magic number is there. A writer that ends before leaves all of it to the next.
void setUp(Segment& segment) noexcept {
  for (Slot& slot : segment.slots) {
    writeSlot(slot, freeWords);
  }
  segment.version.store(segmentVersion, std::memory_order_relaxed);
  segment.size.store(sizeof(Segment), std::memory_order_relaxed);
  segment.magic.store(segmentMagic, std::memory_order_release);
}

}  // namespace

VrfIdMap::Status::Status(MappedSegment mapped)
    : segment(std::move(mapped)), handler([](const char* message) { (void)std::fprintf(stderr, "%s\n", message); }) {}

Vello::Ptr<VrfIdMap::Status> VrfIdMap::Status::create(const char* name) {
  const Base::CancellationHeld held;
  MappedSegment mapped = mapForWriting(name);
  if (!isSetUp(*mapped)) {
    setUp(*mapped);
  }
  if (!isTable(*mapped)) {
    throwError(EEXIST, name, "is no VRF status table");
  }
  return Vello::Ptr<Status>(new Status(std::move(mapped)));
}

Vello::Ptr<const VrfIdMap::Status> VrfIdMap::Status::open(const char* name) {
  const Base::CancellationHeld held;
  MappedSegment mapped = mapForReading(name);
  if (!isSetUp(*mapped)) {
    throwError(ENOENT, name, "is not set up yet");
  }
  if (!isTable(*mapped)) {
    throw Vello::CorruptionDetectedException(std::string("VRF status table ") + name + ": no VRF status table");
  }
  return Vello::Ptr<const Status>(new Status(std::move(mapped)));
}

void VrfIdMap::Status::remove(const char* name) noexcept {
  const Base::CancellationHeld held;
  removeFiles(name);  // a name that does not exist counts as removed
}

void VrfIdMap::Status::set(const VrfEntry& entry) {
  requireWriter(*segment);
  Slot* target = nullptr;
  for (Slot& slot : segment->slots) {
    if (seemsToHold(slot, entry.vrfId())) {
      target = &slot;
      break;
    }
    if (target == nullptr && isFree(slot)) {
      target = &slot;
    }
  }
  if (target == nullptr) {
    throw std::length_error("VRF status table: full");
  }
  writeSlot(*target, wordsOf(entry));
}

void VrfIdMap::Status::erase(VrfId id) {
  requireWriter(*segment);
  for (Slot& slot : segment->slots) {
    if (seemsToHold(slot, id)) {
      writeSlot(slot, freeWords);
    }
  }
}

VrfIdMap::VrfEntry VrfIdMap::Status::vrfEntry(VrfId id) const {
  const Base::CancellationHeld held;
  for (const Slot& slot : segment->slots) {
    if (!seemsToHold(slot, id)) {
      continue;
    }
    const SlotWords words = intactWords(*segment, slot);
    if (holds(words, id)) {
      return entryOf(words);
    }
  }
  // A number is known to be missing only if every entry is intact: a damaged entry may be the one that is sought.
  for (const Slot& slot : segment->slots) {
    const SlotWords words = intactWords(*segment, slot);
    if (holds(words, id)) {
      return entryOf(words);
    }
  }
  return defaultEntry();
}

}  // namespace Vrf
