// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The library, called as an agent calls it.

#include "End.h"
#include "Ipsec.h"

namespace Bench {
namespace {

class LibraryEnd : public End {
 public:
  explicit LibraryEnd(unsigned group) : dh(static_cast<Ipsec::DhGroupNum>(group)) {}

  bool generate() override { return dh.initIpsecDH(); }

  bool import(const Bytes& privateKey) override { return dh.initIpsecDH() && dh.setMyPrivateKey(&privateKey); }

  bool publicValue(Bytes& out) override { return dh.getMyPublicKey(&out); }

  bool agree(const Bytes& peer, Bytes& secret) override {
    return dh.setPeerPublicKey(&peer) && dh.getSharedSecret(&secret);
  }

  bool nonces(Bytes& both) override {
    return generator.generateNonce(&initiator) && generator.generateNonce(&responder) &&
           generator.generateFullNonce(&both, &initiator, &responder);
  }

  bool keys(const Bytes& secret, const Bytes& both, Bytes& out) override {
    Ipsec::HmacPRFunc prf;
    Bytes skeyseed;
    if (!prf.initHmacPRFunc(Ipsec::HASH_SHA256) || !prf.setKey(&both) || !prf.generatePRStream(&secret, &skeyseed) ||
        !prf.setKey(&skeyseed)) {
      return false;
    }
    Bytes seed = both;
    seed.insert(seed.end(), spis.begin(), spis.end());
    Ipsec::PRFuncPlus stream(&prf, true);
    return stream.initPRFuncPlus(&seed) && stream.generatePRStream(keyCount * keyBytes, &out);
  }

 private:
  Ipsec::IpsecDHGeneral dh;
  Ipsec::NonceGenerator generator;
  Bytes initiator;
  Bytes responder;
};

}  // namespace

std::unique_ptr<End> libraryEnd(unsigned group) {
  return std::make_unique<LibraryEnd>(group);
}

}  // namespace Bench
