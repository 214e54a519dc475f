// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What many changes in a row make of the daemon's files. The result is what as many single rewritings of the whole text
// would leave (DaemonFiles.h), but a change costs the same in a long file as in a short one. Nothing here opens a file
// or traces.
#pragma once

#include "Ipsec.h"
#include "base/SecretText.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ipsec {

// TextPieces is a text in pieces that lie elsewhere. Pieces that lie next to each other become one.
class TextPieces {
 public:
  void append(std::string_view piece);

  const std::vector<std::string_view>& all() const noexcept { return pieces; }

 private:
  std::vector<std::string_view> pieces;
};

// A change of the connections file, with all that is needed of its settings.
struct ConnectionChange {
  // Throws std::out_of_range for a required setting that is missing.
  explicit ConnectionChange(const stringmap& settings);

  std::string head;  // of the section that is removed; "." stands for any character
  bool replacesGlobal;
  std::string_view newGlobal;
  std::string section;  // that is written, or empty
};

// A change of the secrets file.
struct SecretChange {
  // Throws std::out_of_range for a required setting that is missing.
  explicit SecretChange(const stringmap& entry);

  std::optional<std::string> start;  // of the entry that is removed; "." stands for any character
  Base::SecretText entry;            // that is written, or empty
};

// Return the new file's text, which refers to the old text and to the changes. There is at least one change. The names
// in the changes must be plain starts of lines (see LineMatcher).
TextPieces changedText(std::string_view oldText, const std::vector<ConnectionChange>& changes);
TextPieces changedText(std::string_view oldText, const std::vector<SecretChange>& changes);

}  // namespace Ipsec
