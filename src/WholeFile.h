// Whole files: the old lines come in at once, and a whole new file takes the place of the old one.
#pragma once

#include "base/Descriptor.h"

#include <string>
#include <string_view>

namespace Ipsec {

// Returns the whole lines that can be read from a file, and a last one without its newline if the file ends in it. A
// file that cannot be opened has none.
std::string readLines(const char* path);

// Replacement is a new file that is built next to an old one, with ".tmp" appended to its name, and takes its place once
// it is whole. Without moveIntoPlace the temporary file is left as far as it was written.
class Replacement {
 public:
  explicit Replacement(const char* replaced);

  void append(std::string_view text) noexcept;

  // Closes the new file and moves it over the old one. Returns false, with the old file in place, when the new one
  // could not be opened, written or closed (a full disk may show only then), or could not be moved.
  bool moveIntoPlace() noexcept;

 private:
  std::string path;
  std::string temporaryPath;
  Base::Descriptor file;
  bool whole;
};

}  // namespace Ipsec
