// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Whatever happens to the disk or to the process, the daemon finds the complete old file or the complete new one.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// Every library in the process calls the program's own read, write and close instead of those of the C library. They
// call the real ones, unless a test wants a fault at the file whose name ends in faultyName.
namespace {

enum class Fault { None, ReadFailsAtOffset, WriteIsInterrupted, WriteIsShort, CloseFails };

std::atomic<Fault> fault = Fault::None;
std::atomic<off_t> faultOffset = 0;
std::atomic<int> faultsHit = 0;

bool isFaulty(int file, Fault wanted) {
  if (fault != wanted) {
    return false;
  }
  char name[256] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  return readlink(link.c_str(), name, sizeof name - 1) > 0 && std::strstr(name, "/etc/strongswan/") == name;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t read(int file, void* bytes, size_t size) {
  static auto* const real = next<ssize_t(int, void*, size_t)>("read");
  if (isFaulty(file, Fault::ReadFailsAtOffset)) {
    const off_t left = faultOffset - lseek(file, 0, SEEK_CUR);
    if (left <= 0) {
      ++faultsHit;
      errno = EIO;
      return -1;
    }
    return real(file, bytes, std::min(size, static_cast<size_t>(left)));
  }
  return real(file, bytes, size);
}

extern "C" __attribute__((visibility("default"))) ssize_t write(int file, const void* bytes, size_t size) {
  static auto* const real = next<ssize_t(int, const void*, size_t)>("write");
  if (size > 1 && isFaulty(file, Fault::WriteIsShort)) {
    ++faultsHit;
    return real(file, bytes, (size + 1) / 2);
  }
  if (isFaulty(file, Fault::WriteIsInterrupted) && faultsHit++ % 2 == 0) {
    errno = EINTR;
    return -1;
  }
  return real(file, bytes, size);
}

extern "C" __attribute__((visibility("default"))) int close(int file) {
  static auto* const real = next<int(int)>("close");
  const bool fails = isFaulty(file, Fault::CloseFails);
  const int result = real(file);
  if (fails) {
    ++faultsHit;
    errno = EIO;
    return -1;
  }
  return result;
}

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class FaultsNow {
 public:
  explicit FaultsNow(Fault kind, off_t offset = 0) {
    faultsHit = 0;
    faultOffset = offset;
    fault = kind;
  }
  ~FaultsNow() {
    fault = Fault::None;
    EXPECT_GT(faultsHit, 0) << "The fault was never met.";
  }
  FaultsNow(const FaultsNow&) = delete;
  FaultsNow& operator=(const FaultsNow&) = delete;
};

// One writer with its own file of a hundred entries. The number distinguishes versions of the same entry.
struct Writer {
  const char* name;
  const char* file;
  const char* error;
  void (*update)(int number);
  std::string (*others)();           // the file's text without the entry
  std::string (*entry)(int number);  // what update appends
  void (*refused)();                 // a call that throws after the copy
};

const Writer connections = {
    "connections",
    connectionsFile,
    "writeConnections Error renaming tmp file to ipsec.conf",
    [](int number) {
      writeConnections({{"config", "a"}, {"reqid", std::to_string(number)}, {"left", "l"}, {"right", "r"}});
    },
    [] {
      std::string text;
      for (int other = 0; other < 100; ++other) {
        text += "conn other" + std::to_string(other) + "\n\tleft=" + std::string(100, 'x') + "\n\n";
      }
      return text;
    },
    [](int number) {
      return "conn a\n\treqid=" + std::to_string(number) +
             "\n\tleft=l\n\tright=r\n\tauto=add\n\tmobike=no\n\tikedscp=110000\n\n";
    },
    [] {
      writeConnections({{"config", "a"}});
    },
};

const Writer secrets = {
    "secrets",
    secretsFile,
    "writeSecrets Error renaming tmp file to ipsec.secrets",
    [](int number) {
      writeSecrets({{"peerIp", "10.0.0.1"}, {"key", std::to_string(number)}});
    },
    [] {
      std::string text;
      for (int other = 0; other < 100; ++other) {
        text += "other" + std::to_string(other) + " : PSK " + std::string(100, 'x') + "\n";
      }
      return text;
    },
    [](int number) { return "10.0.0.1 : PSK " + std::to_string(number) + "\n"; },
    [] {
      writeSecrets({{"peerIp", "10.0.0.1"}});
    },
};

class FileReplacement : public testing::TestWithParam<const Writer*> {
 protected:
  FileReplacement() : writer(*GetParam()), temporary(std::string(writer.file) + ".tmp"), others(writer.others()) {
    resetHost();
  }

  std::string whole(int number) const { return others + writer.entry(number); }

  // Returns which of the first thousand versions a file is, or -1 if it is not one of them.
  int versionOf(const std::string& text) const {
    for (int number = 0; number <= 1000 && text.rfind(others, 0) == 0; ++number) {
      if (std::string_view(text).substr(others.size()) == writer.entry(number)) {
        return number;
      }
    }
    return -1;
  }

  void startWith(int number) const { writeFile(writer.file, whole(number)); }

  // Expects an update to fail with the one line, and the old file to stay.
  void expectRefused(int old) const {
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update(old + 1);
    EXPECT_EQ(traces.errors(), Lines{writer.error});
    EXPECT_EQ(traces.text(), Lines{writer.error});
    EXPECT_EQ(traces.text(0), Lines{writer.error});
    EXPECT_EQ(versionOf(readFile(writer.file)), old);
  }

  void expectTaken(int number) const {
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update(number);
    EXPECT_TRUE(traces.lines().empty());
    EXPECT_EQ(versionOf(readFile(writer.file)), number);
    EXPECT_FALSE(exists(temporary));
  }

  const Writer& writer;
  const std::string temporary;
  const std::string others;
};

// --- The disk --------------------------------------------------------------------------------------------------------

TEST_P(FileReplacement, OnAFullDiskTheOldFileStays) {
  const Mount disk = Mount::smallDisk(daemonFolder, 20480);  // Holds the old file and half a new one.
  startWith(1);
  expectRefused(1);
  EXPECT_LT(readFile(temporary).size(), whole(2).size());
  expectRefused(1);
}

TEST_P(FileReplacement, OnADiskWithoutAnyRoomTheOldFileStays) {
  const Mount disk = Mount::smallDisk(daemonFolder, 20480);
  startWith(1);
  const std::string ballast = std::string(daemonFolder) + "/ballast";
  EXPECT_THROW(writeFile(ballast, std::string(20480, 'b')), std::runtime_error);
  expectRefused(1);
  fs::remove(ballast);
}

TEST_P(FileReplacement, OnAFullDiskARefusedCallStillThrows) {
  const Mount disk = Mount::smallDisk(daemonFolder, 20480);
  startWith(1);
  EXPECT_THROW(writer.refused(), std::out_of_range);
  EXPECT_EQ(versionOf(readFile(writer.file)), 1);
}

TEST_P(FileReplacement, WhoseCloseFailsIsNotMoved) {
  startWith(1);
  {
    const FaultsNow faults(Fault::CloseFails);
    expectRefused(1);
  }
  EXPECT_EQ(versionOf(readFile(temporary)), 2);
  expectTaken(3);
}

TEST_P(FileReplacement, GoesOnAfterAShortOrInterruptedWrite) {
  startWith(1);
  {
    const FaultsNow faults(Fault::WriteIsShort);
    expectTaken(2);
  }
  const FaultsNow faults(Fault::WriteIsInterrupted);
  expectTaken(3);
}

TEST_P(FileReplacement, InAReadOnlyFolderLeavesTheOldFile) {
  startWith(1);
  {
    const Mount readOnly = Mount::readOnly(daemonFolder);
    expectRefused(1);
  }
  EXPECT_FALSE(exists(temporary));
  expectTaken(2);
}

TEST_P(FileReplacement, InAMissingFolderIsReported) {
  startWith(1);
  const Mount empty = Mount::smallDisk("/etc", 4096);
  const TraceRecorder traces("IpsecUtils=0-31");
  writer.update(2);
  EXPECT_EQ(traces.text(), Lines{writer.error});
  EXPECT_FALSE(exists(daemonFolder));
}

// --- The temporary file ----------------------------------------------------------------------------------------------

TEST_P(FileReplacement, WithAFolderInTheTemporaryFilesPlaceLeavesTheOldFile) {
  startWith(1);
  fs::create_directory(temporary);
  expectRefused(1);
}

TEST_P(FileReplacement, NeverMovesAFolderIntoThePlaceOfAMissingFile) {
  fs::create_directory(temporary);
  const TraceRecorder traces("IpsecUtils=0-31");
  writer.update(1);
  EXPECT_EQ(traces.text(), Lines{writer.error});
  EXPECT_FALSE(exists(writer.file));
}

TEST_P(FileReplacement, EmptiesAStaleTemporaryFile) {
  startWith(1);
  writeFile(temporary, std::string(100000, 's'));
  expectTaken(2);
}

// Runs the check in a process that has the superuser's number but not the right to ignore file modes.
void withoutTheRightToPassOverModes(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    const bool dropped = syscall(SYS_capset, &header, none) == 0;
    _exit(!dropped ? 2 : check() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

// A file that an earlier process left, and that this one may not open, must not be mistaken for the new file.
TEST_P(FileReplacement, NeverMovesAStaleTemporaryFileThatCannotBeOpened) {
  startWith(1);
  writeFile(temporary, "stale\n");
  fs::permissions(temporary, fs::perms::none);
  withoutTheRightToPassOverModes([this] {
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update(2);
    return traces.text() == Lines{writer.error};
  });
  EXPECT_EQ(versionOf(readFile(writer.file)), 1);
  EXPECT_EQ(readFile(temporary), "stale\n");
}

// --- The old file ----------------------------------------------------------------------------------------------------

TEST_P(FileReplacement, OfAMissingFileMakesOne) {
  writer.update(1);
  EXPECT_EQ(readFile(writer.file), writer.entry(1));
}

TEST_P(FileReplacement, OfAnEmptyFileFillsIt) {
  writeFile(writer.file, "");
  writer.update(1);
  EXPECT_EQ(readFile(writer.file), writer.entry(1));
}

TEST_P(FileReplacement, TakesAFileThatMayNotBeReadForEmpty) {
  startWith(1);
  fs::permissions(writer.file, fs::perms::none);
  withoutTheRightToPassOverModes([this] {
    const TraceRecorder traces("IpsecUtils=0-31");
    writer.update(2);
    return traces.lines().empty();
  });
  EXPECT_EQ(readFile(writer.file), writer.entry(2));
}

TEST_P(FileReplacement, TakesAFileThatCannotBeOpenedOrReadForEmpty) {
  for (const char* target : {"loop", "/proc/self/mem", "/etc"}) {  // ELOOP on opening, EIO and EISDIR on reading.
    resetHost();
    fs::create_symlink("loop", std::string(daemonFolder) + "/loop");
    fs::create_symlink(target, writer.file);
    writer.update(1);
    EXPECT_EQ(readFile(writer.file), writer.entry(1)) << target;
    EXPECT_FALSE(fs::is_symlink(writer.file)) << target;
  }
}

TEST_P(FileReplacement, KeepsTheWholeLinesBeforeAReadFailure) {
  startWith(1);
  const std::string text = whole(1);
  const std::size_t offset = text.size() / 2;
  ASSERT_NE(text[offset - 1], '\n');
  {
    const FaultsNow faults(Fault::ReadFailsAtOffset, static_cast<off_t>(offset));
    writer.update(2);
  }
  EXPECT_EQ(readFile(writer.file), text.substr(0, text.rfind('\n', offset) + 1) + writer.entry(2));
}

TEST_P(FileReplacement, TakesAFileWhoseFirstLineCannotBeReadForEmpty) {
  startWith(1);
  {
    const FaultsNow faults(Fault::ReadFailsAtOffset, 3);
    writer.update(2);
  }
  EXPECT_EQ(readFile(writer.file), writer.entry(2));
}

// The kernel's list of its symbols is a regular file of 0 bytes that holds some megabytes.
TEST_P(FileReplacement, ReadsAFileWithoutASize) {
  const char* const symbols = "/proc/kallsyms";
  const std::string lines = readFile(symbols);
  ASSERT_GT(lines.size(), 100000U);
  ASSERT_EQ(fs::file_size(symbols), 0U);
  fs::create_symlink(symbols, writer.file);
  writer.update(1);
  EXPECT_EQ(readFile(writer.file), lines + writer.entry(1));
}

TEST_P(FileReplacement, LeavesTheOldFileWhereItCannotBeReplaced) {
  startWith(1);
  const std::string other = std::string(daemonFolder) + "/other";
  writeFile(other, whole(1));
  {
    const Mount busy = Mount::bind(other, writer.file);  // A file that is mounted over cannot be renamed over.
    expectRefused(1);
  }
  EXPECT_EQ(versionOf(readFile(writer.file)), 1);
  EXPECT_EQ(versionOf(readFile(temporary)), 2);
}

// --- Modes and other readers -----------------------------------------------------------------------------------------

TEST_P(FileReplacement, GivesTheNewFileTheModeOfTheUmask) {
  for (const auto& [mask, mode] : {std::pair<mode_t, mode_t>{022, 0644}, {077, 0600}, {0, 0666}}) {
    startWith(1);
    fs::permissions(writer.file, fs::perms(0640));
    const mode_t before = umask(mask);
    writer.update(2);
    (void)umask(before);
    struct stat status = {};
    ASSERT_EQ(stat(writer.file, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode);
  }
}

// Kept: the file is emptied and not made anew.
TEST_P(FileReplacement, KeepsTheModeOfAStaleTemporaryFile) {
  startWith(1);
  fs::permissions(writer.file, fs::perms(0600));
  writeFile(temporary, "stale\n");
  fs::permissions(temporary, fs::perms(0644));
  const mode_t before = umask(077);
  expectTaken(2);
  (void)umask(before);
  EXPECT_EQ(fs::status(writer.file).permissions(), fs::perms(0644));
}

TEST_P(FileReplacement, LeavesAReaderOfTheOldFileWithIt) {
  startWith(1);
  const std::string hardLink = std::string(daemonFolder) + "/link";
  fs::create_hard_link(writer.file, hardLink);
  expectTaken(2);
  EXPECT_EQ(versionOf(readFile(hardLink)), 1);
}

TEST_P(FileReplacement, IsNeverSeenHalfDoneByAReader) {
  constexpr int rewrites = 1000;
  startWith(0);
  std::atomic<int> latest = 0;
  std::atomic<bool> done = false;
  int looks = 0;
  int partial = 0;
  std::thread reader([&] {
    while (!done) {
      const int from = latest;
      const std::string seen = readFile(writer.file);
      const int upTo = latest + 1;
      bool matches = false;
      for (int number = from; number <= upTo && !matches; ++number) {
        matches = seen == whole(number);
      }
      partial += matches ? 0 : 1;
      ++looks;
    }
  });
  for (int number = 1; number <= rewrites; ++number) {
    writer.update(number);
    latest = number;
  }
  done = true;
  reader.join();
  EXPECT_EQ(partial, 0) << "of " << looks;
  EXPECT_GT(looks, 10);
  EXPECT_EQ(versionOf(readFile(writer.file)), rewrites);
}

// Starts a process that updates the entry, and then stays if it is to be killed.
pid_t startUpdate(const Writer& writer, int number, bool stays) {
  const pid_t child = fork();
  if (child == 0) {
    writer.update(number);
    if (stays) {
      (void)pause();
    }
    _exit(0);
  }
  return child;
}

// Returns how long such a process takes on this machine now: the time of the slowest of a few.
std::chrono::microseconds timeOfUpdate(const Writer& writer, int number) {
  std::chrono::microseconds slowest{0};
  for (int run = 0; run < 5; ++run) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = startUpdate(writer, number, false);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    const auto taken = std::chrono::steady_clock::now() - start;
    slowest = std::max(slowest, std::chrono::duration_cast<std::chrono::microseconds>(taken));
  }
  return slowest;
}

// Processes are killed before, during and after their update: at any moment within three times the time of one update.
TEST_P(FileReplacement, OfAKilledProcessIsDoneOrNotBegun) {
  constexpr int rewrites = 500;
  constexpr std::chrono::seconds longEnough(8);
  startWith(0);
  std::uniform_int_distribution<std::int64_t> delay(0, 3 * timeOfUpdate(writer, 0).count());
  const auto start = std::chrono::steady_clock::now();
  std::mt19937 random(4711);
  int old = 0;
  int changed = 0;
  int round = 0;
  while (round < rewrites && std::chrono::steady_clock::now() - start < longEnough) {
    const pid_t child = startUpdate(writer, ++round, true);
    ASSERT_GE(child, 0);
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const std::string seen = readFile(writer.file);
    if (seen != whole(old)) {
      ASSERT_EQ(versionOf(seen), round);
      old = round;
      ++changed;
    }
  }
  EXPECT_GT(changed, 0);
  EXPECT_LT(changed, round);
}

INSTANTIATE_TEST_SUITE_P(Of, FileReplacement, testing::Values(&connections, &secrets),
                         [](const auto& tested) { return std::string(tested.param->name); });

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
