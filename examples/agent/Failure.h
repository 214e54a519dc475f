// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What ends a run early: one line for the user, and its exit code.
#pragma once

#include <stdexcept>
#include <string>

namespace Agent {

enum class ExitCode : int {
  Success = 0,
  Internal = 1,    // sockets, files, cryptography on this side
  Usage = 2,       // the command line
  Timeout = 3,     // no answer, after all retransmissions
  Refused = 4,     // the peer refused, with a notify
  NotTrusted = 5,  // the peer did not prove that it knows the pre-shared key, or has another identity
  Protocol = 6,    // an answer that makes no sense
  NoEcho = 7,      // security associations are up, but the echo did not come back
  NotFound = 8,    // the search of a test option found nothing
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitCode why, const std::string& text) : std::runtime_error(text), code(why) {}

  const ExitCode code;
};

}  // namespace Agent
