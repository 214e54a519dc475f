// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ike2.h"

#include "Failure.h"

#include <algorithm>
#include <iostream>

namespace Agent {
namespace {

constexpr std::size_t smallestNonce = 16;
constexpr std::size_t largestNonce = 256;

std::uint64_t toSpi(const ByteVector& bytes) {
  return ByteReader(bytes).u64();
}

// An SPI of zero means "none yet".
ByteVector freshSpi(std::size_t size) {
  while (true) {
    ByteVector spi = randomBytes(size);
    if (std::any_of(spi.begin(), spi.end(), [](unsigned char byte) { return byte != 0; })) {
      return spi;
    }
  }
}

ByteVector nonceOf(const std::vector<Payload>& payloads) {
  const ByteVector& nonce = need(payloads, noncePayload, "nonce").body;
  if (nonce.size() < smallestNonce || nonce.size() > largestNonce) {
    throw Malformed("the peer's nonce has a wrong length");
  }
  return nonce;
}

Secret secretFrom(KeyExchange* own, const std::vector<Payload>& payloads) {
  const KeyExchangeData theirs = parseKe(need(payloads, kePayload, "key exchange").body);
  if (theirs.group != own->group()) {
    throw Malformed("the peer's key exchange uses another group");
  }
  return own->secretWith(theirs.value);
}

}  // namespace

// --- Ike2Sa ---------------------------------------------------------------------------------------------------------

Ike2Sa::Ike2Sa(const Protection& protection, IkeKeys keys, std::uint64_t initiatorSpi, std::uint64_t responderSpi)
    : spiI(initiatorSpi),
      spiR(responderSpi),
      skD(std::move(keys.d)),
      skPi(std::move(keys.pi)),
      skPr(std::move(keys.pr)),
      out(protection, std::move(keys.initiator)),
      in(protection, std::move(keys.responder)) {}

ByteVector Ike2Sa::seal(std::uint8_t exchange, std::uint8_t flags, std::uint32_t messageId,
                        const std::vector<Payload>& payloads) {
  ByteVector plaintext = encodePayloads(payloads);
  const std::size_t block = out.transforms().blockSize();
  const std::size_t padding = (block - (plaintext.size() + 1) % block) % block;
  plaintext.resize(plaintext.size() + padding);
  plaintext.push_back(static_cast<unsigned char>(padding));

  const std::size_t payloadSize = 4 + out.sealedSize(plaintext.size());
  Header header;
  header.spiI = spiI;
  header.spiR = spiR;
  header.firstPayload = encryptedPayload;
  header.exchange = exchange;
  header.flags = flags;
  header.messageId = messageId;
  header.length = static_cast<std::uint32_t>(headerSize + payloadSize);
  const std::uint8_t first = payloads.empty() ? static_cast<std::uint8_t>(noPayload) : payloads.front().type;
  const ByteVector front = ByteWriter().bytes(encodeHeader(header)).u8(first).u8(0).u16(payloadSize).finish();
  return concat({front, out.seal(front, plaintext)});
}

std::optional<Ike2Sa::Opened> Ike2Sa::open(ByteView datagram) const {
  const Message message = parseMessage(datagram);
  if (message.payloads.empty() || message.payloads.back().type != encryptedPayload) {
    return std::nullopt;
  }
  const Payload& encrypted = message.payloads.back();
  const ByteView front = datagram.first(datagram.size() - encrypted.body.size());
  std::optional<ByteVector> plaintext = in.open(front, encrypted.body);
  if (!plaintext) {
    return std::nullopt;
  }
  removeIkePadding(&*plaintext);
  return Opened{encrypted.next, std::move(*plaintext)};
}

void removeIkePadding(ByteVector* plaintext) {
  if (plaintext->empty() || plaintext->back() + std::size_t{1} > plaintext->size()) {
    throw Malformed("the padding is longer than the message");
  }
  plaintext->resize(plaintext->size() - 1 - plaintext->back());
}

// --- IKE_SA_INIT ----------------------------------------------------------------------------------------------------

Ike2Session::Ike2Session(const Options& chosen, Link& connection, const Secret& preSharedKey, KeyLog& log)
    : options(chosen), link(connection), psk(preSharedKey), keyLog(log), initSpi(toSpi(freshSpi(8))) {}

void Ike2Session::init() {
  initNonces.i = randomBytes(32);
  startExchange(options.groups.front());
  constexpr int mostRepetitions = 4;
  ByteVector cookie;
  for (int repetition = 0; repetition < mostRepetitions; ++repetition) {
    initRequest = encodeInit(cookie);
    const InitAnswer answer = sendInit(initRequest);
    if (!mustRepeat(answer.message, &cookie)) {
      finishInit(answer);
      return;
    }
  }
  throw Failure(ExitCode::Protocol, "the peer keeps asking for cookies or groups");
}

void Ike2Session::startExchange(Ipsec::DhGroupNum group) {
  keyExchange = std::make_unique<KeyExchange>(group);
  if (options.zeroPublic) {
    keyExchange->searchLeadingZero();
  }
}

ByteVector Ike2Session::encodeInit(const ByteVector& cookie) const {
  Header header;
  header.spiI = initSpi;
  header.exchange = ikeSaInit;
  header.flags = initiatorFlag;
  std::vector<Payload> payloads;
  if (!cookie.empty()) {
    payloads.push_back(makeNotify(notifyCookie, cookie));
  }
  payloads.push_back(makeSa(ikeOffer()));
  payloads.push_back(makeKe(static_cast<std::uint16_t>(keyExchange->group()), keyExchange->publicValue()));
  payloads.push_back({noncePayload, initNonces.i});
  // The agent handles ESP itself and has only UDP to carry it. A source hash that matches no address makes the peer
  // detect a NAT and put ESP into UDP (RFC 7296 section 2.23).
  payloads.push_back(makeNotify(notifyNatSource, randomBytes(20)));
  const Endpoint peer = link.remote();
  const ByteVector spis = ByteWriter().u64(initSpi).u64(0).finish();
  const ByteVector port = ByteWriter().u16(peer.port()).finish();
  payloads.push_back(makeNotify(notifyNatDestination, hash(Ipsec::HASH_SHA1, {spis, peer.addressBytes(), port})));
  return encodeMessage(header, payloads);
}

Ike2Session::InitAnswer Ike2Session::sendInit(ByteView request) const {
  InitAnswer answer;
  link.exchange(request, [&](ByteView datagram) {
    const Header header = parseHeader(datagram);
    if (header.spiI != initSpi || header.exchange != ikeSaInit || (header.flags & responseFlag) == 0 ||
        header.messageId != 0) {
      return false;
    }
    answer.message = parseMessage(datagram);
    answer.bytes = toVector(datagram);
    return true;
  });
  return answer;
}

bool Ike2Session::mustRepeat(const Message& answer, ByteVector* cookie) {
  if (std::optional<ByteVector> asked = findNotify(answer.payloads, notifyCookie)) {
    step("the peer asks for a cookie");
    *cookie = std::move(*asked);
    return true;
  }
  const std::optional<ByteVector> wanted = findNotify(answer.payloads, notifyInvalidKe);
  if (!wanted) {
    return false;
  }
  const auto group = static_cast<Ipsec::DhGroupNum>(ByteReader(*wanted).u16());
  if (std::find(options.groups.begin(), options.groups.end(), group) == options.groups.end()) {
    throw Failure(ExitCode::Refused, "the peer refuses the group: INVALID_KE_PAYLOAD; it wants " + groupName(group));
  }
  step("the peer asks for group " + groupName(group));
  startExchange(group);
  return true;
}

void Ike2Session::finishInit(const InitAnswer& answer) {
  const std::vector<Payload>& payloads = answer.message.payloads;
  throwIfRefused(payloads, "IKE_SA_INIT");
  const Choice choice = parseSa(need(payloads, saPayload, "security association").body, ikeOffer());
  if (choice.group != keyExchange->group() || answer.message.header.spiR == 0) {
    throw Malformed("the peer's choice does not fit its key exchange");
  }
  ikeGroup = choice.group;
  initNonces.r = nonceOf(payloads);
  initResponse = answer.bytes;
  const Secret secret = secretFrom(keyExchange.get(), payloads);
  const Secret skeyseed = firstSkeyseed(options.prf, initNonces, secret);
  const std::uint64_t spiR = answer.message.header.spiR;
  IkeKeys keys = deriveIkeKeys(options.prf, options.ike, skeyseed, initNonces, initSpi, spiR);
  keyLog.write("init.public", keyExchange->publicValue());
  keyLog.write("init.secret", secret.bytes);
  keyLog.write("init.skeyseed", skeyseed.bytes);
  keyLog.write("init", keys);
  sa = Ike2Sa(options.ike, std::move(keys), initSpi, spiR);
  sa.nextMessageId = 1;
  keyExchange.reset();  // the private key is no longer needed
  link.moveToNatPort();
  step("IKE_SA_INIT done: " + groupName(ikeGroup));
}

// --- IKE_AUTH -------------------------------------------------------------------------------------------------------

ChildSa Ike2Session::authenticate() {
  const ByteVector idBody = makeIdBody(parseIdentity(options.id.empty() ? link.local().host() : options.id));
  const ByteVector auth = authValue(sa.skPi, initRequest, initNonces.r, idBody);
  const Offer offer = espOffer();
  constexpr std::uint8_t sharedKeyMethod = 2;
  const std::vector<Payload> answer =
      request(ikeAuth, {{idIPayload, idBody},
                        {authPayload, ByteWriter().u8(sharedKeyMethod).u8(0).u16(0).bytes(auth).finish()},
                        makeSa(offer),
                        makeTs(tsIPayload, localSubnet()),
                        makeTs(tsRPayload, remoteSubnet())});
  if (find(answer, authPayload) == nullptr) {
    throwIfRefused(answer, "IKE_AUTH");
  }
  established = true;
  verifyPeer(answer);
  step("IKE_AUTH done: the peer knows the key");
  throwIfRefused(answer, "the CHILD_SA");
  return finishChild(answer, offer, Secret(), initNonces);
}

// RFC 7296 section 2.15.
ByteVector Ike2Session::authValue(const Secret& key, ByteView message, ByteView nonce, ByteView idBody) const {
  static constexpr char pad[] = "Key Pad for IKEv2";
  const ByteVector padBytes(pad, pad + sizeof(pad) - 1);
  const Secret authKey = prf(options.prf, psk.bytes, {padBytes});
  const Secret idHash = prf(options.prf, key.bytes, {idBody});
  Secret value = prf(options.prf, authKey.bytes, {message, nonce, idHash.bytes});
  return std::move(value.bytes);
}

// That the peer accepted our AUTH does not prove that it knows the key: only its own AUTH does.
void Ike2Session::verifyPeer(const std::vector<Payload>& answer) const {
  const ByteVector& idBody = need(answer, idRPayload, "identity").body;
  ByteReader auth(need(answer, authPayload, "authentication").body);
  const std::uint8_t method = auth.u8();
  (void)auth.take(3);
  const ByteVector expected = authValue(sa.skPr, initResponse, initNonces.i, idBody);
  if (method != 2 || !equal(auth.takeRest(), expected)) {
    throw Failure(ExitCode::NotTrusted, "the peer's AUTH is wrong: it does not know the pre-shared key");
  }
  const std::string wanted = options.peerId.empty() ? options.link.peer : options.peerId;
  if (idBody != makeIdBody(parseIdentity(wanted))) {
    throw Failure(ExitCode::NotTrusted, "the peer knows the key, but is not " + wanted);
  }
}

// --- CHILD_SAs and rekeying -----------------------------------------------------------------------------------------

ChildSa Ike2Session::finishChild(const std::vector<Payload>& answer, const Offer& offer, const Secret& dhSecret,
                                 const Nonces& nonces) {
  const Choice choice = parseSa(need(answer, saPayload, "security association").body, offer);
  if (!tsWithin(need(answer, tsIPayload, "traffic selector").body, localSubnet()) ||
      !tsWithin(need(answer, tsRPayload, "traffic selector").body, remoteSubnet())) {
    throw Malformed("the peer's traffic selectors are wider than those offered");
  }
  ChildKeys keys = deriveChildKeys(options.prf, options.esp, sa.skD, dhSecret, nonces);
  const std::string name = "child" + std::to_string(++childCount);
  keyLog.write(name + ".secret", dhSecret.bytes);
  keyLog.write(name, keys);
  step("CHILD_SA " + std::to_string(childCount) + " is up");
  return {options.esp, ByteReader(offer.spi).u32(), ByteReader(choice.spi).u32(), std::move(keys)};
}

ChildSa Ike2Session::createChild(Ipsec::DhGroupNum group) {
  Offer offer = espOffer();
  Nonces nonces;
  nonces.i = randomBytes(32);
  std::vector<Payload> payloads;
  std::unique_ptr<KeyExchange> own;
  if (group != Ipsec::MODP_NONE) {
    offer.groups = {group};
    own = std::make_unique<KeyExchange>(group);
  }
  payloads.push_back(makeSa(offer));
  payloads.push_back({noncePayload, nonces.i});
  if (own) {
    payloads.push_back(makeKe(static_cast<std::uint16_t>(group), own->publicValue()));
  }
  payloads.push_back(makeTs(tsIPayload, localSubnet()));
  payloads.push_back(makeTs(tsRPayload, remoteSubnet()));
  const std::vector<Payload> answer = request(createChildSa, payloads);
  throwIfRefused(answer, "another CHILD_SA");
  nonces.r = nonceOf(answer);
  const Secret secret = own ? secretFrom(own.get(), answer) : Secret();
  return finishChild(answer, offer, secret, nonces);
}

bool Ike2Session::rekey() {
  Offer offer = ikeOffer();
  offer.spi = freshSpi(8);
  offer.groups = {ikeGroup};
  Nonces nonces;
  nonces.i = randomBytes(32);
  KeyExchange own(ikeGroup);
  if (options.zeroSecret > 0) {
    own.useWeakKey();
  }
  const std::vector<Payload> answer = request(
      createChildSa,
      {makeSa(offer), {noncePayload, nonces.i}, makeKe(static_cast<std::uint16_t>(ikeGroup), own.publicValue())});
  throwIfRefused(answer, "the rekeying");
  const Choice choice = parseSa(need(answer, saPayload, "security association").body, offer);
  nonces.r = nonceOf(answer);
  const Secret secret = secretFrom(&own, answer);
  const Secret skeyseed = rekeySkeyseed(options.prf, sa.skD, nonces, secret);
  const std::uint64_t spiI = toSpi(offer.spi);
  const std::uint64_t spiR = toSpi(choice.spi);
  IkeKeys keys = deriveIkeKeys(options.prf, options.ike, skeyseed, nonces, spiI, spiR);
  keyLog.write("rekey.secret", secret.bytes);
  keyLog.write("rekey.skeyseed", skeyseed.bytes);
  keyLog.write("rekey", keys);
  Ike2Sa fresh(options.ike, std::move(keys), spiI, spiR);
  (void)request(informational, {makeDelete(ikeProtocol, {})});
  sa = std::move(fresh);
  step("IKE SA rekeyed");
  return secret.bytes.front() == 0;
}

void Ike2Session::deleteChild(const ChildSa& child) {
  (void)request(informational, {makeDelete(espProtocol, ByteWriter().u32(child.inboundSpi()).finish())});
  step("a CHILD_SA is deleted");
}

void Ike2Session::close() {
  if (!std::exchange(established, false)) {
    return;
  }
  (void)request(informational, {makeDelete(ikeProtocol, {})});
  step("IKE SA deleted");
}

// --- Protected requests ---------------------------------------------------------------------------------------------

std::vector<Payload> Ike2Session::request(std::uint8_t exchange, const std::vector<Payload>& payloads) {
  const std::uint32_t messageId = sa.nextMessageId++;
  std::optional<Ike2Sa::Opened> opened;
  link.exchange(sa.seal(exchange, initiatorFlag, messageId, payloads), [&](ByteView datagram) {
    const Header header = parseHeader(datagram);
    if (header.spiI != sa.spiI || header.spiR != sa.spiR) {
      return false;
    }
    if ((header.flags & responseFlag) == 0) {
      answerPeer(header, datagram);
      return false;
    }
    if (header.messageId == messageId && header.exchange == exchange) {
      opened = sa.open(datagram);
    }
    return opened.has_value();
  });
  return parsePayloads(opened->first, opened->payloads);
}

// The peer asks whether the agent is alive, or says that it deletes something. Both get an empty answer.
void Ike2Session::answerPeer(const Header& header, ByteView datagram) {
  if (header.exchange == informational && sa.open(datagram)) {
    link.sendIke(sa.seal(informational, initiatorFlag | responseFlag, header.messageId, {}));
  }
}

Offer Ike2Session::ikeOffer() const {
  return {ikeProtocol, {}, options.ike, options.prf, options.groups};
}

Offer Ike2Session::espOffer() const {
  return {espProtocol, freshSpi(4), options.esp, std::nullopt, {}};
}

Subnet Ike2Session::localSubnet() const {
  return parseSubnet(options.tsLocal.empty() ? link.local().host() : options.tsLocal);
}

Subnet Ike2Session::remoteSubnet() const {
  return parseSubnet(options.tsRemote.empty() ? options.link.peer : options.tsRemote);
}

void Ike2Session::step(const std::string& text) const {
  if (options.verbose) {
    std::cout << text << '\n';
  }
}

}  // namespace Agent
