// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Whole files: the old file is read at once, and a complete new file takes its place.
#pragma once

#include "base/Descriptor.h"
#include "base/SecretText.h"

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Ipsec {

// What a file holds, as far as it can be told.
struct FileText {
  Base::SecretText text;   // its lines; the last one may be without a newline, as in the file
  bool exhausted = false;  // the process had no descriptor or memory to open it: that says nothing about the file

  std::string_view view() const noexcept { return {text.data(), text.size()}; }
};

// Reads a file. If reading fails half-way, the text is the whole lines before that. A file that cannot be opened, and
// whatever is not a regular file, counts as empty: a pipe is never waited for. A link is followed.
FileText readWholeFile(const char* path);

// Returns whether an open file is a regular one, and what it is.
bool isRegular(const Base::Descriptor& file, struct stat& status) noexcept;

// Reads the rest of an open file. The size is a hint. Returns 0, or the number of the error after which the text ends.
// Throws std::bad_alloc.
int readRest(const Base::Descriptor& file, std::size_t size, FileText* read);

// Writes all of the text, and goes on after an interruption or a short write. Returns false if it could not.
bool writeAll(const Base::Descriptor& file, std::string_view text) noexcept;

// Replacement is a new file that is built next to an old one, under its name with ".tmp" appended, and takes its place
// once it is complete. Without moveIntoPlace, the temporary file stays as far as it was written.
class Replacement {
 public:
  // Reads the old file and opens the temporary one. Throws std::bad_alloc.
  explicit Replacement(const char* replaced);

  // The old file's lines.
  std::string_view oldText() const noexcept { return old.view(); }

  void append(std::string_view text) noexcept;

  // Closes the new file and moves it over the old one. Returns false, with the old file in place, when the new one
  // could not be opened, written, closed or moved, and when the old one could not be opened for want of descriptors or
  // memory. A full disk may show only when the file is closed.
  bool moveIntoPlace() noexcept;

 private:
  std::string path;
  std::string temporaryPath;
  FileText old;
  Base::Descriptor file;
  bool whole;
};

}  // namespace Ipsec
