// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "platform/linux/TextSink.h"

#include "base/Descriptor.h"

#include <spdlog/details/log_msg.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>

namespace Cor {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds patience(10);

// Keeps SIGPIPE from this thread while it lives, also the one that a write raises meanwhile.
class PipeSignalHeld {
 public:
  PipeSignalHeld() noexcept {
    (void)sigemptyset(&pipeSignal);
    (void)sigaddset(&pipeSignal, SIGPIPE);
    sigset_t waiting;
    (void)sigpending(&waiting);
    wasPending = sigismember(&waiting, SIGPIPE) == 1;
    (void)pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
  }
  ~PipeSignalHeld() {
    const timespec atOnce = {0, 0};
    while (!wasPending && sigtimedwait(&pipeSignal, nullptr, &atOnce) < 0 && errno == EINTR) {
    }
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  sigset_t pipeSignal;
  sigset_t before;
  bool wasPending;
};

// Waits until the descriptor takes bytes. Returns false when the time is up.
bool waitForReader(int descriptor, Clock::time_point deadline) noexcept {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting = {descriptor, POLLOUT, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
    if (ready >= 0 || errno != EINTR) {
      return ready > 0;
    }
  }
}

// Returns how many bytes were written until the deadline. The writer answers as write() does on a descriptor that does
// not block.
template <class Writer>
std::size_t writeUntil(Clock::time_point deadline, int descriptor, std::string_view text, const Writer& writer) {
  std::size_t written = 0;
  while (written < text.size()) {
    const std::string_view piece = text.substr(written, PIPE_BUF);  // a pipe takes so many bytes whole, or none
    const ssize_t count = writer(piece);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == 0 || (errno != EINTR && (errno != EAGAIN || !waitForReader(descriptor, deadline)))) {
      break;
    }
  }
  return written;
}

// The descriptor's flags are shared with other processes, and stay. A pipe or terminal is opened once more, for this
// text alone, in a way that does not block. Where that is not allowed, nothing is written before it can be.
std::size_t writeToPipe(std::string_view text, Clock::time_point deadline) {
  const PipeSignalHeld held;
  const Base::Descriptor own = Base::openFile("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY);
  if (own.isOpen()) {
    return writeUntil(deadline, own.get(), text,
                      [&own](std::string_view piece) { return ::write(own.get(), piece.data(), piece.size()); });
  }
  return writeUntil(deadline, STDERR_FILENO, text, [deadline](std::string_view piece) {
    if (!waitForReader(STDERR_FILENO, deadline)) {
      errno = EPIPE;
      return ssize_t{-1};
    }
    return ::write(STDERR_FILENO, piece.data(), piece.size());
  });
}

std::size_t writeToSocket(std::string_view text, Clock::time_point deadline) {
  return writeUntil(deadline, STDERR_FILENO, text, [](std::string_view piece) {
    return ::send(STDERR_FILENO, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  });
}

// What a file does not take, a full disk say, is lost.
std::size_t writeToFile(std::string_view text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(STDERR_FILENO, text.data() + written, text.size() - written);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  return text.size();
}

}  // namespace

void Turn::lock() {
  std::unique_lock held(guard);
  given.wait(held, [this] { return !taken; });
  taken = true;
}

bool Turn::try_lock_until(Clock::time_point deadline) {
  std::unique_lock held(guard);
  if (!given.wait_until(held, deadline, [this] { return !taken; })) {
    return false;
  }
  taken = true;
  return true;
}

void Turn::unlock() {
  {
    const std::lock_guard held(guard);
    taken = false;
  }
  given.notify_one();
}

TextSink::Kind TextSink::kindOfStandardError() noexcept {
  struct stat status = {};
  if (fstat(STDERR_FILENO, &status) != 0) {
    return Kind::Closed;
  }
  if (S_ISSOCK(status.st_mode)) {
    return Kind::Socket;
  }
  const bool isTerminal = S_ISCHR(status.st_mode) && isatty(STDERR_FILENO) == 1;
  return S_ISFIFO(status.st_mode) || isTerminal ? Kind::Pipe : Kind::File;
}

void TextSink::log(const spdlog::details::log_msg& line) {
  const Kind kind = kindOfStandardError();
  if (kind == Kind::Closed) {
    return;
  }
  std::unique_lock held(lock, std::defer_lock);
  const Clock::time_point begun = Clock::now();
  Clock::time_point deadline = begun + patience;
  if (kind == Kind::File) {
    held.lock();
  } else {
    if (dropped != 0) {
      deadline = begun;
    }
    if (!held.try_lock_until(deadline)) {
      ++dropped;
      return;
    }
  }
  const unsigned long untold = dropped;
  if (untold != 0) {
    if (!tellDropped(untold, kind, deadline)) {
      ++dropped;
      return;
    }
    dropped -= untold;
    deadline = begun + patience;  // somebody reads again
  }
  if (!put(line, kind, deadline)) {
    ++dropped;
  }
}

bool TextSink::put(const spdlog::details::log_msg& line, Kind kind, Clock::time_point deadline) {
  spdlog::memory_buf_t text;
  if (midLine) {
    text.push_back('\n');
  }
  formatter->format(line, text);
  const std::string_view all(text.data(), text.size());
  const std::size_t written = kind == Kind::File   ? writeToFile(all)
                              : kind == Kind::Pipe ? writeToPipe(all, deadline)
                                                   : writeToSocket(all, deadline);
  if (written != 0) {
    midLine = written != all.size();
  }
  return written == all.size();
}

bool TextSink::tellDropped(unsigned long count, Kind kind, Clock::time_point deadline) {
  char text[100];
  const int length = std::snprintf(text, sizeof text, "%lu lines were dropped: nobody read standard error", count);
  const spdlog::source_loc here(__FILE__, __LINE__, __func__);
  return put(spdlog::details::log_msg(here, "TextSink 0", spdlog::level::info,
                                      spdlog::string_view_t(text, static_cast<std::size_t>(length))),
             kind, deadline);
}

}  // namespace Cor
