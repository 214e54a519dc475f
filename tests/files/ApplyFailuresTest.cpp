// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Changes that are applied while calls of the system fail, memory runs out, others change the same file, or the process
// is killed: the old file or the new one is in place, and the next call works.
#include "IpsecDaemon.h"
#include "tests/files/DaemonChanges.h"
#include "tests/support/HostTests.h"
#include "tests/support/OperatorNew.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// Every library in the process calls the program's own functions instead of those of the C library. They call the real
// ones, and let the running test look or fail first.
namespace {

// Called before each call on a file of the daemon's folder or on the folder, with the function's name and the file's.
// An answer other than 0 is the error that the call fails with.
std::function<int(std::string_view function, std::string_view file)> onCall;

bool writesAreShort = false;  // each takes half of the first piece only
unsigned shortWrites = 0;

constexpr std::string_view folder = "/etc/strongswan";

// Returns what is left of a path below the folder ("ipsec.conf"), "." for the folder, or an empty text for others.
std::string_view below(std::string_view path) {
  if (path == folder) {
    return ".";
  }
  return path.rfind("/etc/strongswan/", 0) == 0 ? path.substr(folder.size() + 1) : std::string_view();
}

int before(const char* function, std::string_view path) {
  const std::string_view file = below(path);
  return onCall && !file.empty() ? onCall(function, file) : 0;
}

int before(const char* function, int file) {
  char path[256] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  return onCall && readlink(link.c_str(), path, sizeof path - 1) > 0 ? before(function, path) : 0;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int failWith(int error) {
  errno = error;
  return -1;
}

// --- Exhausted memory ---

std::atomic<unsigned long> allocations = 0;
std::atomic<unsigned long> failing = 0;  // which allocation fails; 0 means none

}  // namespace

#define VISIBLE extern "C" __attribute__((visibility("default")))

VISIBLE ssize_t writev(int file, const struct iovec* pieces, int count) {
  const int error = before("write", file);
  if (error != 0) {
    return failWith(error);
  }
  auto* const real = next<ssize_t(int, const struct iovec*, int)>("writev");
  if (writesAreShort) {
    ++shortWrites;
    const struct iovec half = {pieces->iov_base, (pieces->iov_len + 1) / 2};
    return real(file, &half, 1);
  }
  return real(file, pieces, count);
}

VISIBLE int open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  const int error = (flags & O_CREAT) != 0 ? before("create", path) : 0;
  return error != 0 ? failWith(error) : next<int(const char*, int, ...)>("open")(path, flags, mode);
}

VISIBLE int fcntl(int file, int command, ...) {
  va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  const int error = command == F_SETLK ? before("lock", file) : 0;
  return error != 0 ? failWith(error) : next<int(int, int, ...)>("fcntl")(file, command, argument);
}

VISIBLE int fchown(int file, uid_t owner, gid_t group) noexcept {
  const int error = before("fchown", file);
  return error != 0 ? failWith(error) : next<int(int, uid_t, gid_t)>("fchown")(file, owner, group);
}

VISIBLE int fchmod(int file, mode_t mode) noexcept {
  const int error = before("fchmod", file);
  return error != 0 ? failWith(error) : next<int(int, mode_t)>("fchmod")(file, mode);
}

VISIBLE int fsync(int file) {
  const int error = before("fsync", file);
  return error != 0 ? failWith(error) : next<int(int)>("fsync")(file);
}

VISIBLE int close(int file) {
  const int error = before("close", file);
  const int closed = next<int(int)>("close")(file);
  return error != 0 ? failWith(error) : closed;
}

VISIBLE int rename(const char* from, const char* to) noexcept {
  const int error = before("rename", from);
  return error != 0 ? failWith(error) : next<int(const char*, const char*)>("rename")(from, to);
}

VISIBLE int unlink(const char* path) noexcept {
  const int error = before("unlink", path);
  return error != 0 ? failWith(error) : next<int(const char*)>("unlink")(path);
}

void* Ipsec::Testing::takeMemory(std::size_t size) noexcept {
  return failing != 0 && ++allocations == failing ? nullptr : std::malloc(std::max(size, std::size_t{1}));
}

void Ipsec::Testing::giveMemory(void* memory) noexcept {
  std::free(memory);
}

namespace Ipsec::Testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class ApplyFailures : public testing::TestWithParam<const ChangedFile*> {
 protected:
  ApplyFailures() : changed(*GetParam()) {
    resetHost();
    writeFile(changed.file, changed.whole(1));
  }
  ~ApplyFailures() override { onCall = nullptr; }

  std::string line(const std::string& reason) const { return std::string(changed.function) + " " + reason; }

  // Expects an update to succeed, whatever happened before.
  void expectWorks() const {
    onCall = nullptr;
    EXPECT_TRUE(changed.update(9));
    EXPECT_EQ(readFile(changed.file), changed.whole(9));
    EXPECT_FALSE(exists(changed.newFile()));
  }

  const ChangedFile& changed;
};

// --- The order of calls, and each of them failing ------------------------------------------------------------------

TEST_P(ApplyFailures, CallsAreInTheOrderThatOutlastsAPowerFailure) {
  Lines calls;
  onCall = [&calls](std::string_view function, std::string_view file) {
    calls.push_back(std::string(function) + " " + std::string(file));
    return 0;
  };
  EXPECT_TRUE(changed.update(2));
  onCall = nullptr;
  const std::string old = fs::path(changed.file).filename();
  EXPECT_EQ(calls, (Lines{"create " + old + ".lock", "lock " + old + ".lock", "close " + old, "unlink " + old + ".new",
                          "create " + old + ".new", "write " + old + ".new", "fchown " + old + ".new",
                          "fchmod " + old + ".new", "fsync " + old + ".new", "close " + old + ".new",
                          "rename " + old + ".new", "fsync .", "close .", "close " + old + ".lock"}));
}

TEST_P(ApplyFailures, ThatComeBeforeTheMoveLeaveTheOldFile) {
  const std::pair<const char*, const char*> failures[] = {
      {"unlink", "Cannot remove what an earlier change left: Input/output error"},
      {"create", "Cannot create the new file: Input/output error"},
      {"write", "Cannot write the new file: Input/output error"},
      {"fchown", "Cannot keep the owner and the group: Input/output error"},
      {"fchmod", "Cannot set the mode of the new file: Input/output error"},
      {"fsync", "Cannot sync the new file: Input/output error"},
      {"close", "Cannot sync the new file: Input/output error"},
      {"rename", "Cannot move the new file into place: Input/output error"}};
  for (const auto& [failing, reason] : failures) {
    bool failed = false;
    onCall = [&failed, wanted = std::string_view(failing)](std::string_view function, std::string_view file) {
      const bool fails = !failed && function == wanted && file.find(".new") != file.npos;
      failed = failed || fails;
      return fails ? EIO : 0;
    };
    const TraceRecorder traces;
    EXPECT_FALSE(changed.update(2));
    EXPECT_TRUE(failed);
    EXPECT_EQ(traces.errors(), Lines{line(reason)});
    EXPECT_EQ(readFile(changed.file), changed.whole(1));
    EXPECT_FALSE(exists(changed.newFile()));
  }
  expectWorks();
}

TEST_P(ApplyFailures, ToLockLeaveTheOldFile) {
  onCall = [](std::string_view function, std::string_view) { return function == "lock" ? ENOLCK : 0; };
  const TraceRecorder traces;
  EXPECT_FALSE(changed.update(2));
  EXPECT_EQ(traces.errors(), Lines{line("Cannot lock the lock file: No locks available")});
  EXPECT_EQ(readFile(changed.file), changed.whole(1));
  expectWorks();
}

TEST_P(ApplyFailures, ToSyncTheFolderAreToldWithTheNewFileInPlace) {
  onCall = [](std::string_view function, std::string_view file) {
    return function == "fsync" && file == "." ? EIO : 0;
  };
  const TraceRecorder traces;
  EXPECT_FALSE(changed.update(2));
  EXPECT_EQ(traces.errors(),
            Lines{line("The new file is in place, but may not outlast a power failure: cannot sync the "
                       "folder: Input/output error")});
  EXPECT_EQ(readFile(changed.file), changed.whole(2));
  expectWorks();
}

TEST_P(ApplyFailures, DoNotComeFromAFileSystemThatCannotSyncFolders) {
  onCall = [](std::string_view function, std::string_view file) {
    return function == "fsync" && file == "." ? EINVAL : 0;
  };
  EXPECT_TRUE(changed.update(2));
  EXPECT_EQ(readFile(changed.file), changed.whole(2));
}

// Whatever the umask and the old file's mode: nobody may open the new file before it is complete.
TEST_P(ApplyFailures, NeverShowTheNewFileToOthers) {
  const mode_t umaskBefore = umask(0);
  int seen = 0;
  onCall = [&](std::string_view function, std::string_view) {
    struct stat status = {};
    if (function == "write" || function == "fchown") {
      ++seen;
      EXPECT_EQ(stat(changed.newFile().c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & ALLPERMS, mode_t{S_IRUSR | S_IWUSR});
    }
    return 0;
  };
  EXPECT_TRUE(changed.update(2));
  EXPECT_EQ(seen, 2);
  (void)umask(umaskBefore);
}

TEST_P(ApplyFailures, DoNotComeFromInterruptions) {
  bool interrupted = false;
  onCall = [&interrupted](std::string_view function, std::string_view) {
    interrupted = !interrupted;
    return interrupted && (function == "fsync" || function == "write") ? EINTR : 0;
  };
  EXPECT_TRUE(changed.update(2));
  EXPECT_EQ(readFile(changed.file), changed.whole(2));
}

// So many changes that the new file has more pieces than one write takes.
TEST_P(ApplyFailures, DoNotComeFromShortWrites) {
  std::vector<stringmap> changes;
  for (int number = 0; number < 600; ++number) {
    const std::string name = "10.9." + std::to_string(number / 200) + "." + std::to_string(number % 200);
    changes.push_back(changed.change(number));
    changes.back()[&changed == &changedConnections ? "config" : "peerIp"] = name;
  }
  EXPECT_TRUE(changed.apply(changes));
  const std::string whole = readFile(changed.file);
  shortWrites = 0;
  writesAreShort = true;
  EXPECT_TRUE(changed.apply(changes));
  writesAreShort = false;
  EXPECT_EQ(readFile(changed.file), whole);
  EXPECT_GT(shortWrites, 600U);
}

TEST_P(ApplyFailures, OfMemoryThrowAndChangeNothing) {
  const std::vector<stringmap> changes = {changed.change(2), changed.change(3)};
  unsigned long which = 0;
  for (bool thrown = true; thrown;) {
    allocations = 0;
    failing = ++which;
    thrown = false;
    try {
      EXPECT_TRUE(changed.apply(changes));
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    failing = 0;
    EXPECT_EQ(readFile(changed.file), changed.whole(thrown ? 1 : 3)) << which;
    EXPECT_FALSE(exists(changed.newFile())) << which;
  }
  EXPECT_GT(which, 10U);
  expectWorks();
}

TEST_P(ApplyFailures, OfMemoryLeaveAList) {
  std::vector<Vello::String> names = {"old"};
  unsigned long which = 0;
  for (bool thrown = true; thrown;) {
    allocations = 0;
    failing = ++which;
    thrown = false;
    try {
      EXPECT_TRUE(changed.list(&names));
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    failing = 0;
    EXPECT_EQ(names.size(), thrown ? 1U : 2U) << which;
  }
  EXPECT_GT(which, 2U);
}

// --- The lock --------------------------------------------------------------------------------------------------------

// Starts a process that makes a call and then ends with 0, or with 1 if the result was false.
pid_t start(const std::function<bool()>& call) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(call() ? 0 : 1);
  }
  return child;
}

bool succeeds(pid_t child) {
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

// Lets a call stop in the middle of its change, with the lock held, until it is told to go on.
class StoppedChange {
 public:
  explicit StoppedChange(int others = 1) : waiters(others) {
    EXPECT_EQ(pipe(reached), 0);
    EXPECT_EQ(pipe(released), 0);
  }
  ~StoppedChange() {
    for (const int end : {reached[0], reached[1], released[0], released[1]}) {
      (void)::close(end);
    }
  }
  StoppedChange(const StoppedChange&) = delete;
  StoppedChange& operator=(const StoppedChange&) = delete;

  // Called by the process or the thread that is to stop.
  bool update(const ChangedFile& changed, int number) {
    onCall = [this](std::string_view function, std::string_view) {
      if (function == "rename") {
        char byte = 0;
        for (int left = waiters; left != 0; --left) {
          (void)!write(reached[1], &byte, 1);
        }
        for (int left = waiters; left != 0; --left) {
          (void)!read(released[0], &byte, 1);
        }
      }
      return 0;
    };
    return changed.update(number);
  }

  void waitUntilReached() const {
    char byte = 0;
    EXPECT_EQ(read(reached[0], &byte, 1), 1);
  }

  void release() const { EXPECT_EQ(write(released[1], "", 1), 1); }

 private:
  const int waiters;  // processes or threads: each is told of the stop, and must release it
  int reached[2];
  int released[2];
};

TEST_P(ApplyFailures, OfTheLocksHolderReleaseIt) {
  StoppedChange stopped;
  const pid_t holder = start([&] { return stopped.update(changed, 2); });
  stopped.waitUntilReached();
  EXPECT_TRUE(exists(changed.newFile()));
  EXPECT_EQ(kill(holder, SIGKILL), 0);
  EXPECT_FALSE(succeeds(holder));
  EXPECT_TRUE(exists(changed.newFile()));
  EXPECT_EQ(readFile(changed.file), changed.whole(1));
  expectWorks();
}

TEST_P(ApplyFailures, DoNotReachAChildThatIsForkedWhileAnotherThreadChangesTheFile) {
  StoppedChange stopped;
  std::thread holder([&] { EXPECT_TRUE(stopped.update(changed, 2)); });
  stopped.waitUntilReached();
  const pid_t child = start([&] {
    onCall = nullptr;
    return changed.update(3);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "the child did not wait for the thread";
  EXPECT_EQ(readFile(changed.file), changed.whole(1));
  stopped.release();
  holder.join();
  EXPECT_TRUE(succeeds(child));
  EXPECT_EQ(readFile(changed.file), changed.whole(3));
  expectWorks();
}

// The child keeps a copy of every descriptor, also of the one that the lock is held on.
TEST_P(ApplyFailures, OfTheLocksHolderReleaseItAlsoFromItsChildren) {
  StoppedChange stopped;
  int childsEnd[2];
  ASSERT_EQ(pipe(childsEnd), 0);
  const pid_t holder = start([&] {
    std::thread thread([&] { (void)stopped.update(changed, 2); });
    stopped.waitUntilReached();
    if (fork() == 0) {
      char byte = 0;
      (void)!read(childsEnd[0], &byte, 1);
      _exit(0);
    }
    (void)kill(getpid(), SIGKILL);
    return false;
  });
  EXPECT_FALSE(succeeds(holder));
  expectWorks();
  EXPECT_EQ(write(childsEnd[1], "", 1), 1);
  (void)::close(childsEnd[0]);
  (void)::close(childsEnd[1]);
}

TEST_P(ApplyFailures, DoNotComeFromManyAtOnce) {
  constexpr int processes = 4;
  constexpr int threads = 4;
  constexpr int each = 10;
  const auto own = [this](int who, int which) {
    stringmap change = changed.change(1);
    const bool connection = &changed == &changedConnections;
    change[connection ? "config" : "peerIp"] = "10.1." + std::to_string(who) + "." + std::to_string(which);
    return change;
  };
  std::vector<pid_t> children;
  for (int process = 0; process < processes; ++process) {
    children.push_back(start([&, process] {
      std::atomic<bool> all = true;
      std::vector<std::thread> running;
      for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, who = process * threads + thread] {
          for (int which = 0; which < each; ++which) {
            all = all && changed.apply({own(who, which)});
          }
        });
      }
      for (std::thread& thread : running) {
        thread.join();
      }
      return all.load();
    }));
  }
  for (const pid_t child : children) {
    EXPECT_TRUE(succeeds(child));
  }
  std::vector<Vello::String> names;
  EXPECT_TRUE(changed.list(&names));
  EXPECT_EQ(names.size(), 2U + processes * threads * each);
}

TEST_P(ApplyFailures, CannotBeHadByAUserWhoMayOnlyReadTheFolder) {
  expectWorks();
  struct stat status = {};
  ASSERT_EQ(stat(changed.lockFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  for (const mode_t open : {0640U, 0604U, 0660U}) {  // somebody may hold a lock on it for ever
    ASSERT_EQ(chmod(changed.lockFile().c_str(), open), 0);
    const TraceRecorder traces;
    EXPECT_FALSE(changed.update(2));
    EXPECT_EQ(traces.errors(), Lines{line("The lock file is not a file of this user's alone")});
  }
  fs::remove(changed.lockFile());
  fs::create_symlink("elsewhere", changed.lockFile());
  const TraceRecorder traces;
  EXPECT_FALSE(changed.update(2));
  EXPECT_EQ(traces.errors(), Lines{line("Cannot open the lock file: Too many levels of symbolic links")});
  EXPECT_FALSE(exists(std::string(daemonFolder) + "/elsewhere"));
}

// Whoever removes the lock file between its opening and its locking has not made two holders.
TEST_P(ApplyFailures, DoNotComeFromALockFileThatIsRemoved) {
  expectWorks();
  StoppedChange stopped;
  const pid_t holder = start([&] { return stopped.update(changed, 2); });
  stopped.waitUntilReached();
  std::thread waiting([this] { EXPECT_TRUE(changed.update(3)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  fs::remove(changed.lockFile());
  stopped.release();
  EXPECT_TRUE(succeeds(holder));
  waiting.join();
  EXPECT_TRUE(exists(changed.lockFile())) << "the lock was taken on a file that is gone";
  EXPECT_EQ(readFile(changed.file), changed.whole(3));
}

// --- A killed process ------------------------------------------------------------------------------------------------

TEST_P(ApplyFailures, OfTheProcessAtAnyMomentLeaveTheOldFileOrTheNewOne) {
  std::mt19937 random(4711);
  std::uniform_int_distribution<int> microseconds(0, 3000);
  int old = 1;
  int changes = 0;
  constexpr int rounds = 300;
  for (int round = 2; round < 2 + rounds; ++round) {
    const pid_t child = start([&] {
      (void)changed.update(round);
      (void)pause();
      return true;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_FALSE(succeeds(child));
    const std::string seen = readFile(changed.file);
    if (seen != changed.whole(old)) {
      ASSERT_EQ(seen, changed.whole(round));
      old = round;
      ++changes;
    }
  }
  EXPECT_GT(changes, 0);
  EXPECT_LT(changes, rounds);
  expectWorks();
}

// --- Waiting ---------------------------------------------------------------------------------------------------------

// Both files at once, and another process at the same time as another thread of the first one, because it takes its
// time. That also shows that each file has a lock of its own.
TEST(ApplyWaits, TenSecondsForTheLockAndNotLonger) {
  resetHost();
  const ChangedFile* const files[] = {&changedConnections, &changedSecrets};
  StoppedChange stopped[] = {StoppedChange(2), StoppedChange(2)};
  pid_t holders[2];
  for (int i = 0; i < 2; ++i) {
    writeFile(files[i]->file, files[i]->whole(1));
    holders[i] = start([&, i] {
      bool isRefused = false;
      std::thread other([&, i] {
        stopped[i].waitUntilReached();
        isRefused = !files[i]->update(4);
        stopped[i].release();
      });
      const bool isUpdated = stopped[i].update(*files[i], 2);
      other.join();
      return isUpdated && isRefused;
    });
    stopped[i].waitUntilReached();
  }
  const TraceRecorder traces;
  std::vector<std::thread> waiting;
  for (const ChangedFile* changed : files) {
    waiting.emplace_back([changed] {
      const auto begun = std::chrono::steady_clock::now();
      EXPECT_FALSE(changed->update(3));
      const auto waited = std::chrono::steady_clock::now() - begun;
      EXPECT_GE(waited, std::chrono::seconds(10));
      EXPECT_LT(waited, std::chrono::seconds(15));
    });
  }
  for (const ChangedFile* changed : files) {
    std::vector<Vello::String> names;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(changed->list(&names));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5)) << "a list waits for nobody";
  }
  for (std::thread& thread : waiting) {
    thread.join();
  }
  Lines lines = traces.errors();
  std::sort(lines.begin(), lines.end());
  const std::string reason = " Another change of the file did not end: Connection timed out";
  EXPECT_EQ(lines, (Lines{"applyConnections" + reason, "applySecrets" + reason}));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(readFile(files[i]->file), files[i]->whole(1));
    stopped[i].release();
    EXPECT_TRUE(succeeds(holders[i]));
    EXPECT_EQ(readFile(files[i]->file), files[i]->whole(2));
  }
}

INSTANTIATE_TEST_SUITE_P(Of, ApplyFailures, testing::Values(&changedConnections, &changedSecrets),
                         [](const auto& tested) { return std::string(tested.param->name); });

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
