// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Results.h"

#include <algorithm>

namespace Exchange {
namespace {

std::vector<double> collect(const GroupResult& group, double ExchangeResult::*member) {
  std::vector<double> values;
  for (const ExchangeResult& exchange : group.exchanges) {
    if (exchange.*member > 0) {
      values.push_back(exchange.*member);
    }
  }
  return values;
}

}  // namespace

double median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double medianInit(const GroupResult& group) {
  return median(collect(group, &ExchangeResult::initMicroseconds));
}

double medianAgreement(const GroupResult& group) {
  return median(collect(group, &ExchangeResult::agreementMicroseconds));
}

std::size_t agreeing(const GroupResult& group) {
  return static_cast<std::size_t>(
      std::count_if(group.exchanges.begin(), group.exchanges.end(), [](const auto& one) { return one.agrees(); }));
}

std::size_t keyBytes(const GroupResult& group) {
  std::size_t sum = 0;
  for (const ExchangeResult& exchange : group.exchanges) {
    sum += exchange.keyBytes;
  }
  return sum;
}

}  // namespace Exchange
