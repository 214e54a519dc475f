// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// One change of each of the daemon's files, for the tests that run alike for both.
#pragma once

#include "IpsecDaemon.h"
#include "tests/support/PrivateMounts.h"

#include <string>
#include <vector>

namespace Ipsec::Testing {

struct ChangedFile {
  const char* name;
  const char* file;
  const char* function;
  mode_t newMode;               // of a file that was not there
  std::string other;            // lines that every change must leave
  std::string (*written)(int);  // what the change with a number writes
  stringmap (*change)(int);     // replaces what an earlier one wrote
  bool (*apply)(const std::vector<stringmap>&);
  bool (*list)(std::vector<Vello::String>*);

  std::string newFile() const { return std::string(file) + ".new"; }
  std::string lockFile() const { return std::string(file) + ".lock"; }
  std::string whole(int number) const { return other + written(number); }
  bool update(int number) const { return apply({change(number)}); }
};

inline const ChangedFile changedConnections = {
    "connections",
    connectionsFile,
    "applyConnections",
    0644,
    "conn other\n\tleft=1\n",
    [](int number) {
      return "conn a\n\tkeyexchange=ikev2\n\treqid=" + std::to_string(number) +
             "\n\tleft=10.0.0.1\n\tright=10.0.0.2\n\tauto=add\n\tmobike=no\n\tikedscp=110000\n\n";
    },
    [](int number) {
      return stringmap{{"config", "a"},
                       {"ikeVersion", "ikev2"},
                       {"reqid", std::to_string(number)},
                       {"left", "10.0.0.1"},
                       {"right", "10.0.0.2"}};
    },
    applyConnections,
    listConnections,
};

inline const ChangedFile changedSecrets = {
    "secrets",
    secretsFile,
    "applySecrets",
    0600,
    "10.0.0.9 : PSK \"other\"\n",
    [](int number) { return "10.0.0.1 : PSK \"key " + std::to_string(number) + "\"\n"; },
    [](int number) {
      return stringmap{{"peerIp", "10.0.0.1"}, {"key", "\"key " + std::to_string(number) + "\""}};
    },
    applySecrets,
    listSecrets,
};

}  // namespace Ipsec::Testing
