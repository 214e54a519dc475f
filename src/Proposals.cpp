// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Proposals.h"

#include "Resemblance.h"
#include "TextParts.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace Ipsec {

namespace {

// What a word of a proposal stands for.
enum class Kind {
  Aead,            // encryption with its own integrity
  Cipher,          // encryption without
  Integrity,       // also serves as the PRF where none is named
  ShortIntegrity,  // integrity only
  Prf,
  Group,
  OldGroup,  // not for an additional key exchange
  NoGroup,
  Other,  // changes nothing of what a proposal needs
};

struct Keyword {
  std::string_view word;
  Kind kind;
};

// Sorted by the word's bytes. Version 6.0 brought the GOST and ML-KEM groups and the additional key exchanges, and no
// longer has the NTRU and NewHope groups.
// clang-format off
constexpr Keyword keywords[] = {
    {"3des",                Kind::Cipher},
    {"aes",                 Kind::Cipher},
    {"aes128",              Kind::Cipher},
    {"aes128ccm",           Kind::Aead},
    {"aes128ccm12",         Kind::Aead},
    {"aes128ccm128",        Kind::Aead},
    {"aes128ccm16",         Kind::Aead},
    {"aes128ccm64",         Kind::Aead},
    {"aes128ccm8",          Kind::Aead},
    {"aes128ccm96",         Kind::Aead},
    {"aes128ctr",           Kind::Cipher},
    {"aes128gcm",           Kind::Aead},
    {"aes128gcm12",         Kind::Aead},
    {"aes128gcm128",        Kind::Aead},
    {"aes128gcm16",         Kind::Aead},
    {"aes128gcm64",         Kind::Aead},
    {"aes128gcm8",          Kind::Aead},
    {"aes128gcm96",         Kind::Aead},
    {"aes128gmac",          Kind::Aead},
    {"aes192",              Kind::Cipher},
    {"aes192ccm",           Kind::Aead},
    {"aes192ccm12",         Kind::Aead},
    {"aes192ccm128",        Kind::Aead},
    {"aes192ccm16",         Kind::Aead},
    {"aes192ccm64",         Kind::Aead},
    {"aes192ccm8",          Kind::Aead},
    {"aes192ccm96",         Kind::Aead},
    {"aes192ctr",           Kind::Cipher},
    {"aes192gcm",           Kind::Aead},
    {"aes192gcm12",         Kind::Aead},
    {"aes192gcm128",        Kind::Aead},
    {"aes192gcm16",         Kind::Aead},
    {"aes192gcm64",         Kind::Aead},
    {"aes192gcm8",          Kind::Aead},
    {"aes192gcm96",         Kind::Aead},
    {"aes192gmac",          Kind::Aead},
    {"aes256",              Kind::Cipher},
    {"aes256ccm",           Kind::Aead},
    {"aes256ccm12",         Kind::Aead},
    {"aes256ccm128",        Kind::Aead},
    {"aes256ccm16",         Kind::Aead},
    {"aes256ccm64",         Kind::Aead},
    {"aes256ccm8",          Kind::Aead},
    {"aes256ccm96",         Kind::Aead},
    {"aes256ctr",           Kind::Cipher},
    {"aes256gcm",           Kind::Aead},
    {"aes256gcm12",         Kind::Aead},
    {"aes256gcm128",        Kind::Aead},
    {"aes256gcm16",         Kind::Aead},
    {"aes256gcm64",         Kind::Aead},
    {"aes256gcm8",          Kind::Aead},
    {"aes256gcm96",         Kind::Aead},
    {"aes256gmac",          Kind::Aead},
    {"aescmac",             Kind::Integrity},
    {"aesxcbc",             Kind::Integrity},
    {"blowfish",            Kind::Cipher},
    {"blowfish128",         Kind::Cipher},
    {"blowfish192",         Kind::Cipher},
    {"blowfish256",         Kind::Cipher},
    {"camellia",            Kind::Cipher},
    {"camellia128",         Kind::Cipher},
    {"camellia128ccm12",    Kind::Aead},
    {"camellia128ccm128",   Kind::Aead},
    {"camellia128ccm16",    Kind::Aead},
    {"camellia128ccm64",    Kind::Aead},
    {"camellia128ccm8",     Kind::Aead},
    {"camellia128ccm96",    Kind::Aead},
    {"camellia128ctr",      Kind::Cipher},
    {"camellia192",         Kind::Cipher},
    {"camellia192ccm12",    Kind::Aead},
    {"camellia192ccm128",   Kind::Aead},
    {"camellia192ccm16",    Kind::Aead},
    {"camellia192ccm64",    Kind::Aead},
    {"camellia192ccm8",     Kind::Aead},
    {"camellia192ccm96",    Kind::Aead},
    {"camellia192ctr",      Kind::Cipher},
    {"camellia256",         Kind::Cipher},
    {"camellia256ccm12",    Kind::Aead},
    {"camellia256ccm128",   Kind::Aead},
    {"camellia256ccm16",    Kind::Aead},
    {"camellia256ccm64",    Kind::Aead},
    {"camellia256ccm8",     Kind::Aead},
    {"camellia256ccm96",    Kind::Aead},
    {"camellia256ctr",      Kind::Cipher},
    {"camelliaxcbc",        Kind::Integrity},
    {"cast128",             Kind::Cipher},
    {"chacha20poly1305",    Kind::Aead},
    {"chacha20poly1305compat",Kind::Aead},
    {"curve25519",          Kind::Group},
    {"curve448",            Kind::Group},
    {"des",                 Kind::Cipher},
    {"ecp192",              Kind::Group},
    {"ecp224",              Kind::Group},
    {"ecp224bp",            Kind::Group},
    {"ecp256",              Kind::Group},
    {"ecp256bp",            Kind::Group},
    {"ecp384",              Kind::Group},
    {"ecp384bp",            Kind::Group},
    {"ecp512bp",            Kind::Group},
    {"ecp521",              Kind::Group},
    {"esn",                 Kind::Other},
    {"gost256",             Kind::Group},
    {"gost512",             Kind::Group},
    {"md5",                 Kind::Integrity},
    {"md5_128",             Kind::Integrity},
    {"mlkem1024",           Kind::Group},
    {"mlkem512",            Kind::Group},
    {"mlkem768",            Kind::Group},
    {"modp1024",            Kind::Group},
    {"modp1024s160",        Kind::Group},
    {"modp1536",            Kind::Group},
    {"modp2048",            Kind::Group},
    {"modp2048s224",        Kind::Group},
    {"modp2048s256",        Kind::Group},
    {"modp3072",            Kind::Group},
    {"modp4096",            Kind::Group},
    {"modp6144",            Kind::Group},
    {"modp768",             Kind::Group},
    {"modp8192",            Kind::Group},
    {"modpnone",            Kind::NoGroup},
    {"modpnull",            Kind::Group},
    {"newhope128",          Kind::OldGroup},
    {"noesn",               Kind::Other},
    {"none",                Kind::NoGroup},
    {"ntru112",             Kind::OldGroup},
    {"ntru128",             Kind::OldGroup},
    {"ntru192",             Kind::OldGroup},
    {"ntru256",             Kind::OldGroup},
    {"null",                Kind::Cipher},
    {"prfaescmac",          Kind::Prf},
    {"prfaesxcbc",          Kind::Prf},
    {"prfcamelliaxcbc",     Kind::Prf},
    {"prfmd5",              Kind::Prf},
    {"prfsha1",             Kind::Prf},
    {"prfsha256",           Kind::Prf},
    {"prfsha384",           Kind::Prf},
    {"prfsha512",           Kind::Prf},
    {"serpent",             Kind::Cipher},
    {"serpent128",          Kind::Cipher},
    {"serpent192",          Kind::Cipher},
    {"serpent256",          Kind::Cipher},
    {"sha",                 Kind::Integrity},
    {"sha1",                Kind::Integrity},
    {"sha1_160",            Kind::Integrity},
    {"sha256",              Kind::Integrity},
    {"sha256_96",           Kind::ShortIntegrity},
    {"sha2_256",            Kind::Integrity},
    {"sha2_256_96",         Kind::ShortIntegrity},
    {"sha2_384",            Kind::Integrity},
    {"sha2_512",            Kind::Integrity},
    {"sha384",              Kind::Integrity},
    {"sha512",              Kind::Integrity},
    {"twofish",             Kind::Cipher},
    {"twofish128",          Kind::Cipher},
    {"twofish192",          Kind::Cipher},
    {"twofish256",          Kind::Cipher},
    {"x25519",              Kind::Group},
    {"x448",                Kind::Group},
};
// clang-format on

constexpr bool before(const Keyword& left, const Keyword& right) {
  return left.word < right.word;
}
static_assert(std::is_sorted(std::begin(keywords), std::end(keywords), before));

const Keyword* find(std::string_view word) noexcept {
  const auto* const found =
      std::lower_bound(std::begin(keywords), std::end(keywords), Keyword{word, Kind::Other}, before);
  return found != std::end(keywords) && found->word == word ? found : nullptr;
}

// Returns the group of an additional key exchange, "ke1_" to "ke7_" and a group, or any other word as it is.
std::string_view withoutExchangeNumber(std::string_view word) noexcept {
  const bool isAdditional =
      word.size() > 4 && word.substr(0, 2) == "ke" && word[2] >= '1' && word[2] <= '7' && word[3] == '_';
  return isAdditional ? word.substr(4) : word;
}

// The kinds that occur in one proposal.
class Kinds {
 public:
  void add(Kind kind) noexcept { bits |= 1U << static_cast<unsigned>(kind); }
  bool has(Kind kind) const noexcept { return (bits >> static_cast<unsigned>(kind) & 1U) != 0; }

 private:
  unsigned bits = 0;
};

Finding judgeWord(std::string_view word, Kinds& kinds) noexcept {
  const std::string_view plain = withoutExchangeNumber(word);
  const Keyword* const known = find(plain);
  const bool isGroup = known != nullptr && (known->kind == Kind::Group || known->kind == Kind::NoGroup);
  if (known == nullptr || (plain.size() != word.size() && !isGroup)) {
    return {"The daemon does not know a word of a proposal.",
            mostSimilar(plain, keywords, [](const Keyword& each) { return each.word; })};
  }
  kinds.add(plain.size() == word.size() ? known->kind : Kind::Other);
  return {};
}

Finding judgeKinds(Kinds kinds, ProposalFor purpose) noexcept {
  const bool aead = kinds.has(Kind::Aead);
  const bool integrity = kinds.has(Kind::Integrity) || kinds.has(Kind::ShortIntegrity);
  if (!aead && !kinds.has(Kind::Cipher)) {
    return {"A proposal has no encryption."};
  }
  if (aead && kinds.has(Kind::Cipher)) {
    return {"A proposal mixes encryption that has its own integrity with encryption that has none."};
  }
  if (purpose == ProposalFor::Esp) {
    return {};
  }
  if (!kinds.has(Kind::Group) && !kinds.has(Kind::OldGroup)) {
    return {"A proposal has no Diffie-Hellman group."};
  }
  if (!aead && !integrity) {
    return {"A proposal has no integrity."};
  }
  if (!kinds.has(Kind::Prf) && !kinds.has(Kind::Integrity)) {
    return {"A proposal has no PRF."};
  }
  return {};
}

Finding judgeProposal(std::string_view proposal, ProposalFor purpose) noexcept {
  Kinds kinds;
  for (std::string_view rest = proposal; !rest.empty();) {
    const std::string_view word = takePart(rest, '-');
    if (word.empty()) {
      continue;  // the daemon passes over it
    }
    if (const Finding finding = judgeWord(word, kinds)) {
      return finding;
    }
  }
  return judgeKinds(kinds, purpose);
}

}  // namespace

Finding judgeProposals(std::string_view proposals, ProposalFor purpose) noexcept {
  std::string_view rest = trimmed(proposals);
  if (!rest.empty() && rest.back() == '!') {
    rest.remove_suffix(1);
  }
  rest = trimmed(rest);
  if (rest.empty() || rest.back() == ',') {
    return {"A proposal is empty."};
  }
  while (!rest.empty()) {
    if (const Finding finding = judgeProposal(takePart(rest, ','), purpose)) {
      return finding;
    }
  }
  return {};
}

}  // namespace Ipsec
