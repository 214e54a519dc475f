// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A library that is loaded before ipsechelpers and knows nothing of it. It sets OpenSSL up when it is loaded, and has
// one last thing to do when the process ends: after the destructors of what was loaded later, and before OpenSSL's
// clean-up.

#include <openssl/crypto.h>

namespace {

struct LastThing {
  LastThing() { (void)OPENSSL_init_crypto(0, nullptr); }
  ~LastThing() {
    if (call != nullptr) {
      call();
    }
  }
  LastThing(const LastThing&) = delete;
  LastThing& operator=(const LastThing&) = delete;

  void (*call)() = nullptr;
} lastThing;

}  // namespace

extern "C" [[gnu::visibility("default")]] void callAtTheEnd(void (*call)()) {
  lastThing.call = call;
}
