// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The transforms that the agent offers: their names on the command line, their sizes, and their numbers in the library.
#pragma once

#include "Ipsec.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// The IntegrityAlgo of a cipher that provides its own integrity.
inline constexpr auto noIntegrity = static_cast<Ipsec::IntegrityAlgo>(0);

// How the packets of an IKE SA or of a CHILD_SA are protected.
struct Protection {
  Ipsec::EncryptAlgoWithKeyLen encr = {Ipsec::ENCR_AES_CBC, 256};
  Ipsec::IntegrityAlgo integ = Ipsec::AUTH_HMAC_SHA2_256_128;

  bool isAead() const;
  std::size_t encrKeyLen() const;   // bytes drawn from the key stream, including a salt
  std::size_t integKeyLen() const;  // bytes drawn from the key stream
  std::size_t saltLen() const;      // how many bytes of encrKeyLen are salt
  std::size_t blockSize() const;    // a plaintext's length must be a multiple of this
  std::size_t ivLen() const;        // bytes on the wire
  std::size_t icvLen() const;       // bytes on the wire
};

// Read a name from the command line. For any other text, throw Failure (Usage) with a list of the names.
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
