// Failures on order of what the library calls: the crypto shim and OpenSSL.
//
// A test program with this source defines the functions itself and forwards to the real ones. Only calls that come from
// the library count: the shim's own calls of OpenSSL, and the test's, are forwarded in any case.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace Ipsec::Testing {

// CallCount counts the library's calls of one function while it lives. One CallCount or Fault lives at a time.
class CallCount {
 public:
  explicit CallCount(std::string_view function);
  ~CallCount();
  CallCount(const CallCount&) = delete;
  CallCount& operator=(const CallCount&) = delete;

  unsigned calls() const;
};

// Fault makes the library's nth call of a function fail, counted from 1 since the Fault was made. The call is not
// forwarded and answers as the function does when it fails (null, or the number given where it can fail in several
// ways). The running test fails if the call never comes.
class Fault : public CallCount {
 public:
  explicit Fault(std::string_view function, unsigned nth = 1, std::optional<int> answer = {});
  ~Fault();
};

// While it lives, the library reads public points in compressed form: right, and not as it needs them.
class CompressedPoints {
 public:
  CompressedPoints();
  ~CompressedPoints();
  CompressedPoints(const CompressedPoints&) = delete;
  CompressedPoints& operator=(const CompressedPoints&) = delete;
};

// Returns the options of the last OPENSSL_init_crypto call that was counted. All its calls count, the test's too: the
// library's only call may leave no return address of its own.
std::uint64_t initOptions();

// Answers of EVP_PKEY_get_shared_secret other than plain failure (1).
inline constexpr int successWithoutLength = 0;  // 0, no byte written
inline constexpr int failureAfterWriting = 2;   // 1, with 0xEE in the first byte of the buffer
inline constexpr int secretOfOneByte = 3;       // 0, the secret is the byte 09

// Answers of hmac_final other than failure (1) with nothing written.
inline constexpr int successWithoutBytes = 0;
inline constexpr int failureAfterFinishing = 2;  // 1, while the MAC has been written whole

// An answer of EVP_PKEY_get_octet_string_param other than failure (0): success, and the length is 0.
inline constexpr int successWithLengthZero = 1;

}  // namespace Ipsec::Testing
