// Trace facilities: text lines per source file with levels, the ring buffer, and both at once.
//
// Nothing that writes throws, changes errno, or blocks on anything but the sink's own lock: tracing never changes what
// the traced code does. A line that cannot be written (memory exhausted, standard error closed) is lost.
//
// A text line goes to standard error as "time handle level file:line function message". Control characters in a message
// are written as "?", so that a line is one line. All functions may be called from any thread, and until the very end
// of the process.
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

// A named source of text-trace lines. Each source file owns one, as a static object; several handles may share a name
// and then share its levels. From the start level 0 (errors) is on and the others are off, but for the names that the
// environment variable TRACE_LEVELS lists, which have exactly the levels given there:
//
//   TRACE_LEVELS=IpsecKeyGen=0-4,IpsecUtils=0-1,IpsecUtils=8
//
// It is read once, when the first handle is made. A malformed value is reported on standard error and counts as none.
class TraceHandle {
 public:
  static constexpr unsigned levels = 32;

  // The name is borrowed: pass a literal.
  explicit TraceHandle(const char* name) noexcept;
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  // Tells whether lines of this level are written. One relaxed load and a bit test.
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

  // Switches the levels whose bits are set on and all others off, for this handle and all others of its name. Any
  // thread may call it.
  void setLevels(std::uint32_t bits) noexcept;

 private:
  friend class TraceLevels;

  void emit(unsigned level, const TraceSite& site, std::string_view message) const noexcept;

  const char* handleName;
  mutable std::atomic<std::uint32_t> mask;  // handles are made const, and switched by name all the same
};

}  // namespace Cor

// The ring-buffer trace: the process's last lines, kept in memory whatever the levels are.
class RingTrace {
 public:
  static constexpr std::size_t capacity = 512;

  static void write(const Cor::TraceSite& site, std::string_view message) noexcept;

  // Returns the lines still held, oldest first, each as "file:line function message". Throws std::bad_alloc.
  static std::vector<std::string> lines();
};

// Writes one line to the ring-buffer trace, then to a handle's text trace (there only if the level is enabled).
class DualTrace {
 public:
  static void write(const Cor::TraceHandle& handle, unsigned level, const Cor::TraceSite& site,
                    std::string_view message) noexcept;
};

#pragma GCC visibility pop
