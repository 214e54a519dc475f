// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The VRF table as a text file, /dev/shm/NAME.vrf, with a line "NUMBER LENGTH NAME" for each VRF. Whoever fills it puts
// a new file in its place, so that a look-up finds a whole table. Nothing here writes it: the functions of the header
// that do so are not linked by the library, and are left out.
#include "platform/Vrf.h"

#include "base/CancellationHeld.h"
#include "base/Descriptor.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <system_error>

namespace Vrf {

// The header's name for where a table is kept.
struct Segment {
  std::string path;
};

void Unmap::operator()(Segment* segment) const noexcept {
  delete segment;
}

VrfIdMap::VrfEntry::VrfEntry(VrfId id, std::string_view name) : number(id), nameLength(name.size()) {
  if (name.size() > maxNameLength) {
    throw Vello::RangeException("Vrf::VrfIdMap::VrfEntry: name > maxNameLength not allowed");
  }
  name.copy(nameBytes, maxNameLength);
}

namespace {

// Returns what a table's file holds. Believes only root and the process's own user.
std::string textOf(const std::string& path) {
  const Base::Descriptor file = Base::openFile(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat status = {};
  if (!file.isOpen() || fstat(file.get(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), "VRF status table " + path);
  }
  const bool isOwn = status.st_uid == 0 || status.st_uid == geteuid();
  if (!S_ISREG(status.st_mode) || !isOwn || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::system_error(EACCES, std::generic_category(), "VRF status table " + path);
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  if (read(file.get(), text.data(), text.size()) != status.st_size) {
    throw std::system_error(EIO, std::generic_category(), "VRF status table " + path);
  }
  return text;
}

// Takes a number and the blank after it away from a text. Returns false if there are none.
bool takeNumber(std::string_view& text, std::uint32_t& number) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto digits = static_cast<std::size_t>(stop - text.data());
  if (error != std::errc() || digits == text.size() || *stop != ' ') {
    return false;
  }
  text.remove_prefix(digits + 1);
  return true;
}

}  // namespace

VrfIdMap::Status::Status(MappedSegment mapped)
    : segment(std::move(mapped)), handler([](const char* message) { (void)std::fprintf(stderr, "%s\n", message); }) {}

Vello::Ptr<const VrfIdMap::Status> VrfIdMap::Status::open(const char* name) {
  const Base::CancellationHeld held;
  MappedSegment table(new Segment{"/dev/shm" + std::string(name) + ".vrf"});
  (void)textOf(table->path);
  return Vello::Ptr<const Status>(new Status(std::move(table)));
}

VrfIdMap::VrfEntry VrfIdMap::Status::vrfEntry(VrfId id) const {
  const Base::CancellationHeld held;
  std::istringstream lines(textOf(segment->path));
  bool damaged = false;  // a damaged line may be the one that is sought
  for (std::string line; std::getline(lines, line);) {
    std::string_view name = line;
    std::uint32_t number = 0;
    std::uint32_t length = 0;
    const bool hasNumbers = takeNumber(name, number) && takeNumber(name, length);
    if (hasNumbers && number == id.value() && length > VrfEntry::maxNameLength) {
      throw Vello::RangeException("VRF status table: stored name of " + std::to_string(length) +
                                  " bytes > maxNameLength not allowed");
    }
    const bool intact = hasNumbers && name.size() == length;
    if (intact && number == id.value()) {
      return {id, name};
    }
    damaged = damaged || !intact;
  }
  if (damaged) {
    throw Vello::CorruptionDetectedException("VRF status table " + segment->path + ": a line is damaged");
  }
  return defaultEntry();
}

}  // namespace Vrf
