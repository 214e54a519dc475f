// A configuration change as an IPsec agent makes it, from naming a connection to loading the kernel's modules, on the
// demo's private host. Fails if anything that it shows is not as expected.

#include "IpsecDaemon.h"
#include "PrivateHost.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr char connectionsFile[] = "/etc/strongswan/ipsec.conf";
constexpr char secretsFile[] = "/etc/strongswan/ipsec.secrets";
constexpr char pidFile[] = "/etc/strongswan/ipsec.d/run/charon.pid";
constexpr char replaySetting[] = "/proc/sys/net/core/xfrm_replay_esn_max";

std::string contents(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
}

void title(const char* text) {
  std::cout << "\n--- " << text << " ---\n" << std::flush;
}

void expect(bool held, const char* what) {
  if (!held) {
    throw std::runtime_error(std::string("not as expected: ") + what);
  }
}

std::string nameOf(const char* left, const char* right, std::uint32_t number) {
  const Ipsec::ConnectionKey key(Vrf::VrfIdMap::VrfId::defaultVrf(), number, Ipsec::ConnIdSrc::Local,
                                 Ipnet::IpGenAddr(left), Ipnet::IpGenAddr(right));
  return Ipsec::getConnNameFromKey(key).str();
}

void writeConnection(const char* left, const char* right, std::uint32_t number, const char* lifetime) {
  Ipsec::writeConnections({{"config", nameOf(left, right, number)},
                           {"ikeVersion", "ikev2"},
                           {"authby", Ipsec::Ike::stringValue(Ipsec::Ike::IpsecAuthType::PreSharedKey)},
                           {"reqid", std::to_string(number)},
                           {"left", left},
                           {"right", right},
                           {"lifetime", lifetime},
                           {"esp", "aes256gcm16-ecp256!"}});
}

// The new file's mode is what the umask leaves of 0666, whatever the mode of the old file was.
void writeSecret(const char* peer, const char* key) {
  const mode_t before = umask(077);
  Ipsec::writeSecrets({{"peerIp", peer}, {"key", key}});
  (void)umask(before);
}

void showFile(const char* path) {
  title(path);
  struct stat status = {};
  expect(stat(path, &status) == 0, "the file is there");
  std::printf("(mode %03o)\n", status.st_mode & 0777U);
  std::cout << contents(path);
}

void changeConnections() {
  title("A connection's name");
  const std::string name = nameOf("10.0.0.1", "10.0.0.2", 7);
  std::cout << name << "\n";
  expect(name == "default-10.0.0.1-10.0.0.2-local-7", "the name");

  Ipsec::writeConnections({{"uniqueids", "add"}, {"default", "%default"}, {"ikeVersion", "ikev2"}});
  writeConnection("10.0.0.1", "10.0.0.2", 7, "3600");
  writeConnection("10.0.0.1", "10.0.0.3", 8, "3600");
  writeConnection("2001:db8::1", "2001:db8::2", 9, "3600");
  writeConnection("10.0.0.1", "10.0.0.2", 7, "7200");
  Ipsec::writeConnections({{"config", nameOf("10.0.0.1", "10.0.0.3", 8)}, {"delete", ""}});

  showFile(connectionsFile);
  const std::string text = contents(connectionsFile);
  expect(text.rfind("config setup\n\tuniqueids=no\nconn %default\n", 0) == 0, "the head of the connections file");
  expect(text.find("local-8") == std::string::npos, "the deleted connection");
  expect(text.find("local-9") < text.find("local-7"), "the order of the last updates");
  expect(text.find("lifetime=7200s") != std::string::npos, "the replaced connection");
}

void changeSecrets() {
  writeSecret("10.0.0.2", "\"first secret of the demo\"");
  writeSecret("2001:db8::2", "0x00112233445566778899aabbccddeeff");
  writeSecret("10.0.0.2", "\"second secret of the demo\"");
  showFile(secretsFile);
  expect(contents(secretsFile) ==
             "2001:db8::2 : PSK 0x00112233445566778899aabbccddeeff\n10.0.0.2 : PSK \"second secret of the demo\"\n",
         "the secrets file");
  expect((fs::status(secretsFile).permissions() & fs::perms(0777)) == fs::perms(0600), "the secrets file's mode");
}

Ipsec::stringmap connection(const char* left, const char* right, std::uint32_t number) {
  return {{"config", nameOf(left, right, number)},
          {"ikeVersion", "ikev2"},
          {"authby", Ipsec::Ike::stringValue(Ipsec::Ike::IpsecAuthType::PreSharedKey)},
          {"reqid", std::to_string(number)},
          {"left", left},
          {"right", right}};
}

// The same files in one step each, after a check.
void checkApplyAndList() {
  title("A check before the change");
  Ipsec::stringmap wrong = connection("10.0.0.1", "10.0.0.4", 10);
  wrong["ikeVersion"] = "2";
  wrong["lifetiem"] = "3600";
  std::vector<Ipsec::SettingProblem> problems;
  expect(!Ipsec::checkConnection(wrong, &problems) && problems.size() == 2, "two problems");
  for (const Ipsec::SettingProblem& problem : problems) {
    std::cout << problem.setting << ": " << problem.text << "\n";
  }

  title("A thousand connections and their secrets in two calls");
  std::vector<Ipsec::stringmap> connections;
  std::vector<Ipsec::stringmap> secrets;
  for (std::uint32_t number = 100; number < 1100; ++number) {
    const std::string peer = "10.1." + std::to_string(number / 200) + "." + std::to_string(number % 200 + 1);
    connections.push_back(connection("10.0.0.1", peer.c_str(), number));
    secrets.push_back({{"peerIp", peer}, {"key", "\"secret of peer " + std::to_string(number) + "\""}});
  }
  expect(Ipsec::applyConnections(connections) && Ipsec::applySecrets(secrets), "the changes");

  std::vector<Vello::String> names;
  std::vector<Vello::String> peers;
  expect(Ipsec::listConnections(&names) && Ipsec::listSecrets(&peers), "the lists");
  std::cout << names.size() << " connections, from " << names.front() << " to " << names.back() << "\n"
            << peers.size() << " secrets, from " << peers.front() << " to " << peers.back() << "\n";
  expect(names.size() == 1003 && peers.size() == 1002, "the numbers of connections and secrets");

  title("What is no longer wanted goes, also in one step");
  std::vector<Ipsec::stringmap> removals;
  for (const Vello::String& name : names) {
    if (name != "%default") {
      removals.push_back({{"config", name}, {"delete", ""}});
    }
  }
  expect(Ipsec::applyConnections(removals) && Ipsec::listConnections(&names), "the removals");
  for (const Vello::String& name : names) {
    std::cout << name << "\n";
  }
  expect(names == std::vector<Vello::String>{"%default"}, "what is left");
}

void askForDaemon() {
  title("Does the daemon run?");
  const bool before = Ipsec::isSswanRunning();
  std::cout << "without a pid file: " << (before ? "yes" : "no") << "\n";
  write(pidFile, std::to_string(getpid()) + "\n");  // The demo itself takes the part of the daemon.
  const bool after = Ipsec::isSswanRunning();
  std::cout << "with the pid file of a running process: " << (after ? "yes" : "no") << "\n";
  expect(!before && after, "the daemon's liveness");
}

void setReplayWindow() {
  title("The kernel's limit of replay windows");
  write(replaySetting, "4096\n");
  Ipsec::setMaxReplayWindow();
  expect(contents(replaySetting) == "65536\n", "the setting");
  fs::remove(replaySetting);
  Ipsec::setMaxReplayWindow();  // On a kernel without the setting.
  expect(!fs::exists(replaySetting), "the missing setting");
}

// Installs a module tool that only records its arguments. The library reports only a tool that cannot be run.
void placeModuleTool(const char* path) {
  write(path, "#!/bin/sh\necho \"$0 $*\" >>/etc/commands\n");
  fs::permissions(path, fs::perms(0755));
}

void handleModules() {
  title("Kernel modules");
  placeModuleTool("/sbin/modprobe");
  placeModuleTool("/sbin/rmmod");
  Ipsec::enableCryptoModules();
  Ipsec::enableFlowEncapModule();
  Ipsec::disableCryptoModules();
  expect(contents("/etc/commands") ==
             "/sbin/modprobe aes-x86_64\n/sbin/modprobe aesni_intel\n/sbin/modprobe crypto_null\n"
             "/sbin/modprobe ipsec_flow_parallelization\n"
             "/sbin/rmmod aesni_intel\n/sbin/rmmod aes-x86_64\n/sbin/rmmod crypto_null\n",
         "the commands");
  title("Kernel modules on a host without the tool");
  fs::remove("/sbin/modprobe");
  Ipsec::enableFlowEncapModule();
}

// The levels of the text trace are read when the library is loaded, so the program sets them and starts again.
void startWithTraces(char** argv) {
  if (std::getenv("TRACE_LEVELS") != nullptr) {
    return;
  }
  expect(setenv("TRACE_LEVELS", "IpsecUtils=0-8,IpsecDaemon=0-8", 1) == 0, "the environment");
  (void)execv("/proc/self/exe", argv);
  throw std::runtime_error("cannot start again");
}

// Returns the program's exit code for a machine that does not allow a private host.
int skipped(const std::exception& reason) {
  const bool fails = std::getenv("CI") != nullptr;
  std::cerr << "*** config-demo " << (fails ? "FAILED" : "SKIPPED")
            << ": this machine allows no private mount namespace (" << reason.what() << ") ***\n";
  return fails ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int, char** argv) {
  try {
    startWithTraces(argv);
    enterPrivateHost();
  } catch (const std::exception& error) {
    return skipped(error);
  }
  try {
    (void)dup2(STDOUT_FILENO, STDERR_FILENO);  // The traces then appear between the lines that they belong to.
    std::cout << std::unitbuf << "A configuration change, in its own mount namespace\n";
    changeConnections();
    changeSecrets();
    checkApplyAndList();
    askForDaemon();
    setReplayWindow();
    handleModules();
  } catch (const std::exception& error) {
    std::cerr << "config-demo: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
