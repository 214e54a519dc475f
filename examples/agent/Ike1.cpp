// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Ike1.h"

#include "Failure.h"

#include <iostream>
#include <memory>

namespace Agent {
namespace {

// The hash of "RFC 3947". A peer that sends it supports ESP in UDP.
constexpr unsigned char natTraversalVendor[] = {0x4A, 0x13, 0x1C, 0x81, 0x07, 0x03, 0x58, 0x45,
                                                0x5C, 0x57, 0x28, 0xF2, 0x0E, 0x95, 0x45, 0x2F};

}  // namespace

Secret expandCipherKey(Ipsec::PrfType type, const Secret& skeyidE, std::size_t length) {
  if (skeyidE.bytes.size() >= length) {
    return Secret(toVector(ByteView(skeyidE.bytes).first(length)));
  }
  // Each link of the chain is computed from the previous one alone. prf+ would add its seed in every link.
  const ByteVector zero(1);
  Secret link = prf(type, skeyidE.bytes, {zero});
  Secret chain(link.bytes);
  while (chain.bytes.size() < length) {
    link = prf(type, skeyidE.bytes, {link.bytes});
    chain = Secret(concat({chain.bytes, link.bytes}));
  }
  return Secret(toVector(ByteView(chain.bytes).first(length)));
}

Ike1Session::Ike1Session(const Options& chosen, Link& connection, const Secret& preSharedKey, KeyLog& log)
    : options(chosen), link(connection), psk(preSharedKey), keyLog(log), cookieI(randomBytes(8)) {}

// --- Main mode ------------------------------------------------------------------------------------------------------

void Ike1Session::mainMode() {
  const Offer1 offer = ikeOffer1(options.ike, options.prf, options.groups.front());
  const Payload sa = makeSa1(offer);
  saBody = sa.body;
  const std::vector<Payload> answer = clearExchange({sa, {vendor1Payload, toVector(natTraversalVendor)}}, sa1Payload);
  (void)parseSa1(need(answer, sa1Payload, "security association").body, offer);
  KeyExchange own(options.groups.front());
  if (options.zeroPublic) {
    own.searchLeadingZero();
  }
  exchangeValues(&own);
  link.moveToNatPort();
  exchangeIdentities();
  established = true;
  step("main mode done: the peer knows the key");
}

void Ike1Session::exchangeValues(KeyExchange* own) {
  nonces1.i = randomBytes(32);
  publicI = own->publicValue();
  const Endpoint peer = link.remote();
  const ByteVector port = ByteWriter().u16(peer.port()).finish();
  const ByteVector peerHash = hash(hashOf(options.prf), {cookies(), peer.addressBytes(), port});
  // As in IKEv2, a source hash that matches no address makes the peer put ESP into UDP.
  const std::vector<Payload> answer = clearExchange({{ke1Payload, publicI},
                                                     {nonce1Payload, nonces1.i},
                                                     {natD1Payload, peerHash},
                                                     {natD1Payload, randomBytes(peerHash.size())}},
                                                    ke1Payload);
  publicR = need(answer, ke1Payload, "key exchange").body;
  nonces1.r = need(answer, nonce1Payload, "nonce").body;
  const Secret secret = own->secretWith(publicR);
  keyLog.write("init.public", publicI);
  keyLog.write("init.secret", secret.bytes);
  deriveKeys(secret);
}

void Ike1Session::deriveKeys(const Secret& dhSecret) {
  const ByteVector both = cookies();
  const ByteVector zero = {0};
  const ByteVector one = {1};
  const ByteVector two = {2};
  const Ipsec::PrfType type = options.prf;
  keys.skeyid = prf(type, psk.bytes, {nonces1.both()});
  keys.d = prf(type, keys.skeyid.bytes, {dhSecret.bytes, both, zero});
  keys.a = prf(type, keys.skeyid.bytes, {keys.d.bytes, dhSecret.bytes, both, one});
  keys.e = prf(type, keys.skeyid.bytes, {keys.a.bytes, dhSecret.bytes, both, two});
  keys.cipher = expandCipherKey(type, keys.e, options.ike.encrKeyLen());
  phase1Iv = hash(hashOf(type), {publicI, publicR});
  phase1Iv.resize(options.ike.blockSize());
  keyLog.write("init.skeyid", keys.skeyid.bytes);
  keyLog.write("init.skeyid_d", keys.d.bytes);
  keyLog.write("init.skeyid_a", keys.a.bytes);
  keyLog.write("init.skeyid_e", keys.e.bytes);
  keyLog.write("init.ka", keys.cipher.bytes);
}

void Ike1Session::exchangeIdentities() {
  const ByteVector idBody = ownIdBody();
  const Secret proof = prf(options.prf, keys.skeyid.bytes, {publicI, publicR, cookieI, cookieR, saBody, idBody});
  const ByteVector payloads = encodePayloads({{id1Payload, idBody}, {hash1Payload, proof.bytes}});
  const ByteVector messageId(4);
  ByteVector iv = phase1Iv;
  const ByteVector message = seal(mainModeExchange, messageId, payloads, id1Payload, &iv);
  std::vector<Payload> answer;
  link.exchange(message, [&](ByteView datagram) {
    const Header header = parseHeader(datagram);
    heedNotify(header, datagram);
    if (!isMine(header, mainModeExchange, messageId) || (header.flags & encryptedFlag) == 0) {
      return false;
    }
    ByteVector nextIv = iv;
    answer = open(datagram, &nextIv);
    phase1Iv = nextIv;
    return true;
  });
  verifyPeer(answer);
}

void Ike1Session::verifyPeer(const std::vector<Payload>& answer) const {
  const ByteVector& idBody = need(answer, id1Payload, "identity").body;
  const Secret expected = prf(options.prf, keys.skeyid.bytes, {publicR, publicI, cookieR, cookieI, saBody, idBody});
  if (!equal(need(answer, hash1Payload, "hash").body, expected.bytes)) {
    throw Failure(ExitCode::NotTrusted, "the peer's hash is wrong: it does not know the pre-shared key");
  }
  const std::string wanted = options.peerId.empty() ? options.link.peer : options.peerId;
  const Identity identity = parseIdentity(wanted);
  ByteReader id(idBody);
  const std::uint8_t type = id.u8();
  (void)id.take(3);  // protocol and port
  if (type != identity.type || !equal(id.takeRest(), identity.data)) {
    throw Failure(ExitCode::NotTrusted, "the peer knows the key, but is not " + wanted);
  }
}

// --- Quick mode -----------------------------------------------------------------------------------------------------

ChildSa Ike1Session::quickMode(Ipsec::DhGroupNum group) {
  const Offer1 offer = espOffer1(options.esp, randomBytes(4), group);
  const ByteVector messageId = randomBytes(4);
  Nonces nonces;
  nonces.i = randomBytes(32);
  std::vector<Payload> payloads = {makeSa1(offer), {nonce1Payload, nonces.i}};
  std::unique_ptr<KeyExchange> own;
  if (group != Ipsec::MODP_NONE) {
    own = std::make_unique<KeyExchange>(group);
    payloads.push_back({ke1Payload, own->publicValue()});
  }
  const std::string localEnd = options.tsLocal.empty() ? link.local().host() : options.tsLocal;
  const std::string remoteEnd = options.tsRemote.empty() ? options.link.peer : options.tsRemote;
  payloads.push_back(makeSubnetId1(parseSubnet(localEnd)));
  payloads.push_back(makeSubnetId1(parseSubnet(remoteEnd)));

  ByteVector iv = exchangeIv(messageId);
  const ByteVector message = sealHashed(quickModeExchange, messageId, messageId, payloads, &iv);
  std::vector<Payload> answer;
  link.exchange(message, [&](ByteView datagram) {
    const Header header = parseHeader(datagram);
    heedNotify(header, datagram);
    if (!isMine(header, quickModeExchange, messageId)) {
      return false;
    }
    ByteVector nextIv = iv;
    answer = open(datagram, &nextIv);
    checkHashed(answer, concat({messageId, nonces.i}));
    iv = nextIv;
    return true;
  });
  nonces.r = need(answer, nonce1Payload, "nonce").body;
  const ByteVector zero(1);
  const Secret last = prf(options.prf, keys.a.bytes, {zero, messageId, nonces.i, nonces.r});
  lastQuickMessage =
      seal(quickModeExchange, messageId, encodePayloads({{hash1Payload, last.bytes}}), hash1Payload, &iv);
  link.sendIke(lastQuickMessage);
  return finishQuick(answer, offer, own.get(), nonces);
}

ChildSa Ike1Session::finishQuick(const std::vector<Payload>& answer, const Offer1& offer, KeyExchange* own,
                                 const Nonces& nonces) {
  const ByteVector spi = parseSa1(need(answer, sa1Payload, "security association").body, offer);
  Secret secret;
  if (own != nullptr) {
    secret = own->secretWith(need(answer, ke1Payload, "key exchange").body);
  }
  ChildKeys childKeys;
  childKeys.initiator = keymat(secret, spi, nonces);
  childKeys.responder = keymat(secret, offer.spi, nonces);
  keyLog.write("child1.secret", secret.bytes);
  keyLog.write("child1", childKeys);
  step("quick mode done");
  return {options.esp, ByteReader(offer.spi).u32(), ByteReader(spi).u32(), std::move(childKeys)};
}

// RFC 2409 section 5.5: KEYMAT of the SA with this SPI.
DirectionKeys Ike1Session::keymat(const Secret& dhSecret, const ByteVector& spi, const Nonces& nonces) const {
  const ByteVector protocol = {espProtocol};
  const Secret seed(concat({dhSecret.bytes, protocol, spi, nonces.i, nonces.r}));
  KeyStream stream(options.prf, keys.d.bytes, seed.bytes, false);
  DirectionKeys drawn;
  drawn.encr = stream.draw(options.esp.encrKeyLen());
  drawn.integ = stream.draw(options.esp.integKeyLen());
  return drawn;
}

void Ike1Session::close() {
  if (!std::exchange(established, false)) {
    return;
  }
  const ByteVector messageId = randomBytes(4);
  ByteVector iv = exchangeIv(messageId);
  link.sendIke(sealHashed(informationalExchange1, messageId, messageId, {makeDelete1(ikeProtocol, cookies())}, &iv));
  step("ISAKMP SA deleted");
}

// --- Messages -------------------------------------------------------------------------------------------------------

std::vector<Payload> Ike1Session::clearExchange(const std::vector<Payload>& payloads, std::uint8_t wanted) {
  Header request;
  request.spiI = ByteReader(cookieI).u64();
  request.spiR = ByteReader(cookieR).u64();
  request.version = version1;
  request.exchange = mainModeExchange;
  const ByteVector messageId(4);
  Message answer;
  link.exchange(encodeMessage(request, payloads), [&](ByteView datagram) {
    const Header header = parseHeader(datagram);
    heedNotify(header, datagram);
    if (!isMine(header, mainModeExchange, messageId) || (header.flags & encryptedFlag) != 0) {
      return false;
    }
    answer = parseMessage(datagram);
    return find(answer.payloads, wanted) != nullptr;
  });
  cookieR = ByteWriter().u64(answer.header.spiR).finish();
  return std::move(answer.payloads);
}

ByteVector Ike1Session::seal(std::uint8_t exchange, const ByteVector& messageId, ByteView payloads, std::uint8_t first,
                             ByteVector* iv) const {
  const std::size_t block = options.ike.blockSize();
  ByteVector plaintext = toVector(payloads);
  plaintext.resize((plaintext.size() + block - 1) / block * block);
  const ByteVector blocks = cbc(Direction::Encrypt, options.ike.encr, keys.cipher.bytes, *iv, plaintext);
  *iv = toVector(ByteView(blocks).last(block));
  Header header;
  header.spiI = ByteReader(cookieI).u64();
  header.spiR = ByteReader(cookieR).u64();
  header.version = version1;
  header.firstPayload = first;
  header.exchange = exchange;
  header.flags = encryptedFlag;
  header.messageId = ByteReader(messageId).u32();
  header.length = static_cast<std::uint32_t>(headerSize + blocks.size());
  return concat({encodeHeader(header), blocks});
}

std::vector<Payload> Ike1Session::open(ByteView datagram, ByteVector* iv) const {
  const Header header = parseHeader(datagram);
  const ByteView blocks = datagram.subspan(headerSize);
  const std::size_t block = options.ike.blockSize();
  if (blocks.empty() || blocks.size() % block != 0) {
    throw Malformed("an encrypted message is not made of whole blocks");
  }
  const ByteVector plaintext = cbc(Direction::Decrypt, options.ike.encr, keys.cipher.bytes, *iv, blocks);
  *iv = toVector(blocks.last(block));
  return parsePayloads(header.firstPayload, plaintext, true);
}

ByteVector Ike1Session::sealHashed(std::uint8_t exchange, const ByteVector& messageId, ByteView hashFront,
                                   const std::vector<Payload>& payloads, ByteVector* iv) const {
  const ByteVector rest = encodePayloads(payloads);
  const Secret value = prf(options.prf, keys.a.bytes, {hashFront, rest});
  const ByteVector hashed = encodePayloads({{hash1Payload, value.bytes}}, payloads.front().type);
  return seal(exchange, messageId, concat({hashed, rest}), hash1Payload, iv);
}

// The hash comes first and covers all payloads after it.
void Ike1Session::checkHashed(const std::vector<Payload>& payloads, ByteView hashFront) const {
  if (payloads.size() < 2 || payloads.front().type != hash1Payload) {
    throw Malformed("an encrypted message does not begin with its hash");
  }
  const std::vector<Payload> behind(payloads.begin() + 1, payloads.end());
  const ByteVector rest = encodePayloads(behind);
  const Secret expected = prf(options.prf, keys.a.bytes, {hashFront, rest});
  if (!equal(payloads.front().body, expected.bytes)) {
    throw Malformed("an encrypted message has a wrong hash");
  }
}

bool Ike1Session::isMine(const Header& header, std::uint8_t exchange, const ByteVector& messageId) const {
  const bool cookiesFit = header.spiI == ByteReader(cookieI).u64() &&
                          (ByteReader(cookieR).u64() == 0 || header.spiR == ByteReader(cookieR).u64());
  return cookiesFit && header.version == version1 && header.exchange == exchange &&
         header.messageId == ByteReader(messageId).u32();
}

// The peer sends a refusal in a separate exchange.
void Ike1Session::heedNotify(const Header& header, ByteView datagram) const {
  const ByteVector messageId = ByteWriter().u32(header.messageId).finish();
  if (!isMine(header, informationalExchange1, messageId)) {
    return;
  }
  std::vector<Payload> payloads;
  const bool haveKeys = !keys.cipher.bytes.empty();
  const bool encrypted = (header.flags & encryptedFlag) != 0;
  // Once there are keys, only an encrypted refusal counts: one in the clear could come from anybody.
  if (!encrypted && !haveKeys) {
    payloads = parseMessage(datagram).payloads;
  }
  if (encrypted && haveKeys) {
    try {
      ByteVector iv = exchangeIv(messageId);
      payloads = open(datagram, &iv);
      checkHashed(payloads, messageId);
    } catch (const Malformed&) {
      throw Malformed("a notification cannot be decrypted: is the pre-shared key the same at both ends?");
    }
  }
  const Payload* notify = find(payloads, notify1Payload);
  if (notify == nullptr) {
    return;
  }
  const std::uint16_t type = parseNotify1(notify->body);
  if (type < firstStatus) {
    throw Failure(ExitCode::Refused, "the peer refuses: " + notifyName1(type));
  }
}

ByteVector Ike1Session::exchangeIv(const ByteVector& messageId) const {
  ByteVector iv = hash(hashOf(options.prf), {phase1Iv, messageId});
  iv.resize(options.ike.blockSize());
  return iv;
}

ByteVector Ike1Session::ownIdBody() const {
  return makeIdBody(parseIdentity(options.id.empty() ? link.local().host() : options.id));
}

ByteVector Ike1Session::cookies() const {
  return concat({cookieI, cookieR});
}

void Ike1Session::step(const std::string& text) const {
  if (options.verbose) {
    std::cout << text << '\n';
  }
}

}  // namespace Agent
