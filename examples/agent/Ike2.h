// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// IKEv2 as the initiator (RFC 7296): IKE_SA_INIT, IKE_AUTH with a pre-shared key, CREATE_CHILD_SA, INFORMATIONAL.
#pragma once

#include "Cipher.h"
#include "Esp.h"
#include "KeyLog.h"
#include "Link.h"
#include "Options.h"
#include "Payloads.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

// Ike2Sa is one IKE SA: its SPIs, its keys, and how messages are protected under them.
struct Ike2Sa {
  std::uint64_t spiI = 0;
  std::uint64_t spiR = 0;
  Secret skD;
  Secret skPi;
  Secret skPr;
  Sealer out;
  Sealer in;
  std::uint32_t nextMessageId = 0;

  Ike2Sa() = default;
  Ike2Sa(const Protection& protection, IkeKeys keys, std::uint64_t initiatorSpi, std::uint64_t responderSpi);

  ByteVector seal(std::uint8_t exchange, std::uint8_t flags, std::uint32_t messageId,
                  const std::vector<Payload>& payloads);

  // The contents of an Encrypted payload: the type of the first payload, and the payloads' bytes.
  struct Opened {
    std::uint8_t first;
    ByteVector payloads;
  };
  // Returns nothing for a message that is not authentic. Throws Malformed.
  std::optional<Opened> open(ByteView datagram) const;
};

// Removes the padding of a decrypted payload. Throws Malformed.
void removeIkePadding(ByteVector* plaintext);

// Ike2Session runs the exchanges. Call init, authenticate, then any of the others, and close at the end.
class Ike2Session {
 public:
  Ike2Session(const Options& chosen, Link& connection, const Secret& preSharedKey, KeyLog& log);

  // IKE_SA_INIT, repeated as the peer asks for a cookie or another group. Moves the link to the NAT port.
  void init();

  // IKE_AUTH. Returns the first CHILD_SA.
  ChildSa authenticate();

  // CREATE_CHILD_SA. With MODP_NONE the keys are derived from the IKE SA alone.
  ChildSa createChild(Ipsec::DhGroupNum group);

  // CREATE_CHILD_SA for a new IKE SA, then the deletion of the old one. Returns whether the Diffie-Hellman secret began
  // with a zero byte.
  bool rekey();

  void deleteChild(const ChildSa& child);

  // Deletes the IKE SA and all its CHILD_SAs, if there is one.
  void close();

 private:
  struct InitAnswer {
    Message message;
    ByteVector bytes;
  };

  void startExchange(Ipsec::DhGroupNum group);
  ByteVector encodeInit(const ByteVector& cookie) const;
  InitAnswer sendInit(ByteView request) const;
  bool mustRepeat(const Message& answer, ByteVector* cookie);
  void finishInit(const InitAnswer& answer);
  ByteVector authValue(const Secret& key, ByteView message, ByteView nonce, ByteView idBody) const;
  void verifyPeer(const std::vector<Payload>& answer) const;
  ChildSa finishChild(const std::vector<Payload>& answer, const Offer& offer, const Secret& dhSecret,
                      const Nonces& nonces);
  std::vector<Payload> request(std::uint8_t exchange, const std::vector<Payload>& payloads);
  void answerPeer(const Header& header, ByteView datagram);
  Offer ikeOffer() const;
  Offer espOffer() const;
  Subnet localSubnet() const;
  Subnet remoteSubnet() const;
  void step(const std::string& text) const;

  const Options& options;
  Link& link;
  const Secret& psk;
  KeyLog& keyLog;
  std::unique_ptr<KeyExchange> keyExchange;
  Nonces initNonces;
  std::uint64_t initSpi;
  ByteVector initRequest;
  ByteVector initResponse;
  Ike2Sa sa;
  Ipsec::DhGroupNum ikeGroup = Ipsec::MODP_NONE;
  bool established = false;
  int childCount = 0;
};

}  // namespace Agent
