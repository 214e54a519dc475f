// VRF status: which VRFs exist and what they are called, published by one process in shared memory for all others.
#pragma once

#include "platform/Framework.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#pragma GCC visibility push(default)

namespace L3 {

// A VRF's name: at most 100 bytes.
class VrfName {
 public:
  static constexpr std::size_t maxLength() noexcept { return 100; }

  VrfName() = default;

  // Throws Vello::RangeException "Cor::String::bytes > maxLength() not allowed" for a longer name.
  explicit VrfName(std::string_view text);

  const Cor::String& string() const noexcept { return name; }
  bool empty() const noexcept { return name.empty(); }
  explicit operator bool() const noexcept { return !empty(); }

  friend bool operator==(const VrfName& left, const VrfName& right) noexcept { return left.name == right.name; }
  friend bool operator!=(const VrfName& left, const VrfName& right) noexcept { return left.name != right.name; }
  friend std::ostream& operator<<(std::ostream& out, const VrfName& vrf) { return out << vrf.name; }

 private:
  Cor::String name;
};

}  // namespace L3

namespace Vrf {

struct Segment;

// Unmaps a segment.
struct Unmap {
  void operator()(Segment* segment) const noexcept;
};
using MappedSegment = std::unique_ptr<Segment, Unmap>;

class VrfIdMap {
 public:
  // A VRF's number, 32 bits. 0 is the default VRF; 0xFFFFFF is no VRF.
  class VrfId {
   public:
    constexpr VrfId() noexcept = default;
    constexpr explicit VrfId(std::uint32_t value) noexcept : number(value) {}

    static constexpr VrfId defaultVrf() noexcept { return VrfId(0); }
    static constexpr VrfId none() noexcept { return VrfId(0xFFFFFF); }

    constexpr std::uint32_t value() const noexcept { return number; }

    friend constexpr bool operator==(VrfId left, VrfId right) noexcept { return left.number == right.number; }
    friend constexpr bool operator!=(VrfId left, VrfId right) noexcept { return left.number != right.number; }

   private:
    std::uint32_t number = 0;
  };

  // One VRF as the table tells it: a number and at most 101 bytes of name.
  class VrfEntry {
   public:
    static constexpr std::size_t maxNameLength = 101;

    // The entry of a VRF that is only a number. VrfEntry(VrfId::none()) is what a table answers for a number that it
    // does not hold.
    explicit VrfEntry(VrfId id) noexcept : number(id) {}

    // Throws Vello::RangeException for a name above 101 bytes.
    VrfEntry(VrfId id, std::string_view name);

    VrfId vrfId() const noexcept { return number; }
    std::string_view name() const noexcept { return {nameBytes, nameLength}; }

    friend bool operator==(const VrfEntry& left, const VrfEntry& right) noexcept {
      return left.number == right.number && left.name() == right.name();
    }
    friend bool operator!=(const VrfEntry& left, const VrfEntry& right) noexcept { return !(left == right); }

   private:
    VrfId number;
    std::size_t nameLength = 0;
    char nameBytes[maxNameLength] = {};
  };

  class Status;
};

// The VRF status table, a named POSIX shared-memory segment. One process creates it and writes; any number of others
// open it and read, without a lock: each entry has a sequence counter and a checksum, and a reader that meets a write
// in progress looks again a bounded number of times (for some tens of milliseconds). A writer that died in the middle
// of an entry leaves that entry damaged, which a reader reports; it never stops a reader.
//
// A damaged entry stays so until a writer sets or erases the VRF that it names; one that was being added or removed
// when its writer died is finished as missing by the next create(). An entry whose number is damaged is got rid of only
// with the segment: remove it, create it anew.
//
// One thread of the writer writes at a time. Reading needs nothing of the kind.
class VrfIdMap::Status {
 public:
  using CorruptionHandler = std::function<void(const char* message)>;

  // Most VRFs that a table holds.
  static constexpr std::size_t capacity = 1024;

  // Creates the segment ("/name", as shm_open takes it), or takes over one that exists, and becomes its writer. What an
  // earlier writer left is kept, damaged entries included. Throws std::system_error, also when what exists is no
  // VRF status table (std::errc::file_exists).
  static Vello::Ptr<Status> create(const char* name);

  // Opens an existing segment for reading. Nobody may shrink a segment that is open, which would stop its readers with
  // SIGBUS: remove it and create it anew. Its mode is 0644, cut by the writer's umask. Throws std::system_error when
  // there is none, and Vello::CorruptionDetectedException when it is no VRF status table or of another size.
  static Vello::Ptr<const Status> open(const char* name);

  // Removes the segment's name. Processes that have it open keep it.
  static void remove(const char* name) noexcept;

  Status(const Status&) = delete;
  Status& operator=(const Status&) = delete;

  // Adds or replaces one VRF. Writer only. Throws std::length_error when the table is full.
  void set(const VrfEntry& entry);

  // Removes one VRF, if it is there. Writer only.
  void erase(VrfId id);

  // Returns the VRF's entry, or defaultEntry() for a number that the table does not hold. Throws
  // Vello::CorruptionDetectedException when the entry is damaged, or when the number is not found and any entry is
  // damaged, since that may be the one; and Vello::RangeException when the entry's stored name is longer than an entry
  // holds.
  VrfEntry vrfEntry(VrfId id) const;

  // Returns the entry that stands for every number the table does not hold: VrfEntry(VrfId::none()).
  VrfEntry defaultEntry() const noexcept { return VrfEntry(VrfId::none()); }

  // What a reader does with a damaged table's message. From the start it is written to standard error.
  const CorruptionHandler& corruptionHandler() const noexcept { return handler; }

  // Exchanges it for another, which may not be empty. Do so before another thread may use the table.
  void setCorruptionHandler(CorruptionHandler newHandler) { handler = std::move(newHandler); }

 private:
  explicit Status(MappedSegment mapped);

  MappedSegment segment;
  CorruptionHandler handler;
};

}  // namespace Vrf

#pragma GCC visibility pop
