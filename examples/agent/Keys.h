// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Diffie-Hellman and key derivation. All secrets except the contents of packets come from the library.
#pragma once

#include "Bytes.h"
#include "Suite.h"

namespace Agent {

// KeyExchange is one Diffie-Hellman exchange. Call publicValue, then secretWith with the peer's value.
class KeyExchange {
 public:
  explicit KeyExchange(Ipsec::DhGroupNum chosen);

  Ipsec::DhGroupNum group() const noexcept { return number; }
  ByteVector publicValue();

  // Throws Failure (Protocol) for a value that does not belong to the group.
  Secret secretWith(const ByteVector& peerValue);

  // For tests of padding, which need very many key pairs: replaces the key pair with one that has a short private key,
  // until the public value begins with a zero byte.
  // Warning: a short private key is fast but insecure. Use this in tests only.
  void useWeakKey();
  void searchLeadingZero();

 private:
  Ipsec::DhGroupNum number;
  Ipsec::IpsecDHGeneral dh;
};

// Returns fresh random bytes: a nonce, an SPI, an initialisation vector.
ByteVector randomBytes(std::size_t count);

// Returns prf(key, all parts joined).
Secret prf(Ipsec::PrfType type, const ByteVector& key, std::initializer_list<ByteView> parts);

// KeyStream gives out the stream prf+(key, seed): with the counter that of IKEv2, without it that of IKEv1.
class KeyStream {
 public:
  KeyStream(Ipsec::PrfType type, const ByteVector& key, const ByteVector& seed, bool counter);

  Secret draw(std::size_t count);

 private:
  Secret keyCopy;  // HmacPRFunc borrows the key, so this must live as long as the function
  Ipsec::HmacPRFunc function;
  Ipsec::PRFuncPlus stream;
};

// The keys of one direction.
struct DirectionKeys {
  Secret encr;  // a GCM salt at its end
  Secret integ;
};

// RFC 7296 section 2.14.
struct IkeKeys {
  Secret d;
  DirectionKeys initiator;
  DirectionKeys responder;
  Secret pi;
  Secret pr;
};

// The keys of a CHILD_SA, RFC 7296 section 2.17.
struct ChildKeys {
  DirectionKeys initiator;
  DirectionKeys responder;
};

struct Nonces {
  ByteVector i;
  ByteVector r;

  ByteVector both() const;
};

// SKEYSEED of a first IKE SA, and that of a rekeyed one (RFC 7296 section 2.18), which uses the old SK_d.
Secret firstSkeyseed(Ipsec::PrfType type, const Nonces& nonces, const Secret& dhSecret);
Secret rekeySkeyseed(Ipsec::PrfType oldType, const Secret& oldD, const Nonces& nonces, const Secret& dhSecret);

IkeKeys deriveIkeKeys(Ipsec::PrfType type, const Protection& protection, const Secret& skeyseed, const Nonces& nonces,
                      std::uint64_t spiI, std::uint64_t spiR);

// dhSecret is empty for a CHILD_SA without its own exchange.
ChildKeys deriveChildKeys(Ipsec::PrfType type, const Protection& protection, const Secret& skD, const Secret& dhSecret,
                          const Nonces& nonces);

}  // namespace Agent
