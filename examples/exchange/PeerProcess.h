// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The second process: the same program, started again as the responder.
#pragma once

#include "Options.h"
#include "Wire.h"

#include <sys/types.h>

namespace Exchange {

// PeerProcess starts the responder and ends it. The destructor waits no longer than the timeout: a process that does
// not end by itself after its connection is closed is killed.
class PeerProcess {
 public:
  // The listening socket becomes the responder's standard input. The caller should then close its own descriptor of it:
  // when the responder dies, the socket is closed too, and the caller's connection breaks instead of waiting. Throws
  // LinkFailure.
  PeerProcess(const Options& options, const Descriptor& listener);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  ~PeerProcess();

 private:
  Timeout timeout;
  pid_t pid = -1;
};

}  // namespace Exchange
