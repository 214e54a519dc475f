// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The file behind a VRF status table: who may be believed, and who writes.
//
// The writer's lock is on a file of its own, NAME.INODE.lock with the inode number of the segment. The segment itself
// is readable for everybody, and whoever may read a file may take a lock on it that keeps a writer out. The lock file
// is the writer's alone. A lock of an open file description ends with the process that holds it, however it ends, and
// does not end when the process closes another descriptor of the file.
#pragma once

#include "platform/Vrf.h"

namespace Vrf {

// Opens and maps a segment for reading. Throws as Status::open() does, but does not look into the segment.
MappedSegment mapForReading(const char* name);

// Opens and maps a segment, which is created if there is none, and makes this process its writer. A process that is the
// writer already gets the same mapping again, and stays the writer until the last one is unmapped. Throws as
// Status::create() does, but does not look into the segment, which is all zeros if it is new.
MappedSegment mapForWriting(const char* name);

// Throws std::system_error (device_or_resource_busy) unless this process is the segment's writer. A child that it made
// by fork is not.
void requireWriter(const Segment& segment);

// Removes a segment and its lock file, if there are any.
void removeFiles(const char* name) noexcept;

// Throws the std::system_error that says what is wrong with a segment.
[[noreturn]] void throwError(int error, const char* name, const char* what);

}  // namespace Vrf
