// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// VRF status: which VRFs exist and what their names are. One process publishes this in shared memory for all others.
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
  // Kept (vrf-name-length): one byte less than an entry of the status table can hold.
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

  // One VRF as the table holds it: a number and at most 101 bytes of name.
  class VrfEntry {
   public:
    static constexpr std::size_t maxNameLength = 101;

    // The entry of a VRF without a name. A table returns VrfEntry(VrfId::none()) for a number that it does not hold.
    explicit VrfEntry(VrfId id) noexcept : number(id) {}

    // Throws Vello::RangeException for a name of more than 101 bytes.
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

// The VRF status table, a named POSIX shared-memory segment. One process creates it and writes to it. Any number of
// other processes open it and read, without a lock.
//
// Each entry is kept twice. The writer fills the copy that is not in use and then takes it into use in one step. A
// reader therefore gets every entry as it was before a change or as it is after it, whether the writer is running, is
// stopped in the middle of the change or died there. It never waits for the writer. It looks at an entry again only if
// that entry was changed twice while it looked.
//
// Who may be believed: the segment must belong to root or to the effective user of the process that opens it, and group
// and others may not have the right to write it. Any other segment is refused, by create() and by open(), before it is
// mapped. Whoever fills the table must therefore run as root, or as the same user as its readers.
//
// Who may write: the process that has the writer's lock. create() takes it. It belongs to the process, ends with it,
// however it ends, and ends when the process has destroyed the last Status that create() returned for this segment. A
// process that can only read the segment cannot take the lock. A child made by fork may read what its parent created,
// but not write: it is another process. So call create() after a daemon has gone into the background. The lock is on
// an empty file of its own beside the segment, NAME.INODE.lock. The writer keeps a descriptor of that file open: a
// program that closes descriptors which it did not open gives up the lock.
//
// Only one thread of the writing process may create or write at a time. Reading has no such limit.
//
// Damage is what no writer leaves behind, wherever it stops: another program wrote into the segment. A damaged entry
// stays damaged until a writer sets or erases the VRF that it names. If the damage is in an entry's number, only a new
// segment helps: remove the old one and create it again.
class VrfIdMap::Status {
 public:
  using CorruptionHandler = std::function<void(const char* message)>;

  // The greatest number of VRFs in one table.
  static constexpr std::size_t capacity = 1024;

  // Creates the segment, or takes over an existing one, and becomes its writer. The name has the form "/name", as for
  // shm_open, and at most 229 bytes after the slash. The entries of an earlier writer are kept, including damaged ones.
  // A process that is the writer already may create the table again; it then has two objects for the same table.
  //
  // Throws std::system_error, with
  // - std::errc::device_or_resource_busy if another process is the writer,
  // - std::errc::permission_denied if the segment or its lock file belongs to a user other than root and the effective
  //   one, or is open to others,
  // - std::errc::file_exists if something exists under the name that is not a VRF status table. A segment of the older
  //   layout, which kept each entry once, is refused in this way and left alone: its writer has no lock, and may be
  //   running. Stop that writer, remove the segment and create it again.
  static Vello::Ptr<Status> create(const char* name);

  // Opens an existing segment for reading. The segment's mode is 0644, reduced by the writer's umask. Throws
  // std::system_error, with std::errc::no_such_file_or_directory when there is no segment or its first writer has not
  // set it up yet, and with std::errc::permission_denied when the segment belongs to a user other than root and the
  // effective one, or when group or others may write it. Throws Vello::CorruptionDetectedException when it is not a VRF
  // status table of this layout or has another size.
  // Warning: the segment's owner may not shrink it while it is open, or SIGBUS stops its readers. Remove it and create
  // a new one instead.
  static Vello::Ptr<const Status> open(const char* name);

  // Removes the segment's name and its lock file. Processes that have the segment open keep it, and its writer goes on
  // writing that segment. The next create() makes a new one, with a lock of its own.
  static void remove(const char* name) noexcept;

  Status(const Status&) = delete;
  Status& operator=(const Status&) = delete;

  // Adds or replaces one VRF. For the writer only. Throws std::length_error when the table is full, and
  // std::system_error (std::errc::device_or_resource_busy) in a child that the writer made by fork.
  void set(const VrfEntry& entry);

  // Removes one VRF, if the table holds it. For the writer only. Throws as set() does in a child made by fork.
  void erase(VrfId id);

  // Returns the VRF's entry, or defaultEntry() for a number that the table does not hold. Throws
  // Vello::CorruptionDetectedException when the entry is damaged, and also when the number is not found while any entry
  // is damaged, because the damaged one may be the one that was asked for. Throws Vello::RangeException when the stored
  // name is longer than an entry can hold.
  VrfEntry vrfEntry(VrfId id) const;

  // Returns the entry that stands for every number that the table does not hold: VrfEntry(VrfId::none()).
  VrfEntry defaultEntry() const noexcept { return VrfEntry(VrfId::none()); }

  // Returns the function to which a reader gives the message about a damaged table. At the start it is one that writes
  // to standard error.
  const CorruptionHandler& corruptionHandler() const noexcept { return handler; }

  // Installs another function, which may not be empty.
  // Warning: call this before other threads use the table. The exchange is not protected against their calls.
  void setCorruptionHandler(CorruptionHandler newHandler) { handler = std::move(newHandler); }

 private:
  explicit Status(MappedSegment mapped);

  MappedSegment segment;
  CorruptionHandler handler;
};

}  // namespace Vrf

#pragma GCC visibility pop
