// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/Trace.h"

#include "base/CancellationHeld.h"
#include "platform/linux/TextSink.h"
#include "platform/linux/TraceLevels.h"
#include "platform/testing/TraceCapture.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

namespace Cor {

// The levels of each name, and all handles. The static set-up of other libraries creates and destroys handles, so the
// one object of this class is created at first use and never destroyed.
class TraceLevels {
 public:
  static TraceLevels& instance() {
    static auto* const levels = new TraceLevels;
    return *levels;
  }

  void add(const TraceHandle* handle) {
    const std::lock_guard guard(lock);
    handles.push_back(handle);
    const auto found = masks.find(std::string_view(handle->name()));
    if (found != masks.end()) {
      handle->mask.store(found->second, std::memory_order_relaxed);
    }
  }

  void remove(const TraceHandle* handle) {
    const std::lock_guard guard(lock);
    std::erase(handles, handle);
  }

  void set(const LevelMasks& changes) {
    const std::lock_guard guard(lock);
    for (const auto& [name, mask] : changes) {
      masks.insert_or_assign(name, mask);
    }
    for (const TraceHandle* handle : handles) {
      const auto found = changes.find(std::string_view(handle->name()));
      if (found != changes.end()) {
        handle->mask.store(found->second, std::memory_order_relaxed);
      }
    }
  }

 private:
  TraceLevels();

  std::mutex lock;
  LevelMasks masks;
  std::vector<const TraceHandle*> handles;
};

namespace {

constexpr std::uint32_t errorsOnly = 1;

std::atomic<bool> writesText = true;

// --- Levels ----------------------------------------------------------------------------------------------------------

bool isControl(char byte) noexcept {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7F;
}

LevelMasks levelsFromEnvironment() {
  const char* const text = std::getenv("TRACE_LEVELS");
  if (text == nullptr) {
    return {};
  }
  LevelReading reading = readLevels(text);
  if (!reading.malformed) {
    return std::move(reading.masks);
  }
  std::string entry(*reading.malformed);
  std::replace_if(entry.begin(), entry.end(), isControl, '?');
  (void)std::fprintf(stderr, "TRACE_LEVELS ignored: \"%s\" is neither NAME=LEVEL nor NAME=FIRST-LAST (0 to %u)\n",
                     entry.c_str(), TraceHandle::levels - 1);
  return {};
}

// --- Sinks -----------------------------------------------------------------------------------------------------------

// Restores errno: callers often trace first and report errno afterwards.
class ErrnoKeeper {
 public:
  ErrnoKeeper() noexcept : kept(errno) {}
  ~ErrnoKeeper() { errno = kept; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int kept;
};

// The message as "%*" of the pattern, without control characters: a message with a newline must not look like two
// lines.
class PrintableMessage : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& line, const std::tm&, spdlog::memory_buf_t& out) override {
    for (const char byte : line.payload) {
      out.push_back(isControl(byte) ? '?' : byte);
    }
  }

  std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<PrintableMessage>(); }
};

std::unique_ptr<spdlog::formatter> formatterOf(const char* pattern, const char* lineEnd) {
  spdlog::pattern_formatter::custom_flags flags;
  flags['*'] = std::make_unique<PrintableMessage>();
  return std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::local, lineEnd,
                                                     std::move(flags));
}

// Static objects of other libraries trace while they are destroyed, so the sinks are created at first use and never
// destroyed.
struct Sinks {
  TextSink text;
  spdlog::sinks::ringbuffer_sink_mt ring{RingTrace::capacity};

  // The name field holds the handle and the level, because spdlog's own levels are fewer and have names.
  Sinks() : text(formatterOf("%Y-%m-%dT%H:%M:%S.%f%z %n %g:%# %! %*", "\n")) {
    ring.set_formatter(formatterOf("%*", ""));
  }

  static Sinks& instance() {
    static auto* const sinks = new Sinks;
    return *sinks;
  }
};

void append(spdlog::memory_buf_t& buffer, std::string_view text) {
  buffer.append(text.data(), text.data() + text.size());
}

template <class Number>
void appendNumber(spdlog::memory_buf_t& buffer, Number number) {
  std::array<char, 24> digits;
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  buffer.append(digits.data(), end);
}

spdlog::string_view_t viewOf(const spdlog::memory_buf_t& buffer) {
  return {buffer.data(), buffer.size()};
}

void writeText(const char* handle, unsigned level, const TraceSite& site, std::string_view message) {
  spdlog::memory_buf_t name;
  append(name, handle);
  name.push_back(' ');
  appendNumber(name, level);
  const spdlog::details::log_msg line(spdlog::source_loc{site.file, site.line, site.function}, viewOf(name),
                                      spdlog::level::info, {message.data(), message.size()});
  Sinks::instance().text.log(line);
}

// The payload is the whole line, as a copy: the ring outlives the strings of a library that has been unloaded.
void writeRing(const TraceSite& site, std::string_view message) {
  spdlog::memory_buf_t text;
  append(text, site.file);
  text.push_back(':');
  appendNumber(text, site.line);
  text.push_back(' ');
  append(text, site.function);
  text.push_back(' ');
  append(text, message);
  Sinks::instance().ring.log(spdlog::details::log_msg({}, spdlog::level::info, viewOf(text)));
}

// --- Captures --------------------------------------------------------------------------------------------------------

struct Captures {
  std::atomic<bool> any = false;
  std::mutex lock;
  std::vector<const TraceCapture*> all;

  static Captures& instance() {
    static auto* const captures = new Captures;
    return *captures;
  }
};

thread_local bool capturing = false;

// Shows a line to the captures. A failure here, of a listener or of memory, must not reach the code that traces.
void showToCaptures(TraceSink sink, const char* handle, unsigned level, const TraceSite& site,
                    std::string_view message) noexcept {
  try {
    Captures& captures = Captures::instance();
    if (capturing || !captures.any.load(std::memory_order_acquire)) {
      return;
    }
    const TraceLine line{handle, level, site.file, site.line, site.function, std::string(message), sink};
    const std::lock_guard guard(captures.lock);
    capturing = true;
    for (const TraceCapture* capture : captures.all) {
      try {
        capture->show(line);
      } catch (...) {  // the next capture still sees the line
      }
    }
  } catch (...) {  // see above
  }
  capturing = false;
}

}  // namespace

TraceLevels::TraceLevels() : masks(levelsFromEnvironment()) {
  // In a process that starts without a standard error, descriptor 2 is the first file that the agent opens.
  writesText.store(fcntl(STDERR_FILENO, F_GETFD) >= 0, std::memory_order_relaxed);
}

// --- The facilities --------------------------------------------------------------------------------------------------

TraceHandle::TraceHandle(const char* name) noexcept : handleName(name), mask(errorsOnly) {
  try {
    TraceLevels::instance().add(this);
  } catch (...) {  // memory is exhausted: errors are traced, but levels cannot be switched
  }
}

TraceHandle::~TraceHandle() {
  try {
    TraceLevels::instance().remove(this);
  } catch (...) {  // memory has been exhausted since the handle was created: it was never added
  }
}

void TraceHandle::setLevels(std::uint32_t bits) noexcept {
  try {
    TraceLevels::instance().set({{handleName, bits}});
  } catch (...) {  // memory is exhausted: at least this handle is switched
    mask.store(bits, std::memory_order_relaxed);
  }
}

void TraceHandle::emit(unsigned level, const TraceSite& site, std::string_view message) const noexcept {
  const Base::CancellationHeld held;
  const ErrnoKeeper keeper;
  showToCaptures(TraceSink::Text, handleName, level, site, message);
  try {
    if (writesText.load(std::memory_order_relaxed)) {
      writeText(handleName, level, site, message);
    }
  } catch (...) {  // the line is lost
  }
}

bool setTraceLevels(std::string_view text) {
  const LevelReading reading = readLevels(text);
  if (reading.malformed) {
    return false;
  }
  TraceLevels::instance().set(reading.masks);
  return true;
}

TraceCapture::TraceCapture(std::function<void(const TraceLine&)> newListener) : listener(std::move(newListener)) {
  Captures& captures = Captures::instance();
  const std::lock_guard guard(captures.lock);
  captures.all.push_back(this);
  captures.any.store(true, std::memory_order_release);
}

TraceCapture::~TraceCapture() {
  Captures& captures = Captures::instance();
  const std::lock_guard guard(captures.lock);
  std::erase(captures.all, this);
  captures.any.store(!captures.all.empty(), std::memory_order_release);
}

}  // namespace Cor

void RingTrace::write(const Cor::TraceSite& site, std::string_view message) noexcept {
  const Cor::ErrnoKeeper keeper;
  Cor::showToCaptures(Cor::TraceSink::Ring, "", 0, site, message);
  try {
    Cor::writeRing(site, message);
  } catch (...) {  // the line is lost
  }
}

std::vector<std::string> RingTrace::lines() {
  return Cor::Sinks::instance().ring.last_formatted();
}

void DualTrace::write(const Cor::TraceHandle& handle, unsigned level, const Cor::TraceSite& site,
                      std::string_view message) noexcept {
  RingTrace::write(site, message);
  handle.write(level, site, message);
}
