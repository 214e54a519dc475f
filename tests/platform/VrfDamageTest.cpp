// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A VRF status table into which somebody else has written.

#include "tests/platform/Messages.h"
#include "tests/platform/VrfTable.h"

#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>

namespace Ipsec::Testing {
namespace {

class VrfDamage : public VrfTable {};

Vrf::SlotCopy& currentCopy(Vrf::Slot& slot) {
  return slot.copyOf(slot.changes);
}

// Makes an entry's current copy believable again.
void putChecksum(Vrf::Slot& slot) {
  Vrf::SlotCopy& copy = currentCopy(slot);
  copy[Vrf::ChangeWord] = slot.changes.load();
  Vrf::SlotWords words;
  for (std::size_t index = 0; index < Vrf::SlotWordCount; ++index) {
    words[index] = copy[index];
  }
  copy[Vrf::ChecksumWord] = Vrf::checksumOf(words);
}

TEST_F(VrfDamage, OfTheHeadIsRefused) {
  (void)create();
  const auto raw = segment();
  raw->magic ^= 1U;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  EXPECT_EQ(errorOf([this] { (void)create(); }), static_cast<int>(std::errc::file_exists));
  raw->magic ^= 1U;
  raw->version += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->version -= 1;
  raw->size += 1;
  EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
  raw->size -= 1;
  EXPECT_NO_THROW((void)open());
}

TEST_F(VrfDamage, OfEverySingleBitOfAnEntryIsReported) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(8), "blue"));
  const auto reader = open();
  const auto raw = segment();
  for (std::atomic<std::uint32_t>& word : currentCopy(raw->slots[0])) {
    for (unsigned bit = 0; bit < 32; ++bit) {
      word ^= 1U << bit;
      EXPECT_THROW((void)reader->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << bit;
      EXPECT_EQ(reader->vrfEntry(VrfId(8)).name(), "blue");
      word ^= 1U << bit;
    }
  }
  for (unsigned bit = 0; bit < 32; ++bit) {
    raw->slots[0].changes ^= 1U << bit;
    EXPECT_THROW((void)reader->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << bit;
    raw->slots[0].changes ^= 1U << bit;
  }
  EXPECT_EQ(reader->vrfEntry(VrfId(7)).name(), "red");
}

TEST_F(VrfDamage, IsReportedInThreeForms) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  writer->set(VrfEntry(VrfId(7), "green"));
  const auto raw = segment();
  const auto message = [&writer] { return messageOf([&writer] { (void)writer->vrfEntry(VrfId(7)); }); };
  currentCopy(raw->slots[0])[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(message(), "VRF status table: entry 0 is damaged: its checksum is wrong");
  writer->set(VrfEntry(VrfId(7), "blue"));
  EXPECT_EQ(message(), "nothing thrown") << "a damaged entry is mended by setting it";
  raw->slots[0].changes += 2;
  EXPECT_EQ(message(), "VRF status table: entry 0 is damaged: its count of changes is wrong");
  writer->set(VrfEntry(VrfId(7), "blue"));
  currentCopy(raw->slots[0])[Vrf::StateWord] = 2;
  putChecksum(raw->slots[0]);
  EXPECT_EQ(message(), "VRF status table: entry 0 is damaged: its state is wrong");
}

TEST_F(VrfDamage, AnywhereLeavesItOpenWhetherAVrfIsMissing) {
  const auto writer = create();
  writer->set(VrfEntry(VrfId(7), "red"));
  currentCopy(segment()->slots[500])[Vrf::NameWord] ^= 1U;
  EXPECT_EQ(writer->vrfEntry(VrfId(7)).name(), "red");
  EXPECT_THROW((void)writer->vrfEntry(VrfId(8)), Vello::CorruptionDetectedException);
}

TEST_F(VrfDamage, StaysUntilTheVrfIsSetOrErased) {
  const auto writer = create();
  const auto raw = segment();
  writer->set(VrfEntry(VrfId(7), "red"));
  currentCopy(raw->slots[0])[Vrf::NameWord] ^= 1U;
  (void)create();
  writer->set(VrfEntry(VrfId(9), "new"));
  EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException) << "must not be written over";
  EXPECT_EQ(writer->vrfEntry(VrfId(9)).name(), "new");
  writer->set(VrfEntry(VrfId(7), "green"));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)).name(), "green");
  currentCopy(raw->slots[0])[Vrf::NameWord] ^= 1U;
  writer->erase(VrfId(7));
  EXPECT_EQ(writer->vrfEntry(VrfId(7)), writer->defaultEntry());
}

TEST_F(VrfDamage, AStoredNameThatIsTooLongIsRefused) {
  const auto writer = create();
  const auto raw = segment();
  Vrf::Slot& slot = raw->slots[0];
  for (const std::uint32_t length : {102U, 104U, 105U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    writer->set(VrfEntry(VrfId(7), std::string(101, 'x')));
    currentCopy(slot)[Vrf::LengthWord] = length;
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::CorruptionDetectedException);
    putChecksum(slot);
    EXPECT_THROW((void)writer->vrfEntry(VrfId(7)), Vello::RangeException);
  }
  EXPECT_EQ(messageOf([&] { (void)writer->vrfEntry(VrfId(7)); }),
            "VRF status table: stored name of 4294967295 bytes > maxNameLength not allowed");
}

// --- Random bytes ----------------------------------------------------------------------------------------------------

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

// Reads one VRF. Nothing may come out but an entry of that VRF, the default entry, or one of the two refusals.
void read(const VrfIdMap::Status& table, VrfId id) {
  try {
    const VrfEntry entry = table.vrfEntry(id);
    EXPECT_TRUE(entry == table.defaultEntry() || entry.vrfId() == id) << entry.vrfId().value();
  } catch (const Vello::CorruptionDetectedException&) {
  } catch (const Vello::RangeException&) {
  }
}

// Fills an entry with random words. The words that decide how the others are read are often plausible ones.
void scribble(Vrf::Slot& slot, Random& random) {
  for (Vrf::SlotCopy& copy : slot.copies) {
    for (std::atomic<std::uint32_t>& word : copy) {
      word = random();
    }
    copy[Vrf::ChangeWord] = random() % 4;
    copy[Vrf::StateWord] = random() % 3;
    copy[Vrf::IdWord] = random() % 4;
    if (random() % 2 == 0) {
      copy[Vrf::LengthWord] = random() % 128;
    }
  }
  slot.changes = random() % 4;
  if (random() % 2 == 0) {
    putChecksum(slot);
  }
}

TEST_F(VrfDamage, ByRandomBytesEndsInAValueOrARefusal) {
  (void)create();
  const auto raw = segment();
  const VrfReader reader = open();
  Random random(1);
  for (int round = 0; round < 500; ++round) {
    for (std::size_t count = 0; count < 20; ++count) {
      scribble(raw->slots[count < 5 ? count : random() % raw->slots.size()], random);
    }
    for (const std::uint32_t id : {0U, 1U, 2U, 3U, 4U, 0xFFFFFFU}) {
      read(*reader, VrfId(id));
    }
    const VrfWriter writer = create();
    writer->set(VrfEntry(VrfId(2), "mended"));
    EXPECT_EQ(reader->vrfEntry(VrfId(2)).name(), "mended");
    writer->erase(VrfId(3));
  }
}

TEST_F(VrfDamage, ByRandomBytesWhileItIsReadEndsInAValueOrARefusal) {
  (void)create();
  const auto raw = segment();
  const VrfReader reader = open();
  std::atomic<bool> stop = false;
  std::thread scribbler([&] {
    for (Random random(2); !stop;) {
      scribble(raw->slots[random() % 8], random);
    }
  });
  for (unsigned count = 0; count < 3'000; ++count) {
    read(*reader, VrfId(count % 5));
  }
  stop = true;
  scribbler.join();
}

TEST_F(VrfDamage, ByRandomBytesInTheWholeSegmentEndsInARefusal) {
  (void)create();
  const auto raw = segment();
  Random random(3);
  for (std::uint32_t round = 0; round < 20; ++round) {
    for (Vrf::Slot& slot : raw->slots) {
      scribble(slot, random);
    }
    raw->magic = random();
    EXPECT_THROW((void)open(), Vello::CorruptionDetectedException);
    EXPECT_EQ(errorOf([this] { (void)create(); }), EEXIST);
    raw->magic = Vrf::segmentMagic;
    EXPECT_NO_THROW(read(*open(), VrfId(round % 4)));
    try {
      create()->set(VrfEntry(VrfId(5), "a place, or none"));
    } catch (const std::length_error&) {
    }
  }
}

}  // namespace
}  // namespace Ipsec::Testing
