// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Keys.h"

#include "Failure.h"

#include <algorithm>
#include <numeric>

namespace Exchange {

const Suite* findSuite(unsigned long prf) {
  const auto* const found =
      std::find_if(suites.begin(), suites.end(), [prf](const Suite& suite) { return suite.prf == prf; });
  return found == suites.end() ? nullptr : found;
}

KeyLengths keyLengths(const Suite& suite) {
  Ipsec::HmacPRFunc prf;
  require(prf.initHmacPRFunc(suite.hash), "HmacPRFunc::initHmacPRFunc");
  const std::size_t prfKey = prf.getKeySize();
  const std::size_t integrityKey = suite.integrity ? Ipsec::getIntegKeyLen(*suite.integrity) : 0;
  const std::size_t encryptionKey = Ipsec::getEncryptKeyLen(suite.encryption);
  return {prfKey, integrityKey, integrityKey, encryptionKey, encryptionKey, prfKey, prfKey};
}

std::size_t totalKeyBytes(const Suite& suite) {
  const KeyLengths lengths = keyLengths(suite);
  return std::accumulate(lengths.begin(), lengths.end(), std::size_t{0});
}

SecretBytes prf(const Suite& suite, const ByteVector& key, const ByteVector& input) {
  Ipsec::HmacPRFunc hmac;
  require(hmac.initHmacPRFunc(suite.hash), "HmacPRFunc::initHmacPRFunc");
  require(hmac.setKey(&key), "HmacPRFunc::setKey");
  SecretBytes output;
  require(hmac.generatePRStream(&input, &output.bytes), "HmacPRFunc::generatePRStream");
  return output;
}

IkeKeys drawKeys(const Suite& suite, const SecretBytes& skeyseed, const ByteVector& seed) {
  const KeyLengths lengths = keyLengths(suite);
  Ipsec::HmacPRFunc hmac;
  require(hmac.initHmacPRFunc(suite.hash), "HmacPRFunc::initHmacPRFunc");
  require(hmac.setKey(&skeyseed.bytes), "HmacPRFunc::setKey");
  Ipsec::PRFuncPlus stream(&hmac, true);
  require(stream.initPRFuncPlus(&seed), "PRFuncPlus::initPRFuncPlus");
  IkeKeys keys;
  for (std::size_t index = 0; index < keyCount; ++index) {
    require(stream.generatePRStream(lengths[index], &keys[index].bytes), "PRFuncPlus::generatePRStream");
  }
  return keys;
}

}  // namespace Exchange
