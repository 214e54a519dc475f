// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Makes functions of the crypto shim and of OpenSSL fail when the library calls them.
//
// A test program with this source defines the functions itself and forwards to the real ones. Only calls from the
// library count. The shim's own calls of OpenSSL, and those of the test, are always forwarded.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace Ipsec::Testing {

// CallCount counts the library's calls of one function while it lives. Only one CallCount or Fault may live at a time.
class CallCount {
 public:
  explicit CallCount(std::string_view function);
  ~CallCount();
  CallCount(const CallCount&) = delete;
  CallCount& operator=(const CallCount&) = delete;

  unsigned calls() const;
};

// Fault makes the library's nth call of a function fail, counted from 1 since the Fault was created. The call is not
// forwarded and returns what the function returns when it fails: null, or the number given if it can fail in several
// ways. The running test fails if the call is never made.
class Fault : public CallCount {
 public:
  explicit Fault(std::string_view function, unsigned nth = 1, std::optional<int> answer = {});
  ~Fault();
};

// While it lives, the library reads public points in compressed form: correct, but not the form that it needs.
class CompressedPoints {
 public:
  CompressedPoints();
  ~CompressedPoints();
  CompressedPoints(const CompressedPoints&) = delete;
  CompressedPoints& operator=(const CompressedPoints&) = delete;
};

// Returns the options of the last OPENSSL_init_crypto call that was counted. All its calls count, also those of the
// test, because the library's only call may be a tail call without its own return address.
std::uint64_t initOptions();

// Results of EVP_PKEY_get_shared_secret other than a plain failure (1).
inline constexpr int successWithoutLength = 0;  // 0, no byte written
inline constexpr int failureAfterWriting = 2;   // 1, with 0xEE in the first byte of the buffer
inline constexpr int secretOfOneByte = 3;       // 0, the secret is the byte 09

// Results of hmac_final other than a failure (1) with nothing written.
inline constexpr int successWithoutBytes = 0;
inline constexpr int failureAfterFinishing = 2;  // 1, although the whole MAC has been written

// A result of EVP_PKEY_get_octet_string_param other than a failure (0): success, and the length is 0.
inline constexpr int successWithLengthZero = 1;

}  // namespace Ipsec::Testing
