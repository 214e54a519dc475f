// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Agent.h"

#include "Failure.h"

#include <openssl/rand.h>

#include <chrono>

namespace Exchange {
namespace {

constexpr unsigned long nonceLength = 32;  // half the largest PRF key used here, as RFC 7296 section 2.10 requires
constexpr unsigned long spiLength = 8;

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

ByteVector drawRandom(unsigned long length) {
  // generateNonce does not report every failure of the random generator.
  require(RAND_status() == 1, "RAND_status");
  ByteVector drawn;
  require(Ipsec::NonceGenerator(length).generateNonce(&drawn), "NonceGenerator::generateNonce");
  return drawn;
}

void append(ByteVector& bytes, const ByteVector& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace

Agent::Agent(Side ownSide, const Group& group, const Suite& ownSuite)
    : side(ownSide), suite(ownSuite), exchange(group.number) {
  const Clock::time_point start = Clock::now();
  require(exchange.initIpsecDH(), "IpsecDHGeneral::initIpsecDH");
  initTime = microsecondsSince(start);
  require(exchange.getMyPublicKey(&half.publicValue), "IpsecDHGeneral::getMyPublicKey");
  half.nonce = drawRandom(nonceLength);
  half.spi = drawRandom(spiLength);
}

void Agent::complete(const Half& peer) {
  const Clock::time_point start = Clock::now();
  if (!exchange.setPeerPublicKey(&peer.publicValue)) {
    throw Failure("IpsecDHGeneral::setPeerPublicKey refused the peer's public value");
  }
  require(exchange.getSharedSecret(&secret.bytes), "IpsecDHGeneral::getSharedSecret");
  agreementTime = microsecondsSince(start);

  const bool first = side == Side::Initiator;
  const Half& initiator = first ? half : peer;
  const Half& responder = first ? peer : half;
  publicValues = {initiator.publicValue, responder.publicValue};
  ByteVector fullNonce;
  require(Ipsec::NonceGenerator().generateFullNonce(&fullNonce, &initiator.nonce, &responder.nonce),
          "NonceGenerator::generateFullNonce");
  skeyseed = prf(suite, fullNonce, secret.bytes);
  seed = fullNonce;
  append(seed, initiator.spi);
  append(seed, responder.spi);
  keys = drawKeys(suite, skeyseed, seed);
}

std::vector<Fingerprint> Agent::fingerprints(Side sender) const {
  std::vector<Fingerprint> result;
  const auto add = [&](const std::string& name, const ByteVector& item) {
    const std::string label = (sender == Side::Initiator ? "initiator " : "responder ") + name;
    result.push_back({name, prf(suite, item, ByteVector(label.begin(), label.end())).bytes});
  };
  add("the initiator's public value", publicValues.first);
  add("the responder's public value", publicValues.second);
  add("the nonces and SPIs", seed);
  add("the shared secret", secret.bytes);
  add("SKEYSEED", skeyseed.bytes);
  for (std::size_t index = 0; index < keyCount; ++index) {
    add(keyNames[index], keys[index].bytes);
  }
  return result;
}

}  // namespace Exchange
