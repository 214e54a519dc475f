// SecretBytes is an array of bytes on the stack that holds a secret, and is cleared when it goes.
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
