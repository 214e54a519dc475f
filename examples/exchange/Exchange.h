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

// What came of one exchange. Sizes and times are the initiator's.
struct ExchangeResult {
  const Suite* suite = nullptr;
  std::size_t publicBytes = 0;
  std::size_t secretBytes = 0;
  std::size_t keyBytes = 0;
  double initMicroseconds = 0;       // setting up the group and making the key pair
  double agreementMicroseconds = 0;  // taking the peer's public value and computing the secret
  std::string problem;               // empty when both sides hold the same

  bool agrees() const { return problem.empty(); }
};

// The exchanges of one group, one for each suite.
struct GroupResult {
  const Group* group = nullptr;
  std::vector<ExchangeResult> exchanges;
};

// Runs one exchange as the initiator. What goes wrong in the exchange itself is in the result. Throws LinkFailure.
ExchangeResult initiate(Link& link, const Group& group, const Suite& suite, Fault fault);

// Answers exchanges until the initiator closes the connection. Throws LinkFailure.
void respond(Link& link, Fault fault);

}  // namespace Exchange
