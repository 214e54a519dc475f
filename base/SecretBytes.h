// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// SecretBytes is an array of bytes on the stack that holds a secret. The destructor clears it. clearAll() does the same
// for a vector.
#pragma once

#include <openssl/crypto.h>

#include <array>
#include <cstddef>

namespace Base {

template <std::size_t size>
struct SecretBytes : std::array<unsigned char, size> {
  ~SecretBytes() { OPENSSL_cleanse(this->data(), size); }
};

// Clears all of a vector's memory, also the room behind its last byte, and leaves it empty.
template <class Vector>
void clearAll(Vector& secret) noexcept {
  secret.resize(secret.capacity());  // this needs no memory
  OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

}  // namespace Base
