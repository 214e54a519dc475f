// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Configures the daemon through the library, for the interop runner. Reads commands from standard input, one per line
// with its fields separated by TABs, calls the library, and answers each command with one line.
//
//   connection KEY=VALUE ...                  writeConnections          -> ok
//   secret KEY=VALUE ...                      writeSecrets              -> ok
//   name FIRST SECOND local|remote NUMBER     getConnNameFromKey        -> ok NAME
//   running                                   isSswanRunning            -> ok true|false
//   check-connection KEY=VALUE ...            checkConnection           -> ok true, or ok false SETTING ...
//   check-secret KEY=VALUE ...                checkSecret               -> ok true, or ok false SETTING ...
//   queue-connection KEY=VALUE ...            puts a change aside       -> ok
//   queue-secret KEY=VALUE ...                puts a change aside       -> ok
//   apply                                     applyConnections and applySecrets of what was put aside -> ok true|false
//   list-connections                          listConnections           -> ok NAME ...
//
// In KEY and VALUE, "\\xHH" is the byte with this hexadecimal number.
// The answer to a command that fails is "error TEXT".

#include "Ipsec.h"
#include "IpsecDaemon.h"

#include <sys/stat.h>

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t from = 0;
  while (true) {
    const std::size_t tab = line.find('\t', from);
    fields.push_back(line.substr(from, tab - from));
    if (tab == std::string::npos) {
      return fields;
    }
    from = tab + 1;
  }
}

std::string unescaped(const std::string& text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text.compare(at, 2, "\\x") == 0) {
      bytes += static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16));
      at += 3;
    } else {
      bytes += text[at];
    }
  }
  return bytes;
}

Ipsec::stringmap settingsOf(const std::vector<std::string>& fields) {
  Ipsec::stringmap settings;
  for (std::size_t index = 1; index < fields.size(); ++index) {
    const std::size_t equals = fields[index].find('=');
    if (equals == std::string::npos) {
      throw std::invalid_argument("a setting without =: " + fields[index]);
    }
    settings[unescaped(fields[index].substr(0, equals))] = unescaped(fields[index].substr(equals + 1));
  }
  return settings;
}

std::string connectionName(const std::vector<std::string>& fields) {
  const Ipsec::ConnIdSrc source = fields.at(3) == "local" ? Ipsec::ConnIdSrc::Local : Ipsec::ConnIdSrc::Remote;
  const auto number = static_cast<std::uint32_t>(std::stoul(fields.at(4)));
  const Ipsec::ConnectionKey key(Vrf::VrfIdMap::VrfId::defaultVrf(), number, source,
                                 Ipnet::IpGenAddr(fields.at(1).c_str()), Ipnet::IpGenAddr(fields.at(2).c_str()));
  return Ipsec::getConnNameFromKey(key).str();
}

void writeSecret(const std::vector<std::string>& fields) {
  // The umask decides the mode of the new file.
  const mode_t before = umask(077);
  Ipsec::writeSecrets(settingsOf(fields));
  (void)umask(before);
}

using Check = bool (*)(const Ipsec::stringmap& settings, std::vector<Ipsec::SettingProblem>* problems);

std::string verdict(Check check, const std::vector<std::string>& fields) {
  std::vector<Ipsec::SettingProblem> problems;
  if (check(settingsOf(fields), &problems)) {
    return "ok true";
  }
  std::string answer = "ok false";
  for (const Ipsec::SettingProblem& problem : problems) {
    answer += " " + problem.setting.str();
  }
  return answer;
}

// The changes that are put aside.
struct Queue {
  std::vector<Ipsec::stringmap> connections;
  std::vector<Ipsec::stringmap> secrets;

  bool apply() {
    const bool applied = Ipsec::applyConnections(connections) && Ipsec::applySecrets(secrets);
    connections.clear();
    secrets.clear();
    return applied;
  }
};

std::string listedConnections() {
  std::vector<Vello::String> names;
  if (!Ipsec::listConnections(&names)) {
    throw std::runtime_error("no list");
  }
  std::string answer = "ok";
  for (const Vello::String& name : names) {
    answer += " " + name.str();
  }
  return answer;
}

std::string obey(const std::string& line, Queue& queue) {
  const std::vector<std::string> fields = split(line);
  if (fields[0] == "connection") {
    Ipsec::writeConnections(settingsOf(fields));
    return "ok";
  }
  if (fields[0] == "secret") {
    writeSecret(fields);
    return "ok";
  }
  if (fields[0] == "name") {
    return "ok " + connectionName(fields);
  }
  if (fields[0] == "running") {
    return Ipsec::isSswanRunning() ? "ok true" : "ok false";
  }
  if (fields[0] == "check-connection") {
    return verdict(Ipsec::checkConnection, fields);
  }
  if (fields[0] == "check-secret") {
    return verdict(Ipsec::checkSecret, fields);
  }
  if (fields[0] == "queue-connection") {
    queue.connections.push_back(settingsOf(fields));
    return "ok";
  }
  if (fields[0] == "queue-secret") {
    queue.secrets.push_back(settingsOf(fields));
    return "ok";
  }
  if (fields[0] == "apply") {
    return queue.apply() ? "ok true" : "ok false";
  }
  if (fields[0] == "list-connections") {
    return listedConnections();
  }
  throw std::invalid_argument("unknown command " + fields[0]);
}

}  // namespace

int main() {
  std::string line;
  Queue queue;
  while (std::getline(std::cin, line)) {
    try {
      std::cout << obey(line, queue) << std::endl;
    } catch (const std::exception& error) {
      std::cout << "error " << error.what() << std::endl;
    }
  }
  return 0;
}
