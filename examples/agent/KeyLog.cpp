// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "KeyLog.h"

#include "Failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

KeyLog::KeyLog(const std::string& path) {
  if (path.empty()) {
    return;
  }
  fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  // The mode given to open counts only for a new file.
  if (fd < 0 || fchmod(fd, 0600) != 0) {
    throw Failure(ExitCode::Internal, "opening the key log " + path + ": " + std::strerror(errno));
  }
}

KeyLog::~KeyLog() {
  if (fd >= 0) {
    (void)close(fd);
  }
}

void KeyLog::write(const std::string& name, ByteView bytes) {
  if (fd < 0) {
    return;
  }
  static constexpr char digits[] = "0123456789abcdef";
  std::string line = name + " ";
  for (const unsigned char byte : bytes) {
    line += digits[byte >> 4];
    line += digits[byte & 15];
  }
  line += '\n';
  if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    throw Failure(ExitCode::Internal, std::string("writing the key log: ") + std::strerror(errno));
  }
}

void KeyLog::write(const std::string& prefix, const IkeKeys& keys) {
  write(prefix + ".sk_d", keys.d.bytes);
  write(prefix + ".sk_ai", keys.initiator.integ.bytes);
  write(prefix + ".sk_ar", keys.responder.integ.bytes);
  write(prefix + ".sk_ei", keys.initiator.encr.bytes);
  write(prefix + ".sk_er", keys.responder.encr.bytes);
  write(prefix + ".sk_pi", keys.pi.bytes);
  write(prefix + ".sk_pr", keys.pr.bytes);
}

void KeyLog::write(const std::string& prefix, const ChildKeys& keys) {
  write(prefix + ".encr_i", keys.initiator.encr.bytes);
  write(prefix + ".integ_i", keys.initiator.integ.bytes);
  write(prefix + ".encr_r", keys.responder.encr.bytes);
  write(prefix + ".integ_r", keys.responder.integ.bytes);
}

}  // namespace Agent
