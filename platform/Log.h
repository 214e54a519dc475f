// Registered log messages: texts an operator sees, listed in one place and sent to syslog when emitted.
#pragma once

#include "platform/Framework.h"

#include <chrono>
#include <mutex>
#include <vector>

#pragma GCC visibility push(default)

namespace Cor {

// A message's texts. All are borrowed: pass literals. The format is printf's; level is syslog's (4 = warning).
struct LogMessage {
  const char* key;
  const char* format;
  const char* explanation;
  const char* recommendedAction;
  unsigned level;
};

// Registers a message for as long as the handle lives. Make one static handle per message and source file; a message
// registered by several files is listed once per handle. When memory is exhausted the message is not listed.
//
// share: the fraction of emissions that is let through, 0.0 to 1.0, evenly spread; the first is among them.
// interval: least time in seconds between two emissions; 0 lets every emission through.
// burst: so many emissions at the start are let through without regard to the interval.
// limit: most emissions in the handle's life; 0 is no limit.
class LogHandle {
 public:
  LogHandle(const LogMessage& message, Vello::Duration interval, double share, unsigned burst, unsigned limit) noexcept;
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  // Formats the message's text with the values, which must be what its format asks for, and sends "KEY: text" to
  // syslog. Returns whether it was sent (false: held back by share, interval or limit, or out of memory). Never throws.
  // Any thread may call it.
  template <class... Values>
  bool emit(Values... values) noexcept {
    return send(registered.format, values...);
  }

  const LogMessage& message() const noexcept { return registered; }

  // Returns all messages registered in the process now, in order of registration.
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
  std::mutex lock;  // guards what follows
  double wanted = 0;
  unsigned sent = 0;
  Clock::time_point lastSent;
};

}  // namespace Cor

#pragma GCC visibility pop
