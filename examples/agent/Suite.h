// The transforms that the agent offers: their names on the command line, their sizes, and what the library says of them.
#pragma once

#include "Ipsec.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// IntegrityAlgo of a cipher that has its own integrity.
inline constexpr auto noIntegrity = static_cast<Ipsec::IntegrityAlgo>(0);

// How packets are protected: those of an IKE SA, or those of a CHILD_SA.
struct Protection {
  Ipsec::EncryptAlgoWithKeyLen encr = {Ipsec::ENCR_AES_CBC, 256};
  Ipsec::IntegrityAlgo integ = Ipsec::AUTH_HMAC_SHA2_256_128;

  bool isAead() const;
  std::size_t encrKeyLen() const;   // bytes drawn from the key stream, a salt included
  std::size_t integKeyLen() const;  // bytes drawn from the key stream
  std::size_t saltLen() const;      // of encrKeyLen, the bytes that are salt
  std::size_t blockSize() const;    // what a plaintext's length must be a multiple of
  std::size_t ivLen() const;        // bytes on the wire
  std::size_t icvLen() const;       // bytes on the wire
};

// Read a name of the command line; throw Failure (Usage), listing the names, for any other text.
Ipsec::DhGroupNum parseGroup(std::string_view text);
std::vector<Ipsec::DhGroupNum> parseGroups(std::string_view commaSeparated);
Ipsec::PrfType parsePrf(std::string_view text);
Ipsec::EncryptAlgoWithKeyLen parseEncr(std::string_view text);
Ipsec::IntegrityAlgo parseInteg(std::string_view text);

std::string groupName(Ipsec::DhGroupNum group);
std::string prfName(Ipsec::PrfType prf);
std::string protectionName(const Protection& protection);

// The hash under an HMAC PRF.
Ipsec::HashAlgorithm hashOf(Ipsec::PrfType prf);

// The PRF whose HMAC an integrity transform truncates.
Ipsec::PrfType prfUnder(Ipsec::IntegrityAlgo integ);

}  // namespace Agent
