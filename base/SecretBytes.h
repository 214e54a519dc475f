// SecretBytes is an array of bytes on the stack that holds a secret. The destructor clears it.
#pragma once

#include <openssl/crypto.h>

#include <array>
#include <cstddef>

namespace Base {

template <std::size_t size>
struct SecretBytes : std::array<unsigned char, size> {
  ~SecretBytes() { OPENSSL_cleanse(this->data(), size); }
};

}  // namespace Base
