// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Suite.h"

#include "Failure.h"

#include <charconv>

namespace Agent {
namespace {

template <class Value>
struct Named {
  std::string_view name;
  Value value;
};

constexpr Named<Ipsec::DhGroupNum> groups[] = {
    {"modp768", Ipsec::MODP_768},
    {"modp1024", Ipsec::MODP_1024},
    {"modp1536", Ipsec::MODP_1536},
    {"modp2048", Ipsec::MODP_2048},
    {"modp3072", Ipsec::MODP_3072},
    {"modp4096", Ipsec::MODP_4096},
    {"modp6144", Ipsec::MODP_6144},
    {"ecp256", Ipsec::ECP_256},
    {"ecp384", Ipsec::ECP_384},
    {"ecp521", Ipsec::ECP_521},
    {"modp2048s256", Ipsec::MODP_2048_256},
};

constexpr Named<Ipsec::PrfType> prfs[] = {
    {"sha1", Ipsec::PRF_HMAC_SHA1},
    {"sha256", Ipsec::PRF_HMAC_SHA2_256},
    {"sha384", Ipsec::PRF_HMAC_SHA2_384},
    {"sha512", Ipsec::PRF_HMAC_SHA2_512},
};

constexpr Named<Ipsec::EncryptAlgoWithKeyLen> ciphers[] = {
    {"3des", {Ipsec::ENCR_3DES, 0}},
    {"aes128", {Ipsec::ENCR_AES_CBC, 128}},
    {"aes192", {Ipsec::ENCR_AES_CBC, 192}},
    {"aes256", {Ipsec::ENCR_AES_CBC, 256}},
    {"aes128gcm8", {Ipsec::ENCR_AES_GCM_8, 128}},
    {"aes192gcm8", {Ipsec::ENCR_AES_GCM_8, 192}},
    {"aes256gcm8", {Ipsec::ENCR_AES_GCM_8, 256}},
    {"aes128gcm12", {Ipsec::ENCR_AES_GCM_12, 128}},
    {"aes192gcm12", {Ipsec::ENCR_AES_GCM_12, 192}},
    {"aes256gcm12", {Ipsec::ENCR_AES_GCM_12, 256}},
    {"aes128gcm16", {Ipsec::ENCR_AES_GCM_16, 128}},
    {"aes192gcm16", {Ipsec::ENCR_AES_GCM_16, 192}},
    {"aes256gcm16", {Ipsec::ENCR_AES_GCM_16, 256}},
    {"null", {Ipsec::ENCR_NULL, 0}},
};

constexpr Named<Ipsec::IntegrityAlgo> integrities[] = {
    {"sha1", Ipsec::AUTH_HMAC_SHA1_96},
    {"sha256", Ipsec::AUTH_HMAC_SHA2_256_128},
    {"sha384", Ipsec::AUTH_HMAC_SHA2_384_192},
    {"sha512", Ipsec::AUTH_HMAC_SHA2_512_256},
};

template <class Value, std::size_t count>
Value parseName(const char* what, const Named<Value> (&table)[count], std::string_view text) {
  std::string known;
  for (const Named<Value>& row : table) {
    if (row.name == text) {
      return row.value;
    }
    known += ' ';
    known += row.name;
  }
  throw Failure(ExitCode::Usage, "unknown " + std::string(what) + " '" + std::string(text) + "'; known:" + known);
}

template <class Value, std::size_t count>
std::string nameOf(const Named<Value> (&table)[count], Value value) {
  for (const Named<Value>& row : table) {
    if (row.value == value) {
      return std::string(row.name);
    }
  }
  return "number " + std::to_string(value);
}

bool isGcm(Ipsec::EncryptionAlgo algo) {
  return algo == Ipsec::ENCR_AES_GCM_8 || algo == Ipsec::ENCR_AES_GCM_12 || algo == Ipsec::ENCR_AES_GCM_16;
}

}  // namespace

bool Protection::isAead() const {
  return isGcm(encr.algo);
}

std::size_t Protection::saltLen() const {
  return isAead() ? 4 : 0;
}

std::size_t Protection::encrKeyLen() const {
  // The library counts the salt only for an ICV of 8 or 16 bytes.
  const std::size_t missingSalt = encr.algo == Ipsec::ENCR_AES_GCM_12 ? saltLen() : 0;
  return Ipsec::getEncryptKeyLen(encr) + missingSalt;
}

std::size_t Protection::integKeyLen() const {
  return isAead() ? 0 : Ipsec::getIntegKeyLen(integ);
}

std::size_t Protection::blockSize() const {
  switch (encr.algo) {
    case Ipsec::ENCR_3DES:
      return 8;
    case Ipsec::ENCR_AES_CBC:
      return 16;
    default:
      return 1;
  }
}

std::size_t Protection::ivLen() const {
  if (isAead()) {
    return 8;
  }
  return encr.algo == Ipsec::ENCR_NULL ? 0 : blockSize();
}

std::size_t Protection::icvLen() const {
  switch (encr.algo) {
    case Ipsec::ENCR_AES_GCM_8:
      return 8;
    case Ipsec::ENCR_AES_GCM_12:
      return 12;
    case Ipsec::ENCR_AES_GCM_16:
      return 16;
    default:
      break;
  }
  // RFC 4868 section 2.3: half of the output; RFC 2404: 96 bits.
  return integ == Ipsec::AUTH_HMAC_SHA1_96 ? 12 : Ipsec::getIntegKeyLen(integ) / 2;
}

Ipsec::DhGroupNum parseGroup(std::string_view text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size()) {
    for (const auto& row : groups) {
      if (row.value == number) {
        return row.value;
      }
    }
  }
  return parseName("group", groups, text);
}

std::vector<Ipsec::DhGroupNum> parseGroups(std::string_view commaSeparated) {
  std::vector<Ipsec::DhGroupNum> parsed;
  while (true) {
    const std::size_t comma = commaSeparated.find(',');
    parsed.push_back(parseGroup(commaSeparated.substr(0, comma)));
    if (comma == std::string_view::npos) {
      return parsed;
    }
    commaSeparated.remove_prefix(comma + 1);
  }
}

Ipsec::PrfType parsePrf(std::string_view text) {
  return parseName("PRF", prfs, text);
}

Ipsec::EncryptAlgoWithKeyLen parseEncr(std::string_view text) {
  return parseName("cipher", ciphers, text);
}

Ipsec::IntegrityAlgo parseInteg(std::string_view text) {
  return parseName("integrity", integrities, text);
}

std::string groupName(Ipsec::DhGroupNum group) {
  return nameOf(groups, group);
}

std::string prfName(Ipsec::PrfType prf) {
  return nameOf(prfs, prf);
}

std::string protectionName(const Protection& protection) {
  std::string name = "number " + std::to_string(protection.encr.algo);
  for (const auto& row : ciphers) {
    if (row.value.algo == protection.encr.algo && row.value.keyLen == protection.encr.keyLen) {
      name = row.name;
    }
  }
  return protection.isAead() ? name : name + "-" + nameOf(integrities, protection.integ);
}

Ipsec::HashAlgorithm hashOf(Ipsec::PrfType prf) {
  switch (prf) {
    case Ipsec::PRF_HMAC_SHA1:
      return Ipsec::HASH_SHA1;
    case Ipsec::PRF_HMAC_SHA2_256:
      return Ipsec::HASH_SHA256;
    case Ipsec::PRF_HMAC_SHA2_384:
      return Ipsec::HASH_SHA384;
    case Ipsec::PRF_HMAC_SHA2_512:
      return Ipsec::HASH_SHA512;
  }
  throw Failure(ExitCode::Internal, "a PRF without a hash");
}

Ipsec::PrfType prfUnder(Ipsec::IntegrityAlgo integ) {
  switch (integ) {
    case Ipsec::AUTH_HMAC_SHA1_96:
      return Ipsec::PRF_HMAC_SHA1;
    case Ipsec::AUTH_HMAC_SHA2_256_128:
      return Ipsec::PRF_HMAC_SHA2_256;
    case Ipsec::AUTH_HMAC_SHA2_384_192:
      return Ipsec::PRF_HMAC_SHA2_384;
    case Ipsec::AUTH_HMAC_SHA2_512_256:
      return Ipsec::PRF_HMAC_SHA2_512;
  }
  throw Failure(ExitCode::Internal, "an integrity transform without a PRF");
}

}  // namespace Agent
