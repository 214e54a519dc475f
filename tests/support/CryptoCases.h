// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What the tests of the crypto core share: the groups with their sizes, bytes and hex, the check of one known exchange.
#pragma once

#include "Ipsec.h"
#include "tests/support/TraceRecorder.h"
#include "tests/support/VectorFile.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Ipsec::Testing {

using Lines = std::vector<std::string>;

struct GroupCase {
  DhGroupNum group;
  std::size_t publicSize;
  std::size_t secretSize;
  std::size_t privateSize;  // of a generated private value whose first byte is not zero
};

inline constexpr std::array<GroupCase, 8> modpGroups = {{
    {MODP_768, 96, 96, 24},
    {MODP_1024, 128, 128, 24},
    {MODP_1536, 192, 192, 32},
    {MODP_2048, 256, 256, 32},
    {MODP_3072, 384, 384, 40},
    {MODP_4096, 512, 512, 48},
    {MODP_6144, 768, 768, 48},
    {MODP_2048_256, 256, 256, 32},
}};

inline constexpr std::array<GroupCase, 3> ecpGroups = {{
    {ECP_256, 64, 32, 32},
    {ECP_384, 96, 48, 48},
    {ECP_521, 132, 66, 66},
}};

inline std::vector<GroupCase> allGroups() {
  std::vector<GroupCase> all(modpGroups.begin(), modpGroups.end());
  all.insert(all.end(), ecpGroups.begin(), ecpGroups.end());
  return all;
}

inline bool isCurve(DhGroupNum group) {
  return group == ECP_256 || group == ECP_384 || group == ECP_521;
}

// --- Bytes -----------------------------------------------------------------------------------------------------------

inline ByteVector fromHex(std::string_view hex) {
  ByteVector bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

inline ByteVector operator+(ByteVector left, const ByteVector& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Returns the bytes after that many zero bytes.
inline ByteVector padded(const ByteVector& bytes, std::size_t size) {
  return ByteVector(size - bytes.size(), 0) + bytes;
}

inline ByteVector withoutLeadingZeros(ByteVector bytes) {
  while (!bytes.empty() && bytes.front() == 0) {
    bytes.erase(bytes.begin());
  }
  return bytes;
}

inline HashAlgorithm hashNamed(const std::string& name) {
  if (name == "SHA-1" || name == "sha1") {
    return HASH_SHA1;
  }
  if (name == "SHA-256" || name == "sha256") {
    return HASH_SHA256;
  }
  if (name == "SHA-384" || name == "sha384") {
    return HASH_SHA384;
  }
  if (name == "SHA-512" || name == "sha512") {
    return HASH_SHA512;
  }
  throw std::invalid_argument("no hash has the name " + name);
}

inline DhGroupNum groupOf(Block& block, const char* name = "Group") {
  return static_cast<DhGroupNum>(block.number(name));
}

inline std::string vectors(const std::string& name) {
  return std::string(IPSEC_TEST_VECTORS "/") + name;
}

// --- Answers ---------------------------------------------------------------------------------------------------------

template <class Dh>
ByteVector publicKey(Dh& dh) {
  ByteVector out;
  EXPECT_TRUE(dh.getMyPublicKey(&out));
  return out;
}

template <class Dh>
ByteVector privateKey(Dh& dh) {
  ByteVector out;
  EXPECT_TRUE(dh.getMyPrivateKey(&out));
  return out;
}

template <class Dh>
ByteVector secret(Dh& dh) {
  ByteVector out;
  EXPECT_TRUE(dh.getSharedSecret(&out));
  return out;
}

// Expects exactly these error lines since the last call, in this order, in the ring and at level 0 of the text trace.
inline void expectErrors(TraceRecorder& traces, const Lines& lines) {
  EXPECT_EQ(traces.errors(), lines);
  EXPECT_EQ(traces.text(0), lines);
  traces.clear();
}

// Expects the operation to fail with these lines and to leave its output as it was.
template <class Operation>
void expectUntouched(TraceRecorder& traces, const Lines& lines, const Operation& operation) {
  ByteVector out = {1, 2, 3};
  EXPECT_FALSE(operation(&out));
  EXPECT_EQ(out, (ByteVector{1, 2, 3}));
  expectErrors(traces, lines);
}

// Expects an initialised object to compute the exchange of a block: Private, Public, Peer, Secret.
template <class Dh>
void expectExchange(Dh& dh, const ByteVector& ownPrivate, const ByteVector& ownPublic, const ByteVector& peer,
                    const ByteVector& expected) {
  EXPECT_TRUE(dh.setMyPrivateKey(&ownPrivate));
  EXPECT_EQ(publicKey(dh), ownPublic);
  EXPECT_TRUE(dh.setPeerPublicKey(&peer));
  EXPECT_EQ(secret(dh), expected);
}

// Expects everything about an object that has not been initialised.
template <class Dh>
void expectNotInitialized(Dh& dh, const std::string& className) {
  TraceRecorder traces("IpsecKeyGen=0");
  const auto line = [&className](const char* operation) {
    return Lines{className + "::" + operation + " " + className + " is not initialized"};
  };
  const ByteVector value(256, 7);
  expectUntouched(traces, line("getMyPublicKey"), [&dh](ByteVector* out) { return dh.getMyPublicKey(out); });
  expectUntouched(traces, line("getMyPrivateKey"), [&dh](ByteVector* out) { return dh.getMyPrivateKey(out); });
  expectUntouched(traces, line("getSharedSecret"), [&dh](ByteVector* out) { return dh.getSharedSecret(out); });
  EXPECT_FALSE(dh.setMyPrivateKey(&value));
  expectErrors(traces, line("setMyPrivateKey"));
  EXPECT_FALSE(dh.setPeerPublicKey(&value));
  expectErrors(traces, line("setPeerPublicKey"));
}

// Expects the operation to throw what a checked lookup of a missing key throws.
template <class Operation>
void expectOutOfRange(const Operation& operation) {
  try {
    operation();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "_Map_base::at");
  }
}

}  // namespace Ipsec::Testing
