// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/ShimFaults.h"

#include "platform/CryptoShim.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <dlfcn.h>

#include <cstdlib>
#include <iostream>

namespace {

// The failure that is requested. The tests that request failures have only one thread.
struct Order {
  std::string_view function;  // empty: nothing
  unsigned nth = 0;           // 0: only count
  std::optional<int> answer;
  unsigned calls = 0;
};

Order order;
bool compressing = false;
std::uint64_t lastInitOptions = 0;

bool isTheLibrary(const void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && info.dli_fname != nullptr &&
         std::string_view(info.dli_fname).find("libipsechelpers") != std::string_view::npos;
}

// Returns whether this call is the one that must fail. The address is the one to which the function returns.
bool fails(std::string_view function, const void* caller) {
  return order.function == function && isTheLibrary(caller) && ++order.calls == order.nth;
}

// Returns the next definition of a function after this program's. The program exports its own definition under the same
// symbol, which for a C++ function is not its bare name.
template <class Function>
Function* real(Function* own, const char* name) {
  Dl_info info = {};
  const bool named = dladdr(reinterpret_cast<void*>(own), &info) != 0 && info.dli_sname != nullptr;
  void* const found = named ? dlsym(RTLD_NEXT, info.dli_sname) : nullptr;
  if (found == nullptr) {
    std::cerr << name << " is nowhere\n";
    std::abort();
  }
  return reinterpret_cast<Function*>(found);
}

// Converts 04 | x | y into 02 | x if y is even, and into 03 | x if it is odd (SEC 1 section 2.3.3).
int compress(unsigned char* point, std::size_t* length) {
  if (point != nullptr && *length > 1 && point[0] == 0x04) {
    point[0] = static_cast<unsigned char>(0x02 | (point[*length - 1] & 1));
  }
  *length = *length / 2 + 1;
  return 1;
}

int answerOr(int failure) {
  return order.answer.value_or(failure);
}

}  // namespace

namespace Ipsec::Testing {

CallCount::CallCount(std::string_view function) {
  EXPECT_EQ(order.function, "") << "one order at a time";
  order = Order{function, 0, {}, 0};
}

CallCount::~CallCount() {
  order = Order{};
}

unsigned CallCount::calls() const {
  return order.calls;
}

Fault::Fault(std::string_view function, unsigned nth, std::optional<int> answer) : CallCount(function) {
  order.nth = nth;
  order.answer = answer;
}

Fault::~Fault() {
  EXPECT_GE(order.calls, order.nth) << "the library did not call " << order.function << " so often";
}

std::uint64_t initOptions() {
  return lastInitOptions;
}

CompressedPoints::CompressedPoints() {
  compressing = true;
}

CompressedPoints::~CompressedPoints() {
  compressing = false;
}

}  // namespace Ipsec::Testing

// One definition per function, which fails or calls the real one. The return address must be read in the function
// itself.
#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))
#define REAL(function) real(&(function), #function)

// --- The crypto shim -------------------------------------------------------------------------------------------------

EVP_PKEY* EVP_PKEY_DH_params_2048_256() {
  static auto* const next = REAL(EVP_PKEY_DH_params_2048_256);
  return fails("EVP_PKEY_DH_params_2048_256", CALLER) ? nullptr : next();
}

EVP_PKEY* EVP_PKEY_DH_from_params(BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv) {
  static auto* const next = REAL(EVP_PKEY_DH_from_params);
  return fails("EVP_PKEY_DH_from_params", CALLER) ? nullptr : next(p, g, pub, priv);
}

EVP_PKEY* EVP_PKEY_DH_generate_keys(EVP_PKEY* params) {
  static auto* const next = REAL(EVP_PKEY_DH_generate_keys);
  return fails("EVP_PKEY_DH_generate_keys", CALLER) ? nullptr : next(params);
}

int EVP_PKEY_DH_get_params(EVP_PKEY* key, BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv) {
  static auto* const next = REAL(EVP_PKEY_DH_get_params);
  return fails("EVP_PKEY_DH_get_params", CALLER) ? answerOr(1) : next(key, p, g, pub, priv);
}

EVP_PKEY* EVP_PKEY_EC_from_params(EC_GROUP* group, EC_POINT* pub, BIGNUM* priv) {
  static auto* const next = REAL(EVP_PKEY_EC_from_params);
  return fails("EVP_PKEY_EC_from_params", CALLER) ? nullptr : next(group, pub, priv);
}

int EVP_PKEY_get_shared_secret(EVP_PKEY* own, EVP_PKEY* peer, unsigned char** secret, size_t* secretLen) {
  static auto* const next = REAL(EVP_PKEY_get_shared_secret);
  if (!fails("EVP_PKEY_get_shared_secret", CALLER)) {
    return next(own, peer, secret, secretLen);
  }
  switch (answerOr(1)) {
    case Ipsec::Testing::successWithoutLength:
      return 0;
    case Ipsec::Testing::failureAfterWriting:
      **secret = 0xEE;
      return 1;
    case Ipsec::Testing::secretOfOneByte:
      **secret = 9;
      *secretLen = 1;
      return 0;
    default:
      return answerOr(1);
  }
}

int hmac_create(struct hmac_ctx* ctx) {
  static auto* const next = REAL(hmac_create);
  return fails("hmac_create", CALLER) ? answerOr(1) : next(ctx);
}

int hmac_init(struct hmac_ctx* ctx, const EVP_MD* md, const unsigned char* key, size_t keyLen) {
  static auto* const next = REAL(hmac_init);
  return fails("hmac_init", CALLER) ? answerOr(1) : next(ctx, md, key, keyLen);
}

int hmac_update(struct hmac_ctx* ctx, const unsigned char* data, size_t dataLen) {
  static auto* const next = REAL(hmac_update);
  return fails("hmac_update", CALLER) ? answerOr(1) : next(ctx, data, dataLen);
}

int hmac_final(struct hmac_ctx* ctx, unsigned char* out, size_t outSize, size_t* written) {
  static auto* const next = REAL(hmac_final);
  if (!fails("hmac_final", CALLER)) {
    return next(ctx, out, outSize, written);
  }
  if (answerOr(1) == Ipsec::Testing::failureAfterFinishing) {
    (void)next(ctx, out, outSize, written);
    return 1;
  }
  return answerOr(1);
}

int hmac_cleanup(struct hmac_ctx* ctx) {
  static auto* const next = REAL(hmac_cleanup);
  (void)fails("hmac_cleanup", CALLER);  // cannot fail, only be counted
  return next(ctx);
}

extern "C" {

// --- OpenSSL: numbers ------------------------------------------------------------------------------------------------

BIGNUM* BN_new(void) {
  static auto* const next = REAL(BN_new);
  return fails("BN_new", CALLER) ? nullptr : next();
}

BIGNUM* BN_bin2bn(const unsigned char* bytes, int length, BIGNUM* number) {
  static auto* const next = REAL(BN_bin2bn);
  return fails("BN_bin2bn", CALLER) ? nullptr : next(bytes, length, number);
}

int BN_bn2bin(const BIGNUM* number, unsigned char* bytes) {
  static auto* const next = REAL(BN_bn2bin);
  return fails("BN_bn2bin", CALLER) ? answerOr(0) : next(number, bytes);
}

int BN_bn2binpad(const BIGNUM* number, unsigned char* bytes, int length) {
  static auto* const next = REAL(BN_bn2binpad);
  return fails("BN_bn2binpad", CALLER) ? answerOr(-1) : next(number, bytes, length);
}

BIGNUM* BN_get_rfc3526_prime_2048(BIGNUM* number) {
  static auto* const next = REAL(BN_get_rfc3526_prime_2048);
  return fails("BN_get_rfc3526_prime_2048", CALLER) ? nullptr : next(number);
}

BN_CTX* BN_CTX_new(void) {
  static auto* const next = REAL(BN_CTX_new);
  return fails("BN_CTX_new", CALLER) ? nullptr : next();
}

BIGNUM* BN_CTX_get(BN_CTX* context) {
  static auto* const next = REAL(BN_CTX_get);
  return fails("BN_CTX_get", CALLER) ? nullptr : next(context);
}

// --- OpenSSL: curves -------------------------------------------------------------------------------------------------

EC_GROUP* EC_GROUP_new_by_curve_name(int nid) {
  static auto* const next = REAL(EC_GROUP_new_by_curve_name);
  return fails("EC_GROUP_new_by_curve_name", CALLER) ? nullptr : next(nid);
}

EC_GROUP* EC_GROUP_dup(const EC_GROUP* group) {
  static auto* const next = REAL(EC_GROUP_dup);
  return fails("EC_GROUP_dup", CALLER) ? nullptr : next(group);
}

EC_POINT* EC_POINT_new(const EC_GROUP* group) {
  static auto* const next = REAL(EC_POINT_new);
  return fails("EC_POINT_new", CALLER) ? nullptr : next(group);
}

int EC_POINT_oct2point(const EC_GROUP* group, EC_POINT* point, const unsigned char* octets, size_t length,
                       BN_CTX* context) {
  static auto* const next = REAL(EC_POINT_oct2point);
  return fails("EC_POINT_oct2point", CALLER) ? answerOr(0) : next(group, point, octets, length, context);
}

int EC_POINT_get_affine_coordinates(const EC_GROUP* group, const EC_POINT* point, BIGNUM* x, BIGNUM* y,
                                    BN_CTX* context) {
  static auto* const next = REAL(EC_POINT_get_affine_coordinates);
  return fails("EC_POINT_get_affine_coordinates", CALLER) ? answerOr(0) : next(group, point, x, y, context);
}

int EC_POINT_set_affine_coordinates(const EC_GROUP* group, EC_POINT* point, const BIGNUM* x, const BIGNUM* y,
                                    BN_CTX* context) {
  static auto* const next = REAL(EC_POINT_set_affine_coordinates);
  return fails("EC_POINT_set_affine_coordinates", CALLER) ? answerOr(0) : next(group, point, x, y, context);
}

int EC_POINT_is_on_curve(const EC_GROUP* group, const EC_POINT* point, BN_CTX* context) {
  static auto* const next = REAL(EC_POINT_is_on_curve);
  return fails("EC_POINT_is_on_curve", CALLER) ? answerOr(0) : next(group, point, context);
}

int EC_POINT_mul(const EC_GROUP* group, EC_POINT* result, const BIGNUM* n, const EC_POINT* point, const BIGNUM* m,
                 BN_CTX* context) {
  static auto* const next = REAL(EC_POINT_mul);
  return fails("EC_POINT_mul", CALLER) ? answerOr(0) : next(group, result, n, point, m, context);
}

// --- OpenSSL: keys ---------------------------------------------------------------------------------------------------

EVP_PKEY_CTX* EVP_PKEY_CTX_new_from_name(OSSL_LIB_CTX* library, const char* name, const char* properties) {
  static auto* const next = REAL(EVP_PKEY_CTX_new_from_name);
  return fails("EVP_PKEY_CTX_new_from_name", CALLER) ? nullptr : next(library, name, properties);
}

EVP_PKEY_CTX* EVP_PKEY_CTX_new_from_pkey(OSSL_LIB_CTX* library, EVP_PKEY* key, const char* properties) {
  static auto* const next = REAL(EVP_PKEY_CTX_new_from_pkey);
  return fails("EVP_PKEY_CTX_new_from_pkey", CALLER) ? nullptr : next(library, key, properties);
}

int EVP_PKEY_paramgen_init(EVP_PKEY_CTX* context) {
  static auto* const next = REAL(EVP_PKEY_paramgen_init);
  return fails("EVP_PKEY_paramgen_init", CALLER) ? answerOr(0) : next(context);
}

int EVP_PKEY_CTX_set_group_name(EVP_PKEY_CTX* context, const char* name) {
  static auto* const next = REAL(EVP_PKEY_CTX_set_group_name);
  return fails("EVP_PKEY_CTX_set_group_name", CALLER) ? answerOr(0) : next(context, name);
}

int EVP_PKEY_paramgen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
  static auto* const next = REAL(EVP_PKEY_paramgen);
  return fails("EVP_PKEY_paramgen", CALLER) ? answerOr(0) : next(context, key);
}

int EVP_PKEY_keygen_init(EVP_PKEY_CTX* context) {
  static auto* const next = REAL(EVP_PKEY_keygen_init);
  return fails("EVP_PKEY_keygen_init", CALLER) ? answerOr(0) : next(context);
}

int EVP_PKEY_generate(EVP_PKEY_CTX* context, EVP_PKEY** key) {
  static auto* const next = REAL(EVP_PKEY_generate);
  return fails("EVP_PKEY_generate", CALLER) ? answerOr(0) : next(context, key);
}

EVP_PKEY* EVP_PKEY_new() {
  static auto* const next = REAL(EVP_PKEY_new);
  return fails("EVP_PKEY_new", CALLER) ? nullptr : next();
}

int EVP_PKEY_copy_parameters(EVP_PKEY* to, const EVP_PKEY* from) {
  static auto* const next = REAL(EVP_PKEY_copy_parameters);
  return fails("EVP_PKEY_copy_parameters", CALLER) ? answerOr(0) : next(to, from);
}

int EVP_PKEY_set1_encoded_public_key(EVP_PKEY* key, const unsigned char* encoded, size_t length) {
  static auto* const next = REAL(EVP_PKEY_set1_encoded_public_key);
  return fails("EVP_PKEY_set1_encoded_public_key", CALLER) ? answerOr(0) : next(key, encoded, length);
}

int EVP_PKEY_get_octet_string_param(const EVP_PKEY* key, const char* name, unsigned char* bytes, size_t size,
                                    size_t* length) {
  static auto* const next = REAL(EVP_PKEY_get_octet_string_param);
  if (!fails("EVP_PKEY_get_octet_string_param", CALLER)) {
    const int result = next(key, name, bytes, size, length);
    return result == 1 && compressing && isTheLibrary(CALLER) ? compress(bytes, length) : result;
  }
  *length = 0;
  return answerOr(0);
}

int EVP_PKEY_get_bn_param(const EVP_PKEY* key, const char* name, BIGNUM** number) {
  static auto* const next = REAL(EVP_PKEY_get_bn_param);
  return fails("EVP_PKEY_get_bn_param", CALLER) ? answerOr(0) : next(key, name, number);
}

// --- OpenSSL: the rest -----------------------------------------------------------------------------------------------

int OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
  static auto* const next = REAL(OPENSSL_init_crypto);
  if (order.function != "OPENSSL_init_crypto") {
    return next(options, settings);
  }
  lastInitOptions = options;
  return ++order.calls == order.nth ? answerOr(0) : next(options, settings);
}

const EVP_MD* EVP_get_digestbyname(const char* name) {
  static auto* const next = REAL(EVP_get_digestbyname);
  return fails("EVP_get_digestbyname", CALLER) ? nullptr : next(name);
}

int RAND_bytes(unsigned char* bytes, int count) {
  static auto* const next = REAL(RAND_bytes);
  return fails("RAND_bytes", CALLER) ? answerOr(-1) : next(bytes, count);
}

}  // extern "C"
