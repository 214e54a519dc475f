// The layout of the VRF status table's shared-memory segment, for Vrf.cpp and for tests that damage a segment.
//
// A slot consists of a sequence counter and a row of words. The counter is odd while the words are being written.
// Everything is read and written through atomics, one word at a time, so there is no data race between a reader and the
// writer. What a reader has copied is valid only if the counter was even and the same before and after, and if the
// checksum is right.
#pragma once

#include "platform/Vrf.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Vrf {

constexpr std::size_t nameWords = 26;  // 104 bytes, for a name of at most 101
static_assert(nameWords * sizeof(std::uint32_t) >= VrfIdMap::VrfEntry::maxNameLength);

// The places of the words in a slot. The unused bytes of the name are 0.
enum SlotWord : std::size_t {
  StateWord = 0,  // slotFree or slotUsed
  IdWord = 1,
  LengthWord = 2,  // of the name, in bytes
  NameWord = 3,
  ChecksumWord = NameWord + nameWords,  // of all words before it
  SlotWordCount,
};

constexpr std::uint32_t slotFree = 0;
constexpr std::uint32_t slotUsed = 1;

// A copy of one slot's words.
using SlotWords = std::array<std::uint32_t, SlotWordCount>;

struct alignas(128) Slot {
  std::atomic<std::uint32_t> sequence;
  std::array<std::atomic<std::uint32_t>, SlotWordCount> words;
};

constexpr std::uint64_t segmentMagic = 0x3142415446525600;  // "\0VRFTAB1"
constexpr std::uint32_t segmentVersion = 1;

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
