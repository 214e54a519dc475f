#include "platform/Vrf.h"

#include "base/CancellationHeld.h"
#include "base/Descriptor.h"
#include "platform/linux/VrfSegment.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>
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

void Unmap::operator()(Segment* segment) const noexcept {
  (void)munmap(segment, sizeof(Segment));
}

namespace {

using Base::Descriptor;
using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;

// How often a reader looks again at an entry that is being written. A writer needs far less than a microsecond, unless
// the kernel takes the processor away from it in between. The naps give it time to get the processor back.
constexpr int quickLooks = 64;
constexpr int slowLooks = 40;
constexpr timespec nap = {0, 1'000'000};

// --- Slots -----------------------------------------------------------------------------------------------------------

SlotWords freeWords() noexcept {
  SlotWords words = {};
  words[StateWord] = slotFree;
  words[ChecksumWord] = checksumOf(words);
  return words;
}

SlotWords wordsOf(const VrfEntry& entry) noexcept {
  SlotWords words = {};
  words[StateWord] = slotUsed;
  words[IdWord] = entry.vrfId().value();
  words[LengthWord] = static_cast<std::uint32_t>(entry.name().size());
  std::memcpy(&words[NameWord], entry.name().data(), entry.name().size());
  words[ChecksumWord] = checksumOf(words);
  return words;
}

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

// Writes a slot. The words are stored with release and loaded with acquire. A reader that has read one of these words
// therefore also sees the odd counter, or a later one, when it looks at the counter again.
void writeSlot(Slot& slot, const SlotWords& words) noexcept {
  const std::uint32_t before = slot.sequence.load(std::memory_order_relaxed);
  const std::uint32_t writing = before % 2 == 0 ? before + 1 : before + 2;  // it is odd if a writer died here
  slot.sequence.store(writing, std::memory_order_relaxed);
  // When an entry is added, its number is written first and its state last; when one is removed, its state is cleared
  // first. An entry abandoned half-way therefore names its VRF already or counts as free.
  const bool isUsed = words[StateWord] == slotUsed;
  if (!isUsed) {
    slot.words[StateWord].store(slotFree, std::memory_order_release);
  }
  for (std::size_t index = IdWord; index < SlotWordCount; ++index) {
    slot.words[index].store(words[index], std::memory_order_release);
  }
  if (isUsed) {
    slot.words[StateWord].store(slotUsed, std::memory_order_release);
  }
  slot.sequence.store(writing + 1, std::memory_order_release);
}

// Copies a slot. Returns nothing if it was being written meanwhile.
std::optional<SlotWords> copySlot(const Slot& slot) noexcept {
  const std::uint32_t before = slot.sequence.load(std::memory_order_acquire);
  SlotWords words;
  for (std::size_t index = 0; index < SlotWordCount; ++index) {
    words[index] = slot.words[index].load(std::memory_order_acquire);
  }
  const std::uint32_t after = slot.sequence.load(std::memory_order_relaxed);
  if (before % 2 != 0 || before != after) {
    return std::nullopt;
  }
  return words;
}

void waitForWriter(int look) noexcept {
  if (look < quickLooks) {
    (void)sched_yield();
  } else {
    (void)nanosleep(&nap, nullptr);
  }
}

[[noreturn]] void reportDamage(const Segment& segment, const Slot& slot, const char* how) {
  const auto index = static_cast<std::size_t>(&slot - segment.slots.data());
  throw Vello::CorruptionDetectedException("VRF status table: entry " + std::to_string(index) + " is damaged: " + how);
}

SlotWords readSlot(const Segment& segment, const Slot& slot) {
  for (int look = 0; look < quickLooks + slowLooks; ++look) {
    const std::optional<SlotWords> words = copySlot(slot);
    if (!words) {
      waitForWriter(look);
      continue;
    }
    if ((*words)[ChecksumWord] != checksumOf(*words)) {
      reportDamage(segment, slot, "its checksum is wrong");
    }
    return *words;
  }
  reportDamage(segment, slot, "its writer did not finish");
}

bool holds(const SlotWords& words, VrfId id) noexcept {
  return words[StateWord] == slotUsed && words[IdWord] == id.value();
}

// Returns whether a slot seems to hold a VRF. This is quick, and checks neither the counter nor the checksum.
bool seemsToHold(const Slot& slot, VrfId id) noexcept {
  return slot.words[StateWord].load(std::memory_order_relaxed) == slotUsed &&
         slot.words[IdWord].load(std::memory_order_relaxed) == id.value();
}

// Returns whether a VRF may be put into a slot. A damaged slot is not free even if it looks so: it may have held a VRF.
bool isFree(const Slot& slot) noexcept {
  const std::optional<SlotWords> words = copySlot(slot);
  return words && (*words)[StateWord] == slotFree && (*words)[ChecksumWord] == checksumOf(*words);
}

// Completes the entries that a dead writer left unfinished, if nothing is lost by it: an unfinished entry that looks
// free belongs to a VRF that was not added yet or was removed already.
void finishFreeSlots(Segment& segment) noexcept {
  for (Slot& slot : segment.slots) {
    const bool unfinished = slot.sequence.load(std::memory_order_relaxed) % 2 != 0;
    if (unfinished && slot.words[StateWord].load(std::memory_order_relaxed) == slotFree) {
      writeSlot(slot, freeWords());
    }
  }
}

// --- Segments --------------------------------------------------------------------------------------------------------

[[noreturn]] void throwError(int error, const char* name, const char* what) {
  throw std::system_error(error, std::generic_category(), std::string("VRF status table ") + name + ": " + what);
}

int openOrThrow(const char* name, int flags) {
  const Base::StandardNumbersTaken taken;
  const int descriptor = shm_open(name, flags, 0644);
  if (descriptor < 0) {
    throwError(errno, name, "cannot be opened");
  }
  return descriptor;
}

std::uintmax_t sizeOrThrow(const Descriptor& file, const char* name) {
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) {
    throwError(errno, name, "cannot be examined");
  }
  return static_cast<std::uintmax_t>(status.st_size);
}

MappedSegment mapOrThrow(const Descriptor& file, const char* name, int protection) {
  void* const memory = mmap(nullptr, sizeof(Segment), protection, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) {
    throwError(errno, name, "cannot be mapped");
  }
  return MappedSegment(static_cast<Segment*>(memory));
}

bool isTable(const Segment& segment) noexcept {
  return segment.magic.load(std::memory_order_acquire) == segmentMagic &&
         segment.version.load(std::memory_order_relaxed) == segmentVersion &&
         segment.size.load(std::memory_order_relaxed) == sizeof(Segment);
}

void setUp(Segment& segment) noexcept {
  for (Slot& slot : segment.slots) {
    writeSlot(slot, freeWords());
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
  const Descriptor file(openOrThrow(name, O_RDWR | O_CREAT));
  const std::uintmax_t size = sizeOrThrow(file, name);
  if (size != 0 && size != sizeof(Segment)) {
    throwError(EEXIST, name, "is of another size than a VRF status table");
  }
  // The memory is reserved and not only given a size: if no memory were left later, writing would end in SIGBUS.
  int error = 0;
  do {
    error = posix_fallocate(file.get(), 0, sizeof(Segment));
  } while (error == EINTR);
  if (error != 0) {
    throwError(error, name, "cannot be given memory");
  }
  MappedSegment mapped = mapOrThrow(file, name, PROT_READ | PROT_WRITE);
  if (mapped->magic.load(std::memory_order_relaxed) == 0) {
    setUp(*mapped);  // it is new, or a writer died while setting it up
  }
  if (!isTable(*mapped)) {
    throwError(EEXIST, name, "is no VRF status table");
  }
  finishFreeSlots(*mapped);
  return Vello::Ptr<Status>(new Status(std::move(mapped)));
}

Vello::Ptr<const VrfIdMap::Status> VrfIdMap::Status::open(const char* name) {
  const Base::CancellationHeld held;
  const Descriptor file(openOrThrow(name, O_RDONLY));
  if (sizeOrThrow(file, name) != sizeof(Segment)) {
    throw Vello::CorruptionDetectedException(std::string("VRF status table ") + name + ": of another size");
  }
  MappedSegment mapped = mapOrThrow(file, name, PROT_READ);
  if (!isTable(*mapped)) {
    throw Vello::CorruptionDetectedException(std::string("VRF status table ") + name + ": no VRF status table");
  }
  return Vello::Ptr<const Status>(new Status(std::move(mapped)));
}

void VrfIdMap::Status::remove(const char* name) noexcept {
  const Base::CancellationHeld held;
  (void)shm_unlink(name);  // a name that does not exist counts as removed
}

void VrfIdMap::Status::set(const VrfEntry& entry) {
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
  for (Slot& slot : segment->slots) {
    if (seemsToHold(slot, id)) {
      writeSlot(slot, freeWords());
    }
  }
}

VrfIdMap::VrfEntry VrfIdMap::Status::vrfEntry(VrfId id) const {
  const Base::CancellationHeld held;
  for (const Slot& slot : segment->slots) {
    if (!seemsToHold(slot, id)) {
      continue;
    }
    const SlotWords words = readSlot(*segment, slot);
    if (holds(words, id)) {
      return entryOf(words);
    }
  }
  // A number is known to be missing only if every entry is intact: a damaged entry may be the one that is sought.
  for (const Slot& slot : segment->slots) {
    const SlotWords words = readSlot(*segment, slot);
    if (holds(words, id)) {
      return entryOf(words);
    }
  }
  return defaultEntry();
}

}  // namespace Vrf
