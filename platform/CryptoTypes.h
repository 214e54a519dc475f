// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The types of OpenSSL and of the crypto shim that the public header shows.
//
// The names hmac_ctx and hmac_state are reserved in the global namespace of every program that includes Ipsec.h.
#pragma once

#include <openssl/types.h>

// OpenSSL declares these two in <openssl/ec.h> only, which the public header does not need.
typedef struct ec_group_st EC_GROUP;
typedef struct ec_point_st EC_POINT;

struct hmac_state;

// An HMAC computation. Set it to zero before hmac_create. What it points to belongs to the shim.
struct hmac_ctx {
  struct hmac_state* state;
};
