// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Traces that write nothing: each line goes to the captures. They are the hook at which an agent puts its own trace.
#include "platform/Trace.h"

#include "base/CancellationHeld.h"
#include "platform/testing/TraceCapture.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>

namespace Cor {

// The handles with their levels, the captures, and the ring. Static objects of other libraries trace at load and at
// exit, so the one object of this class is created at first use and never destroyed.
class TraceLevels {
 public:
  static TraceLevels& instance() {
    static auto* const levels = new TraceLevels;
    return *levels;
  }

  void add(const TraceHandle* handle) {
    const std::lock_guard guard(lock);
    handles.push_back(handle);
    if (const auto found = masks.find(std::string_view(handle->name())); found != masks.end()) {
      handle->mask = found->second;
    }
  }

  void set(const std::string& name, std::uint32_t mask) {
    const std::lock_guard guard(lock);
    masks.insert_or_assign(name, mask);
    for (const TraceHandle* handle : handles) {
      if (name == handle->name()) {
        handle->mask = mask;
      }
    }
  }

  // Keeps a line of the ring, and shows every line to the captures.
  void take(const TraceLine& line) {
    const std::lock_guard guard(lock);
    if (line.sink == TraceSink::Ring) {
      std::string text = line.file + ":" + std::to_string(line.line) + " " + line.function + " " + line.message;
      std::replace_if(
          text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, '?');
      if (ring.size() == RingTrace::capacity) {
        ring.pop_front();
      }
      ring.push_back(std::move(text));
    }
    if (showing) {
      return;  // a listener traces
    }
    showing = true;
    for (const TraceCapture* capture : captures) {
      try {
        capture->show(line);
      } catch (...) {  // the next capture still sees the line
      }
    }
    showing = false;
  }

  std::recursive_mutex lock;  // guards what follows; a listener may trace
  std::vector<const TraceHandle*> handles;
  std::vector<const TraceCapture*> captures;
  std::map<std::string, std::uint32_t, std::less<>> masks;
  std::deque<std::string> ring;
  bool showing = false;
};

namespace {

// Does what a trace does: it throws nothing, leaves errno as it was, and is no place where a thread is cancelled.
template <class Work>
void harmlessly(const Work& work) noexcept {
  const Base::CancellationHeld held;
  const int error = errno;
  try {
    work(TraceLevels::instance());
  } catch (...) {  // no memory: the line is lost, or the handle keeps its levels
  }
  errno = error;
}

}  // namespace

TraceHandle::TraceHandle(const char* name) noexcept : handleName(name), mask(1) {  // errors only
  harmlessly([this](TraceLevels& all) { all.add(this); });
}

TraceHandle::~TraceHandle() {
  harmlessly([this](TraceLevels& all) {
    const std::lock_guard guard(all.lock);
    std::erase(all.handles, this);
  });
}

void TraceHandle::setLevels(std::uint32_t bits) noexcept {
  harmlessly([&](TraceLevels& all) { all.set(handleName, bits); });
}

void TraceHandle::emit(unsigned level, const TraceSite& site, std::string_view message) const noexcept {
  harmlessly([&](TraceLevels& all) {
    all.take({handleName, level, site.file, site.line, site.function, std::string(message), TraceSink::Text});
  });
}

bool setTraceLevels(std::string_view text) {
  const std::regex form("([^=]+)=([0-9]{1,2})(?:-([0-9]{1,2}))?");
  std::map<std::string, std::uint32_t> masks;
  std::istringstream entries{std::string(text)};
  for (std::string entry; std::getline(entries, entry, ',');) {
    std::smatch parts;
    if (!std::regex_match(entry, parts, form)) {
      return false;
    }
    const int first = std::stoi(parts[2]);
    const int last = parts[3].matched ? std::stoi(parts[3]) : first;
    if (first > last || last >= static_cast<int>(TraceHandle::levels)) {
      return false;
    }
    for (int level = first; level <= last; ++level) {
      masks[parts[1]] |= std::uint32_t{1} << level;
    }
  }
  for (const auto& [name, mask] : masks) {
    TraceLevels::instance().set(name, mask);
  }
  return true;
}

TraceCapture::TraceCapture(std::function<void(const TraceLine&)> newListener) : listener(std::move(newListener)) {
  const std::lock_guard guard(TraceLevels::instance().lock);
  TraceLevels::instance().captures.push_back(this);
}

TraceCapture::~TraceCapture() {
  const std::lock_guard guard(TraceLevels::instance().lock);
  std::erase(TraceLevels::instance().captures, this);
}

}  // namespace Cor

void RingTrace::write(const Cor::TraceSite& site, std::string_view message) noexcept {
  Cor::harmlessly([&](Cor::TraceLevels& all) {
    all.take({"", 0, site.file, site.line, site.function, std::string(message), Cor::TraceSink::Ring});
  });
}

std::vector<std::string> RingTrace::lines() {
  Cor::TraceLevels& levels = Cor::TraceLevels::instance();
  const std::lock_guard guard(levels.lock);
  return {levels.ring.begin(), levels.ring.end()};
}

void DualTrace::write(const Cor::TraceHandle& handle, unsigned level, const Cor::TraceSite& site,
                      std::string_view message) noexcept {
  RingTrace::write(site, message);
  handle.write(level, site, message);
}
