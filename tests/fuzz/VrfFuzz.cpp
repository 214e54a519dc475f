// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The VRF status table as a hostile writer leaves it, against a plain reading of its words. A look-up gives what the
// words say, or reports damage where no writer's steps can have led. An input is a row of steps: write a word of a
// slot, make a copy's checksum right, add or remove a VRF as the table's own writer does, look a VRF up.
#include "platform/linux/VrfSegment.h"
#include "tests/fuzz/FuzzInput.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace Ipsec::Testing;
using Vrf::Segment;
using Vrf::Slot;
using Vrf::VrfIdMap;

// One table for all inputs, which removes its name at once. The slots that an input wrote are freed after it.
class Table {
 public:
  Table() {
    const std::string name = "/ipsec-fuzz-" + std::to_string(getpid());
    writer = VrfIdMap::Status::create(name.c_str());
    reader = VrfIdMap::Status::open(name.c_str());
    const int descriptor = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
    void* const memory = mmap(nullptr, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    require(memory != MAP_FAILED, "the segment cannot be mapped");
    segment = static_cast<Segment*>(memory);
    (void)close(descriptor);
    VrfIdMap::Status::remove(name.c_str());
  }

  Vello::Ptr<VrfIdMap::Status> writer;
  Vello::Ptr<const VrfIdMap::Status> reader;
  Segment* segment;
};

constexpr std::size_t slotsWritten = 8;  // by a hostile writer
constexpr int mostSteps = 24;
constexpr std::size_t slotsUsed = slotsWritten + mostSteps;  // each step may add a VRF; the others stay free
constexpr std::size_t wordsOfSlot = 1 + 2 * Vrf::SlotWordCount;

std::atomic<std::uint32_t>& wordOf(Slot& slot, std::size_t index) {
  if (index == 0) {
    return slot.changes;
  }
  return slot.copies[(index - 1) / Vrf::SlotWordCount][(index - 1) % Vrf::SlotWordCount];
}

// FNV-1a over the bytes of all words before the checksum.
std::uint32_t plainChecksum(const Vrf::SlotCopy& copy) {
  std::uint32_t sum = 2166136261;
  for (std::size_t byte = 0; byte < 4 * Vrf::ChecksumWord; ++byte) {
    sum = (sum ^ (copy[byte / 4] >> 8 * (byte % 4) & 0xFF)) * 16777619;
  }
  return sum;
}

struct Answer {
  enum class End { Entry, Missing, Damaged, NameTooLong };

  End end;
  std::string name;

  friend bool operator==(const Answer&, const Answer&) = default;
};

const Vrf::SlotCopy& currentCopy(const Slot& slot) {
  return slot.copies[slot.changes % 2];
}

bool names(const Slot& slot, std::uint32_t id) {
  return currentCopy(slot)[Vrf::StateWord] == Vrf::slotUsed && currentCopy(slot)[Vrf::IdWord] == id;
}

bool isIntact(const Slot& slot) {
  const Vrf::SlotCopy& copy = currentCopy(slot);
  return copy[Vrf::ChecksumWord] == plainChecksum(copy) && copy[Vrf::ChangeWord] == slot.changes &&
         copy[Vrf::StateWord] <= 1;
}

// The first slot that names the VRF answers. Without one, the VRF is missing only if all slots are intact.
Answer plainAnswer(const Segment& segment, std::uint32_t id) {
  bool allIntact = true;
  for (std::size_t index = 0; index < slotsUsed; ++index) {
    const Slot& slot = segment.slots[index];
    allIntact = allIntact && isIntact(slot);
    if (!names(slot, id)) {
      continue;
    }
    if (!isIntact(slot)) {
      return {Answer::End::Damaged, ""};
    }
    const std::uint32_t length = currentCopy(slot)[Vrf::LengthWord];
    if (length > 101) {
      return {Answer::End::NameTooLong, ""};
    }
    std::string name;
    for (std::size_t byte = 0; byte < length; ++byte) {
      name += static_cast<char>(currentCopy(slot)[Vrf::NameWord + byte / 4] >> 8 * (byte % 4) & 0xFF);
    }
    return {Answer::End::Entry, name};
  }
  return {allIntact ? Answer::End::Missing : Answer::End::Damaged, ""};
}

Answer libraryAnswer(const VrfIdMap::Status& status, std::uint32_t id) {
  try {
    const VrfIdMap::VrfEntry entry = status.vrfEntry(VrfIdMap::VrfId(id));
    if (entry == status.defaultEntry()) {
      return {Answer::End::Missing, ""};
    }
    require(entry.vrfId().value() == id, "the entry of another VRF");
    return {Answer::End::Entry, std::string(entry.name())};
  } catch (const Vello::CorruptionDetectedException&) {
    return {Answer::End::Damaged, ""};
  } catch (const Vello::RangeException&) {
    return {Answer::End::NameTooLong, ""};
  }
}

void compare(const Table& table, std::uint32_t id) {
  Answer expected = plainAnswer(*table.segment, id);
  if (expected == Answer{Answer::End::Entry, ""} && id == VrfIdMap::VrfId::none().value()) {
    expected.end = Answer::End::Missing;  // the same entry stands for both
  }
  require(libraryAnswer(*table.reader, id) == expected, "a look-up gives another answer than the words");
}

// Adds a VRF: afterwards it is found, whatever was there before, unless the slot that is found first cannot be written.
void add(const Table& table, std::uint32_t id, const std::string& name) {
  table.writer->set(VrfIdMap::VrfEntry(VrfIdMap::VrfId(id), name));
  require(plainAnswer(*table.segment, id) == Answer{Answer::End::Entry, name}, "a VRF that was added is not found");
  compare(table, id);
}

void remove(const Table& table, std::uint32_t id) {
  table.writer->erase(VrfIdMap::VrfId(id));
  const Answer::End end = plainAnswer(*table.segment, id).end;
  require(end == Answer::End::Missing || end == Answer::End::Damaged, "a VRF that was removed is found");
  compare(table, id);
}

void free(Slot& slot) {
  for (std::size_t index = 1; index < wordsOfSlot; ++index) {
    wordOf(slot, index) = 0;
  }
  slot.changes = 0;
  for (Vrf::SlotCopy& copy : slot.copies) {
    copy[Vrf::ChecksumWord] = plainChecksum(copy);
  }
}

void step(const Table& table, FuzzInput& input) {
  const unsigned choice = input.u8();
  const std::uint32_t id = choice / 8 % 8 == 7 ? VrfIdMap::VrfId::none().value() : choice / 8 % 8;
  Slot& slot = table.segment->slots[choice / 8 % slotsWritten];
  switch (choice % 8) {
    case 0:
    case 1:
      wordOf(slot, input.u8() % wordsOfSlot) = input.u8();
      break;
    case 2:
      wordOf(slot, input.u8() % wordsOfSlot) = std::uint32_t{input.u16()} << 16 | input.u16();
      break;
    case 3: {
      Vrf::SlotCopy& copy = slot.copies[choice / 64 % 2];
      copy[Vrf::ChecksumWord] = plainChecksum(copy);
      break;
    }
    case 4: {
      const std::vector<std::uint8_t> name = input.bytes(input.u8() % 102);
      add(table, id, {name.begin(), name.end()});
      break;
    }
    case 5:
      remove(table, id);
      break;
    default:
      compare(table, id);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto* const table = new Table;
  for (std::size_t index = 0; index < slotsUsed; ++index) {
    free(table->segment->slots[index]);
  }
  FuzzInput input(data, size);
  for (int steps = 0; !input.atEnd() && steps < mostSteps; ++steps) {
    step(*table, input);
  }
  for (const std::uint32_t id : {0U, 1U}) {
    compare(*table, id);
  }
  return 0;
}
