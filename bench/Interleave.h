// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Compares implementations of one operation on a machine that does other work at the same time.
//
// Each side runs in short slices that alternate with those of the other sides, so that whatever else the machine does
// affects all of them alike. Time is the thread's CPU time, and the result is a median over all slices.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Bench {

// Bytes of a key, value, secret or stream.
using Bytes = std::vector<unsigned char>;

struct Side {
  std::string name;
  std::function<void()> operation;
};

// Returns the CPU time of the calling thread in nanoseconds.
double threadTime();

// Returns the CPU time of one call in nanoseconds.
double timeOf(const std::function<void()>& operation);

// Returns the median, and changes the order of the values.
double median(std::vector<double>& values);

// Throws std::runtime_error if something does not hold that the figures rely on.
void require(bool held, const std::string& what);

// Returns the median time of one operation in nanoseconds for each side, in their order. Every side gets the given
// number of slices, and all orders of the sides take turns.
std::vector<double> interleave(const std::vector<Side>& sides, unsigned slices);

// Prints "subject,case,side,unit,value", the line that run.py reads.
void print(const std::string& subject, const std::string& name, const std::string& side, const std::string& unit,
           double value);

// The arguments of the programs: "--slices N", "--only NAME" (the latter repeatedly).
struct Arguments {
  unsigned slices = 400;
  std::vector<std::string> only;

  Arguments(int count, char** values);

  // Returns whether the case is to be run: if it is named, or if no case is.
  bool wants(const std::string& name) const;
};

}  // namespace Bench
