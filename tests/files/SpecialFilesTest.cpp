// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What is in the place of a file may be no ordinary file, and the process may lack what it needs to open one: nothing
// is waited for, nothing is written through, and no other section is lost.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Every library in the process calls the program's own open instead of that of the C library. It calls the real one,
// and lets the running test look or fail first.
namespace {

// Called for each open of a file on one of the host's paths: before it, with -1, and after it, with its result. Before
// it, an answer other than 0 is the error that the open fails with.
std::function<int(std::string_view path, int opened)> onOpen;

bool isTheHosts(std::string_view path) {
  return path.rfind("/etc/strongswan/", 0) == 0 || path.rfind("/proc/sys/net/core/", 0) == 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
  static auto* const real = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
  std::va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const bool watched = onOpen && isTheHosts(path);
  if (const int error = watched ? onOpen(path, -1) : 0; error != 0) {
    errno = error;
    return -1;
  }
  const int opened = real(path, flags, mode);
  if (watched && opened >= 0) {
    (void)onOpen(path, opened);
  }
  return opened;
}

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

struct Writer {
  const char* name;
  const char* file;
  const char* error;
  const char* other;  // a section or entry that must never be lost
  const char* written;
  void (*update)();
  void (*refused)();
};

const Writer connections = {
    "connections",
    connectionsFile,
    "writeConnections Error renaming tmp file to ipsec.conf",
    "conn other\n\tleft=1\n",
    "conn a\n\treqid=7\n\tleft=l\n\tright=r\n\tauto=add\n\tmobike=no\n\tikedscp=110000\n\n",
    [] {
      writeConnections({{"config", "a"}, {"reqid", "7"}, {"left", "l"}, {"right", "r"}});
    },
    [] {
      writeConnections({{"config", "a"}});
    },
};

const Writer secrets = {
    "secrets",
    secretsFile,
    "writeSecrets Error renaming tmp file to ipsec.secrets",
    "other : PSK x\n",
    "10.0.0.1 : PSK k\n",
    [] {
      writeSecrets({{"peerIp", "10.0.0.1"}, {"key", "k"}});
    },
    [] {
      writeSecrets({{"peerIp", "10.0.0.1"}});
    },
};

class SpecialFiles : public testing::TestWithParam<const Writer*> {
 protected:
  SpecialFiles() : writer(*GetParam()), temporary(std::string(writer.file) + ".tmp") {
    resetHost();
    (void)alarm(20);  // a call that waits must not hold up the tests for ever
  }
  ~SpecialFiles() override {
    (void)alarm(0);
    onOpen = nullptr;
  }

  // Expects an update to fail with the one line, and the old file to stay.
  void expectRefused() const {
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update();
    EXPECT_EQ(traces.errors(), Lines{writer.error});
    EXPECT_EQ(traces.text(), Lines{writer.error});
    EXPECT_EQ(readFile(writer.file), writer.other);
  }

  const Writer& writer;
  const std::string temporary;
};

// --- In the place of the file that is read ---------------------------------------------------------------------------

TEST_P(SpecialFiles, APipeIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(writer.file, 0600), 0);
  writer.update();
  EXPECT_EQ(readFile(writer.file), writer.written);
}

TEST_P(SpecialFiles, APipeWithAWriterIsNotWaitedForEither) {
  ASSERT_EQ(mkfifo(writer.file, 0600), 0);
  const int held = ::open(writer.file, O_RDWR);
  ASSERT_GE(held, 0);
  writer.update();
  EXPECT_EQ(close(held), 0);
  EXPECT_EQ(readFile(writer.file), writer.written);
}

TEST_P(SpecialFiles, AFolderStaysAndIsReported) {
  ASSERT_TRUE(fs::create_directory(writer.file));
  const TraceRecorder traces("IpsecUtils=0-31");
  writer.update();
  EXPECT_EQ(traces.errors(), Lines{writer.error});
  EXPECT_TRUE(fs::is_directory(writer.file));
}

TEST_P(SpecialFiles, ADeviceThatEndsAtOnceIsAnEmptyFile) {
  fs::create_symlink("/dev/null", writer.file);
  writer.update();
  EXPECT_EQ(readFile(writer.file), writer.written);
}

TEST_P(SpecialFiles, ALinkIsFollowed) {
  const std::string target = std::string(daemonFolder) + "/target";
  writeFile(target, writer.other);
  fs::create_symlink(target, writer.file);
  writer.update();
  EXPECT_EQ(readFile(writer.file), std::string(writer.other) + writer.written);
  EXPECT_EQ(readFile(target), writer.other);
}

TEST(Liveness, DoesNotWaitForAPipe) {
  resetHost();
  fs::create_directories(fs::path(pidFile).parent_path());
  ASSERT_EQ(mkfifo(pidFile, 0600), 0);
  (void)alarm(20);
  EXPECT_FALSE(isSswanRunning());
  (void)alarm(0);
}

// --- In the place of the temporary file ------------------------------------------------------------------------------

TEST_P(SpecialFiles, ALinkIsNotWrittenThroughAndNotMoved) {
  writeFile(writer.file, writer.other);
  const std::string victim = std::string(daemonFolder) + "/victim";
  writeFile(victim, "keep me\n");
  for (const std::string& target : {victim, std::string(daemonFolder) + "/missing"}) {
    fs::remove(temporary);
    fs::create_symlink(target, temporary);
    expectRefused();
    EXPECT_TRUE(fs::is_symlink(temporary));
  }
  EXPECT_EQ(readFile(victim), "keep me\n");
  EXPECT_FALSE(exists(std::string(daemonFolder) + "/missing"));
}

TEST_P(SpecialFiles, AFileWithASecondNameIsNotWrittenThrough) {
  writeFile(writer.file, writer.other);
  const std::string victim = std::string(daemonFolder) + "/victim";
  writeFile(victim, "keep me\n");
  fs::create_hard_link(victim, temporary);
  expectRefused();
  EXPECT_EQ(readFile(victim), "keep me\n");
}

TEST_P(SpecialFiles, APipeIsNotWrittenTo) {
  writeFile(writer.file, writer.other);
  ASSERT_EQ(mkfifo(temporary.c_str(), 0600), 0);
  expectRefused();
}

TEST_P(SpecialFiles, AFileOfAnotherUserIsNotWrittenTo) {
  writeFile(writer.file, writer.other);
  writeFile(temporary, "another user's\n");
  if (chown(temporary.c_str(), 1, 1) != 0) {
    ASSERT_EQ(errno, EINVAL) << "only a user namespace of one user may forbid it";
    GTEST_SKIP() << "SKIPPED: this user may give no file away";
  }
  expectRefused();
  EXPECT_EQ(readFile(temporary), "another user's\n");
}

// --- Exhausted descriptors and memory --------------------------------------------------------------------------------

constexpr int exhaustions[] = {EMFILE, ENFILE, ENOMEM, EAGAIN};

TEST_P(SpecialFiles, AnOldFileThatCouldNotBeOpenedForWantOfADescriptorIsOpenedAgain) {
  for (const int error : exhaustions) {
    writeFile(writer.file, writer.other);
    int opens = 0;
    onOpen = [&](std::string_view path, int opened) {
      return opened == -1 && path == writer.file && opens++ == 0 ? error : 0;
    };
    writer.update();
    onOpen = nullptr;
    EXPECT_EQ(opens, 2) << error;
    EXPECT_EQ(readFile(writer.file), std::string(writer.other) + writer.written) << error;
  }
}

TEST_P(SpecialFiles, AnOldFileThatCannotBeOpenedForWantOfADescriptorStays) {
  for (const int error : exhaustions) {
    writeFile(writer.file, writer.other);
    onOpen = [&](std::string_view path, int opened) { return opened == -1 && path == writer.file ? error : 0; };
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update();
    EXPECT_EQ(traces.text(), Lines{writer.error}) << error;
    EXPECT_THROW(writer.refused(), std::out_of_range) << error;
    onOpen = nullptr;
    EXPECT_EQ(readFile(writer.file), writer.other) << error;
  }
}

TEST_P(SpecialFiles, AnInterruptedOpenIsRepeated) {
  writeFile(writer.file, writer.other);
  int opens = 0;
  onOpen = [&](std::string_view, int opened) { return opened == -1 && opens++ % 3 != 2 ? EINTR : 0; };
  writer.update();
  onOpen = nullptr;
  EXPECT_EQ(opens, 6);
  EXPECT_EQ(readFile(writer.file), std::string(writer.other) + writer.written);
}

// --- Numbers and children --------------------------------------------------------------------------------------------

// Everything that opens a file.
void callAll() {
  connections.update();
  secrets.update();
  setMaxReplayWindow();
  (void)isSswanRunning();
}

class Descriptors : public testing::Test {
 protected:
  Descriptors() {
    resetHost();
    fs::create_directories(fs::path(pidFile).parent_path());
    writeFile(connectionsFile, connections.other);
    writeFile(secretsFile, secrets.other);
    writeFile(replayWindowSetting, "0\n");
    writeFile(pidFile, "1\n");
  }
  ~Descriptors() override { onOpen = nullptr; }
};

TEST_F(Descriptors, AreNeverThoseOfTheStandardStreams) {
  int lowest = 1000;
  int opens = 0;
  std::vector<int> saved;
  for (int stream = 0; stream <= 2; ++stream) {
    saved.push_back(fcntl(stream, F_DUPFD_CLOEXEC, 10));
    EXPECT_EQ(close(stream), 0);
  }
  onOpen = [&](std::string_view, int opened) {
    if (opened >= 0) {
      ++opens;
      lowest = std::min(lowest, opened);
    }
    return 0;
  };
  callAll();
  onOpen = nullptr;
  int stillClosed = 0;
  for (int stream = 0; stream <= 2; ++stream) {
    stillClosed += fcntl(stream, F_GETFD) < 0 ? 1 : 0;
    EXPECT_EQ(dup2(saved[static_cast<std::size_t>(stream)], stream), stream);
    EXPECT_EQ(close(saved[static_cast<std::size_t>(stream)]), 0);
  }
  EXPECT_EQ(opens, 6);  // two files with their temporary ones, the setting, the pid file
  EXPECT_GE(lowest, 3);
  EXPECT_EQ(stillClosed, 3);
  EXPECT_EQ(readFile(secretsFile), std::string(secrets.other) + secrets.written);
}

// Returns what a child that is started now finds open.
std::string openInAChild() {
  const std::string listing = "/dev/shm/open-in-a-child." + std::to_string(getpid());
  const std::string command = "exec ls -l /proc/self/fd >" + listing;
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t child = -1;
  if (posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0 ||
      waitpid(child, nullptr, 0) != child) {
    return "the child could not be started";
  }
  std::string found = readFile(listing);
  fs::remove(listing);
  return found;
}

TEST_F(Descriptors, AreNotPassedOnToAChild) {
  int opens = 0;
  onOpen = [&](std::string_view path, int opened) {
    if (opened >= 0) {
      ++opens;
      const std::string found = openInAChild();
      EXPECT_NE(found.find("->"), std::string::npos);
      EXPECT_EQ(found.find(path), std::string::npos) << found;
    }
    return 0;
  };
  callAll();
  EXPECT_EQ(opens, 6);
}

INSTANTIATE_TEST_SUITE_P(Both, SpecialFiles, testing::Values(&connections, &secrets),
                         [](const auto& writer) { return writer.param->name; });

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
