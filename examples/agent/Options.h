// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The command line.
#pragma once

#include "Link.h"
#include "Suite.h"

#include <string>
#include <vector>

namespace Agent {

struct Options {
  bool help = false;
  bool verbose = false;
  int version = 2;
  LinkOptions link;
  std::string pskFile;
  std::vector<Ipsec::DhGroupNum> groups = {Ipsec::MODP_2048};  // the first one is tried first
  Ipsec::PrfType prf = Ipsec::PRF_HMAC_SHA2_256;
  Protection ike;
  Protection esp;
  Ipsec::DhGroupNum pfsGroup = Ipsec::MODP_NONE;
  bool rekey = false;
  bool echo = true;
  std::string id;        // empty: the local address
  std::string peerId;    // empty: the peer's address
  std::string tsLocal;   // empty: the local address
  std::string tsRemote;  // empty: the peer's address

  // For tests only.
  std::string keyLog;
  int halfOpen = 0;
  bool zeroPublic = false;
  int zeroSecret = 0;
};

// Reads the command line. Throws Failure (Usage).
Options parseOptions(int argc, char** argv);

// The text of --help.
std::string usage();

}  // namespace Agent
