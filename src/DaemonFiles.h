// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The contents of the IKE daemon's two files: which old lines stay, and what is written. Nothing here opens a file or
// traces.
#pragma once

#include "Ipsec.h"
#include "LineMatcher.h"
#include "base/SecretText.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

namespace Ipsec {

// Appends the lines of text that the rule keeps to the copy, which has an append(). Every line gets a newline, also the
// last.
template <class Rule, class Copy>
void copyLines(std::string_view text, Rule& rule, Copy& copy) {
  std::size_t keptFrom = 0;  // Kept lines are collected up to the next dropped one: [keptFrom, start).
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::size_t next = std::min(end + 1, text.size());
    if (!rule.keeps(text.substr(start, end - start))) {
      copy.append(text.substr(keptFrom, start - keptFrom));
      keptFrom = next;
    }
    start = next;
  }
  copy.append(text.substr(keptFrom));
  // Kept (final-newline): without it, what is appended next would continue the last line.
  if (keptFrom < text.size() && text.back() != '\n') {
    copy.append("\n");
  }
}

// Returns whether a call removes a section or an entry and writes none.
bool deletes(const stringmap& settings);

// --- The connections file --------------------------------------------------------------------------------------------

inline constexpr char connectionsPath[] = "/etc/strongswan/ipsec.conf";
inline constexpr std::string_view sectionHead = "conn ";
inline constexpr std::string_view globalSection = "config setup";  // wherever it is in a line

// Returns whether a line is a section's head, the line that the section begins with.
inline bool isSectionHead(std::string_view line) {
  return line.substr(0, sectionHead.size()) == sectionHead;
}

// Returns the head of the section that a call removes, an expression (see LineMatcher).
std::string replacedHead(const stringmap& settings);

// Returns whether a call removes the file's global section.
bool replacesGlobalSection(const stringmap& settings);

// ConnectionLines is the rule that decides which old lines stay when one section is replaced. The constructors throw
// std::regex_error for a section name that is not a valid expression.
class ConnectionLines {
 public:
  explicit ConnectionLines(const stringmap& settings)
      : ConnectionLines(replacedHead(settings), replacesGlobalSection(settings)) {}

  // The head of the section that is removed is an expression.
  ConnectionLines(std::string head, bool replacesGlobal);

  // Takes the lines in their order.
  bool keeps(std::string_view line);

 private:
  enum class Part { Ahead, Within, Behind };

  bool keepsOutsideGlobal(std::string_view line);

  LineMatcher ownHead;
  Part global;
  Part section = Part::Ahead;
};

// Returns the "config setup" section that the call writes, or an empty text if it writes none.
std::string_view newGlobalSection(const stringmap& settings);

// Returns the section that the call writes. Throws std::out_of_range for a required setting that is missing.
std::string newSection(const stringmap& given);

// Appends the new file to the copy, which has an append(). Throws what the functions above throw.
template <class Copy>
void rewriteConnections(std::string_view oldText, const stringmap& settings, Copy& copy) {
  ConnectionLines lines(settings);
  copy.append(newGlobalSection(settings));
  copyLines(oldText, lines, copy);
  // Kept (missing-setting-late): a missing one throws here, after the copy, and the temporary file stays.
  if (!deletes(settings)) {
    copy.append(newSection(settings));
  }
}

// --- The secrets file ------------------------------------------------------------------------------------------------

inline constexpr char secretsPath[] = "/etc/strongswan/ipsec.secrets";

// Returns the start of the line that a call removes, an expression (see LineMatcher), or nothing if it names no line.
std::optional<std::string> replacedStart(const stringmap& entry);

// SecretLines is the rule that decides which old lines stay when one entry is replaced. The constructors throw
// std::regex_error for an address that is not a valid expression.
class SecretLines {
 public:
  explicit SecretLines(const stringmap& entry) : SecretLines(replacedStart(entry)) {}

  // The start of the line that is removed, if there is one, is an expression.
  explicit SecretLines(std::optional<std::string> start);

  // Takes the lines in their order.
  bool keeps(std::string_view line);

 private:
  std::optional<LineMatcher> replaced;
};

// Returns the entry that the call writes. Throws std::out_of_range for a required setting that is missing.
Base::SecretText newSecret(const stringmap& entry);

// Appends the new file to the copy, which has an append(). Throws what the functions above throw.
template <class Copy>
void rewriteSecrets(std::string_view oldText, const stringmap& entry, Copy& copy) {
  SecretLines lines(entry);
  copyLines(oldText, lines, copy);
  if (!deletes(entry)) {  // Kept (missing-setting-late): as above.
    const Base::SecretText line = newSecret(entry);
    copy.append({line.data(), line.size()});
  }
}

}  // namespace Ipsec
