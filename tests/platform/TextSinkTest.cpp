// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Text traces and their reader: a reader that is gone or does not read harms the agent in no way.
#include "platform/Trace.h"
#include "tests/platform/Roles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Ipsec::Testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const Cor::TraceHandle handle("TextSinkTest");

void trace(std::string_view message) {
  DualTrace::write(handle, 0, {"File.cpp", 1, "f"}, message);
}

// Both ends of a connection whose writing end becomes standard error, in a child process. Each holds less than a long
// line.
struct Ends {
  int reader = -1;
  int writer = -1;
};

Ends makePipe() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 16384), 16384);
  return {ends[0], ends[1]};
}

Ends makeSocket() {
  int ends[2] = {-1, -1};
  const int size = 8192;  // the kernel takes twice as much, for what it needs itself
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  EXPECT_EQ(setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
  return {ends[0], ends[1]};
}

Ends makeTerminal() {
  const int reader = posix_openpt(O_RDWR | O_NOCTTY);
  EXPECT_TRUE(reader >= 0 && grantpt(reader) == 0 && unlockpt(reader) == 0);
  return {reader, open(ptsname(reader), O_RDWR | O_NOCTTY)};
}

// Fills a connection without a change to the flags that others share.
void fill(int writer) {
  const std::string path = "/proc/self/fd/" + std::to_string(writer);
  const int own = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY);
  const std::string text(4096, 'x');
  pollfd room = {writer, POLLOUT, 0};
  do {  // a terminal moves what it holds, and then has room again
    for (std::size_t size = text.size(); size > 0; size /= 2) {
      while ((own >= 0 ? write(own, text.data(), size) : send(writer, text.data(), size, MSG_DONTWAIT)) > 0) {
      }
    }
  } while (poll(&room, 1, 50) > 0);
  (void)close(own);
}

std::string readAll(int reader) {
  std::string all;
  char piece[65536];
  pollfd waiting = {reader, POLLIN, 0};
  while (poll(&waiting, 1, 100) > 0) {
    const ssize_t count = read(reader, piece, sizeof piece);
    if (count <= 0) {
      break;
    }
    all.append(piece, static_cast<std::size_t>(count));
  }
  return all;
}

// Runs the work in a child whose standard error is the writing end. The work answers with the number of what went
// wrong.
int inAChild(const Ends& ends, const std::function<int(const Ends&)>& work) {
  const pid_t child = fork();
  EXPECT_GE(child, 0);
  if (child == 0) {
    (void)std::signal(SIGPIPE, SIG_DFL);
    (void)alarm(20);
    (void)dup2(ends.writer, STDERR_FILENO);
    (void)close(ends.writer);
    std::_Exit(work({ends.reader, STDERR_FILENO}));
  }
  (void)close(ends.reader);
  (void)close(ends.writer);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

int code(int exitCode) {
  return exitCode << 8;
}

struct Connection {
  const char* name;
  Ends (*make)();
};

class Reader : public testing::TestWithParam<Connection> {};

TEST_P(Reader, ThatIsGoneRaisesNoSignal) {
  const int status = inAChild(GetParam().make(), [](const Ends& ends) {
    (void)close(ends.reader);
    for (int line = 0; line < 3; ++line) {
      trace("nobody reads this");
    }
    sigset_t pending;
    (void)sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1 ? 1 : 0;
  });
  EXPECT_EQ(status, code(0));
}

TEST_P(Reader, ThatDoesNotReadCostsTheFirstLineTenMillisecondsAndLaterOnesNothing) {
  const int status = inAChild(GetParam().make(), [](const Ends& ends) {
    fill(ends.writer);
    const int flags = fcntl(ends.writer, F_GETFL);
    const auto start = Clock::now();
    trace("line 0");
    const auto first = Clock::now() - start;
    for (int line = 1; line < 1000; ++line) {
      trace("line " + std::to_string(line));
    }
    const auto all = Clock::now() - start;
    if (first < milliseconds(10)) {
      return 1;  // it did not wait
    }
    if (all > milliseconds(3000)) {
      return 2;  // each of a thousand lines waited
    }
    if (fcntl(ends.writer, F_GETFL) != flags) {
      return 3;
    }
    const std::vector<std::string> ring = RingTrace::lines();
    if (ring.empty() || ring.back() != "File.cpp:1 f line 999") {
      return 4;  // the ring keeps what standard error loses
    }
    (void)readAll(ends.reader);
    trace("a line that gets through");
    trace("another one");
    const std::string text = readAll(ends.reader);
    const std::size_t told = text.find("1000 lines were dropped");
    const std::size_t next = text.find("a line that gets through");
    const bool onlyOnce = text.find("were dropped", told + 20) == std::string::npos;
    const bool inOrder = told != std::string::npos && next != std::string::npos && told < next;
    return inOrder && onlyOnce && text.find("another one") != std::string::npos ? 0 : 5;
  });
  EXPECT_EQ(status, code(0)) << "exit status " << WEXITSTATUS(status);
}

// A hundred threads wait for one stuck reader, on a machine that may be busy. None waits for the others' time as well
// as for its own.
TEST_P(Reader, ThatDoesNotReadHoldsUpNoThreadForLong) {
  const int status = inAChild(GetParam().make(), [](const Ends& ends) {
    fill(ends.writer);
    std::atomic<bool> late = false;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 100; ++thread) {
      threads.emplace_back([&late] {
        const auto start = Clock::now();
        trace("a line");
        late = late || Clock::now() - start > milliseconds(700);
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    return late ? 1 : 0;
  });
  EXPECT_EQ(status, code(0)) << "exit status " << WEXITSTATUS(status);
}

// No part of it is like another: in a text of equal characters each look for the whole line would take long, and the
// reader would come too late.
std::string longLine() {
  std::string line;
  for (int number = 0; line.size() < 20000; ++number) {
    line += std::to_string(number) + " ";
  }
  return line + "end of it";
}

// The line is longer than what its way holds. Its reader looks only from time to time, after it did not read at all. On
// a busy machine it may take longer than a line waits: that line is dropped, and another one is traced.
TEST_P(Reader, GetsLongLinesWhole) {
  const int status = inAChild(GetParam().make(), [](const Ends& ends) {
    fill(ends.writer);
    trace("a line that is dropped");
    const std::string line = longLine();
    std::atomic<bool> found = false;
    std::thread reading([&] {
      std::string text;
      std::vector<char> piece(65536);
      while (text.find(line) == std::string::npos) {
        text.erase(0, text.size() - std::min(text.size(), line.size()));  // of a dropped line
        std::this_thread::sleep_for(milliseconds(3));
        for (pollfd waiting = {ends.reader, POLLIN, 0}; poll(&waiting, 1, 1) > 0;) {
          const ssize_t count = read(ends.reader, piece.data(), piece.size());
          text.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
      }
      found = true;
    });
    while (!found) {  // a line that never comes whole ends the child by its alarm
      trace(line);
      std::this_thread::sleep_for(milliseconds(20));
    }
    reading.join();
    return 0;
  });
  EXPECT_EQ(status, code(0)) << "exit status " << WEXITSTATUS(status);
}

INSTANTIATE_TEST_SUITE_P(Of, Reader,
                         testing::Values(Connection{"Pipe", makePipe}, Connection{"Socket", makeSocket},
                                         Connection{"Terminal", makeTerminal}),
                         [](const auto& each) { return each.param.name; });

}  // namespace

// Opens a file on descriptor 2 and traces. Whether the descriptor was closed before this process started, or is closed
// only now, is what the argument says.
int traceIntoAnOwnFile(const Strings& arguments) {
  if (arguments.at(1) == "closed-now") {
    (void)close(STDERR_FILENO);
  }
  const int file = open(arguments.at(0).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  trace("a line");
  return file == STDERR_FILENO ? 0 : 1;
}

namespace {

std::string ownFileAfterTracing(const std::string& when, const std::string& redirection) {
  const std::string path = testing::TempDir() + "own-file." + std::to_string(getpid());
  const Outcome outcome =
      runShell("exec " + ownPath() + " trace-into-an-own-file " + path + " " + when + " " + redirection);
  EXPECT_EQ(outcome.status, 0);
  const Outcome shown = runShell("cat " + path + "; rm " + path);
  return shown.output;
}

TEST(TextTrace, WritesNothingInAProcessThatStartsWithoutAStandardError) {
  EXPECT_EQ(ownFileAfterTracing("closed-before", "2>&-"), "");
}

// The agent's own doing: whatever it opens on descriptor 2 is its standard error.
TEST(TextTrace, FollowsDescriptor2) {
  EXPECT_NE(ownFileAfterTracing("closed-now", "").find(" a line\n"), std::string::npos);
}

}  // namespace
}  // namespace Ipsec::Testing
