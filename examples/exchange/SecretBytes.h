// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Bytes that are cleared when they are destroyed.
#pragma once

#include "Ipsec.h"

#include <openssl/crypto.h>

#include <utility>

namespace Exchange {

using Ipsec::ByteVector;

// SecretBytes holds key material. It can be moved but not copied, so that there is only one copy to clear.
// Warning: fill the vector only once. A vector that grows leaves its old bytes in memory without clearing them.
class SecretBytes {
 public:
  SecretBytes() = default;
  SecretBytes(SecretBytes&& other) noexcept { bytes.swap(other.bytes); }
  SecretBytes& operator=(SecretBytes&& other) noexcept {
    bytes.swap(other.bytes);
    return *this;
  }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  ~SecretBytes() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

  ByteVector bytes;
};

}  // namespace Exchange
