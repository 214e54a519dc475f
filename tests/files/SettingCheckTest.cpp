// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The checks of a change, in memory: which setting has a problem, what the texts may hold, what becomes of the output.
// Whether the daemon agrees is what tests/interop/settings.py proves.
#include "IpsecDaemon.h"
#include "tests/support/OperatorNew.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

// The library in the process uses the program's operator new instead of that of the C++ runtime.
namespace {

std::atomic<unsigned long> allocations = 0;
std::atomic<unsigned long> failing = 0;  // which of them fails; 0 means none

}  // namespace

void* Ipsec::Testing::takeMemory(std::size_t size) noexcept {
  return ++allocations == failing ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void Ipsec::Testing::giveMemory(void* memory) noexcept {
  std::free(memory);
}

namespace Ipsec::Testing {
namespace {

using Problems = std::vector<SettingProblem>;

stringmap ordinary() {
  return {{"config", "a"}, {"ikeVersion", "ikev2"}, {"reqid", "7"}, {"left", "10.0.0.1"}, {"right", "10.0.0.2"}};
}

stringmap usual() {
  stringmap settings = ordinary();
  settings["config"] = "default-10.0.0.1-10.0.0.2-local-7";
  settings["authby"] = Ike::stringValue(Ike::IpsecAuthType::PreSharedKey);
  settings["ikelifetime"] = "28800";
  settings["lifetime"] = "3600";
  settings["localid"] = "10.0.0.1";
  settings["remoteid"] = "10.0.0.2";
  settings["ike"] = "aes256-sha256-modp2048!";
  settings["esp"] = "aes256gcm16!";
  settings["action"] = "restart";
  settings["interval"] = "30";
  settings["timeout"] = "150";
  settings["replayWindowSize"] = "1024";
  return settings;
}

stringmap with(stringmap settings, const stringmap& more) {
  for (const auto& [name, value] : more) {
    settings[name] = value;
  }
  return settings;
}

stringmap without(stringmap settings, const char* name) {
  settings.erase(name);
  return settings;
}

// Returns the settings that have a problem, in the order in which they are reported, joined by blanks.
template <class Check>
std::string found(Check check, const stringmap& settings) {
  Problems problems(1, {"from before", "from before"});
  const bool passed = check(settings, &problems);
  EXPECT_EQ(passed, problems.empty());
  EXPECT_EQ(passed, check(settings, nullptr));
  std::string names;
  for (const SettingProblem& problem : problems) {
    EXPECT_FALSE(problem.text.empty());
    names += (names.empty() ? "" : " ") + problem.setting.str();
  }
  return names;
}

std::string inConnection(const stringmap& settings) {
  return found(checkConnection, settings);
}

std::string inSecret(const stringmap& entry) {
  return found(checkSecret, entry);
}

std::string textFor(const stringmap& settings) {
  Problems problems;
  EXPECT_FALSE(checkConnection(settings, &problems));
  return problems.size() == 1 ? problems[0].text.str() : "there are " + std::to_string(problems.size());
}

// --- Which setting ---------------------------------------------------------------------------------------------------

TEST(CheckConnection, PassesWhatIsRight) {
  EXPECT_EQ(inConnection(ordinary()), "");
  EXPECT_EQ(inConnection(usual()), "");
}

struct Values {
  const char* setting;
  std::vector<std::string> good;
  std::vector<std::string> bad;
};

// One good value and one bad one of every rule. What else there is, the daemon itself is asked.
const std::vector<Values> valuesOfSettings = {
    {"config", {"a.b", "\"a b\"", "a,b"}, {"", "a b", " a", "a|b", "a\nb", "a#b", "a=b", "a\"b", "%default", "a\\b"}},
    {"ikeVersion", {"ike", "ikev1", "ikev2", ""}, {"2", "IKEv2", "ikev2\t"}},
    {"authby", {"pre-share", "pki"}, {"psk", "", "rsa-sig", "Pre-share"}},
    {"ikelifetime", {"0", "28800", "4294967295"}, {"", "1h", "28800s", "-1", "4294967296", "1 ", "\"1\""}},
    {"lifetime", {"3600", "4294967296"}, {"1.5", "18446744073709551617"}},
    {"reqid", {"0", "4294967295", "\"7\"", "+7"}, {"", "4294967296", "-1", "7x", "0x7", "7 8", "18446744073709551617"}},
    {"left", {"host.example.org", "%any", "10.0.0.0/24", "fd50::1"}, {"", "10.0.0.256", "10.0.0.1#", "10.0.0.1 x"}},
    {"right", {"10.0.0.1-10.0.0.9", "10.0.0.1,fd50::/64", "%host"}, {"10.0.0.9-10.0.0.1", "10.0.0.0/33", "%", ","}},
    {"leftsubnet", {"10.1.0.0/16,::/0", "%dynamic[udp/500]", ""}, {"10.1.0.0/33", "10.1.0.1-10.1.0.9", ",", "%any"}},
    {"localid",
     {"a b", "@fqdn", "@#3031", "\"CN=a\"", ""},
     {"CN=a", "a#b", "a  b", "\"a", "\"a\"b", "@#x", R"("a\q")"}},
    {"remoteid", {"\"a#b\"", "include"}, {"include b", "a\"b", "a\x01"}},
    {"mark", {"5", "0x5/0xff", "%unique", "%unique-dir/7", ""}, {"x", "5/", "/5", "7/3", "4294967295", "%same"}},
    {"type", {"tunnel", "transport_proxy", ""}, {"Tunnel", "esp"}},
    {"replayWindowSize", {"-1", "0", "4294967294"}, {"4294967295", "-2", "x"}},
    {"packetLimit", {"18446744073709551615"}, {"18446744073709551616", "-1"}},
    {"marginbytes", {"0"}, {"1k"}},
    {"reauth", {"yes", "no", ""}, {"Yes", "1"}},
    {"ike",
     {"aes256-sha256-modp2048,aes128gcm16-prfsha1-ecp256!", ""},
     {"aes256-sha256", "foo", "aes256-sha256-ecp256,", R"(" ")"}},
    {"esp", {"aes256", "aes256gcm16-x25519-ke1_mlkem768"}, {"sha256", "aes256-aes256gcm16", "aes256-ke1_sha1"}},
    {"tunnelMode", {"IpsecGre", "IpsecVti", "", "other"}, {"IpsecGRE", "ipsecvti"}},
    {"encap", {"", "no", "\n"}, {}},
    {"uniqueids", {"", "add", "\n"}, {}},
};

TEST(CheckConnection, NamesTheSettingOfABadValue) {
  for (const Values& values : valuesOfSettings) {
    for (const std::string& value : values.good) {
      EXPECT_EQ(inConnection(with(ordinary(), {{values.setting, value}})), "") << values.setting << '=' << value;
    }
    for (const std::string& value : values.bad) {
      EXPECT_EQ(inConnection(with(ordinary(), {{values.setting, value}})), values.setting) << value;
    }
  }
}

TEST(CheckConnection, NamesASettingThatIsMissing) {
  for (const char* const name : {"config", "reqid", "left", "right"}) {
    EXPECT_EQ(inConnection(without(ordinary(), name)), name);
  }
  EXPECT_EQ(inConnection(with(ordinary(), {{"action", "clear"}})), "interval timeout");
  EXPECT_EQ(inConnection({}), "config reqid left right");
}

TEST(CheckConnection, LeavesUnusedSettingsAlone) {
  EXPECT_EQ(inConnection(with(ordinary(), {{"interval", "x"}, {"timeout", "\n"}, {"secret", "x"}})), "secret");
  EXPECT_EQ(inConnection({{"default", "%default"}, {"ikeVersion", "ikev2"}, {"left", "?"}, {"mark", "x"}}), "");
  EXPECT_EQ(inConnection(with(ordinary(), {{"tunnelMode", "IpsecVti"}, {"leftsubnet", "x"}})), "");
  EXPECT_EQ(inConnection(with(ordinary(), {{"tunnelMode", "IpsecVti"}, {"leftsubnet", "x=y"}})), "leftsubnet");
}

TEST(CheckConnection, ComparesAMarginWithItsLimit) {
  for (const auto& [margin, limit] : {std::pair("marginpackets", "packetLimit"), {"marginbytes", "byteLimit"}}) {
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "9"}, {limit, "10"}})), "");
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "10"}, {limit, "10"}})), margin);
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "18446744073709551615"}, {limit, "9"}})), margin);
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "10"}})), "");
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "10"}, {limit, "0"}})), "");  // no limit
    EXPECT_EQ(inConnection(with(ordinary(), {{margin, "10"}, {limit, "x"}})), limit);
    EXPECT_EQ(inConnection({{"default", "%default"}, {"ikeVersion", "ikev2"}, {margin, "9"}, {limit, "9"}}), margin);
  }
}

TEST(CheckConnection, WantsAVersionInTheDefaultSection) {
  EXPECT_EQ(inConnection({{"default", "%default"}}), "ikeVersion");
  EXPECT_EQ(inConnection({{"default", "%default"}, {"ikeVersion", "2"}}), "ikeVersion");
  EXPECT_EQ(inConnection({{"default", "%default"}, {"ikeVersion", "ikev1"}, {"uniqueids", "add"}}), "");
  EXPECT_EQ(inConnection({{"default", "%default"}, {"ikeVersion", "ikev1"}, {"ike", "foo"}, {"lifetime", ""}}),
            "lifetime ike");
}

TEST(CheckConnection, JudgesBothNamesOfTheOddDefault) {
  EXPECT_EQ(inConnection(with(ordinary(), {{"default", "old"}})), "");
  EXPECT_EQ(inConnection(with(ordinary(), {{"default", "old(1)"}})), "default");
  EXPECT_EQ(inConnection(with(ordinary(), {{"default", ""}, {"config", "a|b"}})), "default config");
}

TEST(CheckConnection, LooksOnlyAtTheNameOfWhatIsRemoved) {
  EXPECT_EQ(inConnection({{"config", "a"}, {"delete", ""}}), "");
  EXPECT_EQ(inConnection({{"config", "a b"}, {"delete", "no"}, {"reqid", "x"}, {"unknown", "\n"}}), "");
  EXPECT_EQ(inConnection({{"default", "%default"}, {"delete", ""}}), "");
  EXPECT_EQ(inConnection({{"default", "a|b"}, {"config", "a"}, {"delete", ""}}), "default");
  EXPECT_EQ(inConnection({{"config", "a|b"}, {"delete", ""}}), "config");
  EXPECT_EQ(inConnection({{"config", "a\r"}, {"delete", ""}}), "config");
  EXPECT_EQ(inConnection({{"config", ""}, {"delete", ""}}), "config");
  EXPECT_EQ(inConnection({{"delete", ""}}), "config");
}

TEST(CheckConnection, RemovesNamesAsLongAsTheWriterDoes) {
  const std::string longest(99989, 'a');
  EXPECT_EQ(inConnection({{"config", longest}, {"delete", ""}}), "");
  EXPECT_EQ(inConnection({{"config", longest + "a"}, {"delete", ""}}), "config");
  EXPECT_EQ(inSecret({{"peerIp", longest + "aaaa"}, {"delete", ""}}), "");
  EXPECT_EQ(inSecret({{"peerIp", longest + "aaaaa"}, {"delete", ""}}), "peerIp");
}

TEST(CheckConnection, AddsUpWhatTheDaemonMustPassOn) {
  const std::string half(32000, 'a');
  Problems problems;
  EXPECT_EQ(inConnection(with(ordinary(), {{"localid", half}, {"remoteid", half}})), "");
  EXPECT_FALSE(checkConnection(with(ordinary(), {{"localid", half}, {"remoteid", half + half}}), &problems));
  ASSERT_EQ(problems.size(), 1U);
  EXPECT_EQ(problems[0].setting, "");
  EXPECT_EQ(inConnection(with(ordinary(), {{"interval", half + half + half}})), "");
}

TEST(CheckSecret, NamesTheSettingOfABadValue) {
  const stringmap entry = {{"peerIp", "10.0.0.2"}, {"key", "\"a secret\""}};
  EXPECT_EQ(inSecret(entry), "");
  for (const char* const key : {"abc", "'a b'", "0x6162", "0x61:62", "0sYWJj", "0x", "it's", "a\"b"}) {
    EXPECT_EQ(inSecret(with(entry, {{"key", key}})), "") << key;
  }
  for (const char* const key :
       {"", "a b", "\"a\" b", "\"a", "'", "0xzz", "0x6:162", "0sYWJ", "0sY=Jj", "#a", "a\tb", "a\n"}) {
    EXPECT_EQ(inSecret(with(entry, {{"key", key}})), "key") << key;
  }
  for (const char* const peer : {"fd50::1", "%any", "host.example.org", "@a", "a@b", "10.0.0.1 10.0.0.2", "\"CN=a\""}) {
    EXPECT_EQ(inSecret(with(entry, {{"peerIp", peer}})), "") << peer;
  }
  for (const char* const peer : {"", "10.0.0.256", "10.0.0.1,10.0.0.2", "fd50:1", "a(b)", "a :", "#a", "a #b@c", "\"a",
                                 "include x", "%default", "*", "a\n"}) {
    EXPECT_EQ(inSecret(with(entry, {{"peerIp", peer}})), "peerIp") << peer;
  }
}

TEST(CheckSecret, NamesWhatIsMissingOrUnknown) {
  EXPECT_EQ(inSecret({}), "peerIp key");
  EXPECT_EQ(inSecret({{"peerIp", "10.0.0.2"}, {"Key", "x"}}), "Key key");
  EXPECT_EQ(inSecret({{"secret", "%default"}, {"key", "x"}, {"peerIp", "not used"}}), "");
  EXPECT_EQ(inSecret({{"secret", "other"}, {"key", "x"}}), "peerIp");
}

TEST(CheckSecret, LooksOnlyAtTheNameOfWhatIsRemoved) {
  EXPECT_EQ(inSecret({{"peerIp", "10.0.0.256"}, {"delete", ""}, {"key", ""}, {"unknown", ""}}), "");
  EXPECT_EQ(inSecret({{"secret", "%default"}, {"delete", ""}}), "");
  EXPECT_EQ(inSecret({{"peerIp", "a+"}, {"delete", ""}}), "peerIp");
  EXPECT_EQ(inSecret({{"peerIp", ""}, {"delete", ""}}), "peerIp");
  EXPECT_EQ(inSecret({{"delete", ""}}), "peerIp");
}

// --- What the texts hold ---------------------------------------------------------------------------------------------

TEST(CheckConnection, NamesWhatAMistakeResembles) {
  const auto names = [](const stringmap& settings, const std::string& known) {
    const std::string text = textFor(settings);
    EXPECT_NE(text.find("Did you mean \"" + known + "\"?"), std::string::npos) << text;
  };
  names(with(ordinary(), {{"ikeversion", "ikev2"}}), "ikeVersion");
  names(with(ordinary(), {{"leftsubnets", "10.0.0.0/8"}}), "leftsubnet");
  names(with(ordinary(), {{"ikeVersion", "IKEv2"}}), "ikev2");
  names(with(ordinary(), {{"type", "Tunnel"}}), "tunnel");
  names(with(ordinary(), {{"ike", "aes256-sha265-modp2048"}}), "sha256");
  names(with(ordinary(), {{"tunnelMode", "IPsecVti"}}), "IpsecVti");
  EXPECT_EQ(textFor(with(ordinary(), {{"unheardOf", ""}})), "There is no setting of this name.");
  EXPECT_EQ(textFor(with(ordinary(), {{std::string(1000, 'l'), ""}})), "There is no setting of this name.");
}

// A text that holds this, or a part of it, came from the caller.
const std::string marker = "Zq9Zq9Zq9";

void expectNoMarker(const stringmap& settings) {
  for (const auto check : {checkConnection, checkSecret}) {
    Problems problems;
    (void)check(settings, &problems);
    for (const SettingProblem& problem : problems) {
      EXPECT_EQ(problem.text.str().find("Zq"), std::string::npos) << problem.setting << ": " << problem.text;
    }
  }
}

TEST(Checks, NeverShowAValueOrAnUnknownName) {
  const std::vector<std::string> forms = {"",  "#", "=",  "\n", " ",  "(",  "/", "%",
                                          ",", "-", "\"", "\\", "::", "@#", "!"};
  std::vector<std::string> names = {"key", "peerIp", "secret", "default", marker};
  for (const Values& values : valuesOfSettings) {
    names.emplace_back(values.setting);
  }
  const stringmap base = with(usual(), {{"key", "k"}, {"peerIp", "10.0.0.1"}});
  for (const std::string& name : names) {
    for (const std::string& form : forms) {
      const std::string left = marker + form;
      const std::string right = form + marker;
      for (const std::string& value : {left, right, left + marker, right + form}) {
        expectNoMarker(with(base, {{name, value}}));
        expectNoMarker({{name, value}, {"delete", ""}});
        expectNoMarker({{"default", "%default"}, {name, value}});
        expectNoMarker(with(base, {{name + right, value}}));
      }
    }
  }
}

// --- The output ------------------------------------------------------------------------------------------------------

TEST(Checks, SayHowLongTheyTake) {
  const stringmap settings = usual();
  constexpr int rounds = 20000;
  const unsigned long before = allocations;
  const auto start = std::chrono::steady_clock::now();
  bool passed = true;
  for (int round = 0; round < rounds; ++round) {
    passed = checkConnection(settings, nullptr) && passed;
  }
  const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(passed);
  EXPECT_EQ(allocations - before, 0U);
  std::cout << "a usual connection: " << taken.count() / rounds << " us\n";
}

template <class Check>
void expectStrongGuarantee(Check check, const stringmap& settings, std::size_t problemCount) {
  unsigned long failures = 0;
  for (unsigned long number = 1;; ++number) {
    Problems problems(1, {"from before", "a text from before that is longer than a string's own memory"});
    allocations = 0;
    failing = number;
    try {
      const bool passed = check(settings, &problems);
      failing = 0;
      EXPECT_FALSE(passed);
      EXPECT_EQ(problems.size(), problemCount);
      break;
    } catch (const std::bad_alloc&) {
      failing = 0;
      ++failures;
    }
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0].setting, "from before");
  }
  EXPECT_GE(failures, problemCount);
}

TEST(Checks, LeaveTheOutputWhenMemoryRunsOut) {
  expectStrongGuarantee(
      checkConnection,
      with(ordinary(), {{"reqid", "x"}, {"left", ""}, {"replaywindowsize", "1"}, {"unknownAndLongerThanThat", "1"}}),
      4);
  expectStrongGuarantee(checkSecret, {{"peerIp", "("}, {"Key", "k"}}, 3);
}

}  // namespace
}  // namespace Ipsec::Testing
