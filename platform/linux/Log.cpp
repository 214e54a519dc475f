// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/Log.h"

#include "base/CancellationHeld.h"

#include <syslog.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace Cor {

namespace {

// All handles of the process. The static set-up of other libraries creates and destroys handles, so the registry is
// created at first use and never destroyed.
struct Registry {
  std::mutex lock;
  std::vector<const LogHandle*> handles;

  static Registry& instance() {
    static auto* const registry = new Registry;
    return *registry;
  }
};

}  // namespace

LogHandle::LogHandle(const LogMessage& message, Vello::Duration interval, double share, unsigned burst,
                     unsigned limit) noexcept
    : registered(message), leastSeconds(interval.seconds()), sharePassed(share), burstSize(burst), mostSent(limit) {
  try {
    Registry& registry = Registry::instance();
    const std::lock_guard guard(registry.lock);
    registry.handles.push_back(this);
  } catch (const std::bad_alloc&) {
    // The message is not listed, but can still be sent.
  }
}

LogHandle::~LogHandle() {
  try {
    Registry& registry = Registry::instance();
    const std::lock_guard guard(registry.lock);
    std::erase(registry.handles, this);
  } catch (const std::bad_alloc&) {
    // There is no registry, so nothing is registered in it.
  }
}

std::vector<LogMessage> LogHandle::registeredMessages() {
  Registry& registry = Registry::instance();
  const std::lock_guard guard(registry.lock);
  std::vector<LogMessage> messages;
  messages.reserve(registry.handles.size());
  for (const LogHandle* handle : registry.handles) {
    messages.push_back(handle->message());
  }
  return messages;
}

bool LogHandle::letThrough() {
  const std::lock_guard guard(lock);
  wanted += 1;
  if (!(std::ceil(wanted * sharePassed) > std::ceil((wanted - 1) * sharePassed))) {
    return false;
  }
  const Clock::time_point now = Clock::now();
  const bool tooSoon = std::chrono::duration<double>(now - lastSent).count() < leastSeconds;
  if (sent > 0 && sent >= burstSize && tooSoon) {
    return false;
  }
  if (mostSent != 0 && sent >= mostSent) {
    return false;
  }
  ++sent;
  lastSent = now;
  return true;
}

bool LogHandle::send(const char* format, ...) noexcept {
  const Base::CancellationHeld held;
  try {
    std::va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(nullptr, 0, format, values);
    va_end(values);
    if (length < 0) {
      return false;
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    va_start(values, format);
    (void)std::vsnprintf(text.data(), text.size() + 1, format, values);  // it fits: the length was computed above
    va_end(values);
    if (!letThrough()) {
      return false;
    }
    const int priority = static_cast<int>(std::min(registered.level, unsigned{LOG_DEBUG}));
    syslog(LOG_USER | priority, "%s: %s", registered.key, text.c_str());
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace Cor
