// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Interleave.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <stdexcept>
#include <string_view>

namespace Bench {
namespace {

constexpr double sliceNanoseconds = 150'000;
constexpr double warmUpNanoseconds = 10'000'000;

// Returns the time of one operation in a slice of so many.
double timeInSlice(const Side& side, unsigned operations) {
  const auto slice = [&] {
    for (unsigned i = 0; i < operations; ++i) {
      side.operation();
    }
  };
  return timeOf(slice) / operations;
}

// Warms a side up and returns how many operations make a slice.
unsigned operationsPerSlice(const Side& side) {
  std::vector<double> times;
  for (double spent = 0; times.size() < 3 || spent < warmUpNanoseconds; spent += times.back()) {
    times.push_back(timeOf(side.operation));
  }
  return static_cast<unsigned>(std::max(1.0, sliceNanoseconds / std::max(1.0, median(times))));
}

}  // namespace

double threadTime() {
  std::timespec now{};
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) != 0) {
    std::perror("clock_gettime");
    std::exit(1);
  }
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double timeOf(const std::function<void()>& operation) {
  const double start = threadTime();
  operation();
  return threadTime() - start;
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void require(bool held, const std::string& what) {
  if (!held) {
    throw std::runtime_error(what);
  }
}

std::vector<double> interleave(const std::vector<Side>& sides, unsigned slices) {
  std::vector<unsigned> operations;
  operations.reserve(sides.size());
  for (const Side& side : sides) {
    operations.push_back(operationsPerSlice(side));
  }
  std::vector<std::vector<double>> times(sides.size());
  std::vector<std::size_t> order(sides.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  for (unsigned slice = 0; slice < slices; ++slice) {
    for (const std::size_t side : order) {
      times[side].push_back(timeInSlice(sides[side], operations[side]));
    }
    std::next_permutation(order.begin(), order.end());  // from the last order back to the first
  }
  std::vector<double> medians;
  medians.reserve(sides.size());
  for (std::vector<double>& all : times) {
    medians.push_back(median(all));
  }
  return medians;
}

void print(const std::string& subject, const std::string& name, const std::string& side, const std::string& unit,
           double value) {
  std::printf("%s,%s,%s,%s,%.6g\n", subject.c_str(), name.c_str(), side.c_str(), unit.c_str(), value);
  (void)std::fflush(stdout);  // if the reader has ended, the driver's exit status shows it
}

Arguments::Arguments(int count, char** values) {
  for (int i = 1; i < count; i += 2) {
    const std::string_view name = values[i];
    if (i + 1 < count && name == "--slices") {
      slices = std::max(1U, static_cast<unsigned>(std::strtoul(values[i + 1], nullptr, 10)));
    } else if (i + 1 < count && name == "--only") {
      only.emplace_back(values[i + 1]);
    } else {
      (void)std::fprintf(stderr, "Usage: %s [--slices N] [--only CASE]...\n", values[0]);
      std::exit(2);
    }
  }
}

bool Arguments::wants(const std::string& name) const {
  return only.empty() || std::find(only.begin(), only.end(), name) != only.end();
}

}  // namespace Bench
