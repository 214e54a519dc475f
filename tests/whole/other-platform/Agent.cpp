// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A program of a project that includes the library. It says what it was compiled as.
#include <Ipsec.h>
#include <IpsecVersion.h>

#include <cstdio>

int main() {
  std::printf("C++ %ld, version %s\n", __cplusplus, IPSEC_HELPERS_VERSION_STRING);
  Ipsec::ByteVector nonce;
  return Ipsec::NonceGenerator().generateNonce(&nonce) && nonce.size() == 32 ? 0 : 1;
}
