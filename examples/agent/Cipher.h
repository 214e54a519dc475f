// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Protecting packets: encryption by OpenSSL, integrity by the cipher itself or by the library's HMAC.
#pragma once

#include "Bytes.h"
#include "Keys.h"
#include "Suite.h"

#include <optional>

namespace Agent {

// Sealer protects one direction. IKE's Encrypted payload and ESP have the same structure, so one class serves both. The
// bytes in front are authenticated only; the IV, the ciphertext and the integrity check value follow.
class Sealer {
 public:
  Sealer() = default;
  Sealer(const Protection& chosen, DirectionKeys directionKeys) : protection(chosen), keys(std::move(directionKeys)) {}

  // Returns the length of seal's result for a plaintext of this length.
  std::size_t sealedSize(std::size_t plaintextSize) const {
    return protection.ivLen() + plaintextSize + protection.icvLen();
  }

  // Returns IV | ciphertext | ICV. The plaintext's length is a multiple of the block size.
  ByteVector seal(ByteView front, ByteView plaintext);

  // Returns the plaintext, or nothing when the packet was not protected with these keys.
  std::optional<ByteVector> open(ByteView front, ByteView sealedBytes) const;

  const Protection& transforms() const noexcept { return protection; }

 private:
  ByteVector nextIv();
  ByteVector gcmNonce(ByteView iv) const;
  ByteVector icv(ByteView front, ByteView ivAndCiphertext) const;

  Protection protection;
  DirectionKeys keys;
  std::uint64_t sealed = 0;  // packets so far: the GCM IV, which must never repeat under one key
};

// Encrypts or decrypts whole blocks in CBC mode without padding, which is all that IKEv1's messages need.
enum class Direction { Encrypt, Decrypt };
ByteVector cbc(Direction direction, const Ipsec::EncryptAlgoWithKeyLen& algo, const ByteVector& key, ByteView iv,
               ByteView blocks);

// Returns the hash of all parts joined.
ByteVector hash(Ipsec::HashAlgorithm algo, std::initializer_list<ByteView> parts);

// Compares in constant time.
bool equal(ByteView left, ByteView right);

}  // namespace Agent
