// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Owning pointers for OpenSSL's handles. Where it matters, the name says whether freeing clears: "Public" or "Secret".
//
// Every local handle is held by one of these. Fields whose layout is contract hold raw handles, and adopt() is the only
// place where such a field gets a new one. into() lets a function that returns its handle through a pointer fill an
// owning pointer.
#pragma once

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <memory>

namespace Base {

template <auto freeFunction>
struct FreeWith {
  template <class T>
  void operator()(T* handle) const noexcept {
    freeFunction(handle);
  }
};

// Parameters may hold a private value, and OSSL_PARAM_free does not clear the memory that it frees.
inline void clearAndFree(OSSL_PARAM* params) noexcept {
  for (const OSSL_PARAM* param = params; param != nullptr && param->key != nullptr; ++param) {
    OPENSSL_cleanse(param->data, param->data_size);
  }
  OSSL_PARAM_free(params);
}

using KeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>>;
using PublicBn = std::unique_ptr<BIGNUM, FreeWith<BN_free>>;        // not cleared
using SecretBn = std::unique_ptr<BIGNUM, FreeWith<BN_clear_free>>;  // held a private value
using BnContextPtr = std::unique_ptr<BN_CTX, FreeWith<BN_CTX_free>>;
using CurvePtr = std::unique_ptr<EC_GROUP, FreeWith<EC_GROUP_free>>;
using PointPtr = std::unique_ptr<EC_POINT, FreeWith<EC_POINT_free>>;
using SecretPointPtr = std::unique_ptr<EC_POINT, FreeWith<EC_POINT_clear_free>>;
using BuilderPtr = std::unique_ptr<OSSL_PARAM_BLD, FreeWith<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, FreeWith<clearAndFree>>;
using DigestPtr = std::unique_ptr<EVP_MD, FreeWith<EVP_MD_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;

// Gives a field a new handle and frees the one it held.
template <class T, auto freeFunction>
void adopt(T*& field, std::unique_ptr<T, FreeWith<freeFunction>> handle) noexcept {
  const std::unique_ptr<T, FreeWith<freeFunction>> old(field);
  field = handle.release();
}

// Into is what into() passes to a function as its T** parameter. At the end of the statement the owner takes what the
// function stored there, even if the function failed.
template <class T, class Free>
class Into {
 public:
  explicit Into(std::unique_ptr<T, Free>& filled) noexcept : owner(filled) {}
  ~Into() { owner.reset(handle); }
  Into(const Into&) = delete;
  Into& operator=(const Into&) = delete;

  operator T**() noexcept { return &handle; }

 private:
  std::unique_ptr<T, Free>& owner;
  T* handle = nullptr;
};

// Use it as in EVP_PKEY_generate(context.get(), into(key)).
// Warning: the owner is filled only at the end of the whole statement or condition, and is still empty before that.
template <class T, class Free>
Into<T, Free> into(std::unique_ptr<T, Free>& owner) noexcept {
  return Into<T, Free>(owner);
}

}  // namespace Base
