// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// PrivateMounts gives a test program the real paths of the host side without the real host: its own mount namespace,
// with private folders over /etc/strongswan and /proc/sys/net/core, and recording stand-ins over /sbin/modprobe and
// /sbin/rmmod. Nothing in it outlives the program, and nothing is created or changed outside of it.
//
// The tests enter it through HostTests.h.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Ipsec::Testing {

// Enters the namespace and mounts all of this. Call it while there is only one thread. Root gets a mount namespace, and
// any other user a user namespace around it. Throws std::exception if the machine forbids that.
void enterPrivateMounts();

inline constexpr char daemonFolder[] = "/etc/strongswan";
inline constexpr char connectionsFile[] = "/etc/strongswan/ipsec.conf";
inline constexpr char secretsFile[] = "/etc/strongswan/ipsec.secrets";
inline constexpr char pidFile[] = "/etc/strongswan/ipsec.d/run/charon.pid";
inline constexpr char kernelSettings[] = "/proc/sys/net/core";
inline constexpr char replayWindowSetting[] = "/proc/sys/net/core/xfrm_replay_esn_max";

// Empties the private folders and restores the stand-ins, which record their arguments and exit with 0. A mount that a
// test left in the daemon's folder is removed first.
void resetHost();

// Sets what a stand-in does after it has recorded its arguments, as shell text ("exit 1", "kill -9 $$").
void setModuleTool(std::string_view name, std::string_view action);
void removeModuleTool(std::string_view name);

// Returns the commands that the stand-ins recorded since resetHost: "/sbin/modprobe|aesni_intel|", with one bar per
// argument.
std::vector<std::string> recordedCommands();

// A test's own mount, which lasts as long as the object lives. Throws std::system_error when mount fails.
class Mount {
 public:
  // A tmpfs with room for that many bytes, rounded up to pages.
  static Mount smallDisk(const std::string& folder, std::size_t bytes);
  static Mount bind(const std::string& source, const std::string& target);
  static Mount readOnly(const std::string& folder);

  Mount(Mount&& other) noexcept;
  Mount& operator=(Mount&&) = delete;
  ~Mount();

 private:
  explicit Mount(std::string target);

  std::string target;
};

// What a test looks at and leaves behind. They throw std::runtime_error when a file cannot be read or written.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, std::string_view contents);
bool exists(const std::string& path);

// Returns the present state of the machine's own files on all these paths: names, modes, times, contents. Looks at them
// through the namespace in which the program started.
std::string machinesOwnFiles();

}  // namespace Ipsec::Testing
