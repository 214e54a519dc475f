// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Remains shows what an operation leaves in memory that nobody owns any more: in blocks of the heap at the moment when
// they are freed, and on the stack below the operation's caller.
//
// A test program with this source replaces operator new and operator delete, and main() must call startWatching()
// before anything else. Freed blocks are kept, as they were when they were freed, until the Remains are destroyed.
#pragma once

#include "Ipsec.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Ipsec::Testing {

// Lets OpenSSL take its memory from here, and starts the program once more if functions are looked up at their first
// call: for that, the loader saves the registers on the stack, with the secrets that are in them.
void startWatching(char** argv);

// Needles remembers every eight consecutive bytes of what it is given: as they are, in reverse (a BIGNUM begins with
// its lowest byte), and with the bytes of each word of four or eight reversed (a digest's state and its input).
class Needles {
 public:
  // Throws std::invalid_argument if no eight bytes have enough different values to be told from anything else.
  void add(const std::string& name, const ByteVector& bytes);
  void add(const std::string& name, std::string_view text) { add(name, ByteVector(text.begin(), text.end())); }

  // Returns each needle that the bytes hold, once: its name, and the order of its bytes.
  std::set<std::string> foundIn(const unsigned char* bytes, std::size_t size) const;

 private:
  bool addWindows(const std::string& name, const ByteVector& bytes);

  std::unordered_map<std::uint64_t, std::string> windows;
  std::vector<bool> begins = std::vector<bool>(0x10000);  // whether any window begins with these two bytes
};

// A needle that was found: what and where ("key in 33 freed bytes", "key on the stack"), and for a freed block the
// exported functions that were under way, the innermost first.
struct Finding {
  std::string what;
  std::string callers;
};

using Findings = std::vector<Finding>;

// What one operation has left. No other Remains may exist meanwhile.
class Remains {
 public:
  // Runs the operation in a thread with a stack of its own. Throws what it throws.
  explicit Remains(const std::function<void()>& operation);
  ~Remains();
  Remains(const Remains&) = delete;
  Remains& operator=(const Remains&) = delete;

  // Blocks that the operation freed, and the stack that it used.
  Findings dead(const Needles& needles) const;

  // Blocks that the operation allocated and did not free.
  Findings live(const Needles& needles) const;

 private:
  void release();

  unsigned char* stackBytes;
};

// Expects exactly these findings, in any order.
void expectFindings(const Findings& findings, const std::vector<std::string>& expected);

// Runs what belongs to the test and not to the operation that is under way: in a thread of its own, without watching.
void aside(const std::function<void()>& work);

}  // namespace Ipsec::Testing
