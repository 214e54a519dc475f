// Gives old files, names and values to both writers, in a private mount namespace. After a call that returns, the file
// must hold only whole lines. Nothing may crash or leak.
#include "Ipsec.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <string>

namespace {

// Names whose expressions can exhaust the stack in the standard library's matcher are left out: the caller must avoid
// them.
constexpr std::size_t longestLine = 256;

std::string takeString(const std::uint8_t*& data, std::size_t& size, std::size_t longest) {
  if (size == 0) {
    return {};
  }
  const auto length = std::min<std::size_t>({data[0], size - 1, longest});
  std::string taken(reinterpret_cast<const char*>(data + 1), length);
  data += 1 + length;
  size -= 1 + length;
  return taken;
}

std::string readAll(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeAll(const char* path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

template <class Write>
void check(const char* path, const Write& write) {
  const std::string before = readAll(path);
  try {
    write();
  } catch (const std::out_of_range&) {
    if (readAll(path) != before) {
      std::abort();
    }
    return;
  } catch (const std::regex_error&) {
    if (readAll(path) != before) {
      std::abort();
    }
    return;
  }
  const std::string after = readAll(path);
  if (!after.empty() && after.back() != '\n') {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/etc", "tmpfs", 0, "mode=755") != 0 || mkdir("/etc/strongswan", 0755) != 0) {
    std::perror("A private mount namespace is needed (run as root)");
    std::exit(1);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const unsigned choice = data[0];
  ++data;
  --size;
  const std::string name = takeString(data, size, longestLine);
  const std::string value = takeString(data, size, longestLine);
  const std::string old(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, longestLine));

  Ipsec::stringmap settings = {{"config", name}, {"reqid", value}, {"left", value}, {"right", value}};
  if ((choice & 1) != 0) {
    settings.emplace("uniqueids", (choice & 2) != 0 ? "add" : "drop");
  }
  if ((choice & 4) != 0) {
    settings.emplace("delete", "");
  }
  if ((choice & 8) != 0) {
    settings.emplace("default", (choice & 16) != 0 ? Vello::String("%default") : Vello::String(value));
  }
  if ((choice & 32) != 0) {
    settings.emplace("authby", value);
  }
  writeAll("/etc/strongswan/ipsec.conf", old);
  check("/etc/strongswan/ipsec.conf", [&] { Ipsec::writeConnections(settings); });

  Ipsec::stringmap entry = {{"peerIp", name}};
  if ((choice & 64) != 0) {
    entry.emplace("key", value);
  }
  if ((choice & 4) != 0) {
    entry.emplace("delete", "");
  }
  writeAll("/etc/strongswan/ipsec.secrets", old);
  check("/etc/strongswan/ipsec.secrets", [&] { Ipsec::writeSecrets(entry); });
  return 0;
}
