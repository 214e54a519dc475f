// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Gives the agent's parsers what a hostile peer, or anybody on the way, may send. The first byte chooses the parser. A
// parser may only return a result, throw Malformed, or throw a Failure that reports a refusal. A result must be what
// was sent: written back, it gives the same bytes but for those that the parsers skip.

#include "Esp.h"
#include "Failure.h"
#include "Ike2.h"
#include "Message.h"
#include "Payloads.h"
#include "Payloads1.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

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

void require(bool holds, const char* what) {
  if (!holds) {
    (void)std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
  }
}

// Reads what was written back, which no parser may refuse.
template <class Parser>
auto readAgain(Parser parser) {
  try {
    return parser();
  } catch (const std::exception&) {
    require(false, "what was written back is refused");
    throw;
  }
}

// A choice is one of those offered, and a peer that is offered it alone chooses it.
void readChoice(ByteView body, Offer offer) {
  const Choice choice = parseSa(body, offer);
  const auto& groups = offer.groups;
  require(groups.empty() ? choice.group == Ipsec::MODP_NONE
                         : std::find(groups.begin(), groups.end(), choice.group) != groups.end(),
          "a group is chosen that was not offered");
  offer.spi = choice.spi;
  if (!groups.empty()) {
    offer.groups.assign(1, choice.group);  // g++ 14 sees a read behind the end of {choice.group}
  }
  const Choice again = readAgain([&] { return parseSa(makeSa(offer).body, offer); });
  require(again.spi == choice.spi && again.group == choice.group, "a choice that is offered again is another one");
}

void readKe(ByteView body) {
  const KeyExchangeData ke = parseKe(body);
  ByteVector sent = toVector(body);
  sent[2] = sent[3] = 0;  // reserved
  require(makeKe(ke.group, ke.value).body == sent, "a KE payload is read wrongly");
}

void readNotify(ByteView body) {
  const Notify notify = parseNotify(body);
  const std::size_t spiSize = body[1];
  ByteVector sent = toVector(body);
  sent[0] = sent[1] = 0;  // the protocol and the size of the SPI, which are skipped with it
  sent.erase(sent.begin() + 4, sent.begin() + 4 + static_cast<std::ptrdiff_t>(spiSize));
  require(makeNotify(notify.type, notify.data).body == sent, "a notify is read wrongly");
  require(!notifyName(notify.type).empty(), "a notify has no name");
}

// All addresses within a subnet begin with the subnet's own bytes.
void readTs(ByteView body, const char* text, std::size_t prefixBytes) {
  const Subnet offered = parseSubnet(text);
  if (!tsWithin(body, offered)) {
    return;
  }
  const std::size_t size = offered.address.size();
  require(body.size() == 4 + body[0] * (8 + 2 * size), "selectors of another length are taken");
  for (std::size_t at = 12; at < body.size(); at += 8 + 2 * size) {
    const ByteView from = body.subspan(at, size);
    const ByteView to = body.subspan(at + size, size);
    const auto prefix = offered.address.begin();
    require(std::equal(from.begin(), from.begin() + static_cast<std::ptrdiff_t>(prefixBytes), prefix) &&
                std::equal(to.begin(), to.begin() + static_cast<std::ptrdiff_t>(prefixBytes), prefix),
            "a selector beyond the offer is taken");
  }
}

void readBodies(const std::vector<Payload>& payloads) {
  const Protection protection;
  for (const Payload& payload : payloads) {
    const ByteVector& body = payload.body;
    attempt([&] { readChoice(body, ikeOffer()); });
    attempt([&] { readChoice(body, espOffer()); });
    attempt([&] { readKe(body); });
    attempt([&] { readTs(body, "10.0.0.0/8", 1); });
    attempt([&] { readTs(body, "fd00::/64", 8); });
    attempt([&] { readNotify(body); });
    attempt([&] { (void)parseSa1(body, ikeOffer1(protection, Ipsec::PRF_HMAC_SHA1, Ipsec::MODP_1024)); });
    attempt([&] {
      const ByteVector spi = parseSa1(body, espOffer1(protection, ByteVector(4), Ipsec::MODP_NONE));
      require(spi.size() == 4, "an SPI of another length is taken");
    });
    attempt([&] { (void)notifyName1(parseNotify1(body)); });
  }
  attempt([&] { throwIfRefused(payloads, "the fuzzer"); });
  attempt([&] { (void)findNotify(payloads, notifyCookie); });
}

// Payloads that can be read are written back as the same bytes, except for the critical bits and reserved ones.
void requireWrittenBack(const std::vector<Payload>& payloads, ByteVector sent) {
  std::size_t at = 0;
  for (const Payload& payload : payloads) {
    sent[at + 1] = 0;
    at += 4 + payload.body.size();
  }
  sent.resize(at);  // IKEv1 pads
  const std::uint8_t last = payloads.empty() ? std::uint8_t{noPayload} : payloads.back().next;
  require(encodePayloads(payloads, last) == sent, "payloads are read wrongly");
}

void readMessage(ByteView datagram) {
  const Message message = parseMessage(datagram);
  readBodies(message.payloads);
  require(encodeHeader(message.header) == toVector(datagram.first(headerSize)), "a header is read wrongly");
  requireWrittenBack(message.payloads, toVector(datagram.subspan(headerSize)));
}

void readDecrypted(ByteView input, bool version1Rules) {
  ByteReader in(input);
  const std::uint8_t first = in.u8();
  ByteVector plaintext = toVector(in.takeRest());
  if (!version1Rules) {
    const ByteVector before = plaintext;
    removeIkePadding(&plaintext);
    require(plaintext.size() + 1 + before.back() == before.size() &&
                std::equal(plaintext.begin(), plaintext.end(), before.begin()),
            "more than the padding is removed");
  }
  const std::vector<Payload> payloads = parsePayloads(first, plaintext, version1Rules);
  readBodies(payloads);
  requireWrittenBack(payloads, plaintext);
}

void readEncrypted(ByteView datagram) {
  IkeKeys keys;
  keys.initiator.integ = Secret(ByteVector(32));
  keys.responder.integ = Secret(ByteVector(32));
  keys.initiator.encr = Secret(ByteVector(32));
  keys.responder.encr = Secret(ByteVector(32));
  const Ike2Sa sa(Protection(), std::move(keys), 1, 2);
  require(!sa.open(datagram), "a message without a right ICV is opened");
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
  const ByteVector packet = concat({head, sealer.seal(head, input)});
  const std::optional<ByteVector> inside = child.decapsulate(packet);
  if (inside) {
    const std::size_t padding = input[input.size() - 2];
    require(*inside == toVector(input.first(input.size() - 2 - padding)), "a packet is opened wrongly");
    (void)isEchoReply(*inside, echoRequest(four, four, 1, 1));
    (void)isEchoReply(*inside, echoRequest(sixteen, sixteen, 1, 1));
  }
  require(!child.decapsulate(packet), "a packet is taken a second time");
  require(!child.decapsulate(input), "a packet without a right ICV is opened");
}

// An address with or without a prefix. Written back in the system's own form, it is read as the same one.
void readSubnet(ByteView input) {
  const Subnet subnet = parseSubnet(std::string(input.begin(), input.end()));
  const bool ipv4 = subnet.address.size() == 4;
  char text[INET6_ADDRSTRLEN] = {};
  require(inet_ntop(ipv4 ? AF_INET : AF_INET6, subnet.address.data(), text, sizeof text) != nullptr, "no address");
  const std::string written = std::string(text) + "/" + std::to_string(subnet.prefixBits);
  const Subnet again = readAgain([&] { return parseSubnet(written); });
  require(again.address == subnet.address && again.prefixBits == subnet.prefixBits, "a subnet is read wrongly");
  const ByteVector lowest = subnet.lowest();
  const ByteVector highest = subnet.highest();
  for (std::size_t bit = 0; bit < 8 * lowest.size(); ++bit) {
    const unsigned at = 0x80U >> bit % 8;
    const unsigned address = subnet.address[bit / 8] & at;
    const bool isFree = (lowest[bit / 8] & at) != (highest[bit / 8] & at);
    require(isFree == (bit >= subnet.prefixBits), "a bit is free that is not, or the other way round");
    require(isFree || (lowest[bit / 8] & at) == address, "a subnet is another one than its address's");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const ByteView input(data + 1, size - 1);
  attempt([&] {
    switch (data[0] % 6) {
      case 0:
        return readMessage(input);
      case 1:
        return readDecrypted(input, false);
      case 2:
        return readDecrypted(input, true);
      case 3:
        return readEncrypted(input);
      case 4:
        return readSubnet(input);
      default:
        return readEsp(input);
    }
  });
  return 0;
}
