// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Runs the examples in the comments of the public headers. examples.py takes them out.
#include "Ipsec.h"
#include "IpsecDaemon.h"

#include <openssl/rand.h>

#include <sys/stat.h>

#include <cstdio>
#include <exception>

using namespace Ipsec;

namespace {

struct Example {
  const char* name;
  const char* header;
  bool (*run)();     // must return true
  void (*linked)();  // would change the host: it must be there, and is not called
};

// --- What the examples leave to the agent: sending a payload and receiving the peer's, which is played here ----------

ByteVector exchangeKePayloads(DhGroupNum group, const ByteVector& mine) {
  IpsecDHGeneral peer(group);
  ByteVector theirs;
  if (!peer.initIpsecDH() || !peer.setPeerPublicKey(&mine) || !peer.getMyPublicKey(&theirs)) {
    theirs.clear();
  }
  return theirs;
}

ByteVector exchangeNoncePayloads(const ByteVector& mine) {
  ByteVector theirs;
  (void)NonceGenerator(mine.size()).generateNonce(&theirs);
  return theirs;
}

// --- The examples as functions, and their table ----------------------------------------------------------------------

#include "examples.inc"

bool holds(const Example& example) {
  try {
    return example.run != nullptr ? example.run() : example.linked != nullptr;
  } catch (const std::exception& thrown) {
    (void)std::fprintf(stderr, "%s\n", thrown.what());
    return false;
  }
}

}  // namespace

int main() {
  int failures = 0;
  for (const Example& example : examples) {
    if (!holds(example)) {
      (void)std::fprintf(stderr, "examples: the example of %s in %s does not hold\n", example.name, example.header);
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
