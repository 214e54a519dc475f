// One error line, to the ring-buffer trace and to a text trace at once: "where text values...".
#pragma once

#include "platform/Trace.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <string_view>

namespace Ipsec {

// A line put together on the stack, so that reporting exhausted memory needs no memory. What does not fit is cut.
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

// Traces the entry into the function that the site names: its bare name, a colon and a blank.
inline void traceEntry(const Cor::TraceHandle& handle, unsigned level, const Cor::TraceSite& site) noexcept {
  if (handle.enabled(level)) {
    handle.write(level, site, TraceText(site.function, ": "));
  }
}

// The prefix of an error line, and the place in the source that writes it.
struct Where {
  Where(const char* function, const char* file = __builtin_FILE(), int line = __builtin_LINE(),
        const char* bareFunction = __builtin_FUNCTION()) noexcept
      : name(function), site{file, line, bareFunction} {}

  const char* name;
  Cor::TraceSite site;
};

// Traces an error at the given level of the handle's text trace and returns false, the answer of what failed.
template <class... Values>
bool failedAt(const Cor::TraceHandle& handle, unsigned level, const Where& where, std::string_view text,
              const Values&... values) noexcept {
  DualTrace::write(handle, level, where.site, TraceText(where.name, " ", text, values...));
  return false;
}

}  // namespace Ipsec
