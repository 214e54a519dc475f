// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// One key exchange between the two processes, from either side.
#pragma once

#include "Groups.h"
#include "Keys.h"
#include "Options.h"
#include "Wire.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Exchange {

// The result of one exchange. Sizes and times are those of the initiator.
struct ExchangeResult {
  const Suite* suite = nullptr;
  std::size_t publicBytes = 0;
  std::size_t secretBytes = 0;
  std::size_t keyBytes = 0;
  double initMicroseconds = 0;       // setting up the group and creating the key pair
  double agreementMicroseconds = 0;  // reading the peer's public value and computing the secret
  std::string problem;               // empty when both sides have the same keys

  bool agrees() const { return problem.empty(); }
};

// The exchanges of one group, one for each suite.
struct GroupResult {
  const Group* group = nullptr;
  std::vector<ExchangeResult> exchanges;
};

// Runs one exchange as the initiator. A failure of the exchange itself is reported in the result. Throws LinkFailure.
ExchangeResult initiate(Link& link, const Group& group, const Suite& suite, Fault fault);

// Answers exchanges until the initiator closes the connection. Throws LinkFailure.
void respond(Link& link, Fault fault);

}  // namespace Exchange
