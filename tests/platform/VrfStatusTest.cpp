// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The VRF status table, in one process and between several, one of which may die at any moment.

#include "tests/platform/Messages.h"
#include "tests/platform/Roles.h"
#include "tests/platform/VrfTable.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
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

using VrfStatus = VrfTable;

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
  resize(100);
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_THROW((void)create(), std::system_error);
  resize(sizeof(Vrf::Segment));
  segment()->magic = 1;
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": no VRF status table");
  resize(sizeof(Vrf::Segment) + 1);
  EXPECT_EQ(messageOf([this] { (void)open(); }), "VRF status table " + name + ": of another size");
  EXPECT_THROW((void)VrfIdMap::Status::create("/no/such/folder"), std::system_error);
}

TEST_F(VrfStatus, IsSetUpAgainAfterAWriterThatDiedDoingSo) {
  for (const off_t size : {off_t{0}, off_t{sizeof(Vrf::Segment)}}) {
    resize(size);
    EXPECT_EQ(errorOf([this] { (void)open(); }), ENOENT) << "there is no table yet, which is no damage";
  }
  const auto writer = create();
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
  EXPECT_EQ(open()->vrfEntry(VrfId(7)), writer->defaultEntry());
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

// Kills a writer at random moments, again and again, while this process reads, and then takes over the table.
TEST_F(VrfStatus, AKilledWriterLeavesWholeEntries) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): any moments will do, but they must be repeatable
  std::uniform_int_distribution<int> micros(0, 3000);
  for (int round = 0; round < 60; ++round) {
    (void)create();
    const auto reader = open();
    const auto child = Cor::run(ArgumentVector({ownPath(), "write-vrfs", name}), -1, -1, -1, -1);
    ASSERT_NE(child->pid(), Cor::Process::notStarted);
    while (segment()->slots[0].changes < 100) {  // the writer is at work
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
      const VrfEntry entry = reader->vrfEntry(id);
      ASSERT_TRUE(entry == reader->defaultEntry() || isBusyEntry(entry, id)) << entry.name();
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
