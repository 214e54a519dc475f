// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The kinds of failure in this program, each with a line for the user.
#pragma once

#include <stdexcept>
#include <string>

namespace Exchange {

// An exchange, real or published, whose result is not as it must be. The next one can still be tried.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The other side says that the exchange has failed there. No answer is sent to that.
class Refused : public Failure {
 public:
  using Failure::Failure;
};

// The two processes can no longer communicate: no answer, a closed connection, or a message that makes no sense.
class LinkFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command line that cannot be carried out.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Turns a false result of the library into an exception that names the call.
inline void require(bool succeeded, const char* call) {
  if (!succeeded) {
    throw Failure(std::string(call) + " failed");
  }
}

}  // namespace Exchange
