// Bytes that are cleared when they go.
#pragma once

#include "Ipsec.h"

#include <openssl/crypto.h>

#include <utility>

namespace Exchange {

using Ipsec::ByteVector;

// SecretBytes holds key material. It is moved, not copied, so that there is one copy to clear. Fill the vector once:
// one that grows leaves its old bytes behind uncleared.
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
