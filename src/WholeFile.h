// Whole files: the old file is read at once, and a complete new file takes its place.
#pragma once

#include "base/Descriptor.h"

#include <string>
#include <string_view>

namespace Ipsec {

// Returns the lines of a file. The last one may be without a newline, as in the file. If reading fails half-way,
// returns the whole lines before that. A file that cannot be opened counts as empty.
std::string readLines(const char* path);

// Replacement is a new file that is built next to an old one, under its name with ".tmp" appended, and takes its place
// once it is complete. Without moveIntoPlace, the temporary file stays as far as it was written.
class Replacement {
 public:
  explicit Replacement(const char* replaced);

  void append(std::string_view text) noexcept;

  // Closes the new file and moves it over the old one. Returns false, with the old file in place, when the new one
  // could not be opened, written, closed or moved. A full disk may show only when the file is closed.
  bool moveIntoPlace() noexcept;

 private:
  std::string path;
  std::string temporaryPath;
  Base::Descriptor file;
  bool whole;
};

}  // namespace Ipsec
