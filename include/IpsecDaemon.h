// Changes of the IKE daemon's two files, checked before they are made.
//
// Ipsec.h has writeConnections and writeSecrets, which write the settings as they are given. The functions here take
// the same settings and find those that the daemon (strongSwan with its starter: ipsec.conf and ipsec.secrets) would
// refuse, leave out or misread.
//
// For all functions:
// - Any thread may call them at any time.
// - Strings are bytes as in the files, without their newlines. problems is always replaced.
// - Only exhausted memory throws (std::bad_alloc), and nothing has changed then.
#pragma once

#include "Ipsec.h"

#include <vector>

namespace Ipsec {

// What is wrong with one setting.
struct SettingProblem {
  Vello::String setting;  // its name as it is in the map; empty if the problem concerns the whole change
  Vello::String text;     // a sentence for a log. It holds no value, and no name but those that are listed in Ipsec.h
};

// --- Checking a change ----------------------------------------------------------------------------------------------
//
// Returns true when nothing is wrong with a change. Nothing is traced and no file is looked at. If problems is not
// null, it gets every problem that was found, or nothing. A change that removes needs only what names the section or
// entry; nothing else in it is looked at.

// Checks the settings of one connection, as for writeConnections. Problems are:
// - a required setting that is missing or empty, a name that is not among the settings, control characters;
// - a section's name that is no word, or holds more of an expression than ".";
// - values that the daemon refuses or misreads: versions, words, numbers and their ranges, addresses, subnets,
//   identities that need quotes, marks, proposals; margins that are not below their limit;
// - a default section without ikeVersion.
// What the daemon takes and understands as meant is not refused, whichever of its plugins are loaded; a proposal's word
// may be known to strongSwan 5.9 or to 6.0. Whether the name of a host, a protocol or a service exists is not known
// here. A setting that this change does not use is no problem, and neither is any value of uniqueids, encap and delete.
// An optional setting may be empty: the daemon then uses its own default.
//
// Example:
//     std::vector<SettingProblem> problems;
//     const stringmap settings = {{"config", "a"}, {"ikeversion", "ikev2"}, {"reqid", "7"},
//                                 {"left", "10.0.0.1"}, {"right", "10.0.0.2"}};
//     return !checkConnection(settings, &problems) && problems.size() == 1 &&
//            problems[0].setting == "ikeversion";
IPSEC_EXPORT bool checkConnection(const stringmap& settings, std::vector<SettingProblem>* problems);

// Checks one entry of the secrets file, as for writeSecrets. Problems are a missing peerIp or key, a name that is not
// among the settings, control characters, an address that is none or holds more of an expression than ".", and a key
// that the daemon would cut, refuse or misread. The names and identities that the daemon takes in the place of an
// address are no problem.
//
// Example:
//     return checkSecret({{"peerIp", "10.0.0.2"}, {"key", "\"a secret\""}}, nullptr) &&
//            !checkSecret({{"peerIp", "10.0.0.2"}, {"key", "a secret"}}, nullptr);
IPSEC_EXPORT bool checkSecret(const stringmap& entry, std::vector<SettingProblem>* problems);

}  // namespace Ipsec
