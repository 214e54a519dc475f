// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Registered log messages: texts for the operator. All of them can be listed, and one that is emitted goes to syslog.
#pragma once

#include "platform/Framework.h"

#include <chrono>
#include <mutex>
#include <vector>

#pragma GCC visibility push(default)

namespace Cor {

// A message's texts. All are borrowed and must live as long as the handle: pass literals. The format is that of printf;
// the level is that of syslog (4 = warning).
struct LogMessage {
  const char* key;
  const char* format;
  const char* explanation;
  const char* recommendedAction;
  unsigned level;
};

// Registers a message as long as the handle lives. Create one static handle per message and source file; a message that
// several files register is listed once per handle. If memory is exhausted, the message is not listed.
//
// interval: the least time in seconds between two messages that are sent; 0 means no waiting.
// share: the fraction of emissions that are let through, 0.0 to 1.0, evenly spread and beginning with the first.
// burst: the number of messages at the start that are sent without regard to the interval.
// limit: the greatest number of messages that are sent in the handle's life; 0 means no limit.
class LogHandle {
 public:
  LogHandle(const LogMessage& message, Vello::Duration interval, double share, unsigned burst, unsigned limit) noexcept;
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  // Formats the message's text with the values and sends "KEY: text" to syslog. Returns whether it was sent; false
  // means that share, interval or limit held it back, or that memory is exhausted. Never throws. Any thread may call
  // it.
  // Warning: the values must have the types that the format asks for. The compiler does not check them, and a wrong one
  // is undefined behaviour, as with printf.
  template <class... Values>
  bool emit(Values... values) noexcept {
    return send(registered.format, values...);
  }

  const LogMessage& message() const noexcept { return registered; }

  // Returns all messages that are registered in the process at this moment, in the order of registration.
  static std::vector<LogMessage> registeredMessages();

 private:
  using Clock = std::chrono::steady_clock;

  bool send(const char* format, ...) noexcept;
  bool letThrough();

  const LogMessage registered;
  const double leastSeconds;
  const double sharePassed;
  const unsigned burstSize;
  const unsigned mostSent;
  std::mutex lock;  // guards the members below
  double wanted = 0;
  unsigned sent = 0;
  Clock::time_point lastSent;
};

}  // namespace Cor

#pragma GCC visibility pop
