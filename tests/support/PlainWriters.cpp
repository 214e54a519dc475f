// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/PlainWriters.h"

#include "platform/AgentTypes.h"

#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Ipsec::Testing {
namespace {

bool has(const PlainSettings& settings, const std::string& name) {
  return settings.find(name) != settings.end();
}

bool is(const PlainSettings& settings, const std::string& name, const std::string& value) {
  const auto found = settings.find(name);
  return found != settings.end() && found->second == value;
}

std::string need(const PlainSettings& settings, const std::string& name) {
  const auto found = settings.find(name);
  if (found == settings.end()) {
    throw std::out_of_range(name);
  }
  return found->second;
}

std::string valueOr(const PlainSettings& settings, const std::string& name, const std::string& absent) {
  return has(settings, name) ? need(settings, name) : absent;
}

// Compiling takes far longer than searching, and the same few names come again and again.
const std::regex& compiled(const std::string& expression) {
  static auto* const known = new std::map<std::string, std::regex>;
  const auto found = known->find(expression);
  if (found != known->end()) {
    return found->second;
  }
  std::regex made(expression, std::regex::ECMAScript);
  if (known->size() >= 64) {
    known->clear();
  }
  return known->emplace(expression, std::move(made)).first->second;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// --- The connections file --------------------------------------------------------------------------------------------

std::string sectionName(const PlainSettings& settings) {
  if (has(settings, "default")) {
    return need(settings, "default");
  }
  return valueOr(settings, "config", "");
}

std::string keptConnections(const PlainSettings& settings, const std::string& before) {
  static const auto* const anyHead = new std::regex("^conn ");
  static const auto* const globalHead = new std::regex("config setup");
  const std::regex ownHead = compiled("^conn " + sectionName(settings) + "$");
  const bool dropsGlobal = has(settings, "uniqueids");
  std::string kept;
  bool droppingGlobal = false;
  bool globalDone = false;
  bool sectionFound = false;
  bool sectionDone = false;
  for (const std::string& line : linesOf(before)) {
    if (dropsGlobal && !droppingGlobal && std::regex_search(line, *globalHead)) {
      droppingGlobal = true;
      continue;
    }
    if (droppingGlobal && !globalDone) {
      if (!std::regex_search(line, *anyHead)) {
        continue;
      }
      globalDone = true;
    }
    if (!sectionFound) {
      if (std::regex_search(line, ownHead)) {
        sectionFound = true;
        continue;
      }
    } else if (!sectionDone) {
      if (!std::regex_search(line, *anyHead)) {
        continue;
      }
      sectionDone = true;
    }
    kept += line + "\n";
  }
  return kept;
}

std::string daemonWord(const std::string& authType) {
  if (authType == Ike::stringValue(Ike::IpsecAuthType::PreSharedKey).str()) {
    return "secret";
  }
  if (authType == Ike::stringValue(Ike::IpsecAuthType::PublicKey).str()) {
    return "pubkey";
  }
  throw std::out_of_range("authby");
}

// Collects the lines of one section.
class Section {
 public:
  explicit Section(const PlainSettings& from) : settings(from) {}

  void line(const std::string& text) { written += text + "\n"; }
  void optional(const std::string& setting, const std::string& word, const std::string& unit = "") {
    if (has(settings, setting)) {
      line("\t" + word + "=" + need(settings, setting) + unit);
    }
  }
  std::string text() const { return written; }

 private:
  const PlainSettings& settings;
  std::string written;
};

std::string ordinarySection(const PlainSettings& settings) {
  Section section(settings);
  section.line("conn " + need(settings, "config"));
  section.optional("ikeVersion", "keyexchange");
  if (has(settings, "authby")) {
    section.line("\tauthby=" + daemonWord(need(settings, "authby")));
  }
  section.optional("ikelifetime", "ikelifetime", "s");
  section.optional("lifetime", "lifetime", "s");
  section.line("\treqid=" + need(settings, "reqid"));
  section.line("\tleft=" + need(settings, "left"));
  section.optional("leftsubnet", "leftsubnet");
  section.optional("localid", "leftid");
  section.line("\tright=" + need(settings, "right"));
  section.optional("remoteid", "rightid");
  section.line("\tauto=add");
  section.optional("ike", "ike");
  section.optional("esp", "esp");
  if (is(settings, "tunnelMode", "IpsecGre")) {
    section.line("\tleftprotoport=47");
    section.line("\trightprotoport=47");
  }
  if (is(settings, "tunnelMode", "IpsecVti")) {
    section.line("\tleftsubnet=0.0.0.0/0");
    section.line("\trightsubnet=0.0.0.0/0");
  }
  section.optional("mark", "mark");
  if (has(settings, "action")) {
    section.line("\tdpdaction=" + need(settings, "action"));
    section.line("\tdpddelay=" + need(settings, "interval"));
    section.line("\tdpdtimeout=" + need(settings, "timeout"));
  }
  if (has(settings, "encap")) {
    section.line("\tforceencaps=yes");
  }
  section.optional("type", "type");
  section.optional("replayWindowSize", "replay_window");
  section.optional("packetLimit", "lifepackets");
  section.optional("marginpackets", "marginpackets");
  section.optional("byteLimit", "lifebytes");
  section.optional("marginbytes", "marginbytes");
  section.optional("reauth", "reauth");
  section.line("\tmobike=no");
  section.line("\tikedscp=110000");
  section.line("");
  return section.text();
}

std::string defaultSection(const PlainSettings& settings) {
  const std::string preShared = Ike::stringValue(Ike::IpsecAuthType::PreSharedKey).str();
  Section section(settings);
  section.line("conn %default");
  section.line("\tauthby=" + daemonWord(valueOr(settings, "authby", preShared)));
  section.line("\tikelifetime=" + valueOr(settings, "ikelifetime", "28800") + "s");
  section.line("\tlifetime=" + valueOr(settings, "lifetime", "3600") + "s");
  section.line("\trekeymargin=3m");
  section.line("\tkeyingtries=1");
  section.line("\tmobike=no");
  section.line("\tkeyexchange=" + valueOr(settings, "ikeVersion", "2"));
  section.line("\tauto=add");
  section.optional("esp", "esp");
  section.optional("ike", "ike");
  section.optional("packetLimit", "lifepackets");
  section.optional("marginpackets", "marginpackets");
  section.optional("byteLimit", "lifebytes");
  section.optional("marginbytes", "marginbytes");
  section.line("\tikedscp=110000");
  section.line("");
  return section.text();
}

// --- The secrets file ------------------------------------------------------------------------------------------------

std::optional<std::string> entryExpression(const PlainSettings& entry) {
  if (is(entry, "secret", "%default")) {
    return "^ : PSK";
  }
  if (has(entry, "peerIp")) {
    return "^" + need(entry, "peerIp") + " :";
  }
  return std::nullopt;
}

std::string keptSecrets(const PlainSettings& entry, const std::string& before) {
  const std::optional<std::string> expression = entryExpression(entry);
  const std::regex first = expression ? compiled(*expression) : std::regex();
  std::string kept;
  bool found = !expression;
  for (const std::string& line : linesOf(before)) {
    if (!found && std::regex_search(line, first)) {
      found = true;
      continue;
    }
    kept += line + "\n";
  }
  return kept;
}

std::string newEntry(const PlainSettings& entry) {
  const std::string peer = is(entry, "secret", "%default") ? "" : need(entry, "peerIp");
  return peer + " : PSK " + need(entry, "key") + "\n";
}

}  // namespace

PlainOutcome plainConnections(const PlainSettings& settings, const std::string& before) {
  std::string text = is(settings, "uniqueids", "add") ? "config setup\n\tuniqueids=no\n" : "";
  try {
    text += keptConnections(settings, before);
    if (!has(settings, "delete")) {
      text += is(settings, "default", "%default") ? defaultSection(settings) : ordinarySection(settings);
    }
  } catch (const std::regex_error&) {
    return {PlainOutcome::End::ExpressionRefused, ""};
  } catch (const std::out_of_range&) {
    return {PlainOutcome::End::SettingMissing, text};
  }
  return {PlainOutcome::End::Done, text};
}

PlainOutcome plainSecrets(const PlainSettings& entry, const std::string& before) {
  std::string text;
  try {
    text = keptSecrets(entry, before);
    if (!has(entry, "delete")) {
      text += newEntry(entry);
    }
  } catch (const std::regex_error&) {
    return {PlainOutcome::End::ExpressionRefused, ""};
  } catch (const std::out_of_range&) {
    return {PlainOutcome::End::SettingMissing, text};
  }
  return {PlainOutcome::End::Done, text};
}

}  // namespace Ipsec::Testing
