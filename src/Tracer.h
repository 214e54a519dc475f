// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// How a source file traces: entry lines, error lines, and other lines. Each source file that traces has one Tracer.
#pragma once

#include "platform/Trace.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <string_view>

namespace Ipsec {

// A line that is put together on the stack, so that reporting exhausted memory needs no memory. What does not fit is
// cut off.
class TraceText {
 public:
  template <class... Pieces>
  explicit TraceText(const Pieces&... pieces) noexcept {
    (append(pieces), ...);
  }

  operator std::string_view() const noexcept { return {bytes.data(), length}; }

 private:
  void append(std::string_view piece) noexcept {
    const std::size_t count = std::min(piece.size(), bytes.size() - length);
    std::copy_n(piece.begin(), count, bytes.begin() + length);
    length += count;
  }

  template <std::integral Number>
  void append(Number number) noexcept {
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    append(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
  }

  std::array<char, 512> bytes;
  std::size_t length = 0;
};

// The prefix of an error line, and the place in the source file that writes it.
struct Where {
  Where(const char* function, const char* file = __builtin_FILE(), int line = __builtin_LINE(),
        const char* bareFunction = __builtin_FUNCTION()) noexcept
      : name(function), site{file, line, bareFunction} {}

  const char* name;
  Cor::TraceSite site;
};

// Tracer writes the lines of a source file under one handle. The functions that put a line together are out of line:
// callers then reserve no stack for a line's 512 bytes, and a level that is off costs one test. The level of entry
// lines is a constant, because a block of prf+ enters a dozen functions.
template <unsigned levelOfEntries>
class Tracer {
 public:
  static constexpr unsigned errorLevel = 0;
  static constexpr unsigned entryLevel = levelOfEntries;

  explicit Tracer(const char* handleName) noexcept : handle(handleName) {}

  // Traces the entry into the calling function: its bare name, a colon and a blank.
  void entered(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
               const char* function = __builtin_FUNCTION()) const noexcept {
    if (handle.enabled(entryLevel)) {
      writeEntry({file, line, function});
    }
  }

  // Traces "where text values..." as an error, to the ring and to the text trace at level 0. Returns false, so that the
  // function that failed can return the result.
  template <class... Values>
  [[gnu::cold, gnu::noinline]] bool failed(const Where& where, std::string_view text,
                                           const Values&... values) const noexcept {
    return failedAt(errorLevel, where, text, values...);
  }

  // The same at another level of the text trace.
  template <class... Values>
  [[gnu::cold, gnu::noinline]] bool failedAt(unsigned level, const Where& where, std::string_view text,
                                             const Values&... values) const noexcept {
    DualTrace::write(handle, level, where.site, TraceText(where.name, " ", text, values...));
    return false;
  }

  // Writes a line that does not report a failure. It goes to the text trace only.
  template <class... Pieces>
  void note(unsigned level, const Cor::TraceSite& site, const Pieces&... pieces) const noexcept {
    if (handle.enabled(level)) {
      writeNote(level, site, pieces...);
    }
  }

 private:
  [[gnu::cold, gnu::noinline]] void writeEntry(const Cor::TraceSite& site) const noexcept {
    handle.write(entryLevel, site, TraceText(site.function, ": "));
  }

  template <class... Pieces>
  [[gnu::cold, gnu::noinline]] void writeNote(unsigned level, const Cor::TraceSite& site,
                                              const Pieces&... pieces) const noexcept {
    handle.write(level, site, TraceText(pieces...));
  }

  Cor::TraceHandle handle;
};

}  // namespace Ipsec
