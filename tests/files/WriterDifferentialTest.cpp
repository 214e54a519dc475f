// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Compares the two writers with two other implementations, with random files. tests/support/PlainWriters.h shows what
// is removed for any name. tools/reference-writers.py shows whole files.
//
// IPSEC_TEST_SEED in the environment changes the seed.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PlainWriters.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TextWriters.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Ipsec::Testing {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

unsigned seed() {
  const char* given = std::getenv("IPSEC_TEST_SEED");
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 1U;
}

// --- Random names and files ------------------------------------------------------------------------------------------

class Generator {
 public:
  explicit Generator(unsigned start) : random(start) {}

  std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random); }
  bool oneIn(std::size_t count) { return below(count) == 0; }

  template <std::size_t count>
  std::string oneOf(const std::string (&choices)[count]) {
    return choices[below(count)];
  }

  std::string bytesOf(std::string_view alphabet, std::size_t mostBytes) {
    std::string text(below(mostBytes + 1), '\0');
    for (char& character : text) {
      character = alphabet[below(alphabet.size())];
    }
    return text;
  }

  std::string name() {
    static const std::string plain[] = {"a",
                                        "ab",
                                        "a.b",
                                        "..",
                                        ".",
                                        "",
                                        "10.0.0.1",
                                        "%default",
                                        "a b",
                                        "a:b-c_d/e@f",
                                        "default-10.0.0.1-10.0.0.2-local-7",
                                        std::string(300, 'n')};
    static const std::string special[] = {
        "a*",      "a+b",  "a?",    "a|b", "(a)",   "(a|b)c",   "[ab]",        "[^a]",    "a{2}",   "a{1,2}b",
        "\\d+",    "\\w",  "a\\.b", "^a",  "a$",    ".*",       "a.*b",        "\\bconn", "(?:a)",  "(?=a)a",
        "(?!b)a",  "|",    "a|",    "|b",  "$|^",   "(",        ")",           "[",       "]",      "{",
        "}",       "*",    "+a",    "\\",  "a\\",   "[b-a]",    "[[:digit:]]", "a{,2}",   "(a)\\1", "a\r",
        "\r",      "a\nb", "a\0b"s, "\0"s, "\xff",  "\xc3\xa9", "\xc3\x28",    "a$b",     "a^",     "\\x61",
        "\\u0061", "\\cA", "[\\d]", "#",   "\"a\"", "a,b",      "a=b",         "a'b",     "~",      "!",
        "&",       ";",    "<a>",   "`",   "a\tb",  "[.]"};
    switch (below(4)) {
      case 0:
        return oneOf(plain);
      case 1:
        return oneOf(special);
      case 2:
        return bytesOf("ab.-:%/@_ 019AZ", 6);
      default:
        return bytesOf("ab.|*+?()[]{}^$\\-:, \r\0\xff=1"sv, 5);
    }
  }

  // Returns the text with some bytes changed: to what a dot may match, or to something else.
  std::string altered(std::string text) {
    for (char& character : text) {
      if (oneIn(6)) {
        character = "x.a \r\0\xff"sv[below(7)];
      }
    }
    return text;
  }

 private:
  std::mt19937 random;
};

// The words before and after a name in the lines.
struct Kind {
  std::string front;
  std::string behind;
};

std::string line(Generator& generate, const Kind& kind, const std::string& name) {
  switch (generate.below(9)) {
    case 0:
      return kind.front + name + kind.behind;
    case 1:
      return kind.front + generate.altered(name) + kind.behind;
    case 2:
      return generate.altered(kind.front + name + kind.behind);
    case 3:
      return kind.front + generate.bytesOf("ab.1\r\0\xff \n"sv, 4) + kind.behind;
    case 4:
      return generate.bytesOf(" \r\t#x", 1) + "config setup" + generate.bytesOf(" \rx", 1);
    case 5:
      return generate.bytesOf("abcnf setup\r\0\xff \tPSK:"sv, 10);
    case 6:
      return kind.front + generate.name() + kind.behind;
    case 7:
      return "a" + generate.bytesOf("ab", 3) + kind.behind;
    default:
      return "";
  }
}

// A long line is safe with any name that does not repeat anything over it.
std::string longLine(Generator& generate, const Kind& kind, const std::string& name) {
  const std::string filler(generate.below(20000), generate.oneIn(2) ? 'a' : '\xff');
  return generate.oneIn(2) ? kind.front + name + filler : filler + "config setup" + filler;
}

bool repeats(const std::string& name) {
  return name.find_first_of("*+{?(") != std::string::npos;
}

std::string oldFile(Generator& generate, const Kind& kind, const std::string& name) {
  std::string text;
  for (std::size_t left = generate.below(10); left > 0; --left) {
    const bool isLong = !repeats(name) && generate.oneIn(200);
    text += (isLong ? longLine(generate, kind, name) : line(generate, kind, name)) + "\n";
  }
  if (!text.empty() && generate.oneIn(3)) {
    text.pop_back();
  }
  return text;
}

// Returns what a call does to a file. A call that refuses leaves the file as it was.
template <class Call>
PlainOutcome outcome(const char* file, const std::string& before, const Call& call) {
  writeFile(file, before);
  try {
    call();
  } catch (const std::regex_error&) {
    EXPECT_EQ(readFile(file), before);
    return {PlainOutcome::End::ExpressionRefused, ""};
  }
  return {PlainOutcome::End::Done, readFile(file)};
}

// Counts how often each kind of case occurred in a run, so that the run cannot pass without any.
struct Tally {
  int refused = 0;
  int changed = 0;
  int unchanged = 0;

  void count(const PlainOutcome& result, const std::string& before) {
    const bool isRefused = result.end == PlainOutcome::End::ExpressionRefused;
    refused += isRefused ? 1 : 0;
    const bool same = result.text == before || result.text == before + "\n";
    unchanged += !isRefused && same ? 1 : 0;
    changed += !isRefused && !same ? 1 : 0;
  }

  void expectSome(int least) const {
    EXPECT_GT(refused, least);
    EXPECT_GT(changed, least);
    EXPECT_GT(unchanged, least);
  }
};

constexpr int casesEach = 60000;

TEST(WriterDifferential, ConnectionsAreTakenOutAsByPlainExpressions) {
  resetHost();
  Generator generate(seed());
  Tally tally;
  const Kind kind = {"conn ", ""};
  for (int number = 0; number < casesEach; ++number) {
    const std::string name = generate.name();
    const std::string before = oldFile(generate, kind, name);
    PlainSettings settings = {{"config", name}, {"delete", ""}};
    if (generate.oneIn(2)) {
      settings["uniqueids"] = "";
    }
    const PlainOutcome expected = plainConnections(settings, before);
    const PlainOutcome seen = outcome(connectionsFile, before, [&] { writeConnections(libraryMap(settings)); });
    ASSERT_TRUE(seen == expected) << "seed " << seed() << ", case " << number << ", name "
                                  << testing::PrintToString(name) << ", before " << testing::PrintToString(before)
                                  << ", after " << testing::PrintToString(seen.text);
    tally.count(seen, before);
  }
  tally.expectSome(casesEach / 50);
}

TEST(WriterDifferential, SecretsAreTakenOutAsByPlainExpressions) {
  resetHost();
  Generator generate(seed() + 1);
  Tally tally;
  const Kind kind = {"", " : PSK k"};
  for (int number = 0; number < casesEach; ++number) {
    const std::string name = generate.name();
    const std::string before = oldFile(generate, kind, name);
    const PlainSettings entry = {{"peerIp", name}, {"delete", ""}, {"secret", generate.oneIn(10) ? "%default" : ""}};
    const PlainOutcome expected = plainSecrets(entry, before);
    const PlainOutcome seen = outcome(secretsFile, before, [&] { writeSecrets(libraryMap(entry)); });
    ASSERT_TRUE(seen == expected) << "seed " << seed() << ", case " << number << ", address "
                                  << testing::PrintToString(name) << ", before " << testing::PrintToString(before)
                                  << ", after " << testing::PrintToString(seen.text);
    tally.count(seen, before);
  }
  tally.expectSome(casesEach / 50);
}

// --- The second implementation ---------------------------------------------------------------------------------------

constexpr int referenceCases = 25000;

// Reads the cases of tools/reference-writers.py.
class ReferenceCases {
 public:
  ReferenceCases() {
    const std::string command =
        "python3 '" IPSEC_REFERENCE_WRITERS "' " + std::to_string(seed()) + " " + std::to_string(referenceCases);
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
      throw std::runtime_error("cannot run " + command);
    }
    char bytes[65536];
    for (std::size_t count; (count = fread(bytes, 1, sizeof bytes, pipe)) > 0;) {
      text.append(bytes, count);
    }
    if (pclose(pipe) != 0) {
      throw std::runtime_error("failed: " + command);
    }
  }

  bool atEnd() const { return position == text.size(); }

  std::string next() {
    const std::size_t colon = text.find(':', position);
    const std::size_t length = std::stoul(text.substr(position, colon - position));
    position = colon + 1 + length;
    return text.substr(colon + 1, length);
  }

 private:
  std::string text;
  std::size_t position = 0;
};

struct ReferenceCase {
  explicit ReferenceCase(ReferenceCases& cases) : isSecret(cases.next() == "secrets") {
    for (int left = std::stoi(cases.next()); left > 0; --left) {
      const std::string name = cases.next();
      settings[name] = cases.next();
    }
    if (cases.next() == "1") {
      before = cases.next();
    }
    outcome = cases.next();
    after = cases.next();
  }

  std::string describe() const {
    std::ostringstream out;
    for (const auto& [name, value] : settings) {
      out << name << "=" << testing::PrintToString(value.str()) << " ";
    }
    out << "before " << (before ? testing::PrintToString(*before) : "none");
    return out.str();
  }

  bool isSecret;
  stringmap settings;
  std::optional<std::string> before;
  std::string outcome;
  std::string after;
};

TEST(WriterDifferential, FilesEqualThoseOfTheSecondImplementation) {
  ReferenceCases cases;
  int count = 0;
  int refused = 0;
  for (; !cases.atEnd(); ++count) {
    const ReferenceCase expected(cases);
    const std::string file = expected.isSecret ? secretsFile : connectionsFile;
    (void)std::remove(file.c_str());
    if (expected.before) {
      writeFile(file, *expected.before);
    }
    std::string outcome = "done";
    try {
      (expected.isSecret ? writeSecrets : writeConnections)(expected.settings);
    } catch (const std::out_of_range&) {
      outcome = "missing";
    }
    ASSERT_EQ(outcome, expected.outcome) << "seed " << seed() << ", case " << count << ": " << expected.describe();
    if (outcome == "missing") {
      ++refused;
      ASSERT_EQ(exists(file), expected.before.has_value());
      ASSERT_EQ(expected.before ? readFile(file) : "", expected.before.value_or(""));
    }
    ASSERT_EQ(readFile(outcome == "done" ? file : file + ".tmp"), expected.after)
        << "seed " << seed() << ", case " << count << ": " << expected.describe();
  }
  EXPECT_EQ(count, referenceCases);
  EXPECT_GT(refused, referenceCases / 20);
  EXPECT_LT(refused, referenceCases / 2);
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
