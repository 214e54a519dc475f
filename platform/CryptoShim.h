// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Crypto shim: the few key operations that the library needs over OpenSSL's key objects, with the names and result
// conventions that the platform gives them.
//
// The functions have C++ linkage in the global namespace. A C function of the same name, in an agent or in another
// library, is therefore another function and cannot replace one of these.
//
// Every object returned belongs to the caller, who frees it with EVP_PKEY_free. All arguments are borrowed. Any thread
// may call any function; one object is used by one thread at a time. No function throws. A function that fails may
// leave OpenSSL's reasons in the thread's error queue.
#pragma once

#include "platform/CryptoTypes.h"

#include <cstddef>

#pragma GCC visibility push(default)

// --- MODP -----------------------------------------------------------------------------------------------------------

// Returns a key object that holds only the parameters of RFC 5114's 2048-bit group with 256-bit prime-order subgroup,
// or null on failure.
// Warning: the object may be shared with other callers. Use it as parameters only: a change would change it for all.
EVP_PKEY* EVP_PKEY_DH_params_2048_256();

// Returns a DH key object with prime p and generator g, and with the public value pub and the private value priv if
// they are not null. With priv and without pub, pub is computed as g^priv mod p. With neither, the object holds only
// parameters and may be shared, as above. The values are used as they are: a peer's value is checked when a secret is
// computed with it. Returns null on failure.
EVP_PKEY* EVP_PKEY_DH_from_params(BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv);

// Returns a new key pair with the parameters of params, which still belongs to the caller. Returns null on failure,
// also when params is null. For the primes of IKE's groups, private exponents have at least twice the bits of the
// group's strength (RFC 3526 section 8, SP 800-56A). For any other prime OpenSSL chooses their length.
EVP_PKEY* EVP_PKEY_DH_generate_keys(EVP_PKEY* params);

// Copies the prime, the generator, the public value and the private value into those of the four numbers that are not
// null. Returns 0 on success and non-zero on failure.
int EVP_PKEY_DH_get_params(EVP_PKEY* key, BIGNUM* p, BIGNUM* g, BIGNUM* pub, BIGNUM* priv);

// --- Elliptic curves ------------------------------------------------------------------------------------------------

// Returns a new EC key object on the named curve of group, with the public point pub and, if it is not null, the
// private number priv. Returns null on failure, and for a curve other than P-256, P-384 and P-521.
// Warning: the point is not checked. The caller must have made sure that it lies on the curve.
EVP_PKEY* EVP_PKEY_EC_from_params(EC_GROUP* group, EC_POINT* pub, BIGNUM* priv);

// --- Both -----------------------------------------------------------------------------------------------------------

// Computes the Diffie-Hellman secret of own's private value and peer's public value. Writes it big-endian into the
// buffer at *secret, and its length into *secretLen. Returns 0 on success. On failure returns non-zero and changes
// neither the buffer nor the length.
// Warning: *secretLen is 0 on input and is not a buffer size. The caller's buffer must have the byte length of the
// prime (MODP) or of a field element (elliptic curves), and the secret is left-padded to that length.
//
// The peer's MODP value is checked here (RFC 6989): for a safe prime 1 < y < p-1, and for any other prime whose q the
// key knows also y^q = 1. This is so for both of OpenSSL's kinds of key, "DH" and "DHX" (X9.42). A point is not checked
// again.
int EVP_PKEY_get_shared_secret(EVP_PKEY* own, EVP_PKEY* peer, unsigned char** secret, size_t* secretLen);

// --- HMAC -----------------------------------------------------------------------------------------------------------

// Prepares a context. Returns 0 on success. After a failure hmac_init fails too.
int hmac_create(struct hmac_ctx* ctx);

// Starts an HMAC with this digest and key, and discards pending input. The key's bytes are read at each call. An empty
// key (length 0, and key may be null) is a valid key. Returns 0 on success. After a failure the context has no open
// computation.
int hmac_init(struct hmac_ctx* ctx, const EVP_MD* md, const unsigned char* key, size_t keyLen);

// Absorbs bytes. No bytes (length 0, and data may be null) are allowed too. Returns 0 on success.
int hmac_update(struct hmac_ctx* ctx, const unsigned char* data, size_t dataLen);

// Finishes the computation: writes at most outSize bytes of the MAC and stores their number in *written. Returns 0 on
// success. On failure *written is 0. The context needs hmac_init before its next use.
int hmac_final(struct hmac_ctx* ctx, unsigned char* out, size_t outSize, size_t* written);

// Clears and frees what the context holds. Also safe for a context of zeros that was never created. Returns 0.
int hmac_cleanup(struct hmac_ctx* ctx);

#pragma GCC visibility pop
