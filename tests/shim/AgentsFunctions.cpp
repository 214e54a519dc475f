// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// C functions that an agent may well have, under the names of the crypto shim's. They count their calls and do nothing.
// No header of the project's: this is somebody else's source.

namespace {

int calls = 0;

}  // namespace

extern "C" {

int agentsCalls() {
  return calls;
}

int hmac_create(void*) {
  ++calls;
  return 0;
}

int hmac_init(void*, const void*, const unsigned char*, unsigned long) {
  ++calls;
  return 0;
}

int hmac_update(void*, const unsigned char*, unsigned long) {
  ++calls;
  return 0;
}

int hmac_final(void*, unsigned char*, unsigned long, unsigned long*) {
  ++calls;
  return 0;
}

int hmac_cleanup(void*) {
  ++calls;
  return 0;
}

int EVP_PKEY_get_shared_secret(void*, void*, unsigned char**, unsigned long*) {
  ++calls;
  return 0;
}

}  // extern "C"
