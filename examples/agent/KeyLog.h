// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Writes derived keys to a file, so that a test can compare them with the peer's.
//
// Warning: never use this for a real connection. Whoever reads the file can read the traffic.
#pragma once

#include "Keys.h"

#include <string>

namespace Agent {

// KeyLog writes lines "NAME HEX" to a file that only its owner may read. If it has no path, it writes nothing.
class KeyLog {
 public:
  explicit KeyLog(const std::string& path);
  ~KeyLog();
  KeyLog(const KeyLog&) = delete;
  KeyLog& operator=(const KeyLog&) = delete;

  void write(const std::string& name, ByteView bytes);
  void write(const std::string& prefix, const IkeKeys& keys);
  void write(const std::string& prefix, const ChildKeys& keys);

 private:
  int fd = -1;
};

}  // namespace Agent
