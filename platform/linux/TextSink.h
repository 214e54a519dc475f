// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// TextSink writes text traces to standard error. A trace must never harm what it traces: on a pipe, a socket or a
// terminal, a line waits at most 10 ms for its reader and for other lines, and is then dropped and counted. While the
// reader does not read, later lines are dropped at once. The number of dropped lines is told in a line of its own
// before the next line that gets through. A reader that is gone raises no signal.
#pragma once

#include <spdlog/formatter.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>

namespace Cor {

// Turn is held by one thread at a time. It is a mutex that can be waited for until a deadline. The ThreadSanitizer of
// g++ 12 does not know how std::timed_mutex waits for a steady clock's time.
class Turn {
 public:
  using Clock = std::chrono::steady_clock;

  void lock();
  bool try_lock_until(Clock::time_point deadline);
  void unlock();

 private:
  std::mutex guard;
  std::condition_variable given;
  bool taken = false;
};

class TextSink {
 public:
  explicit TextSink(std::unique_ptr<spdlog::formatter> lineFormatter) : formatter(std::move(lineFormatter)) {}

  void log(const spdlog::details::log_msg& line);

 private:
  using Clock = Turn::Clock;

  enum class Kind { Closed, File, Pipe, Socket };  // a terminal is written like a pipe

  static Kind kindOfStandardError() noexcept;

  bool put(const spdlog::details::log_msg& line, Kind kind, Clock::time_point deadline);
  bool tellDropped(unsigned long count, Kind kind, Clock::time_point deadline);

  Turn lock;  // guards what follows, but for the number
  std::unique_ptr<spdlog::formatter> formatter;
  bool midLine = false;  // the reader was given a part of a long line
  std::atomic<unsigned long> dropped = 0;
};

}  // namespace Cor
