// Configures the daemon through the library, for the interop runner. Reads commands from standard input, one per line
// with its fields separated by TABs, calls the library, and answers each command with one line.
//
//   connection KEY=VALUE ...                  writeConnections          -> ok
//   secret KEY=VALUE ...                      writeSecrets              -> ok
//   name FIRST SECOND local|remote NUMBER     getConnNameFromKey        -> ok NAME
//   running                                   isSswanRunning            -> ok true|false
//
// The answer to a command that fails is "error TEXT".

#include "Ipsec.h"

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

Ipsec::stringmap settingsOf(const std::vector<std::string>& fields) {
  Ipsec::stringmap settings;
  for (std::size_t index = 1; index < fields.size(); ++index) {
    const std::size_t equals = fields[index].find('=');
    if (equals == std::string::npos) {
      throw std::invalid_argument("a setting without =: " + fields[index]);
    }
    settings[fields[index].substr(0, equals)] = Vello::String(fields[index].substr(equals + 1));
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

std::string obey(const std::string& line) {
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
  throw std::invalid_argument("unknown command " + fields[0]);
}

}  // namespace

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    try {
      std::cout << obey(line) << std::endl;
    } catch (const std::exception& error) {
      std::cout << "error " << error.what() << std::endl;
    }
  }
  return 0;
}
