// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateHost.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

void check(bool done, const std::string& what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  check(static_cast<bool>(file), "write " + path.string());
}

void mountEmpty(const fs::path& folder) {
  check(mount("demo", folder.c_str(), "tmpfs", 0, "mode=755") == 0, "mount over " + folder.string());
}

void enterNamespace() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  check(unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
  if (user != 0) {
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
}

// Keeps the mounts below from becoming visible in the machine's namespace.
void detachFromMachine() {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    return;
  }
  // In a chroot the root is a folder and not a mount, so it cannot be made private from inside. /proc is a separate
  // mount there: a copy of the tree is mounted inside it and becomes the root.
  const fs::path root = "/proc/fs/root";
  check(mount(nullptr, "/proc", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make /proc private");
  mountEmpty(root.parent_path());
  fs::create_directory(root);
  check(mount("/", root.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "copy the root");
  check(mount(nullptr, root.c_str(), nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make the root private");
  check(chroot(root.c_str()) == 0 && chdir("/") == 0, "chroot");
}

}  // namespace

void enterPrivateHost() {
  enterNamespace();
  detachFromMachine();
  mountEmpty("/etc");
  fs::create_directories("/etc/strongswan/ipsec.d/run");
  mountEmpty("/proc/sys/net/core");
  mountEmpty(fs::canonical("/sbin"));
}
