// Derived keys written to a file, so that a test can compare them with the peer's. Never use it on a real connection.
#pragma once

#include "Keys.h"

#include <string>

namespace Agent {

// KeyLog writes lines "NAME HEX" to a file that only its owner may read. Without a path it writes nothing.
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
