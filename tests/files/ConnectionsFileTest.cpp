// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Tests of the connections file that the golden folders do not have: refusals, unusual bytes, sizes and traces. Full
// disks and dying processes are tested in FileReplacementTest, and the same rules with random files in
// WriterDifferentialTest.
#include "Ipsec.h"
#include "tests/support/HostTests.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/SmallStack.h"
#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

namespace Ipsec::Testing {
namespace {

using namespace std::string_literals;

const std::string temporary = std::string(connectionsFile) + ".tmp";
const std::string sectionA = "conn a\n\treqid=1\n\tleft=l\n\tright=r\n\tauto=add\n\tmobike=no\n\tikedscp=110000\n\n";

stringmap ordinary(const stringmap& more = {}) {
  stringmap settings = {{"config", "a"}, {"reqid", "1"}, {"left", "l"}, {"right", "r"}};
  for (const auto& [name, value] : more) {
    settings[name] = value;
  }
  return settings;
}

stringmap without(stringmap settings, const char* name) {
  settings.erase(name);
  return settings;
}

class ConnectionsFile : public testing::Test {
 protected:
  ConnectionsFile() { resetHost(); }

  // Expects the call to be refused for a missing setting: after the copy, before anything is moved.
  static void expectMissing(const stringmap& settings) {
    const std::string before = "conn a\n\tx=1\nconn b\n\ty=2";
    writeFile(connectionsFile, before);
    const TraceRecorder traces("IpsecUtils=0-31");
    try {
      writeConnections(settings);
      ADD_FAILURE() << "The settings were accepted.";
    } catch (const std::out_of_range& refusal) {
      EXPECT_STREQ(refusal.what(), "_Map_base::at");
    }
    EXPECT_EQ(readFile(connectionsFile), before);
    EXPECT_TRUE(traces.lines().empty());
  }
};

// --- Refusals --------------------------------------------------------------------------------------------------------

TEST_F(ConnectionsFile, NeedsTheFourSettingsOfAnOrdinarySection) {
  for (const char* name : {"reqid", "left", "right"}) {
    SCOPED_TRACE(name);
    expectMissing(without(ordinary(), name));
    EXPECT_EQ(readFile(temporary), "conn b\n\ty=2\n");
  }
  expectMissing(without(ordinary(), "config"));
  EXPECT_EQ(readFile(temporary), "conn a\n\tx=1\nconn b\n\ty=2\n");
  expectMissing({});
}

TEST_F(ConnectionsFile, NeedsConfigForADefaultThatIsNotTheDefaultSection) {
  expectMissing(without(ordinary({{"default", "a"}}), "config"));
}

TEST_F(ConnectionsFile, NeedsIntervalAndTimeoutWithAnAction) {
  expectMissing(ordinary({{"action", "clear"}}));
  expectMissing(ordinary({{"action", "clear"}, {"interval", "1"}}));
  expectMissing(ordinary({{"action", "clear"}, {"timeout", "1"}}));
}

TEST_F(ConnectionsFile, RefusesAnAuthenticationTypeOfAnotherText) {
  for (const char* text : {"rsa-sig", "ecdsa-sig", "unknown", "", "secret", "Pre-share"}) {
    SCOPED_TRACE(text);
    expectMissing(ordinary({{"authby", text}}));
    expectMissing({{"default", "%default"}, {"authby", text}});
  }
}

TEST_F(ConnectionsFile, LeavesHeaderAndCopyInTheTemporaryFileOfARefusedCall) {
  expectMissing(without(ordinary({{"uniqueids", "add"}}), "reqid"));
  EXPECT_EQ(readFile(temporary), "config setup\n\tuniqueids=no\nconn b\n\ty=2\n");
  writeConnections(ordinary());
  EXPECT_EQ(readFile(connectionsFile), "conn b\n\ty=2\n" + sectionA);
  EXPECT_FALSE(exists(temporary));
}

TEST_F(ConnectionsFile, DoesNotNeedTheSettingsOfASectionThatIsDeleted) {
  writeFile(connectionsFile, "conn a\n\tx=1\nconn b\n");
  writeConnections({{"config", "a"}, {"delete", ""}, {"authby", "nonsense"}, {"action", "clear"}});
  EXPECT_EQ(readFile(connectionsFile), "conn b\n");
}

TEST_F(ConnectionsFile, RefusesANameThatIsNoExpressionBeforeItWritesAnything) {
  writeFile(connectionsFile, "conn b\n");
  for (const char* name : {"(", "[", "a{2,1}", "(?<a)"}) {
    writeFile(temporary, "of an earlier call");
    const TraceRecorder traces("IpsecUtils=0-31");
    EXPECT_THROW(writeConnections(ordinary({{"config", name}, {"uniqueids", "add"}})), std::regex_error) << name;
    EXPECT_EQ(readFile(connectionsFile), "conn b\n");
    EXPECT_EQ(readFile(temporary), "") << name;
    EXPECT_TRUE(traces.lines().empty());
  }
}

// The name that is compiled is that of the section that is removed, not of the one that is written.
TEST_F(ConnectionsFile, TakesANameThatIsNoExpressionFromConfigBesideADefault) {
  writeConnections(ordinary({{"default", "b"}, {"config", "("}}));
  EXPECT_EQ(readFile(connectionsFile).substr(0, 7), "conn (\n");
}

// --- Odd bytes and sizes ---------------------------------------------------------------------------------------------

TEST_F(ConnectionsFile, KeepsNulBytesAndOtherOddOnes) {
  const std::string odd = "\0\xff\xfe\r\x80 conn a\0\n\tx=\0\xc3\x28\n"s;
  writeFile(connectionsFile, odd + "conn a\n\tx=1\n");
  writeConnections(ordinary({{"left", Vello::String("l\0l"s)}}));
  std::string section = sectionA;
  section.replace(section.find("left=l"), 6, "left=l\0l"s);
  EXPECT_EQ(readFile(connectionsFile), odd + section);
}

TEST_F(ConnectionsFile, WritesANewlineInAValueAsItIs) {
  writeConnections(ordinary({{"left", "l\n\tauto=start"}}));
  EXPECT_NE(readFile(connectionsFile).find("\tleft=l\n\tauto=start\n\tright=r\n"), std::string::npos);
}

TEST_F(ConnectionsFile, KeepsALineOf10Megabytes) {
  const std::string line = "conn " + std::string(10000000, 'a');
  writeFile(connectionsFile, "conn a\n\tx=1\n" + line + "\nconn b\n" + line);
  writeConnections(ordinary());
  EXPECT_TRUE(readFile(connectionsFile) == line + "\nconn b\n" + line + "\n" + sectionA);
}

TEST_F(ConnectionsFile, TakesOutALongName) {
  for (const std::size_t length : {10000U, 99000U, 99989U}) {
    const std::string name(length, 'n');
    writeFile(connectionsFile, "conn " + name + "\n\tx=1\nconn b\n");
    writeConnections({{"config", name}, {"delete", ""}});
    EXPECT_EQ(readFile(connectionsFile), "conn b\n") << length;
  }
}

TEST_F(ConnectionsFile, RefusesANameThatIsTooLongForAnExpression) {
  const std::string before = "conn " + std::string(99990, 'n') + "\n\tx=1\n";
  for (const std::size_t length : {99990U, 200000U}) {
    writeFile(connectionsFile, before);
    try {
      writeConnections({{"config", std::string(length, 'n')}, {"delete", ""}});
      ADD_FAILURE() << "A name of " << length << " characters was accepted.";
    } catch (const std::regex_error& refusal) {
      EXPECT_EQ(refusal.code(), std::regex_constants::error_space);
    }
    EXPECT_TRUE(readFile(connectionsFile) == before) << length;
    EXPECT_EQ(readFile(temporary), "") << length;
  }
}

TEST_F(ConnectionsFile, NeedsLittleStackForALongName) {
  for (const char character : std::string("n.,\"#&;<>=!~'`\xFC")) {
    onASmallStack([character] {
      const std::string name(99000, character);
      writeFile(connectionsFile, "conn " + name + "\n\tx=1\nconn b\n");
      writeConnections({{"config", name}, {"delete", ""}});
    });
    EXPECT_EQ(readFile(connectionsFile), "conn b\n") << character;
  }
  const auto tooLong = [] { writeConnections({{"config", std::string(200000, 'n')}, {"delete", ""}}); };
  EXPECT_THROW(onASmallStack(tooLong), std::regex_error);
  EXPECT_EQ(readFile(connectionsFile), "conn b\n");
}

TEST_F(ConnectionsFile, ReplacesOneOf100000Sections) {
  std::string before;
  std::string after;
  for (int number = 0; number < 100000; ++number) {
    const std::string section = "conn s" + std::to_string(number) + "\n\tx=1\n\n";
    before += section;
    after += number == 70000 ? "" : section;
  }
  writeFile(connectionsFile, before);
  writeConnections(ordinary({{"config", "s70000"}}));
  EXPECT_TRUE(readFile(connectionsFile) == after + "conn s70000" + sectionA.substr(6));
}

TEST_F(ConnectionsFile, KeepsTheOrderOfTheLastUpdates) {
  for (const char* name : {"a", "b", "c", "a", "b"}) {
    writeConnections(ordinary({{"config", name}}));
  }
  const std::string body = sectionA.substr(6);
  EXPECT_EQ(readFile(connectionsFile), "conn c" + body + "conn a" + body + "conn b" + body);
}

// --- Traces ----------------------------------------------------------------------------------------------------------

TEST_F(ConnectionsFile, NoSettingsValueIsEverTraced) {
  const TraceRecorder traces("IpsecUtils=0-31");
  stringmap settings;
  for (const char* name : {"config",      "uniqueids",     "ikeVersion", "ikelifetime", "lifetime",
                           "reqid",       "left",          "leftsubnet", "localid",     "right",
                           "remoteid",    "ike",           "esp",        "mark",        "action",
                           "interval",    "timeout",       "encap",      "type",        "replayWindowSize",
                           "packetLimit", "marginpackets", "byteLimit",  "marginbytes", "reauth"}) {
    settings[name] = std::string("value-of-") + name;
  }
  writeConnections(settings);
  {
    const Mount readOnly = Mount::readOnly(daemonFolder);
    writeConnections(settings);
  }
  settings["authby"] = "value-of-authby";
  EXPECT_THROW(writeConnections(settings), std::out_of_range);
  settings["config"] = "value-of-(";
  EXPECT_THROW(writeConnections(settings), std::regex_error);
  EXPECT_EQ(traces.errors().size(), 1U);
  EXPECT_FALSE(traces.mentions("value-of-"));
}

}  // namespace
}  // namespace Ipsec::Testing

int main(int argc, char** argv) {
  return Ipsec::Testing::runInPrivateMounts(argc, argv);
}
