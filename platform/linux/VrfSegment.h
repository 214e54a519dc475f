// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The layout of the VRF status table's shared-memory segment, for the table itself and for tests that damage a segment.
//
// A slot keeps its entry twice, each copy with the number of the change that made it, and a counter of changes. The
// counter's lowest bit tells which copy is current. The writer fills the other copy and then counts the change with one
// store, so that readers have a whole entry at every moment, and a writer that stops anywhere leaves one. A copy is
// intact if its number is the counter's and its checksum is right.
//
// Everything is read and written through atomics, one word at a time, so there is no data race between a reader and the
// writer.
#pragma once

#include "platform/Vrf.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Vrf {

constexpr std::size_t nameWords = 26;  // 104 bytes, for a name of at most 101
static_assert(nameWords * sizeof(std::uint32_t) >= VrfIdMap::VrfEntry::maxNameLength);

// The places of the words in a copy. The unused bytes of the name are 0.
enum SlotWord : std::size_t {
  ChangeWord = 0,  // the value that the counter has while this copy is the current one
  StateWord = 1,   // slotFree or slotUsed
  IdWord = 2,
  LengthWord = 3,  // of the name, in bytes
  NameWord = 4,
  ChecksumWord = NameWord + nameWords,  // of all words before it
  SlotWordCount,
};

constexpr std::uint32_t slotFree = 0;
constexpr std::uint32_t slotUsed = 1;

// What a reader took from one copy.
using SlotWords = std::array<std::uint32_t, SlotWordCount>;

using SlotCopy = std::array<std::atomic<std::uint32_t>, SlotWordCount>;

// A counter that wraps around does no harm: a reader would have to be held up for exactly 2^32 changes of one entry.
struct alignas(128) Slot {
  std::atomic<std::uint32_t> changes;
  std::array<SlotCopy, 2> copies;

  SlotCopy& copyOf(std::uint32_t change) noexcept { return copies[change % 2]; }
  const SlotCopy& copyOf(std::uint32_t change) const noexcept { return copies[change % 2]; }
};

// Layout 1 kept each entry once.
constexpr std::uint64_t segmentMagic = 0x3242415446525600;  // "\0VRFTAB2"
constexpr std::uint32_t segmentVersion = 2;

struct Segment {
  std::atomic<std::uint64_t> magic;  // written last; 0 in a segment that is not set up yet
  std::atomic<std::uint32_t> version;
  std::atomic<std::uint32_t> size;  // of the segment, in bytes
  std::array<Slot, VrfIdMap::Status::capacity> slots;
};

// Other processes see the same bytes at other addresses, so the atomics must work without a lock.
static_assert(std::atomic<std::uint32_t>::is_always_lock_free && std::atomic<std::uint64_t>::is_always_lock_free);

// Returns the checksum (32-bit FNV-1a, low byte of each word first) of the words before the checksum's own.
inline std::uint32_t checksumOf(const SlotWords& words) noexcept {
  std::uint32_t sum = 0x811C9DC5;
  for (std::size_t index = 0; index < ChecksumWord; ++index) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
      sum = (sum ^ ((words[index] >> shift) & 0xFF)) * 0x01000193;
    }
  }
  return sum;
}

}  // namespace Vrf
