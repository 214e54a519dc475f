// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The version of ipsec-helpers whose headers these are. Programs ask the preprocessor:
//
//     #if IPSEC_HELPERS_VERSION >= IPSEC_HELPERS_VERSION_NUMBER(1, 1, 0)
//
// IPSEC_HELPERS_VERSION_MAJOR, IPSEC_HELPERS_VERSION_MINOR and IPSEC_HELPERS_VERSION_PATCH are its numbers,
// IPSEC_HELPERS_VERSION is all three as one number, and IPSEC_HELPERS_VERSION_STRING is its text, "1.2.3" for example.
//
// Within a major version the libraries stay compatible: a program runs with any library that is as new as its headers,
// or newer.
#pragma once

#define IPSEC_HELPERS_VERSION_MAJOR 1
#define IPSEC_HELPERS_VERSION_MINOR 0
#define IPSEC_HELPERS_VERSION_PATCH 0
#define IPSEC_HELPERS_VERSION_STRING "1.0.0"

// IPSEC_HELPERS_VERSION_NUMBER is any version as one number; each part is below 1000.
#define IPSEC_HELPERS_VERSION_NUMBER(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))

#define IPSEC_HELPERS_VERSION \
  IPSEC_HELPERS_VERSION_NUMBER(IPSEC_HELPERS_VERSION_MAJOR, IPSEC_HELPERS_VERSION_MINOR, IPSEC_HELPERS_VERSION_PATCH)
