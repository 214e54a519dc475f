// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The results of a run so far.
#pragma once

#include "Exchange.h"
#include "Published.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Exchange {

struct Results {
  std::vector<PublishedSide> publishedSides;
  std::vector<PublishedResult> published;
  std::vector<GroupResult> groups;
  std::vector<std::string> failures;  // everything that went wrong, one line each
  std::size_t exchangesPlanned = 0;
  double seconds = 0;
};

// Returns the median of the values, which one slow outlier does not change; 0 if there are none.
double median(std::vector<double> values);

double medianInit(const GroupResult& group);
double medianAgreement(const GroupResult& group);
std::size_t agreeing(const GroupResult& group);
std::size_t keyBytes(const GroupResult& group);

}  // namespace Exchange
