// Gives the agent's parsers what a hostile peer, or anybody on the way, may send. The first byte chooses the parser. A
// parser may only return a result, throw Malformed, or throw a Failure that reports a refusal.

#include "Esp.h"
#include "Failure.h"
#include "Ike2.h"
#include "Message.h"
#include "Payloads.h"
#include "Payloads1.h"

#include <cstdlib>

namespace {

using namespace Agent;

Offer ikeOffer() {
  Offer offer;
  offer.prf = Ipsec::PRF_HMAC_SHA2_256;
  offer.groups = {Ipsec::MODP_2048, Ipsec::ECP_256};
  return offer;
}

Offer espOffer() {
  Offer offer;
  offer.protocol = espProtocol;
  offer.spi = ByteVector(4);
  offer.protection.encr = {Ipsec::ENCR_AES_GCM_16, 128};
  return offer;
}

template <class Parser>
void attempt(Parser parser) {
  try {
    parser();
  } catch (const Malformed&) {
  } catch (const Failure&) {
  }
}

void readBodies(const std::vector<Payload>& payloads) {
  const Protection protection;
  for (const Payload& payload : payloads) {
    const ByteVector& body = payload.body;
    attempt([&] { (void)parseSa(body, ikeOffer()); });
    attempt([&] { (void)parseSa(body, espOffer()); });
    attempt([&] { (void)parseKe(body); });
    attempt([&] { (void)tsWithin(body, parseSubnet("10.0.0.0/8")); });
    attempt([&] { (void)tsWithin(body, parseSubnet("fd00::/64")); });
    attempt([&] { (void)notifyName(parseNotify(body).type); });
    attempt([&] { (void)parseSa1(body, ikeOffer1(protection, Ipsec::PRF_HMAC_SHA1, Ipsec::MODP_1024)); });
    attempt([&] { (void)parseSa1(body, espOffer1(protection, ByteVector(4), Ipsec::MODP_NONE)); });
    attempt([&] { (void)notifyName1(parseNotify1(body)); });
  }
  attempt([&] { throwIfRefused(payloads, "the fuzzer"); });
  attempt([&] { (void)findNotify(payloads, notifyCookie); });
}

// A message that can be parsed is written back as the same bytes, except for reserved bits and next payload fields.
void readMessage(ByteView datagram) {
  const Message message = parseMessage(datagram);
  readBodies(message.payloads);
  const std::size_t rewritten = headerSize + encodePayloads(message.payloads).size();
  if (rewritten != datagram.size()) {
    std::abort();
  }
}

void readDecrypted(ByteView input, bool version1Rules) {
  ByteReader in(input);
  const std::uint8_t first = in.u8();
  ByteVector plaintext = toVector(in.takeRest());
  if (!version1Rules) {
    removeIkePadding(&plaintext);
  }
  readBodies(parsePayloads(first, plaintext, version1Rules));
}

void readEncrypted(ByteView datagram) {
  IkeKeys keys;
  keys.initiator.integ = Secret(ByteVector(32));
  keys.responder.integ = Secret(ByteVector(32));
  keys.initiator.encr = Secret(ByteVector(32));
  keys.responder.encr = Secret(ByteVector(32));
  const Ike2Sa sa(Protection(), std::move(keys), 1, 2);
  (void)sa.open(datagram);
}

// Input that reaches the code after the check of the ICV: ESP without encryption, with a correct ICV.
void readEsp(ByteView input) {
  Protection protection;
  protection.encr = {Ipsec::ENCR_NULL, 0};
  ChildKeys keys;
  keys.responder.integ = Secret(ByteVector(32));
  ChildSa child(protection, 1, 2, std::move(keys));
  const ByteVector head = ByteWriter().u32(1).u32(1).finish();
  DirectionKeys peer;
  peer.integ = Secret(ByteVector(32));
  Sealer sealer(protection, std::move(peer));
  const ByteVector four(4, 10);
  const ByteVector sixteen(16, 10);
  const std::optional<ByteVector> inside = child.decapsulate(concat({head, sealer.seal(head, input)}));
  if (inside) {
    (void)isEchoReply(*inside, echoRequest(four, four, 1, 1));
    (void)isEchoReply(*inside, echoRequest(sixteen, sixteen, 1, 1));
  }
  (void)child.decapsulate(input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const ByteView input(data + 1, size - 1);
  attempt([&] {
    switch (data[0] % 5) {
      case 0:
        return readMessage(input);
      case 1:
        return readDecrypted(input, false);
      case 2:
        return readDecrypted(input, true);
      case 3:
        return readEncrypted(input);
      default:
        return readEsp(input);
    }
  });
  return 0;
}
