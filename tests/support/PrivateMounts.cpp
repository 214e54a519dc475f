// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/PrivateMounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Ipsec::Testing {

namespace {

namespace fs = std::filesystem;

// Every machine has this folder of procfs, and nothing here needs what is below it.
const fs::path scratch = "/proc/fs";

// The folder into which the stand-ins write, and the program's own folder over the daemon's.
const fs::path commandLog = scratch / "commands";
const fs::path tools = scratch / "tools";

void check(bool done, const std::string& what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void mountOrThrow(const char* source, const fs::path& target, const char* type, unsigned long flags,
                  const char* options = nullptr) {
  check(mount(source, target.c_str(), type, flags, options) == 0, "mount over " + target.string());
}

// --- The machine's own files -----------------------------------------------------------------------------------------

// An open folder keeps the mounts in which it was opened, so this one remains the machine's.
int machinesRoot = -1;

std::string readAll(int file) {
  std::string text;
  char bytes[4096];
  ssize_t count;
  while ((count = read(file, bytes, sizeof bytes)) > 0) {
    text.append(bytes, static_cast<std::size_t>(count));
  }
  return text;
}

void describe(const std::string& path, std::ostream& out) {
  struct stat status = {};
  if (fstatat(machinesRoot, path.c_str(), &status, 0) != 0) {
    out << path << ": " << std::strerror(errno) << "\n";
    return;
  }
  out << path << ": mode " << std::oct << status.st_mode << std::dec << " size " << status.st_size;
  if (path.rfind("proc/", 0) != 0) {  // In procfs both change with every look.
    out << " inode " << status.st_ino << " time " << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec;
  }
  const int file = openat(machinesRoot, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file >= 0 && !S_ISDIR(status.st_mode)) {
    out << " hash " << std::hash<std::string>()(readAll(file));
  }
  if (file >= 0) {
    (void)close(file);
  }
  out << "\n";
}

// --- Entering --------------------------------------------------------------------------------------------------------

void writeText(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  check(static_cast<bool>(file.flush()), path);
}

void enterNamespaces() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0) {
    check(unshare(CLONE_NEWNS) == 0, "unshare");
    return;
  }
  check(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
  writeText("/proc/self/setgroups", "deny");
  writeText("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
  writeText("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

// Keeps all later mounts from becoming visible in the machine's namespace, and mounts the scratch folder.
void mountScratch() {
  const bool rootIsMount = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  if (!rootIsMount) {
    // In a chroot the root is a folder and not a mount. /proc is a mount there too.
    mountOrThrow(nullptr, "/proc", nullptr, MS_REC | MS_PRIVATE);
  }
  mountOrThrow("tests", scratch, "tmpfs", 0, "mode=755");
  if (!rootIsMount) {
    const fs::path root = scratch / "root";
    fs::create_directory(root);
    mountOrThrow("/", root, nullptr, MS_BIND | MS_REC);
    mountOrThrow(nullptr, root, nullptr, MS_REC | MS_PRIVATE);
    const fs::path here = fs::current_path();
    check(chroot(root.c_str()) == 0 && chdir(here.c_str()) == 0, "chroot");
    mountOrThrow("tests", scratch, "tmpfs", 0, "mode=755");
  }
}

// Replaces a folder with one that has the same entries, as links into the old one, and that may be changed.
void coverFolder(const fs::path& folder) {
  const fs::path target = fs::canonical(folder);
  const fs::path old = scratch / "covered" / target.filename();
  fs::create_directories(old);
  mountOrThrow(target.c_str(), old, nullptr, MS_BIND | MS_REC);
  mountOrThrow("tests", target, "tmpfs", 0, "mode=755");
  for (const fs::directory_entry& entry : fs::directory_iterator(old)) {
    const fs::path name = entry.path().filename();
    fs::create_symlink(entry.is_symlink() ? fs::read_symlink(entry.path()) : entry.path(), target / name);
  }
}

void mountHost() {
  mountScratch();
  if (!fs::is_directory(daemonFolder)) {
    coverFolder("/etc");
    fs::remove(daemonFolder);  // It is a link without a target.
    fs::create_directory(daemonFolder);
  }
  mountOrThrow("tests", daemonFolder, "tmpfs", 0, "mode=755");
  mountOrThrow("tests", kernelSettings, "tmpfs", 0, "mode=755");
  coverFolder("/sbin");
  fs::create_directory(tools);
  for (const char* name : {"modprobe", "rmmod"}) {
    const fs::path tool = fs::path("/sbin") / name;
    fs::remove(tool);
    fs::create_symlink(tools / name, tool);
  }
}

void emptyFolder(const fs::path& folder) {
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    fs::remove_all(entry.path());
  }
}

}  // namespace

void enterPrivateMounts() {
  machinesRoot = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  check(machinesRoot >= 0, "open /");
  enterNamespaces();
  mountHost();
  resetHost();
}

void resetHost() {
  // A test may leave a link in a file's place: what it leads to stays mounted.
  while (umount2(connectionsFile, MNT_DETACH | UMOUNT_NOFOLLOW) == 0 ||
         umount2(secretsFile, MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
  }
  emptyFolder(daemonFolder);
  emptyFolder(kernelSettings);
  writeFile(commandLog, "");
  setModuleTool("modprobe", "exit 0");
  setModuleTool("rmmod", "exit 0");
}

void setModuleTool(std::string_view name, std::string_view action) {
  const fs::path tool = tools / name;
  writeFile(tool, "#!/bin/sh\nprintf '%s|' \"$0\" \"$@\" >>" + commandLog.string() + "\necho >>" + commandLog.string() +
                      "\n" + std::string(action) + "\n");
  fs::permissions(tool, fs::perms(0755));
}

void removeModuleTool(std::string_view name) {
  fs::remove(tools / name);
}

std::vector<std::string> recordedCommands() {
  std::istringstream log(readFile(commandLog));
  std::vector<std::string> commands;
  for (std::string line; std::getline(log, line);) {
    commands.push_back(line);
  }
  return commands;
}

Mount Mount::smallDisk(const std::string& folder, std::size_t bytes) {
  const std::string options = "mode=755,size=" + std::to_string(bytes);
  mountOrThrow("tests", folder, "tmpfs", 0, options.c_str());
  return Mount(folder);
}

Mount Mount::bind(const std::string& source, const std::string& target) {
  mountOrThrow(source.c_str(), target, nullptr, MS_BIND);
  return Mount(target);
}

Mount Mount::readOnly(const std::string& folder) {
  Mount mounted = bind(folder, folder);
  mountOrThrow(nullptr, folder, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY);
  return mounted;
}

Mount::Mount(std::string mountedOver) : target(std::move(mountedOver)) {}

Mount::Mount(Mount&& other) noexcept : target(std::exchange(other.target, {})) {}

Mount::~Mount() {
  if (!target.empty()) {
    (void)umount2(target.c_str(), MNT_DETACH);  // The end of the namespace unmounts it at the latest.
  }
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, std::string_view contents) {
  std::ofstream file(path, std::ios::binary);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::string machinesOwnFiles() {
  std::ostringstream out;
  for (const char* path :
       {"etc/strongswan", "etc/strongswan/ipsec.conf", "etc/strongswan/ipsec.conf.tmp", "etc/strongswan/ipsec.secrets",
        "etc/strongswan/ipsec.secrets.tmp", "etc/strongswan/ipsec.d/run/charon.pid",
        "proc/sys/net/core/xfrm_replay_esn_max", "sbin/modprobe", "sbin/rmmod"}) {
    describe(path, out);
  }
  return out.str();
}

}  // namespace Ipsec::Testing
