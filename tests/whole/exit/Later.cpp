// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// An agent's library over ipsechelpers, for a program that loads it itself.

#include "Ipsec.h"

#include <cstdio>

namespace {

bool exchanged() {
  Ipsec::IpsecDHGeneral mine(Ipsec::MODP_2048);
  Ipsec::IpsecDHGeneral theirs(Ipsec::MODP_2048);
  Ipsec::ByteVector myValue;
  Ipsec::ByteVector theirValue;
  Ipsec::ByteVector mySecret;
  Ipsec::ByteVector theirSecret;
  return mine.initIpsecDH() && theirs.initIpsecDH() && mine.getMyPublicKey(&myValue) &&
         theirs.getMyPublicKey(&theirValue) && mine.setPeerPublicKey(&theirValue) &&
         theirs.setPeerPublicKey(&myValue) && mine.getSharedSecret(&mySecret) && theirs.getSharedSecret(&theirSecret) &&
         mySecret.size() == 256 && mySecret == theirSecret;
}

}  // namespace

// Exchanges keys and says on standard error how that went.
extern "C" [[gnu::visibility("default")]] void exchangeKeys() {
  (void)std::fputs(exchanged() ? "the secrets are equal\n" : "the exchange failed\n", stderr);
}

// Looks two lengths up, each in a table.
extern "C" [[gnu::visibility("default")]] bool lookLengthsUp() {
  return Ipsec::getEncryptKeyLen({Ipsec::ENCR_3DES, 0}) == 24 && Ipsec::getIntegKeyLen(Ipsec::AUTH_HMAC_SHA1_96) == 20;
}
