// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What of the library works with this process's OpenSSL configuration: one row for each group, PRF and nonce. Where
// something does not work, the row has the line that the library traced and the reasons that OpenSSL gives.
//
// Usage: provider-probe
//   OPENSSL_CONF=FILE provider-probe    with another configuration, for example one that loads only the FIPS provider
//
// The rows are a Markdown table. The exit status is 0 whatever works: the table is the result.

#include "Ipsec.h"
#include "platform/Trace.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Ipsec::ByteVector;

struct Group {
  Ipsec::DhGroupNum number;
  const char* name;
};

constexpr std::array<Group, 11> groups = {{
    {Ipsec::MODP_768, "1, MODP-768"},
    {Ipsec::MODP_1024, "2, MODP-1024"},
    {Ipsec::MODP_1536, "5, MODP-1536"},
    {Ipsec::MODP_2048, "14, MODP-2048"},
    {Ipsec::MODP_3072, "15, MODP-3072"},
    {Ipsec::MODP_4096, "16, MODP-4096"},
    {Ipsec::MODP_6144, "17, MODP-6144"},
    {Ipsec::ECP_256, "19, ECP-256"},
    {Ipsec::ECP_384, "20, ECP-384"},
    {Ipsec::ECP_521, "21, ECP-521"},
    {Ipsec::MODP_2048_256, "24, MODP-2048-256"},
}};

struct Prf {
  Ipsec::HashAlgorithm hash;
  const char* name;
};

constexpr std::array<Prf, 4> prfs = {{
    {Ipsec::HASH_SHA1, "HMAC-SHA1"},
    {Ipsec::HASH_SHA256, "HMAC-SHA2-256"},
    {Ipsec::HASH_SHA384, "HMAC-SHA2-384"},
    {Ipsec::HASH_SHA512, "HMAC-SHA2-512"},
}};

// --- What is tried: each returns the step that failed, or null -------------------------------------------------------

const char* tryGroup(Ipsec::DhGroupNum group) {
  Ipsec::IpsecDHGeneral ours(group);
  Ipsec::IpsecDHGeneral theirs(group);
  ByteVector ourPublic, theirPublic, ourSecret, theirSecret, ourPrivate;
  if (!ours.initIpsecDH() || !theirs.initIpsecDH()) {
    return "initIpsecDH";
  }
  if (!ours.getMyPublicKey(&ourPublic) || !theirs.getMyPublicKey(&theirPublic)) {
    return "getMyPublicKey";
  }
  if (!ours.setPeerPublicKey(&theirPublic) || !theirs.setPeerPublicKey(&ourPublic)) {
    return "setPeerPublicKey";
  }
  if (!ours.getSharedSecret(&ourSecret) || !theirs.getSharedSecret(&theirSecret) || ourSecret != theirSecret) {
    return "getSharedSecret";
  }
  if (!ours.getMyPrivateKey(&ourPrivate) || !theirs.setMyPrivateKey(&ourPrivate)) {
    return "setMyPrivateKey";
  }
  return nullptr;
}

// The key has the length of a preshared key that a user types in, which is shorter than the digest.
const char* tryPrf(Ipsec::HashAlgorithm hash, bool withCounter) {
  const ByteVector key(12, 0x0b);
  const ByteVector seed(64, 0x02);
  Ipsec::HmacPRFunc prf;
  ByteVector keys;
  if (!prf.initHmacPRFunc(hash) || !prf.setKey(&key)) {
    return "setKey";
  }
  Ipsec::PRFuncPlus stream(&prf, withCounter);
  return stream.initPRFuncPlus(&seed) && stream.generatePRStream(200, &keys) ? nullptr : "generatePRStream";
}

const char* tryNonce() {
  Ipsec::NonceGenerator generator;
  ByteVector nonce;
  return RAND_status() == 1 && generator.generateNonce(&nonce) ? nullptr : "generateNonce";
}

// --- The table -------------------------------------------------------------------------------------------------------

// Returns one reason: the part of OpenSSL that it comes from, its text, and what OpenSSL says in addition.
std::string reasonText(unsigned long code, const char* function, const char* addition) {
  std::string text;
  for (const char* const part : {ERR_lib_error_string(code), function, ERR_reason_error_string(code), addition}) {
    if (part != nullptr && *part != '\0') {
      text += (text.empty() ? "" : ": ") + std::string(part);
    }
  }
  return text;
}

// Takes the reasons out of this thread's error queue, the first one first.
std::string openSslReasons() {
  std::string all;
  const char* function = nullptr;
  const char* addition = nullptr;
  int flags = 0;
  while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, &function, &addition, &flags)) {
    all += (all.empty() ? "" : "; ") + reasonText(code, function, (flags & ERR_TXT_STRING) != 0 ? addition : nullptr);
  }
  return all.empty() ? "none" : all;
}

// Returns the message of a line of the ring, which is "file:line function message".
std::string messageOf(const std::string& line) {
  return line.substr(line.find(' ', line.find(' ') + 1) + 1);
}

// Prints the row of what was tried. The first line that was traced names the cause.
void row(const std::string& what, const char* failed, std::size_t linesBefore) {
  const std::vector<std::string> lines = RingTrace::lines();
  const std::string reasons = openSslReasons();
  if (failed == nullptr) {
    std::printf("| %s | yes | | |\n", what.c_str());
    return;
  }
  const std::string message = lines.size() > linesBefore ? messageOf(lines[linesBefore]) : "no line";
  std::printf("| %s | **no**: `%s` | `%s` | %s |\n", what.c_str(), failed, message.c_str(), reasons.c_str());
}

template <class Try>
void tried(const std::string& what, const Try& attempt) {
  const std::size_t linesBefore = RingTrace::lines().size();
  ERR_clear_error();
  row(what, attempt(), linesBefore);
}

int printProvider(OSSL_PROVIDER* provider, void*) {
  std::printf(" %s", OSSL_PROVIDER_get0_name(provider));
  return 1;
}

}  // namespace

int main() {
  std::printf("%s, providers:", OpenSSL_version(OPENSSL_VERSION));
  (void)OSSL_PROVIDER_do_all(nullptr, printProvider, nullptr);
  std::printf("\n\n| What | Works | The first line that is traced | OpenSSL's reasons |\n|---|---|---|---|\n");
  for (const Group& group : groups) {
    tried(std::string("group ") + group.name, [&group] { return tryGroup(group.number); });
  }
  for (const Prf& prf : prfs) {
    tried(std::string(prf.name) + ", prf+", [&prf] { return tryPrf(prf.hash, true); });
    tried(std::string(prf.name) + ", IKEv1's chaining", [&prf] { return tryPrf(prf.hash, false); });
  }
  tried("nonces", tryNonce);
  return 0;
}
