// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Keys.h"

#include "Failure.h"

namespace Agent {
namespace {

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw Failure(ExitCode::Internal, std::string(what) + " failed");
  }
}

}  // namespace

KeyExchange::KeyExchange(Ipsec::DhGroupNum chosen) : number(chosen), dh(chosen) {
  require(dh.initIpsecDH(), "generating a Diffie-Hellman key pair");
}

ByteVector KeyExchange::publicValue() {
  ByteVector value;
  require(dh.getMyPublicKey(&value), "reading the Diffie-Hellman public value");
  return value;
}

Secret KeyExchange::secretWith(const ByteVector& peerValue) {
  if (!dh.setPeerPublicKey(&peerValue)) {
    throw Failure(ExitCode::Protocol, "the peer's public value does not belong to " + groupName(number));
  }
  Secret secret;
  require(dh.getSharedSecret(&secret.bytes), "reading the Diffie-Hellman secret");
  return secret;
}

void KeyExchange::useWeakKey() {
  constexpr std::size_t weakKeyBytes = 12;
  const Secret weakKey(randomBytes(weakKeyBytes));
  require(dh.setMyPrivateKey(&weakKey.bytes), "setting a Diffie-Hellman private key");
}

void KeyExchange::searchLeadingZero() {
  // One public value in 256 begins with a zero byte. That many draws find none with a probability of e^-50.
  constexpr int draws = 12800;
  for (int draw = 0; draw < draws; ++draw) {
    useWeakKey();
    if (publicValue().front() == 0) {
      return;
    }
  }
  throw Failure(ExitCode::NotFound, "no public value with a leading zero byte in " + std::to_string(draws) + " draws");
}

ByteVector randomBytes(std::size_t count) {
  ByteVector bytes;
  require(Ipsec::NonceGenerator(count).generateNonce(&bytes), "drawing random bytes");
  return bytes;
}

Secret prf(Ipsec::PrfType type, const ByteVector& key, std::initializer_list<ByteView> parts) {
  Ipsec::HmacPRFunc function;
  require(function.initHmacPRFunc(hashOf(type)), "setting up the PRF");
  require(function.setKey(&key), "keying the PRF");
  for (const ByteView part : parts) {
    const Secret input(toVector(part));
    require(function.generatePRStream(&input.bytes, nullptr), "computing the PRF");
  }
  const ByteVector nothing;
  Secret output;
  require(function.generatePRStream(&nothing, &output.bytes), "computing the PRF");
  return output;
}

KeyStream::KeyStream(Ipsec::PrfType type, const ByteVector& key, const ByteVector& seed, bool counter)
    : keyCopy(key), stream(&function, counter) {
  require(function.initHmacPRFunc(hashOf(type)), "setting up the PRF");
  require(function.setKey(&keyCopy.bytes), "keying the PRF");
  require(stream.initPRFuncPlus(&seed), "starting the key stream");
}

Secret KeyStream::draw(std::size_t count) {
  Secret out;
  require(stream.generatePRStream(count, &out.bytes), "drawing from the key stream");
  return out;
}

ByteVector Nonces::both() const {
  // generateFullNonce refuses nonces of different lengths, and the peer may choose another length than ours.
  if (i.size() != r.size()) {
    return concat({i, r});
  }
  ByteVector joined;
  require(Ipsec::NonceGenerator().generateFullNonce(&joined, &i, &r), "joining the nonces");
  return joined;
}

Secret firstSkeyseed(Ipsec::PrfType type, const Nonces& nonces, const Secret& dhSecret) {
  return prf(type, nonces.both(), {dhSecret.bytes});
}

Secret rekeySkeyseed(Ipsec::PrfType oldType, const Secret& oldD, const Nonces& nonces, const Secret& dhSecret) {
  return prf(oldType, oldD.bytes, {dhSecret.bytes, nonces.both()});
}

IkeKeys deriveIkeKeys(Ipsec::PrfType type, const Protection& protection, const Secret& skeyseed, const Nonces& nonces,
                      std::uint64_t spiI, std::uint64_t spiR) {
  const ByteVector seed = ByteWriter().bytes(nonces.both()).u64(spiI).u64(spiR).finish();
  KeyStream stream(type, skeyseed.bytes, seed, true);
  // An HMAC prefers a key of its output's length. SKEYSEED has that length if this PRF computed it.
  Ipsec::HmacPRFunc function;
  require(function.initHmacPRFunc(hashOf(type)), "setting up the PRF");
  const std::size_t prfKeyLen = function.getKeySize();

  IkeKeys keys;
  keys.d = stream.draw(prfKeyLen);
  keys.initiator.integ = stream.draw(protection.integKeyLen());
  keys.responder.integ = stream.draw(protection.integKeyLen());
  keys.initiator.encr = stream.draw(protection.encrKeyLen());
  keys.responder.encr = stream.draw(protection.encrKeyLen());
  keys.pi = stream.draw(prfKeyLen);
  keys.pr = stream.draw(prfKeyLen);
  return keys;
}

ChildKeys deriveChildKeys(Ipsec::PrfType type, const Protection& protection, const Secret& skD, const Secret& dhSecret,
                          const Nonces& nonces) {
  const Secret seed(concat({dhSecret.bytes, nonces.both()}));
  KeyStream stream(type, skD.bytes, seed.bytes, true);
  ChildKeys keys;
  keys.initiator.encr = stream.draw(protection.encrKeyLen());
  keys.initiator.integ = stream.draw(protection.integKeyLen());
  keys.responder.encr = stream.draw(protection.encrKeyLen());
  keys.responder.integ = stream.draw(protection.integKeyLen());
  return keys;
}

}  // namespace Agent
