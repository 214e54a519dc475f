// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Compares the two writers with their plainest form for every old file of up to 5 lines over nine kinds of line, with
// and without its last newline, and for every kind of call: 125,478 files and 36 calls, 4,517,208 cases. The writers
// work on texts in memory, as they do in the library once the old file has been read.
//
// IPSEC_TEST_LINES in the environment changes the number of lines. ./dev exhaustive sets it to 6: 1,129,311 files,
// 40,655,196 cases.
#include "tests/support/PlainWriters.h"
#include "tests/support/TextWriters.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace Ipsec::Testing {
namespace {

std::size_t mostLines() {
  const char* const given = std::getenv("IPSEC_TEST_LINES");
  return given != nullptr ? std::strtoul(given, nullptr, 10) : 5;
}

using Kinds = std::array<std::string, 9>;
using Writer = PlainOutcome (*)(const PlainSettings&, const std::string&);

// One kind of call. Its map is in the library's form too, because making one takes longer than a rewriting.
struct Call {
  std::string what;
  PlainSettings settings;
  stringmap map;
};

void add(std::vector<Call>& calls, const std::string& what, const PlainSettings& settings) {
  calls.push_back({what, settings, libraryMap(settings)});
}

// Adds a call of the connections writer with each choice for the global section.
void addWithGlobals(std::vector<Call>& calls, const std::string& what, PlainSettings settings) {
  add(calls, what, settings);
  settings["uniqueids"] = "add";
  add(calls, what + ", new global section", settings);
  settings["uniqueids"] = "";
  add(calls, what + ", no global section", settings);
}

// Compares a writer with its plain form for every text over the kinds of line.
class Comparison {
 public:
  using Library = PlainOutcome (*)(const stringmap&, std::string_view);

  Comparison(const Kinds& lineKinds, const std::vector<Call>& allCalls, Library library, Writer plain)
      : kinds(lineKinds), calls(allCalls), libraryWriter(library), plainWriter(plain) {}

  // Returns the number of cases.
  std::size_t run(std::size_t lines) {
    compare("");
    extend("", lines);
    return cases;
  }

 private:
  // Compares every text that has one line more, and those that follow from it.
  void extend(const std::string& text, std::size_t linesLeft) {
    for (std::size_t kind = 0; kind < kinds.size() && linesLeft > 0 && !testing::Test::HasFailure(); ++kind) {
      const std::string longer = text + kinds[kind];
      if (!kinds[kind].empty()) {  // an empty line without its newline is no line
        compare(longer);
      }
      compare(longer + "\n");
      extend(longer + "\n", linesLeft - 1);
    }
  }

  void compare(const std::string& text) {
    for (const Call& call : calls) {
      ++cases;
      const PlainOutcome seen = libraryWriter(call.map, text);
      const PlainOutcome expected = plainWriter(call.settings, text);
      ends.at(static_cast<std::size_t>(seen.end))++;
      ASSERT_TRUE(seen == expected) << call.what << ", before " << testing::PrintToString(text) << ", after "
                                    << testing::PrintToString(seen.text) << ", expected "
                                    << testing::PrintToString(expected.text);
    }
  }

  const Kinds& kinds;
  const std::vector<Call>& calls;
  Library libraryWriter;
  Writer plainWriter;
  std::size_t cases = 0;
  std::array<std::size_t, 3> ends = {};
};

// The number of texts: those of n lines with the last newline are 9^n, those without it 8 * 9^(n-1).
std::size_t textsOf(std::size_t lines) {
  std::size_t texts = 1;
  for (std::size_t line = 0, shorter = 1; line < lines; ++line, shorter *= 9) {
    texts += 9 * shorter + 8 * shorter;
  }
  return texts;
}

void expectSame(const char* what, const Kinds& kinds, const std::vector<Call>& calls, Comparison::Library library,
                Writer plain) {
  const std::size_t lines = mostLines();
  const std::size_t cases = Comparison(kinds, calls, library, plain).run(lines);
  if (testing::Test::HasFailure()) {
    return;
  }
  EXPECT_EQ(cases, textsOf(lines) * calls.size());
  std::cout << what << ": " << textsOf(lines) << " files of up to " << lines << " lines x " << calls.size()
            << " calls = " << cases << " cases" << std::endl;
}

Kinds connectionLines(const std::string& name, const std::string& sameButForOneByte) {
  return {
      "conn " + name,
      "conn " + sameButForOneByte,
      "conn " + name + "c",
      "conn " + name + "\r",
      "conn other",
      "config setup",
      "# config setup",
      "\tleft=10.0.0.1",
      "",
  };
}

TEST(WriterExhaustive, OneConnectionIsRewrittenAsByPlainExpressions) {
  const PlainSettings required = {{"reqid", "7"}, {"left", "10.0.0.1"}, {"right", "10.0.0.2"}};
  PlainSettings written = required;
  written["config"] = "a.b";
  PlainSettings namedByDefault = required;
  namedByDefault["config"] = "other";
  namedByDefault["default"] = "a.b";
  std::vector<Call> calls;
  addWithGlobals(calls, "new or replaced", written);
  addWithGlobals(calls, "deleted", {{"config", "a.b"}, {"delete", ""}});
  addWithGlobals(calls, "named by default, replaced by another", namedByDefault);
  addWithGlobals(calls, "named by default, deleted", {{"default", "a.b"}, {"config", "other"}, {"delete", "no"}});
  addWithGlobals(calls, "without a name, deleted", {{"delete", ""}});
  addWithGlobals(calls, "a setting is missing", {{"config", "a.b"}, {"reqid", "7"}, {"left", "10.0.0.1"}});
  expectSame("connections", connectionLines("a.b", "axb"), calls, libraryConnections, plainConnections);
}

TEST(WriterExhaustive, TheDefaultConnectionIsRewrittenAsByPlainExpressions) {
  std::vector<Call> calls;
  addWithGlobals(calls, "new or replaced", {{"default", "%default"}, {"config", "other"}});
  addWithGlobals(calls, "deleted", {{"default", "%default"}, {"config", "other"}, {"delete", ""}});
  addWithGlobals(calls, "another authby", {{"default", "%default"}, {"authby", "neither"}});
  expectSame("default connection", connectionLines("%default", ".default"), calls, libraryConnections,
             plainConnections);
}

TEST(WriterExhaustive, OneSecretIsRewrittenAsByPlainExpressions) {
  const Kinds kinds = {
      "10.0.0.1 : PSK a",   "10x0.0.1 : PSK b",   "10.0.0.11 : PSK c",
      "10.0.0.1 :\r",       "10.0.0.2 : PSK d",   "config setup",
      "# 10.0.0.1 : PSK e", "\t10.0.0.1 : PSK f", "",
  };
  std::vector<Call> calls;
  add(calls, "new or replaced", {{"peerIp", "10.0.0.1"}, {"key", "k"}});
  add(calls, "deleted", {{"peerIp", "10.0.0.1"}, {"delete", ""}});
  add(calls, "another value of secret", {{"peerIp", "10.0.0.1"}, {"secret", "default"}, {"key", "k"}});
  add(calls, "without an address, deleted", {{"delete", "no"}});
  add(calls, "without an address", {{"key", "k"}});
  add(calls, "without a key", {{"peerIp", "10.0.0.1"}});
  expectSame("secrets", kinds, calls, librarySecrets, plainSecrets);
}

TEST(WriterExhaustive, TheDefaultSecretIsRewrittenAsByPlainExpressions) {
  const Kinds kinds = {
      " : PSK a", ".: PSK b", " : PSKc", " : PSK\r", "10.0.0.2 : PSK d", "config setup", "# : PSK e", "\t : PSK f", "",
  };
  std::vector<Call> calls;
  add(calls, "new or replaced", {{"secret", "%default"}, {"key", "k"}});
  add(calls, "new or replaced, with an address", {{"secret", "%default"}, {"peerIp", "10.0.0.2"}, {"key", "k"}});
  add(calls, "deleted", {{"secret", "%default"}, {"delete", ""}});
  expectSame("default secret", kinds, calls, librarySecrets, plainSecrets);
}

}  // namespace
}  // namespace Ipsec::Testing
