// Owning pointers over OpenSSL's handles.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <memory>

namespace Bench {

template <auto freeFunction>
struct FreeWith {
  template <class T>
  void operator()(T* handle) const noexcept {
    freeFunction(handle);
  }
};

using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using Number = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;
using NumberContext = std::unique_ptr<BN_CTX, FreeWith<BN_CTX_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, FreeWith<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, FreeWith<OSSL_PARAM_free>>;
using Digest = std::unique_ptr<EVP_MD, FreeWith<EVP_MD_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;

}  // namespace Bench
