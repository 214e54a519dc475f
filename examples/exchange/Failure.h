// The ways in which something goes wrong here, each with a line for the user.
#pragma once

#include <stdexcept>
#include <string>

namespace Exchange {

// An exchange, or a published one, that did not come out as it must. The next one can still be tried.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The other side says that the exchange has failed there. It is not told so back.
class Refused : public Failure {
 public:
  using Failure::Failure;
};

// The two processes can no longer talk: silence, a closed connection, a message that makes no sense.
class LinkFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command line that cannot be obeyed.
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
