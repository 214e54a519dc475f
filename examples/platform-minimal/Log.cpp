// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Registered messages. One that is emitted goes to syslog. The limits that a handle sets are not kept.
#include "platform/Log.h"

#include "base/CancellationHeld.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace Cor {

namespace {

// Handles are static objects of other libraries, so the list is created at first use and never destroyed.
struct Registry {
  std::mutex lock;
  std::vector<const LogHandle*> handles;
};

Registry& registry() {
  static auto* const handles = new Registry;
  return *handles;
}

}  // namespace

LogHandle::LogHandle(const LogMessage& message, Vello::Duration interval, double share, unsigned burst,
                     unsigned limit) noexcept
    : registered(message), leastSeconds(interval.seconds()), sharePassed(share), burstSize(burst), mostSent(limit) {
  try {
    const std::lock_guard guard(registry().lock);
    registry().handles.push_back(this);
  } catch (const std::bad_alloc&) {  // the message is not listed
  }
}

LogHandle::~LogHandle() {
  const std::lock_guard guard(registry().lock);
  std::erase(registry().handles, this);
}

std::vector<LogMessage> LogHandle::registeredMessages() {
  const std::lock_guard guard(registry().lock);
  std::vector<LogMessage> messages;
  for (const LogHandle* handle : registry().handles) {
    messages.push_back(handle->message());
  }
  return messages;
}

bool LogHandle::send(const char* format, ...) noexcept {
  const Base::CancellationHeld held;
  char text[1024];  // what does not fit is cut off
  std::va_list values;
  va_start(values, format);
  const int length = std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  if (length < 0) {
    return false;
  }
  syslog(LOG_USER | static_cast<int>(std::min(registered.level, unsigned{LOG_DEBUG})), "%s: %s", registered.key, text);
  return true;
}

}  // namespace Cor
