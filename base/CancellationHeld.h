// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// CancellationHeld lets no pthread_cancel take effect in its thread while it lives. A cancelled thread would otherwise
// leave in the middle of a system call: out of a function that may not throw, which aborts the process, or out of
// OpenSSL, whose locks it would leave behind. The cancellation takes effect at the thread's next cancellation point.
#pragma once

#include <pthread.h>

namespace Base {

class CancellationHeld {
 public:
  CancellationHeld() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
  ~CancellationHeld() { (void)pthread_setcancelstate(before, nullptr); }  // neither call can fail with these states
  CancellationHeld(const CancellationHeld&) = delete;
  CancellationHeld& operator=(const CancellationHeld&) = delete;

 private:
  int before = PTHREAD_CANCEL_ENABLE;
};

}  // namespace Base
