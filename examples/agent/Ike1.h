// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IKEv1 as the initiator (RFC 2409): main mode with a pre-shared key, quick mode, and the deletion.
#pragma once

#include "Cipher.h"
#include "Esp.h"
#include "KeyLog.h"
#include "Link.h"
#include "Options.h"
#include "Payloads1.h"

#include <string>
#include <vector>

namespace Agent {

// The keys of an ISAKMP SA, RFC 2409 section 5 and appendix B.
struct Ike1Keys {
  Secret skeyid;
  Secret d;
  Secret a;
  Secret e;
  Secret cipher;  // Ka
};

// Returns the cipher's key: the first bytes of SKEYID_e or, if that is too short, of the chain
// K1 = prf(SKEYID_e, 0), Kn = prf(SKEYID_e, Kn-1).
Secret expandCipherKey(Ipsec::PrfType type, const Secret& skeyidE, std::size_t length);

// Ike1Session runs the exchanges. Call mainMode, then quickMode, then close.
class Ike1Session {
 public:
  Ike1Session(const Options& chosen, Link& connection, const Secret& preSharedKey, KeyLog& log);

  // Moves the link to the NAT port.
  void mainMode();

  // With MODP_NONE the keys are derived from the ISAKMP SA alone.
  ChildSa quickMode(Ipsec::DhGroupNum group);

  // Sends quick mode's third message again. If it was lost, the peer has no other way to get it.
  void repeatLast() const { link.sendIke(lastQuickMessage); }

  // Tells the peer that the ISAKMP SA is deleted. The peer does not answer that.
  void close();

 private:
  void exchangeValues(KeyExchange* own);
  void deriveKeys(const Secret& dhSecret);
  void exchangeIdentities();
  void verifyPeer(const std::vector<Payload>& answer) const;
  ChildSa finishQuick(const std::vector<Payload>& answer, const Offer1& offer, KeyExchange* own, const Nonces& nonces);
  DirectionKeys keymat(const Secret& dhSecret, const ByteVector& spi, const Nonces& nonces) const;

  std::vector<Payload> clearExchange(const std::vector<Payload>& payloads, std::uint8_t wanted);
  ByteVector seal(std::uint8_t exchange, const ByteVector& messageId, ByteView payloads, std::uint8_t first,
                  ByteVector* iv) const;
  std::vector<Payload> open(ByteView datagram, ByteVector* iv) const;
  ByteVector sealHashed(std::uint8_t exchange, const ByteVector& messageId, ByteView hashFront,
                        const std::vector<Payload>& payloads, ByteVector* iv) const;
  void checkHashed(const std::vector<Payload>& payloads, ByteView hashFront) const;
  bool isMine(const Header& header, std::uint8_t exchange, const ByteVector& messageId) const;
  void heedNotify(const Header& header, ByteView datagram) const;
  ByteVector exchangeIv(const ByteVector& messageId) const;
  ByteVector ownIdBody() const;
  ByteVector cookies() const;
  void step(const std::string& text) const;

  const Options& options;
  Link& link;
  const Secret& psk;
  KeyLog& keyLog;
  ByteVector cookieI;
  ByteVector cookieR = ByteVector(8);
  ByteVector saBody;
  Nonces nonces1;
  ByteVector publicI;
  ByteVector publicR;
  Ike1Keys keys;
  ByteVector phase1Iv;
  ByteVector lastQuickMessage;
  bool established = false;
};

}  // namespace Agent
