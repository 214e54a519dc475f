// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A VRF status table whose writer is stopped, or killed, after every single store.

#include "tests/platform/VrfTable.h"
#include "tests/support/Skip.h"
#include "tests/support/ThreadSanitizer.h"

#include <sched.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#ifndef WITH_THREAD_SANITIZER  // its runtime cannot be single-stepped

namespace Ipsec::Testing {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t all = SIZE_MAX;
constexpr std::size_t firstEntries = 4096;  // where every change here is made

// The bytes of a segment, whatever they mean, up to the given number.
class SegmentBytes {
 public:
  SegmentBytes(int file, std::size_t atMost) {
    struct stat status = {};
    EXPECT_EQ(fstat(file, &status), 0);
    size = std::min(static_cast<std::size_t>(status.st_size), atMost);
    bytes = mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
    EXPECT_NE(bytes, MAP_FAILED);
    (void)close(file);
    before.resize(size);
    (void)haveChanged();
  }
  ~SegmentBytes() { (void)munmap(bytes, size); }
  SegmentBytes(const SegmentBytes&) = delete;
  SegmentBytes& operator=(const SegmentBytes&) = delete;

  // Returns whether they differ from those at the last call.
  bool haveChanged() {
    if (std::memcmp(bytes, before.data(), size) == 0) {
      return false;
    }
    std::memcpy(before.data(), bytes, size);
    return true;
  }

 private:
  std::size_t size;
  void* bytes;
  std::vector<char> before;
};

struct Change {
  const char* name;
  VrfId vrf;
  std::string before;  // the VRF's name, or "-" if the table does not hold it
  std::string after;
};

// What every change starts from: VRF 7 was renamed and 9 was removed, so that unused copies hold something already.
void prepare(VrfIdMap::Status& table) {
  for (const char* const text : {"crimson", "red"}) {
    table.set(VrfEntry(VrfId(7), text));
  }
  table.set(VrfEntry(VrfId(8), "blue"));
  table.set(VrfEntry(VrfId(9), "black"));
  table.set(VrfEntry(VrfId(10), "white"));
  table.erase(VrfId(9));
  table.erase(VrfId(11));
}

const Change changes[] = {
    {"replace by a longer name", VrfId(7), "red", std::string(101, 'g')},
    {"replace by a shorter name", VrfId(8), "blue", "b"},
    {"replace by no name", VrfId(7), "red", ""},
    {"remove", VrfId(7), "red", "-"},
    {"add in the place of a removed one", VrfId(11), "-", "new"},
};

void make(VrfIdMap::Status& table, const Change& change) {
  if (change.after == "-") {
    table.erase(change.vrf);
  } else {
    table.set(VrfEntry(change.vrf, change.after));
  }
}

std::string nameIn(const VrfIdMap::Status& table, VrfId id) {
  const VrfEntry entry = table.vrfEntry(id);
  return entry == table.defaultEntry() ? "-" : std::string(entry.name());
}

long sleepsOfThisThread() {
  struct rusage usage = {};
  EXPECT_EQ(getrusage(RUSAGE_THREAD, &usage), 0);
  return usage.ru_nvcsw;
}

class VrfStoppedWriter : public VrfTable {
 protected:
  void SetUp() override {
    if (inChild([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1; }) != 0) {
      IPSEC_SKIP("this machine lets no process be traced");
    }
    // The two processes take turns at every instruction, which is far quicker on one processor.
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    ASSERT_EQ(sched_getaffinity(0, sizeof(processors), &processors), 0);
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
  }
  void TearDown() override { (void)sched_setaffinity(0, sizeof(processors), &processors); }

  // Starts a child that becomes the writer and then waits to be let through a change, instruction by instruction.
  pid_t startWriter(const Change& change) const {
    const pid_t child = fork();
    if (child == 0) {
      const VrfWriter writer = create();
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
        _exit(1);
      }
      (void)raise(SIGSTOP);
      make(*writer, change);
      _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSTOPPED(status)) << "the writer cannot be traced";
    return child;
  }

  // Lets the writer go on until it has changed the segment. Returns false when it has ended instead.
  static bool nextStore(pid_t writer, SegmentBytes& bytes) {
    for (;;) {
      int status = -1;
      if (ptrace(PTRACE_SINGLESTEP, writer, nullptr, nullptr) != 0 || waitpid(writer, &status, 0) != writer ||
          !WIFSTOPPED(status)) {
        EXPECT_EQ(status, 0);
        return false;
      }
      if (bytes.haveChanged()) {
        return true;
      }
    }
  }

  // Returns the name of the VRF that is being changed, after checking that everything else is as it was, and that
  // reading has not waited for anything.
  std::string nameBesideTheOthers(const VrfIdMap::Status& reader, const Change& change) const {
    const long sleeps = sleepsOfThisThread();
    std::string changed = nameIn(reader, change.vrf);
    for (const auto& [id, text] : std::map<unsigned, const char*>{{7, "red"}, {8, "blue"}, {9, "-"}, {10, "white"}}) {
      if (VrfId(id) != change.vrf) {
        EXPECT_EQ(nameIn(reader, VrfId(id)), text);
      }
    }
    EXPECT_EQ(sleepsOfThisThread(), sleeps) << "the reader has waited";
    return changed;
  }

 private:
  cpu_set_t processors = {};
};

TEST_F(VrfStoppedWriter, LeavesTheEntryAsItWasOrAsItShallBeAfterEveryStore) {
  for (const Change& change : changes) {
    SCOPED_TRACE(change.name);
    prepare(*create());
    const VrfReader reader = open();
    SegmentBytes bytes(openFile(O_RDONLY), all);
    const pid_t writer = startWriter(change);
    std::set<std::string> seen;
    int stores = 0;
    std::string latest = change.before;
    for (; nextStore(writer, bytes); ++stores) {
      const std::string found = nameBesideTheOthers(*reader, change);
      ASSERT_TRUE(found == change.after || (found == change.before && latest == found)) << found << " after " << stores;
      latest = found;
      seen.insert(found);
    }
    EXPECT_EQ(latest, change.after);
    EXPECT_EQ(seen.size(), 2U) << "both, and nothing else";
    EXPECT_GE(stores, 3);
    VrfIdMap::Status::remove(name.c_str());
  }
}

TEST_F(VrfStoppedWriter, KilledAfterEveryStoreLeavesATableForTheNextWriter) {
  for (const Change& change : changes) {
    SCOPED_TRACE(change.name);
    bool killed = true;
    // A new entry is looked for in the whole table first, step by step, so adding is tried less often.
    for (int last = 1; killed; last += change.before == "-" ? 4 : 1) {
      prepare(*create());
      SegmentBytes bytes(openFile(O_RDONLY), firstEntries);
      const pid_t child = startWriter(change);
      for (int store = 0; killed && store < last; ++store) {
        killed = nextStore(child, bytes);
      }
      if (killed) {
        EXPECT_EQ(kill(child, SIGKILL), 0);
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
      }
      const VrfReader reader = open();
      const std::string left = nameBesideTheOthers(*reader, change);
      ASSERT_TRUE(left == change.after || (killed && left == change.before)) << left << " after " << last;
      const VrfWriter next = create();
      ASSERT_EQ(nameBesideTheOthers(*reader, change), left) << "taking over changes nothing";
      make(*next, change);
      ASSERT_EQ(nameBesideTheOthers(*reader, change), change.after);
      prepare(*next);
      next->erase(VrfId(11));
      ASSERT_EQ(nameIn(*reader, VrfId(7)), "red");
      ASSERT_EQ(nameIn(*reader, VrfId(11)), "-");
    }
    // Copies that were left half-filled take no room.
    const VrfWriter next = create();
    for (std::uint32_t number = 3; number < VrfIdMap::Status::capacity; ++number) {
      next->set(VrfEntry(VrfId(1000 + number), "filler"));
    }
    VrfIdMap::Status::remove(name.c_str());
  }
}

// A child that does something and is stopped at one of its system calls: at the entry to the first, at the return from
// it, at the entry to the second, and so on.
class StoppedAtACall {
 public:
  StoppedAtACall(int stop, const std::function<int()>& action) : process(fork()) {
    if (process == 0) {
      (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      (void)raise(SIGSTOP);
      _exit(action());
    }
    EXPECT_EQ(waitpid(process, &status, 0), process);
    for (int count = 0; count <= stop && !hasEnded(); ++count) {
      EXPECT_EQ(ptrace(PTRACE_SYSCALL, process, nullptr, nullptr), 0);
      EXPECT_EQ(waitpid(process, &status, 0), process);
    }
  }
  ~StoppedAtACall() { (void)result(); }
  StoppedAtACall(const StoppedAtACall&) = delete;
  StoppedAtACall& operator=(const StoppedAtACall&) = delete;

  bool hasEnded() const { return WIFEXITED(status); }

  // Lets the child go on to its end, and returns what the action returned.
  int result() {
    if (!hasEnded()) {
      EXPECT_EQ(ptrace(PTRACE_CONT, process, nullptr, nullptr), 0);
      EXPECT_EQ(waitpid(process, &status, 0), process);
    }
    return WEXITSTATUS(status);
  }

 private:
  pid_t process;
  int status = -1;
};

// A table may be removed at any moment of a create(), and created at any moment of a removal. No two processes ever
// write the same segment.
TEST_F(VrfStoppedWriter, StoppedInCreateWhileTheTableIsRemovedTakesTheNextTable) {
  std::set<int> results;
  bool ended = false;
  for (int stop = 0; !ended; ++stop) {
    const VrfWriter old = create();
    old->set(VrfEntry(VrfId(7), "red"));
    StoppedAtACall next(stop, [this] { return errorOf([this] { create()->set(VrfEntry(VrfId(7), "next")); }); });
    ended = next.hasEnded();
    VrfIdMap::Status::remove(name.c_str());
    results.insert(next.result());
    ASSERT_EQ(old->vrfEntry(VrfId(7)).name(), "red") << stop;
    if (next.result() == 0) {
      ASSERT_EQ(open()->vrfEntry(VrfId(7)).name(), "next") << stop;
    }
    VrfIdMap::Status::remove(name.c_str());
  }
  EXPECT_EQ(results, (std::set<int>{0, EBUSY}));
}

TEST_F(VrfStoppedWriter, IsNotReplacedInTheMiddleOfARemoval) {
  std::set<int> results;
  bool ended = false;
  for (int stop = 0; !ended; ++stop) {
    const VrfWriter old = create();
    old->set(VrfEntry(VrfId(7), "red"));
    const StoppedAtACall remover(stop, [this] {
      VrfIdMap::Status::remove(name.c_str());
      return 0;
    });
    ended = remover.hasEnded();
    results.insert(inChild([this] { return errorOf([this] { create()->set(VrfEntry(VrfId(7), "next")); }); }));
    ASSERT_EQ(old->vrfEntry(VrfId(7)).name(), "red") << stop;
    VrfIdMap::Status::remove(name.c_str());
  }
  EXPECT_EQ(results, (std::set<int>{0, EBUSY}));
}

// Setting up a table takes too many steps for one at a time. It is cut off at moments all over it.
TEST_F(VrfStoppedWriter, KilledWhileItSetsUpLeavesATableOrNone) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): any moments will do, but they must be repeatable
  std::uniform_int_distribution<int> micros(0, 1500);
  int unfinished = 0;
  for (int round = 0; round < 300; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      (void)new VrfWriter(create());
      (void)pause();
      _exit(0);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(micros(random)));
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const int error = errorOf([this] { (void)open(); });
    ASSERT_TRUE(error == 0 || error == ENOENT) << error;
    unfinished += error != 0 && access(("/dev/shm" + name).c_str(), F_OK) == 0 ? 1 : 0;
    create()->set(VrfEntry(VrfId(7), "red"));
    ASSERT_EQ(open()->vrfEntry(VrfId(7)).name(), "red");
    ASSERT_EQ(open()->vrfEntry(VrfId(8)), open()->defaultEntry());
    VrfIdMap::Status::remove(name.c_str());
  }
  EXPECT_GT(unfinished, 0) << "the moments were all before or all after";
}

}  // namespace
}  // namespace Ipsec::Testing

#endif
