// Owning pointers over OpenSSL's handles, named by whether freeing clears. Fields keep raw handles (their layout is
// contract); everything local is one of these, and adopt() is the one place where a field changes hands.
#pragma once

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <memory>

namespace Ipsec {

template <auto freeFunction>
struct FreeWith {
  template <class T>
  void operator()(T* handle) const noexcept {
    freeFunction(handle);
  }
};

using KeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using PublicBn = std::unique_ptr<BIGNUM, FreeWith<BN_free>>;        // not cleared
using SecretBn = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;  // held a private value
using BnContextPtr = std::unique_ptr<BN_CTX, FreeWith<BN_CTX_free>>;
using CurvePtr = std::unique_ptr<EC_GROUP, FreeWith<EC_GROUP_free>>;
using PointPtr = std::unique_ptr<EC_POINT, FreeWith<EC_POINT_free>>;
using SecretPointPtr = std::unique_ptr<EC_POINT, FreeWith<EC_POINT_clear_free>>;

// Gives a field a new handle and frees the one it held.
template <class T, auto freeFunction>
void adopt(T*& field, std::unique_ptr<T, FreeWith<freeFunction>> handle) noexcept {
  std::unique_ptr<T, FreeWith<freeFunction>> old(field);
  field = handle.release();
}

}  // namespace Ipsec
