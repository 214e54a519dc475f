// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A configuration change as an IPsec agent makes it, from naming a connection to loading the kernel's modules, on the
// demo's private host. Fails if anything that it shows is not as expected.

#include "IpsecDaemon.h"
#include "PrivateHost.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
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

// A step: its title, and why it matters.
void title(const char* text, const char* why) {
  std::cout << "\n=== " << text << " ===\n" << why << "\n\n" << std::flush;
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

Ipsec::stringmap connection(const char* left, const char* right, std::uint32_t number) {
  return {{"config", nameOf(left, right, number)},
          {"ikeVersion", "ikev2"},
          {"authby", Ipsec::Ike::stringValue(Ipsec::Ike::IpsecAuthType::PreSharedKey)},
          {"reqid", std::to_string(number)},
          {"left", left},
          {"right", right}};
}

void writeConnection(const char* left, const char* right, std::uint32_t number, const char* lifetime) {
  Ipsec::stringmap settings = connection(left, right, number);
  settings["lifetime"] = lifetime;
  settings["esp"] = "aes256gcm16-ecp256!";
  Ipsec::writeConnections(settings);
}

// The new file's mode is what the umask leaves of 0666, whatever the mode of the old file was.
void writeSecret(const char* peer, const char* key) {
  const mode_t before = umask(077);
  Ipsec::writeSecrets({{"peerIp", peer}, {"key", key}});
  (void)umask(before);
}

void showFile(const char* path) {
  struct stat status = {};
  expect(stat(path, &status) == 0, "the file is there");
  std::printf("%s (mode %03o):\n", path, status.st_mode & 0777U);
  std::cout << contents(path);
}

void changeConnections() {
  title("Can one connection change and leave the others alone?",
        "Each is a section with a name of its own, made from the VRF, both ends and a number. Six calls\n"
        "write the defaults and three connections, then the first of these again with a longer lifetime,\n"
        "and remove the second. Each call writes a new file and renames it: the daemon sees the old file or\n"
        "the new one.");
  const std::string name = nameOf("10.0.0.1", "10.0.0.2", 7);
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
  title("Who can read the secrets?",
        "Only their owner: the umask around the call gives the file its mode. There is one entry for each\n"
        "peer; the first peer's secret has been replaced.");
  writeSecret("10.0.0.2", "\"first secret of the demo\"");
  writeSecret("2001:db8::2", "0x00112233445566778899aabbccddeeff");
  writeSecret("10.0.0.2", "\"second secret of the demo\"");
  showFile(secretsFile);
  expect(contents(secretsFile) ==
             "2001:db8::2 : PSK 0x00112233445566778899aabbccddeeff\n10.0.0.2 : PSK \"second secret of the demo\"\n",
         "the secrets file");
  expect((fs::status(secretsFile).permissions() & fs::perms(0777)) == fs::perms(0600), "the secrets file's mode");
}

// The same files in one step each, after a check.
void checkApplyAndList() {
  title("Is a mistake found before the daemon sees it?",
        "A connection has a version that the daemon would refuse, and a setting that is misspelt. The check\n"
        "names both, in words for a log and without their values. No file is opened.");
  Ipsec::stringmap wrong = connection("10.0.0.1", "10.0.0.4", 10);
  wrong["ikeVersion"] = "2";
  wrong["lifetiem"] = "3600";
  std::vector<Ipsec::SettingProblem> problems;
  expect(!Ipsec::checkConnection(wrong, &problems) && problems.size() == 2, "two problems");
  for (const Ipsec::SettingProblem& problem : problems) {
    std::cout << "  " << problem.setting << ": " << problem.text << "\n";
  }

  title("And a thousand changes at once?",
        "Two calls configure a thousand connections and their secrets: all of them or none, and they are on\n"
        "the disk before the call returns. An agent that restarts asks what there is, and removes what is\n"
        "no longer wanted.");
  std::vector<Ipsec::stringmap> connections;
  std::vector<Ipsec::stringmap> secrets;
  for (std::uint32_t number = 100; number < 1100; ++number) {
    const std::string peer = "10.1." + std::to_string(number / 200) + "." + std::to_string(number % 200 + 1);
    connections.push_back(connection("10.0.0.1", peer.c_str(), number));
    secrets.push_back({{"peerIp", peer}, {"key", "\"secret of peer " + std::to_string(number) + "\""}});
  }
  const auto start = std::chrono::steady_clock::now();
  expect(Ipsec::applyConnections(connections) && Ipsec::applySecrets(secrets), "the changes");
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  std::printf("  applied      in %.0f ms\n", took.count());

  std::vector<Vello::String> names;
  std::vector<Vello::String> peers;
  expect(Ipsec::listConnections(&names) && Ipsec::listSecrets(&peers), "the lists");
  std::cout << "  configured   " << names.size() << " connections, from " << names.front() << " to " << names.back()
            << "\n               " << peers.size() << " secrets, from " << peers.front() << " to " << peers.back()
            << "\n";
  expect(names.size() == 1003 && peers.size() == 1002, "the numbers of connections and secrets");

  std::vector<Ipsec::stringmap> removals;
  for (const Vello::String& name : names) {
    if (name != "%default") {
      removals.push_back({{"config", name}, {"delete", ""}});
    }
  }
  expect(Ipsec::applyConnections(removals) && Ipsec::listConnections(&names), "the removals");
  expect(names == std::vector<Vello::String>{"%default"}, "what is left");
  std::cout << "  left         " << names.front() << ", after one call that removed the others\n";
}

void askForDaemon() {
  title("Does the daemon run?", "The library asks the process whose number is in the daemon's pid file.");
  const bool before = Ipsec::isSswanRunning();
  std::cout << "  without a pid file                       " << (before ? "yes" : "no") << "\n";
  write(pidFile, std::to_string(getpid()) + "\n");  // The demo itself takes the part of the daemon.
  const bool after = Ipsec::isSswanRunning();
  std::cout << "  with the pid file of a running process   " << (after ? "yes" : "no") << "\n";
  expect(!before && after, "the daemon's liveness");
}

void setReplayWindow() {
  title("Is the kernel ready?",
        "Fast links need replay windows beyond the kernel's default limit, and ESP needs its crypto\n"
        "modules. A tool that only notes its arguments stands in for modprobe and rmmod here.");
  write(replaySetting, "4096\n");
  Ipsec::setMaxReplayWindow();
  expect(contents(replaySetting) == "65536\n", "the setting");
  std::cout << "  limit of replay windows   4096 before, 65536 after\n";
}

// Installs a module tool that only records its arguments. The library reports only a tool that cannot be run.
void placeModuleTool(const char* path) {
  write(path, "#!/bin/sh\necho \"$0 $*\" >>/etc/commands\n");
  fs::permissions(path, fs::perms(0755));
}

void handleModules() {
  placeModuleTool("/sbin/modprobe");
  placeModuleTool("/sbin/rmmod");
  Ipsec::enableCryptoModules();
  Ipsec::enableFlowEncapModule();
  Ipsec::disableCryptoModules();
  const std::string commands = contents("/etc/commands");
  expect(commands ==
             "/sbin/modprobe aes-x86_64\n/sbin/modprobe aesni_intel\n/sbin/modprobe crypto_null\n"
             "/sbin/modprobe ipsec_flow_parallelization\n"
             "/sbin/rmmod aesni_intel\n/sbin/rmmod aes-x86_64\n/sbin/rmmod crypto_null\n",
         "the commands");
  std::istringstream lines(commands);
  for (std::string line; std::getline(lines, line);) {
    std::cout << "  command                   " << line << "\n";
  }
}

void failOnPurpose() {
  title("What does a failure look like?",
        "The module tool is gone now, and a module is asked for again. A failure is one line on standard\n"
        "error: when, which part, how grave (0 is an error), where in the source, and what. Nothing else in\n"
        "this demo fails, so it is the only such line. No key and no setting's value is ever in one:");
  fs::remove("/sbin/modprobe");
  Ipsec::enableFlowEncapModule();
}

// Returns the program's exit code for a machine that does not allow a private host.
int skipped(const std::exception& reason) {
  const bool fails = std::getenv("CI") != nullptr;
  std::cerr << "*** config-demo " << (fails ? "FAILED" : "SKIPPED")
            << ": this machine allows no private mount namespace (" << reason.what() << ") ***\n";
  return fails ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main() {
  try {
    enterPrivateHost();
  } catch (const std::exception& error) {
    return skipped(error);
  }
  try {
    (void)dup2(STDOUT_FILENO, STDERR_FILENO);  // The traces then appear between the lines that they belong to.
    (void)std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::cout << std::unitbuf;
    changeConnections();
    changeSecrets();
    checkApplyAndList();
    askForDaemon();
    setReplayWindow();
    handleModules();
    failOnPurpose();
  } catch (const std::exception& error) {
    std::cerr << "config-demo: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
