// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The command line.
#pragma once

#include "Groups.h"
#include "Wire.h"

#include <string>
#include <vector>

namespace Exchange {

// Faults that a test asks for, to show that they are noticed.
enum class Fault {
  None,
  PublicValue,  // one bit of the responder's public value changes on the way
  Key,          // one bit of the initiator's SK_ei changes
  Published,    // one bit of a published shared secret changes before it is compared
  SilentPeer,   // the responder's process stops answering
  DeadPeer,     // the responder's process ends in the middle of an exchange
};

struct Options {
  bool help = false;
  bool json = false;
  bool responder = false;        // this is the second process; its standard input is a listening socket
  const Group* group = nullptr;  // null means all groups
  std::string vectors = EXCHANGE_VECTORS;
  Timeout timeout = std::chrono::seconds(20);
  Fault fault = Fault::None;
  std::string faultName;
};

// Throws UsageError.
Options readOptions(const std::vector<std::string>& arguments);

// What --help prints.
extern const char* const helpText;

}  // namespace Exchange
