// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Many changes of the IKE daemon's two files in one step, checked before they are made.
//
// Ipsec.h has writeConnections and writeSecrets, which make one change per call and write the settings as they are
// given. The functions here take the same settings, make all changes of a call or none, and refuse settings that the
// daemon (strongSwan with its starter: ipsec.conf and ipsec.secrets) would refuse, leave out or misread.
//
// For all functions:
// - Any thread may call them at any time.
// - Outputs are replaced when the result is true and unchanged when it is false, except problems, which is always
//   replaced. Strings are bytes as in the files, without their newlines.
// - Only exhausted memory throws (std::bad_alloc), and nothing has changed then.
// - After fork a child may call them too, whatever the other threads of its parent were doing, as far as the C library
//   lets a child of a program with threads do anything before it executes another program. A change that the parent is
//   making keeps its lock; the child does not inherit it.
#pragma once

#include "Ipsec.h"

#include <vector>

namespace Ipsec {

// What is wrong with one setting.
struct SettingProblem {
  Vello::String setting;  // its name as it is in the map; empty if the problem concerns the whole change
  Vello::String text;     // a sentence for a log. It holds no value, and no name but those that are listed in Ipsec.h
};

// --- Changing the files ---------------------------------------------------------------------------------------------
//
// Each change is a map as for writeConnections or writeSecrets and has the same meaning. The changes are made in their
// order, in memory, and the file is replaced once. Its lines are then byte for byte those that as many single calls
// would have left: what the two writers say in Ipsec.h about the names of sections and entries, about what is removed
// with them and about repeated sections holds here too.
//
// The result is true when all changes are in the file and the disk has it. No changes: true, and nothing is touched.
// The result is false, with one line traced as an error and the file as it was, when
// - a change has a problem (see checkConnection and checkSecret). The line names the change, counting from 1, and the
//   setting, and no value. Nothing has been opened then.
// - the old file cannot be read. Only a file that does not exist counts as empty. A pipe, a folder or a device in its
//   place is refused and never waited for.
// - the new file cannot be written, be given the old one's owner and group, be synced to the disk or be moved into
//   place, or another change of the same file did not end within 10 seconds. The line has the reason of the system.
// One failure leaves the new file in place: if the folder cannot be synced after the move, the line says that the
// change may not outlast a power failure.
//
// The new file is built under a name of its own (the file's name with ".new" appended), which no user but this one can
// open, and moved into place with rename: the old file or the new one is in place, also when the process is killed at
// any moment. What a killed process left under that name is removed by the next call. A link in the place of the file
// is followed for reading and replaced.
// - The secrets file gets mode 0600. The connections file keeps its mode; a new one gets 0644. The umask has no effect.
// - The owner and the group stay. Access control lists and labels are not kept.
//
// The calls of all threads and processes for one file are made one after the other. They hold a lock on a file that
// only this user can open (the file's name with ".lock" appended, which stays), and the lock ends with the process that
// holds it. The checks, the lists, the daemon and the writers of Ipsec.h do not wait for it.
// Warning: the single writers of Ipsec.h do not know the lock. The caller must not let one of them run while changes of
// the same file are applied.
//
// The daemon is not told. It rereads the connections when its starter receives SIGHUP, and the secrets on
// `ipsec rereadsecrets`.

// Makes changes of the connections file, "/etc/strongswan/ipsec.conf".
//
// Example:
//     const std::vector<stringmap> changes = {{{"config", "old"}, {"delete", ""}},
//                                             {{"config", "new"}, {"ikeVersion", "ikev2"}, {"reqid", "7"},
//                                              {"left", "10.0.0.1"}, {"right", "10.0.0.2"}}};
//     applyConnections(changes);
IPSEC_EXPORT bool applyConnections(const std::vector<stringmap>& changes);

// Makes changes of the secrets file, "/etc/strongswan/ipsec.secrets". The copies of keys that are made on the way are
// cleared.
//
// Example:
//     applySecrets({{{"peerIp", "10.0.0.2"}, {"key", "\"a secret\""}}, {{"peerIp", "10.0.0.3"}, {"delete", ""}}});
IPSEC_EXPORT bool applySecrets(const std::vector<stringmap>& changes);

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

// --- What the files hold --------------------------------------------------------------------------------------------
//
// For an agent that restarts and looks for what it no longer wants. A missing file is an empty list and true. Any other
// failure to read is false, with one line traced as an error. Lines of other files that are included are not followed.
// What a list holds may be given to a change that removes, unless the check refuses it.

// Lists the sections of the connections file in the order of the file: the rest of every line that begins with "conn ",
// "%default" included. A name that is there twice is listed twice.
//
// Example:
//     std::vector<Vello::String> names;
//     listConnections(&names);
IPSEC_EXPORT bool listConnections(std::vector<Vello::String>* names);

// Lists the entries of the secrets file in the order of the file: what stands before the first " :" of every line that
// is neither blank nor a comment, or "%default" where nothing does. Entries of other kinds, RSA say, and repetitions
// are listed too. A line without " :" is not.
//
// Example:
//     std::vector<Vello::String> peers;
//     listSecrets(&peers);
IPSEC_EXPORT bool listSecrets(std::vector<Vello::String>* peers);

}  // namespace Ipsec
