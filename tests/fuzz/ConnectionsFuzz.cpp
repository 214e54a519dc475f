// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The connections writer against its plain form. An input is text: a line of letters, one for each setting of the call;
// a line with the section's name; a line with the beginning of the other settings' values; the old file.
#include "tests/fuzz/FuzzInput.h"
#include "tests/support/TextWriters.h"

namespace {

using namespace Ipsec::Testing;

// The value is the given one, the input's name, or the input's value and the letter: no two settings have the same.
constexpr const char* theName = "\1";
constexpr const char* theValue = "\2";

struct Choice {
  char letter;
  const char* setting;
  const char* value;
};

// clang-format off
constexpr Choice choices[] = {
    {'c', "config",           theName},
    {'o', "config",           "other"},
    {'D', "default",          theName},
    {'%', "default",          "%default"},
    {'x', "delete",           theValue},
    {'a', "uniqueids",        "add"},
    {'u', "uniqueids",        theValue},
    {'q', "reqid",            theValue},
    {'l', "left",             theValue},
    {'r', "right",            theValue},
    {'v', "ikeVersion",       theValue},
    {'p', "authby",           "pre-share"},
    {'k', "authby",           "pki"},
    {'A', "authby",           theValue},
    {'1', "ikelifetime",      theValue},
    {'2', "lifetime",         theValue},
    {'s', "leftsubnet",       theValue},
    {'i', "localid",          theValue},
    {'j', "remoteid",         theValue},
    {'3', "ike",              theValue},
    {'4', "esp",              theValue},
    {'g', "tunnelMode",       "IpsecGre"},
    {'t', "tunnelMode",       "IpsecVti"},
    {'T', "tunnelMode",       theValue},
    {'m', "mark",             theValue},
    {'d', "action",           theValue},
    {'n', "interval",         theValue},
    {'w', "timeout",          theValue},
    {'e', "encap",            theValue},
    {'y', "type",             theValue},
    {'W', "replayWindowSize", theValue},
    {'5', "packetLimit",      theValue},
    {'6', "marginpackets",    theValue},
    {'7', "byteLimit",        theValue},
    {'8', "marginbytes",      theValue},
    {'9', "reauth",           theValue},
};
// clang-format on

PlainSettings settingsOf(const std::string& letters, const std::string& name, const std::string& value) {
  PlainSettings settings;
  for (const Choice& choice : choices) {
    if (letters.find(choice.letter) != std::string::npos) {
      const std::string given = choice.value;
      settings.emplace(choice.setting, given == theName ? name : given == theValue ? value + choice.letter : given);
    }
  }
  return settings;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string letters = input.line();
  const std::string name = tamed(input.line());
  const std::string value = input.line();
  const PlainSettings settings = settingsOf(letters, name, value);
  const std::string before = input.restText();
  const PlainOutcome seen = libraryConnections(libraryMap(settings), before);
  const PlainOutcome expected = plainConnections(settings, before);
  require(seen.end == expected.end, "the connections writer ends in another way than its plain form");
  require(seen.text == expected.text, "the connections writer writes another text than its plain form");
  return 0;
}
