// The second process: this program once more, in the responder's part.
#pragma once

#include "Options.h"
#include "Wire.h"

#include <sys/types.h>

namespace Exchange {

// PeerProcess starts the responder and ends it. The destructor does not wait longer than the timeout: a process that
// does not end by itself once its connection is closed is killed.
class PeerProcess {
 public:
  // The listening socket becomes the responder's standard input. When the caller closes its own, a responder that dies
  // takes the socket with it, and the caller's connection breaks instead of waiting. Throws LinkFailure.
  PeerProcess(const Options& options, const Descriptor& listener);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  ~PeerProcess();

 private:
  Timeout timeout;
  pid_t pid = -1;
};

}  // namespace Exchange
