// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Many changes made in one step leave byte for byte what as many single rewritings leave, and LineIndex finds what
// LineMatcher finds.
//
// IPSEC_TEST_SEED in the environment changes the seed.
#include "DaemonFiles.h"
#include "FileChanges.h"
#include "LineIndex.h"
#include "LineMatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace Ipsec::Testing {
namespace {

using Changes = std::vector<stringmap>;

class Dice {
 public:
  explicit Dice(unsigned run) : random(seed() + run) {}

  std::size_t below(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random); }
  bool oneIn(std::size_t count) { return below(count) == 0; }

  template <class List>
  auto of(const List& list) {
    return list[below(std::size(list))];
  }

 private:
  static unsigned seed() {
    const char* given = std::getenv("IPSEC_TEST_SEED");
    return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 1U;
  }

  std::mt19937 random;
};

std::string text(const TextPieces& pieces) {
  std::string whole;
  for (const std::string_view piece : pieces.all()) {
    whole += piece;
  }
  return whole;
}

// --- Two ways to the same file ---------------------------------------------------------------------------------------

std::string oneByOne(std::string_view old, const Changes& changes, bool secrets) {
  std::string now(old);
  for (const stringmap& change : changes) {
    std::string next;
    secrets ? rewriteSecrets(now, change, next) : rewriteConnections(now, change, next);
    now = next;
  }
  return now;
}

template <class Change>
std::string atOnce(std::string_view old, const Changes& settings) {
  const std::vector<Change> changes(settings.begin(), settings.end());
  return text(changedText(old, changes));
}

// Few names of few characters, so that they meet, repeat, and match each other at their dots.
std::string name(Dice& dice) {
  std::string made;
  do {
    made += dice.of("ab.");
  } while (made.back() == '\0' || !dice.oneIn(2));
  return made.substr(0, made.find('\0'));  // the array ends with a null
}

std::string connectionsLine(Dice& dice) {
  switch (dice.below(8)) {
    case 0:
      return "config setup";
    case 1:
      return "# config setup, later";
    case 2:
      return "conn config setup";
    case 3:
      return "";
    case 4:
      return "\tleft=" + name(dice);
    case 5:
      return "conn " + name(dice) + "\r";
    case 6:
      return "connection " + name(dice);
    default:
      return "conn " + name(dice);
  }
}

stringmap connectionsChange(Dice& dice) {
  stringmap change = {{"config", name(dice)}, {"reqid", "1"}, {"left", "l"}, {"right", "r"}};
  if (dice.oneIn(4)) {
    change["delete"] = "";
  }
  if (dice.oneIn(4)) {
    change["uniqueids"] = dice.of(std::vector<const char*>{"add", "", "no"});
  }
  if (dice.oneIn(6)) {
    change["default"] = dice.oneIn(2) ? "%default" : name(dice);
  }
  if (dice.oneIn(8)) {
    change["localid"] = "\"config setup\"";
  }
  if (dice.oneIn(20)) {
    change["config"] = "config setup";
  }
  return change;
}

std::string secretsLine(Dice& dice) {
  switch (dice.below(6)) {
    case 0:
      return "# " + name(dice) + " : PSK x";
    case 1:
      return "";
    case 2:
      return " : PSK " + name(dice);
    case 3:
      return name(dice) + " : RSA " + name(dice) + " : " + name(dice);
    default:
      return name(dice) + " : PSK " + name(dice);
  }
}

stringmap secretsChange(Dice& dice) {
  stringmap change = {{"key", name(dice)}};
  if (dice.oneIn(4)) {
    change["secret"] = dice.oneIn(4) ? "other" : "%default";
  }
  if (change["secret"] != "%default" || dice.oneIn(2)) {
    change["peerIp"] = name(dice);
  }
  if (dice.oneIn(3)) {
    change["delete"] = "no";
  }
  return change;
}

TEST(ChangesAtOnce, LeaveWhatAsManySingleOnesLeave) {
  std::size_t changed = 0;
  for (unsigned run = 0; run < 20000; ++run) {
    Dice dice(run);
    const bool secrets = dice.oneIn(3);
    std::string old;
    for (std::size_t lines = dice.below(12); lines > 0; --lines) {
      old += (secrets ? secretsLine(dice) : connectionsLine(dice)) + (lines == 1 && dice.oneIn(3) ? "" : "\n");
    }
    Changes changes;
    for (std::size_t count = 1 + dice.below(8); count > 0; --count) {
      changes.push_back(secrets ? secretsChange(dice) : connectionsChange(dice));
    }
    const std::string expected = oneByOne(old, changes, secrets);
    changed += expected != old ? 1 : 0;
    ASSERT_EQ(secrets ? atOnce<SecretChange>(old, changes) : atOnce<ConnectionChange>(old, changes), expected)
        << "run " << run << " from:\n"
        << old;
  }
  EXPECT_GT(changed, 19000U);
}

TEST(ChangesAtOnce, ReferToTheOldTextInOnePieceWhereItStays) {
  const std::string old = "# ahead\nconn a\n\tx\nconn b\n\ty\n";
  const std::vector<ConnectionChange> changes = {ConnectionChange({{"config", "c"}, {"delete", ""}}),
                                                 ConnectionChange({{"config", "d"}, {"delete", ""}})};
  const TextPieces pieces = changedText(old, changes);
  ASSERT_EQ(pieces.all().size(), 1U);
  EXPECT_EQ(pieces.all().front().data(), old.data());
  EXPECT_EQ(pieces.all().front(), old);
}

// --- The index -------------------------------------------------------------------------------------------------------

TEST(LineIndex, FindsWhatTheMatcherFinds) {
  std::size_t matches = 0;
  for (unsigned run = 0; run < 3000; ++run) {
    Dice dice(run);
    const auto line = [&dice] {
      std::string made;
      for (std::size_t length = dice.below(6); length > 0; --length) {
        made += std::string_view("ab.\r")[dice.below(4)];
      }
      return made;
    };
    std::vector<std::string> lines(1 + dice.below(30));
    std::vector<bool> there(lines.size(), true);
    const auto covers = dice.oneIn(2) ? LineMatcher::Covers::Start : LineMatcher::Covers::WholeLine;
    LineIndex index(covers);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      lines[i] = line();
      index.add(lines[i], i);
    }
    for (int search = 0; search < 30; ++search) {
      std::string start = line();
      start.erase(std::remove(start.begin(), start.end(), '\r'), start.end());  // not plain
      const LineMatcher matcher(start, covers);
      std::size_t expected = LineIndex::none;
      for (std::size_t i = 0; i < lines.size() && expected == LineIndex::none; ++i) {
        expected = there[i] && matcher.matches(lines[i]) ? i : LineIndex::none;
      }
      ASSERT_EQ(index.first(start), expected) << "run " << run << ": " << start;
      if (expected != LineIndex::none) {
        ++matches;
        index.remove(static_cast<LineIndex::Number>(expected));
        there[expected] = false;
      }
    }
  }
  EXPECT_GT(matches, 10000U);
}

TEST(LineIndex, RefusesALineThatItCannotCount) {
  LineIndex index(LineMatcher::Covers::Start);
  index.add("a", 0);
  EXPECT_THROW(index.add("ab", LineIndex::none / 8), std::bad_alloc);
  EXPECT_EQ(index.first("ab"), LineIndex::none);
}

TEST(LineIndex, SearchesADeepTreeWithoutRecursion) {
  const std::string longest(20000, 'a');
  for (const auto covers : {LineMatcher::Covers::Start, LineMatcher::Covers::WholeLine}) {
    LineIndex index(covers);
    for (std::size_t length = 1; length <= longest.size(); ++length) {
      index.add(std::string_view(longest).substr(0, length), length);
    }
    EXPECT_EQ(index.first(std::string(longest.size(), '.')), longest.size());
    EXPECT_EQ(index.first("a."), 2U);
  }
}

}  // namespace
}  // namespace Ipsec::Testing
