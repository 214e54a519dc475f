// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The key exchanges that RFC 5903 and RFC 5114 publish, computed again from their private keys.
#pragma once

#include "Groups.h"
#include "Ipsec.h"

#include <string>
#include <vector>

namespace Exchange {

using Ipsec::ByteVector;

// One side of a published exchange, with all its figures.
struct PublishedSide {
  std::string source;  // "RFC 5903 section 8.1"
  std::string side;    // "initiator's side"
  const Group* group = nullptr;
  ByteVector privateKey;
  ByteVector publicValue;
  ByteVector peerPublicValue;
  ByteVector secret;
};

// What the library computed from it.
struct PublishedResult {
  const PublishedSide* published = nullptr;
  std::string problem;  // empty when every figure was reproduced

  bool agrees() const { return problem.empty(); }
};

// Reads rfc5903.txt and rfc5114.txt from a folder. Throws Failure for a file that is missing or malformed.
std::vector<PublishedSide> readPublished(const std::string& folder);

// Imports the private key, and compares the public value and the shared secret with the published ones.
PublishedResult reproduce(const PublishedSide& published);

}  // namespace Exchange
