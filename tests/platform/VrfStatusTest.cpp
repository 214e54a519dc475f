// The VRF status table, in one process and between several, one of which may die at any moment.

#include "platform/Vrf.h"
#include "platform/linux/VrfSegment.h"
#include "tests/platform/Messages.h"
#include "tests/platform/Roles.h"
#include "tests/support/ThreadSanitizer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace Ipsec::Testing {
namespace {

using namespace std::chrono_literals;
using Vrf::VrfIdMap;
using VrfId = VrfIdMap::VrfId;
using VrfEntry = VrfIdMap::VrfEntry;

constexpr std::uint32_t busyVrfs = 5;

// The entries that the busy writer writes. The letter determines the length, so that a mixture of two is noticed.
VrfEntry busyEntry(unsigned count) {
  const unsigned kind = count % 26;
  return {VrfId(count % busyVrfs), std::string(kind * 4 + 1, static_cast<char>('a' + kind))};
}

bool isBusyEntry(const VrfEntry& entry, VrfId id) {
  const std::string_view name = entry.name();
  if (entry.vrfId() != id || name.empty() || name.find_first_not_of(name[0]) != std::string_view::npos) {
    return false;
  }
  return name.size() == static_cast<std::size_t>(name[0] - 'a') * 4 + 1;
}

}  // namespace

int readVrf(const Strings& arguments) {
  const auto table = VrfIdMap::Status::open(arguments.at(0).c_str());
  const VrfEntry entry = table->vrfEntry(VrfId(static_cast<std::uint32_t>(std::stoul(arguments.at(1)))));
  std::printf("%u %s", entry.vrfId().value(), std::string(entry.name()).c_str());
  return 0;
}

// Writes until it is killed.
int writeVrfs(const Strings& arguments) {
  const auto table = VrfIdMap::Status::create(arguments.at(0).c_str());
  for (unsigned count = 0;; ++count) {
    table->set(busyEntry(count));
    if (count % 7 == 0) {
      table->erase(VrfId(count / 7 % busyVrfs));
    }
  }
}

namespace {

class VrfStatus : public testing::Test {
 protected:
  VrfStatus() { VrfIdMap::Status::remove(name.c_str()); }
  ~VrfStatus() override { VrfIdMap::Status::remove(name.c_str()); }

  Vello::Ptr<VrfIdMap::Status> create() const { return VrfIdMap::Status::create(name.c_str()); }
  Vello::Ptr<const VrfIdMap::Status> open() const { return VrfIdMap::Status::open(name.c_str()); }

  // Maps the segment as a third party that may do anything with it.
  Vrf::MappedSegment segment() const {
    const int file = shm_open(name.c_str(), O_RDWR, 0);
    EXPECT_GE(file, 0);
    void* const memory = mmap(nullptr, sizeof(Vrf::Segment), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    EXPECT_NE(memory, MAP_FAILED);
    (void)close(file);
    return Vrf::MappedSegment(static_cast<Vrf::Segment*>(memory));
  }

  void resize(off_t size) const {
    const int file = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_GE(file, 0);
    EXPECT_EQ(ftruncate(file, size), 0);
    (void)close(file);
  }

  const std::string name = "/platform-test-" + std::to_string(getpid());
};

void putChecksum(Vrf::Slot& slot) {
  Vrf::SlotWords words;
  for (std::size_t index = 0; index < Vrf::SlotWordCount; ++index) {
    words[index] = slot.words[index];
  }
  slot.words[Vrf::ChecksumWord] = Vrf::checksumOf(words);
}

TEST_F(VrfStatus, AnswersWhatWasSet) {
  const auto writer = create();
  const auto reader = open();
  writer->set(VrfEntry(VrfId::defaultVrf(), "default"));
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8)));
  EXPECT_EQ(reader->vrfEntry(VrfId(0)).name(), "default");
  EXPECT_EQ(reader->vrfEntry(VrfId(7)), VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "");
  writer->set(VrfEntry(VrfId(7), "a longer name"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "a longer name");
  writer->set(VrfEntry(VrfId(7), "short"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "short");
}

TEST_F(VrfStatus, AnswersTheDefaultEntryForWhatItDoesNotHold) {
  const auto writer = create();
  EXPECT_EQ(writer->vrfEntry(VrfId(0)), VrfEntry(VrfId::none()));
  EXPECT_EQ(writer->defaultEntry(), VrfEntry(VrfId(0xFFFFFF)));
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->erase(VrfId(7));
  writer->erase(VrfId(7));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
}

TEST_F(VrfStatus, KeepsNamesOfEveryLengthAndByte) {
  const auto writer = create();
  for (std::size_t length = 0; length <= VrfEntry::maxNameLength; ++length) {
    std::string vrf(length, '\0');
    for (std::size_t index = 0; index < length; ++index) {
      vrf[index] = static_cast<char>(index * 37 + length);
    }
    writer->set(VrfEntry(VrfId(1), vrf));
    EXPECT_EQ(writer->vrfEntry(VrfId(1)).name(), vrf);
  }
}

TEST_F(VrfStatus, HoldsItsCapacity) {
  const auto writer = create();
  for (std::uint32_t number = 0; number < VrfIdMap::Status::capacity; ++number) {
    writer->set(VrfEntry(VrfId(number * 3), std::to_string(number)));
  }
  EXPECT_THROW(writer->set(VrfEntry(VrfId(1))), std::length_error);
  writer->set(VrfEntry(VrfId(1023 * 3), "replaced"));
  EXPECT_EQ(writer->vrfEntry(VrfId(1023 * 3)).name(), "replaced");
  EXPECT_EQ(writer->vrfEntry(VrfId(512 * 3)).name(), "512");
  writer->erase(VrfId(0));
  writer->set(VrfEntry(VrfId(1), "fits again"));
  EXPECT_EQ(open()->vrfEntry(VrfId(1)).name(), "fits again");
}

TEST_F(VrfStatus, IsReadByAnotherProcess) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(4294967295), "far away"));
  const Outcome found = runRole({"read-vrf", name, "4294967295"});
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.output, "4294967295 far away");
  EXPECT_EQ(runRole({"read-vrf", name, "5"}).output, "16777215 ");
}

TEST_F(VrfStatus, OutlivesItsWriterAndIsTakenOver) {
  create()->set(VrfEntry(VrfId(7), "red"));
  const auto reader = open();
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  const auto next = create();
  next->set(VrfEntry(VrfId(8), "blue"));
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
  VrfIdMap::Status::remove(name.c_str());
  EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
  EXPECT_THROW((void)open(), std::system_error);
}

TEST_F(VrfStatus, IsNotOpenedWhenItIsNotThereOrNotOne) {
  EXPECT_THROW((void)open(), std::system_error);
  resize(0);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  resize(100);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_THROW((void)create(), std::system_error);
  resize(sizeof(Vrf::Segment));
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": no VRF status table");
  resize(sizeof(Vrf::Segment) + 1);
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": of another size");
  EXPECT_THROW((void)VrfIdMap::Status::create("/no/such/folder"), std::system_error);
}

TEST_F(VrfStatus, IsSetUpAgainAfterAWriterThatDiedDoingSo) {
  resize(sizeof(Vrf::Segment));
  const auto writer = create();
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
  EXPECT_EQ(open()->vrfEntry(VrfId(7)), writer->defaultEntry());
}

TEST_F(VrfStatus, WithADamagedHeadIsRefused) {
  (void)create();
  const auto raw = segment();
  raw->magic ^= 1U;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  try {
    (void)create();
    ADD_FAILURE() << "taken over";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::file_exists);
  }
  raw->magic ^= 1U;
  raw->version += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->version -= 1;
  raw->size += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->size -= 1;
  EXPECT_NO_THROW((void)open());
}

TEST_F(VrfStatus, ReportsEverySingleFlippedBitOfAnEntry) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8), "blue"));
  const auto reader = open();
  const auto raw = segment();
  for (std::atomic<std::uint32_t>& word : raw->slots[0].words) {
    for (unsigned bit = 0; bit < 32; ++bit) {
      word ^= 1U << bit;
      EXPECT_THROW((void)reader->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << bit;
      EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
      word ^= 1U << bit;
    }
  }
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
  raw->slots[0].words[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(messageOf([&reader] { (void)reader->vrfEntry(VrfId(7)); }),
            "VRF status table: entry 0 is damaged: its checksum is wrong");
}

TEST_F(VrfStatus, DoesNotSayThatAVrfIsMissingWhileAnyEntryIsDamaged) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  segment()->slots[500].words[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(writer->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_THROW((void)writer->vrfEntry(VrfId(8)), Vello::CorruptionDetectedException);
}

TEST_F(VrfStatus, RefusesAStoredNameThatIsTooLong) {
  const auto writer = create();
  const auto raw = segment();
  Vrf::Slot& slot = raw->slots[0];
  for (const std::uint32_t length : {102U, 104U, 105U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    writer->set(VrfEntry(VrfId(7), std::string(101, 'x')));
    slot.words[Vrf::LengthWord] = length;
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException);
    putChecksum(slot);
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::RangeException);
  }
  EXPECT_EQ(messageOf([&] { (void)writer->vrfEntry(VrfId(7)); }),
            "VRF status table: stored name of 4294967295 bytes > maxNameLength not allowed");
}

TEST_F(VrfStatus, AnUnfinishedWriteStopsNoReaderAndIsWrittenOver) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8), "blue"));
  const auto raw = segment();
  raw->slots[0].sequence += 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(messageOf([&writer] { (void)writer->vrfEntry(VrfId(7)); }),
            "VRF status table: entry 0 is damaged: its writer did not finish");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(writer->vrfEntry(VrfId(8)).name(), "blue");

  const auto next = create();
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << "taking over does not hide it";
  next->set(VrfEntry(VrfId(7), "green"));
  EXPECT_EQ(next->vrfEntry(VrfId(7)).name(), "green");
  EXPECT_EQ(raw->slots[0].sequence % 2, 0U);
  raw->slots[0].sequence += 1;
  next->erase(VrfId(7));
  EXPECT_EQ(next->vrfEntry(VrfId(7)), next->defaultEntry());
  raw->slots[0].sequence += 1;
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException);
  next->set(VrfEntry(VrfId(9), "new"));
  EXPECT_THROW((void)next->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << "must not be written over";
  EXPECT_EQ(create()->vrfEntry(VrfId(7)), next->defaultEntry());
  EXPECT_EQ(next->vrfEntry(VrfId(9)).name(), "new");
}

TEST_F(VrfStatus, ReadersSeeOnlyWholeEntriesWhileAThreadWrites) {
  const auto writer = create();
  for (unsigned count = 0; count < busyVrfs; ++count) {
    writer->set(busyEntry(count));
  }
  std::atomic<bool> stop = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  readers.reserve(2);
  for (int number = 0; number < 2; ++number) {
    readers.emplace_back([&] {
      const auto reader = open();
      for (unsigned count = 0; !stop; ++count) {
        const VrfId id(count % busyVrfs);
        wrong += isBusyEntry(reader->vrfEntry(id), id) ? 0 : 1;
      }
    });
  }
  for (unsigned count = 0; count < 200'000; ++count) {
    writer->set(busyEntry(count));
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(wrong, 0);
}

#ifndef WITH_THREAD_SANITIZER  // its runtime cannot be single-stepped

// The step at which the single-stepped process is killed. Only the steps while the counter is odd are counted.
const std::atomic<std::uint32_t>* steppedCounter = nullptr;
int stepsToLive = 0;

void onStep(int) {
  if (*steppedCounter % 2 != 0 && stepsToLive-- == 0) {
    (void)kill(getpid(), SIGKILL);
  }
}

// Sets the processor's trap flag: every instruction from here on ends in SIGTRAP. The stack's red zone is left alone.
void stepFromHere() {
  asm volatile("lea -128(%%rsp), %%rsp; pushfq; orq $0x100, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::: "cc", "memory");
}

// Makes the change in a child that dies at the given step of it. Returns whether the child died, or false if the change
// was finished first.
bool diesInTheMiddle(const std::atomic<std::uint32_t>& counter, int step, const std::function<void()>& change) {
  const pid_t child = fork();
  if (child == 0) {
    steppedCounter = &counter;
    stepsToLive = step;
    (void)signal(SIGTRAP, onStep);
    stepFromHere();
    change();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(status == 0 || status == SIGKILL) << status;
  return status == SIGKILL;
}

TEST_F(VrfStatus, AWriterThatDiesInTheMiddleOfAnEntryLeavesItReported) {
  auto writer = create();
  const auto reader = open();
  const auto raw = segment();
  const std::map<std::string, std::function<void()>> changes = {
      {"replace", [&] { writer->set(VrfEntry(VrfId(7), std::string(101, 'g'))); }},
      {"erase", [&] { writer->erase(VrfId(7)); }},
      {"add", [&] { writer->set(VrfEntry(VrfId(9), "new")); }},
  };
  for (const auto& [kind, change] : changes) {
    const VrfId changed(kind == "add" ? 9 : 7);
    int deaths = 0;
    // Adding first looks through the whole table, step by step, so it is tried less often.
    for (int step = 0;; step += 1 + (kind == "add" ? step * 2 : step / 2), ++deaths) {
      writer->erase(VrfId(9));
      writer->set(VrfEntry(VrfId(7), "red"));
      writer->set(VrfEntry(VrfId(8), "blue"));
      if (!diesInTheMiddle(raw->slots[kind == "add" ? 2 : 0].sequence, step, change)) {
        break;
      }
      EXPECT_THROW((void)reader->vrfEntry(changed), Vello::CorruptionDetectedException) << kind << " " << step;
      EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
      writer = create();
      change();
      EXPECT_NO_THROW((void)reader->vrfEntry(VrfId(1000))) << "damage left after " << kind << " " << step;
    }
    EXPECT_GE(deaths, 4) << kind;
  }
}

#endif

// Kills a writer at random moments, again and again, while this process reads, and then takes over the table.
TEST_F(VrfStatus, AKilledWriterLeavesWholeEntriesOrReportedOnes) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): any moments will do, but they must be repeatable
  std::uniform_int_distribution<int> micros(0, 3000);
  int whole = 0;
  int damaged = 0;
  for (int round = 0; round < 60; ++round) {
    (void)create();
    const auto reader = open();
    const auto child = Cor::run(ArgumentVector({ownPath(), "write-vrfs", name}), -1, -1, -1, -1);
    ASSERT_NE(child->pid(), Cor::Process::notStarted);
    while (segment()->slots[0].sequence < 100) {  // the writer is at work
      std::this_thread::sleep_for(100us);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(micros(random));
    unsigned count = 0;
    bool killed = false;
    for (unsigned after = 0; after < busyVrfs; ++count) {
      if (!killed && std::chrono::steady_clock::now() >= end) {
        (void)kill(child->pid(), SIGKILL);
        ASSERT_EQ(waitFor(child), SIGKILL);
        killed = true;
      }
      after += killed ? 1 : 0;
      const VrfId id(count % busyVrfs);
      const auto start = std::chrono::steady_clock::now();
      try {
        const VrfEntry entry = reader->vrfEntry(id);
        ASSERT_TRUE(entry == reader->defaultEntry() || isBusyEntry(entry, id)) << entry.name();
        ++whole;
      } catch (const Vello::CorruptionDetectedException&) {
        ++damaged;
      }
      ASSERT_LT(std::chrono::steady_clock::now() - start, 10s);
    }
    const auto table = create();
    for (unsigned set = 0; set < 26; ++set) {
      table->set(busyEntry(set));
      ASSERT_EQ(reader->vrfEntry(busyEntry(set).vrfId()), busyEntry(set));
    }
    ASSERT_EQ(reader->vrfEntry(VrfId(1000)), reader->defaultEntry()) << "nothing damaged is left";
    VrfIdMap::Status::remove(name.c_str());
  }
  EXPECT_GT(whole, 0);
  RecordProperty("whole", whole);
  RecordProperty("damaged", damaged);
}

TEST_F(VrfStatus, HandsItsMessageToTheCorruptionHandler) {
  const auto writer = create();
  std::string seen;
  writer->setCorruptionHandler([&seen](const char* message) { seen = message; });
  const Vello::Ptr<const VrfIdMap::Status> status = writer;
  status->corruptionHandler()("damaged");
  EXPECT_EQ(seen, "damaged");
  EXPECT_TRUE(open()->corruptionHandler());
}

}  // namespace
}  // namespace Ipsec::Testing
