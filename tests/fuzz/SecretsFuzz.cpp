// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The secrets writer against its plain form. An input is text: a line of letters, one for each setting of the call; a
// line with the peer's address; a line with the value of the other settings; the old file.
#include "tests/fuzz/FuzzInput.h"
#include "tests/support/TextWriters.h"

namespace {

using namespace Ipsec::Testing;

PlainSettings entryOf(const std::string& letters, const std::string& address, const std::string& value) {
  const auto chosen = [&letters](char letter) { return letters.find(letter) != std::string::npos; };
  PlainSettings entry;
  if (chosen('p')) {
    entry["peerIp"] = address;
  }
  if (chosen('k')) {
    entry["key"] = value;
  }
  if (chosen('x')) {
    entry["delete"] = value;
  }
  if (chosen('%') || chosen('s')) {
    entry["secret"] = chosen('%') ? "%default" : value;
  }
  return entry;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string letters = input.line();
  const std::string address = tamed(input.line());
  const std::string value = input.line();
  const PlainSettings entry = entryOf(letters, address, value);
  const std::string before = input.restText();
  const PlainOutcome seen = librarySecrets(libraryMap(entry), before);
  const PlainOutcome expected = plainSecrets(entry, before);
  require(seen.end == expected.end, "the secrets writer ends in another way than its plain form");
  require(seen.text == expected.text, "the secrets writer writes another text than its plain form");
  return 0;
}
