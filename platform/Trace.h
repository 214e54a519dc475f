// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Traces: text lines with levels, one source of lines per source file; the ring buffer; and both at once.
//
// Tracing never changes what the traced code does. No function that writes throws, changes errno or raises a signal. If
// standard error is a pipe, a socket or a terminal, a line waits at most 10 ms for its reader and for other lines, and
// is then dropped; while the reader does not read, later lines are dropped at once. The number of dropped lines is
// written before the next line that gets through. The ring buffer keeps every line. A line that cannot be written
// (memory exhausted, standard error closed) is lost.
//
// Standard error is descriptor 2, whatever the agent makes of it. If it is closed when the process starts, no text is
// ever written.
// Warning: an agent that closes descriptor 2 later and then opens a file gets the lines in that file. Redirect the
// descriptor to /dev/null instead.
//
// A text line goes to standard error as "time handle level file:line function message". Control characters in a message
// are written as "?", so that each message stays on one line. All functions may be called from any thread, until the
// very end of the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#pragma GCC visibility push(default)

namespace Cor {

// Where a line comes from. The defaults are evaluated at the caller's line.
struct TraceSite {
  const char* file;
  int line;
  const char* function;

  static constexpr TraceSite here(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                                  const char* function = __builtin_FUNCTION()) noexcept {
    return {file, line, function};
  }
};

// A named source of text-trace lines. Each source file owns one, as a static object. Several handles may have the same
// name; they then have the same levels. At the start level 0 (errors) is on and all others are off. Names that the
// environment variable TRACE_LEVELS lists have exactly the levels given there instead:
//
//   TRACE_LEVELS=IpsecKeyGen=0-4,IpsecUtils=0-1,IpsecUtils=8
//
// The variable is read once, when the first handle is created. A malformed value is reported on standard error, and
// then ignored as a whole.
class TraceHandle {
 public:
  static constexpr unsigned levels = 32;

  // The name is borrowed and must live as long as the handle: pass a literal.
  explicit TraceHandle(const char* name) noexcept;
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  // Returns whether lines of this level are written. Costs one relaxed load and a bit test.
  bool enabled(unsigned level) const noexcept {
    return level < levels && ((mask.load(std::memory_order_relaxed) >> level) & 1U) != 0;
  }

  // Writes one line if its level is enabled.
  void write(unsigned level, const TraceSite& site, std::string_view message) const noexcept {
    if (enabled(level)) {
      emit(level, site, message);
    }
  }

  const char* name() const noexcept { return handleName; }

  // Switches on the levels whose bits are set and switches off all others, for every handle of this name. Any thread
  // may call it.
  void setLevels(std::uint32_t bits) noexcept;

 private:
  friend class TraceLevels;

  void emit(unsigned level, const TraceSite& site, std::string_view message) const noexcept;

  const char* handleName;
  mutable std::atomic<std::uint32_t> mask;  // mutable: handles are const objects, and their levels still change
};

}  // namespace Cor

// The ring-buffer trace: the last lines of the process, kept in memory whatever the levels are.
class RingTrace {
 public:
  static constexpr std::size_t capacity = 512;

  static void write(const Cor::TraceSite& site, std::string_view message) noexcept;

  // Returns the lines that are still in the buffer, oldest first, each as "file:line function message". Throws
  // std::bad_alloc.
  static std::vector<std::string> lines();
};

// Writes one line to the ring-buffer trace, and then to a handle's text trace if the level is enabled there.
class DualTrace {
 public:
  static void write(const Cor::TraceHandle& handle, unsigned level, const Cor::TraceSite& site,
                    std::string_view message) noexcept;
};

#pragma GCC visibility pop
