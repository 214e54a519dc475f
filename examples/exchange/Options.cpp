// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include "Failure.h"

#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace Exchange {
namespace {

constexpr unsigned long longestTimeout = 3600;

constexpr std::array<std::pair<std::string_view, Fault>, 5> faults = {{
    {"public-value", Fault::PublicValue},
    {"key", Fault::Key},
    {"published", Fault::Published},
    {"silent-peer", Fault::SilentPeer},
    {"dead-peer", Fault::DeadPeer},
}};

Fault faultNamed(const std::string& name) {
  for (const auto& [known, fault] : faults) {
    if (known == name) {
      return fault;
    }
  }
  throw UsageError("--break does not know \"" + name + "\"");
}

unsigned long number(const std::string& option, const std::string& text) {
  unsigned long value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stopped != end) {
    throw UsageError(option + " needs a number, not \"" + text + "\"");
  }
  return value;
}

const Group* groupNumbered(const std::string& text) {
  const Group* const group = findGroup(number("--group", text));
  if (group == nullptr) {
    throw UsageError("there is no group " + text + " here: --group takes 1, 2, 5, 14 to 17, 19 to 21 or 24");
  }
  return group;
}

Timeout secondsFrom(const std::string& text) {
  const unsigned long seconds = number("--timeout", text);
  if (seconds < 1 || seconds > longestTimeout) {
    throw UsageError("--timeout takes 1 to " + std::to_string(longestTimeout) + " seconds");
  }
  return std::chrono::seconds(seconds);
}

void readValue(Options& options, const std::string& name, const std::string& value) {
  if (name == "--group") {
    options.group = groupNumbered(value);
  } else if (name == "--vectors") {
    options.vectors = value;
  } else if (name == "--timeout") {
    options.timeout = secondsFrom(value);
  } else {
    options.fault = faultNamed(value);
    options.faultName = value;
  }
}

bool takesValue(const std::string& name) {
  return name == "--group" || name == "--vectors" || name == "--timeout" || name == "--break";
}

}  // namespace

const char* const helpText =
    R"(Usage: exchange-demo [--group N] [--json] [--vectors DIR] [--timeout SECONDS]

Reproduces the key exchanges published in RFC 5903 and RFC 5114, then sets up IKE keys between two
processes over a socket on 127.0.0.1, for every Diffie-Hellman group with each of the four PRFs.

  --group N          only this group: 1, 2, 5, 14, 15, 16, 17, 19, 20, 21 or 24
  --json             print the results as one JSON document
  --vectors DIR      the folder with rfc5903.txt and rfc5114.txt
  --timeout SECONDS  how long one process waits for the other (default 20)
  --break WHAT       for tests: break the first exchange of the run, which must then fail. WHAT is
                     public-value, key, published, silent-peer or dead-peer
  --help             print this text

Exit code: 0 when everything agrees, 1 when something does not (standard error says what), 2 for a
command line that cannot be carried out.
)";

Options readOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& name = arguments[index];
    if (takesValue(name)) {
      if (++index == arguments.size()) {
        throw UsageError(name + " needs a value");
      }
      readValue(options, name, arguments[index]);
    } else if (name == "--json") {
      options.json = true;
    } else if (name == "--responder") {
      options.responder = true;
    } else if (name == "--help" || name == "-h") {
      options.help = true;
    } else {
      throw UsageError("unknown argument \"" + name + "\"");
    }
  }
  return options;
}

}  // namespace Exchange
