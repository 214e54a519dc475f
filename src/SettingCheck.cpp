// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// What is wrong with the settings of a change, in words for a log. Nothing here traces or opens a file.
#include "SettingCheck.h"

#include "DaemonSyntax.h"
#include "Finding.h"
#include "IpsecDaemon.h"
#include "LineMatcher.h"
#include "Proposals.h"
#include "Resemblance.h"
#include "SectionRows.h"
#include "TextParts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Ipsec {

namespace {

// --- What is found ---------------------------------------------------------------------------------------------------

// Findings keeps what is found, if the caller wants more than to know that there is something.
class Findings {
 public:
  explicit Findings(bool keep) : keeps(keep) {}

  void add(std::string_view setting, const Finding& finding) {
    if (!finding) {
      return;
    }
    some = true;
    if (!keeps) {
      return;
    }
    std::string text = finding.text;
    if (!finding.resembles.empty()) {
      text.append(" Did you mean \"").append(finding.resembles).append("\"?");
    }
    kept.push_back({Vello::String(setting), Vello::String(std::move(text))});
  }

  // Returns whether there is none, and gives the caller those that were kept.
  bool none(std::vector<SettingProblem>* problems) noexcept {
    if (problems != nullptr) {
      problems->swap(kept);
    }
    return !some;
  }

 private:
  bool keeps;
  bool some = false;
  std::vector<SettingProblem> kept;
};

constexpr Finding missing = {"The setting is required, and it is missing."};
constexpr Finding controlCharacter = {"The value holds a control character."};

// --- Words -----------------------------------------------------------------------------------------------------------

template <std::size_t count>
Finding judgeWord(std::string_view word, const std::string_view (&known)[count]) noexcept {
  if (std::find(std::begin(known), std::end(known), word) != std::end(known)) {
    return {};
  }
  return {"The value is not one of the words that are possible here.",
          mostSimilar(word, known, [](std::string_view each) { return each; })};
}

Finding judgeVersion(const ReadValue& value) noexcept {
  constexpr std::string_view known[] = {"ike", "ikev1", "ikev2"};
  return judgeWord(value.text, known);
}

Finding judgeAction(const ReadValue& value) noexcept {
  constexpr std::string_view known[] = {"none", "clear", "hold", "restart"};
  return judgeWord(value.text, known);
}

Finding judgeYesOrNo(const ReadValue& value) noexcept {
  constexpr std::string_view known[] = {"yes", "no"};
  return judgeWord(value.text, known);
}

Finding judgeType(const ReadValue& value) noexcept {
  constexpr std::string_view known[] = {"tunnel", "transport", "transport_proxy", "passthrough",
                                        "pass",   "drop",      "reject",          "beet"};
  return judgeWord(value.text, known);
}

// Other values say that there is neither kind of tunnel. One that only resembles a kind is a mistake.
Finding judgeTunnelMode(std::string_view mode) noexcept {
  constexpr std::string_view known[] = {"IpsecGre", "IpsecVti"};
  const Finding finding = judgeWord(mode, known);
  return finding.resembles.empty() ? Finding() : finding;
}

Finding judgeAuthType(std::string_view type) {
  const Vello::String shared = Ike::stringValue(Ike::IpsecAuthType::PreSharedKey);
  const Vello::String publicKey = Ike::stringValue(Ike::IpsecAuthType::PublicKey);
  if (type == std::string_view(shared) || type == std::string_view(publicKey)) {
    return {};
  }
  return {"The value is neither the text of PreSharedKey nor that of PublicKey."};
}

Finding judgeIke(const ReadValue& value) noexcept {
  return judgeProposals(value.text, ProposalFor::Ike);
}

Finding judgeEsp(const ReadValue& value) noexcept {
  return judgeProposals(value.text, ProposalFor::Esp);
}

// --- The settings of a connection ------------------------------------------------------------------------------------

using Judge = Finding (*)(const ReadValue& value) noexcept;

// One setting, and what judges its value when it is written to a line as it is.
struct Setting {
  std::string_view name;
  Judge judge;
};

// Sorted by the names' bytes.
// clang-format off
constexpr Setting connectionSettings[] = {
    {"action",           judgeAction},
    {"authby",           nullptr},
    {"byteLimit",        judgeLimit},
    {"config",           judgeSectionName},
    {"default",          nullptr},
    {"delete",           nullptr},
    {"encap",            nullptr},
    {"esp",              judgeEsp},
    {"ike",              judgeIke},
    {"ikeVersion",       judgeVersion},
    {"ikelifetime",      nullptr},
    {"interval",         judgeDuration},
    {"left",             judgeHosts},
    {"leftsubnet",       judgeSubnets},
    {"lifetime",         nullptr},
    {"localid",          judgeIdentity},
    {"marginbytes",      judgeLimit},
    {"marginpackets",    judgeLimit},
    {"mark",             judgeMark},
    {"packetLimit",      judgeLimit},
    {"reauth",           judgeYesOrNo},
    {"remoteid",         judgeIdentity},
    {"replayWindowSize", judgeReplayWindow},
    {"reqid",            judgeRequestId},
    {"right",            judgeHosts},
    {"timeout",          judgeDuration},
    {"tunnelMode",       nullptr},
    {"type",             judgeType},
    {"uniqueids",        nullptr},
};
constexpr Setting secretSettings[] = {
    {"delete", nullptr},
    {"key",    nullptr},
    {"peerIp", nullptr},
    {"secret", nullptr},
};
// clang-format on

constexpr bool before(const Setting& left, const Setting& right) {
  return left.name < right.name;
}
static_assert(std::is_sorted(std::begin(connectionSettings), std::end(connectionSettings), before));
static_assert(std::is_sorted(std::begin(secretSettings), std::end(secretSettings), before));

// Given is the settings of a change, in the order of a table. A look-up in the map itself would make a string of the
// name each time.
template <std::size_t count>
class Given {
 public:
  Given(const stringmap& settings, const Setting (&rows)[count]) : table(rows), all(settings) {
    for (const auto& [name, value] : settings) {
      if (const std::size_t row = rowOf(name); row < count) {
        values[row] = &value;
      }
    }
  }

  // Returns a setting's value, or null.
  const Vello::String* find(std::string_view name) const noexcept { return values[rowOf(name)]; }

  bool hasValue(std::string_view name, std::string_view value) const noexcept {
    const Vello::String* const found = find(name);
    return found != nullptr && std::string_view(*found) == value;
  }

  Judge judgeOf(std::string_view name) const noexcept { return table[rowOf(name)].judge; }

  void findUnknownNames(Findings& findings) const {
    for (const auto& setting : all) {
      const std::string_view name = setting.first;
      if (rowOf(name) == count) {
        findings.add(name, {"There is no setting of this name.",
                            mostSimilar(name, table, [](const Setting& row) { return row.name; })});
      }
    }
  }

 private:
  // Returns the number of the name's row, or the number of rows.
  std::size_t rowOf(std::string_view name) const noexcept {
    const auto* const found = std::lower_bound(std::begin(table), std::end(table), Setting{name, nullptr}, before);
    return found != std::end(table) && found->name == name ? static_cast<std::size_t>(found - std::begin(table))
                                                           : count;
  }

  const Setting (&table)[count];
  const stringmap& all;
  std::array<const Vello::String*, count> values = {};
};

using Connection = Given<std::size(connectionSettings)>;
using Secret = Given<std::size(secretSettings)>;

// --- Names -----------------------------------------------------------------------------------------------------------

// Judges a text that finds the lines to be replaced; the line begins or ends with more than the text.
Finding judgeSearched(std::string_view text, std::size_t more, LineMatcher::Covers extent) noexcept {
  if (text.empty()) {
    return {"The value is empty."};
  }
  if (hasControlCharacter(text)) {
    return controlCharacter;
  }
  if (!LineMatcher::isPlain(text)) {
    return {"The value holds a character of an expression other than \".\": it could stand for something else."};
  }
  return LineMatcher::isTooLong(text.size() + more, extent) ? Finding{"The value is too long."} : Finding();
}

Finding judgeSearchedName(std::string_view name) noexcept {
  return judgeSearched(name, std::string_view("conn ").size(), LineMatcher::Covers::WholeLine);
}

// --- One section -----------------------------------------------------------------------------------------------------

// Whether a line that has a value is written.
bool isWritten(const Row& row, const Connection& given) noexcept {
  return row.when.setting == nullptr || given.find(row.when.setting) != nullptr;
}

// Judges a value that is written as it is. The line may be written without a value only if its setting is optional.
Finding judgeWritten(std::string_view written, Judge judge, bool required) noexcept {
  if (hasControlCharacter(written)) {
    return controlCharacter;
  }
  const ReadValue value = readValue(written);
  if (value.finding) {
    return value.finding;
  }
  if (value.text.empty()) {
    return required ? Finding{"The value is empty."} : Finding();
  }
  return judge(value);
}

Finding judgeLine(const Row& row, std::string_view written, const Connection& given) {
  const std::string_view setting = row.value.setting;
  switch (row.value.form) {
    case Value::Form::Seconds:
      return setting == "lifetime" ? judgeSecondsOfTunnel(written) : judgeSecondsOfIke(written);
    case Value::Form::AuthType:
      return judgeAuthType(written);
    case Value::Form::Verbatim:
      break;
  }
  if (setting == "config") {
    if (const Finding finding = judgeSearchedName(written)) {
      return finding;
    }
    if (trimmed(written).size() != written.size()) {
      return {"The name begins or ends with a blank, which the daemon leaves out."};
    }
  }
  const bool required = row.when.setting == nullptr || row.when.setting != setting;
  return judgeWritten(written, given.judgeOf(setting), required);
}

// A tunnel of this kind brings a line of its own: the daemon takes the later one and never looks at the first value.
bool isOverwritten(const Row& row, const Connection& given) noexcept {
  return std::string_view(row.value.setting) == "leftsubnet" && given.hasValue("tunnelMode", "IpsecVti");
}

Finding judgeOverwritten(const ReadValue&) noexcept {
  return {};
}

// How many bytes of values the daemon's starter can pass on. A longer section is left out, and one that is only a
// little longer stops the starter.
constexpr std::size_t longestSection = 64480;

template <std::size_t rowCount>
constexpr bool areValuesFree(const Row (&rows)[rowCount]) {
  return std::none_of(rows, rows + rowCount, [](const Row& row) { return row.value.setting && row.when.value; });
}

static_assert(areValuesFree(ordinarySection) && areValuesFree(defaultSection),
              "isWritten() would have to look at the value of a condition");

template <std::size_t rowCount>
void judgeRows(const Row (&rows)[rowCount], const Connection& given, bool withDefaults, Findings& findings) {
  std::size_t size = 0;
  for (const Row& row : rows) {
    if (row.value.setting == nullptr || !isWritten(row, given)) {
      continue;
    }
    const Vello::String* const value = given.find(row.value.setting);
    if (value != nullptr) {
      size += value->size();
      findings.add(row.value.setting, isOverwritten(row, given) ? judgeWritten(*value, judgeOverwritten, false)
                                                                : judgeLine(row, *value, given));
    } else if (!withDefaults) {
      findings.add(row.value.setting, missing);
    }
  }
  if (size > longestSection) {
    findings.add("", {"The values are too long together: the daemon would leave the section out or hang."});
  }
}

void judgeMargin(const char* margin, const char* limit, const Connection& given, Findings& findings) {
  const Vello::String* const marginValue = given.find(margin);
  const Vello::String* const limitValue = given.find(limit);
  if (marginValue != nullptr && limitValue != nullptr && isMarginTooLarge(*marginValue, *limitValue)) {
    findings.add(margin, {"The margin is not below its limit."});
  }
}

void judgeMargins(const Connection& given, Findings& findings) {
  judgeMargin("marginpackets", "packetLimit", given, findings);
  judgeMargin("marginbytes", "byteLimit", given, findings);
}

void judgeDefaultSection(const Connection& given, Findings& findings) {
  judgeRows(defaultSection, given, true, findings);
  if (given.find("ikeVersion") == nullptr) {
    findings.add("ikeVersion", {"A default section needs a version: the daemon does not take the one that is written "
                                "without it, and drops every section that relies on it."});
  }
  judgeMargins(given, findings);
}

void judgeOrdinarySection(const Connection& given, Findings& findings) {
  judgeRows(ordinarySection, given, false, findings);
  if (const Vello::String* const mode = given.find("tunnelMode")) {
    findings.add("tunnelMode", judgeTunnelMode(*mode));
  }
  judgeMargins(given, findings);
}

// Judges the name of a section that is only removed: default comes before config.
void judgeRemovedSection(const Connection& given, Findings& findings) {
  for (const char* const name : {"default", "config"}) {
    if (const Vello::String* const value = given.find(name)) {
      findings.add(name, judgeSearchedName(*value));
      return;
    }
  }
  findings.add("config", missing);
}

void judgeConnection(const Connection& given, Findings& findings) {
  if (given.find("delete") != nullptr) {
    judgeRemovedSection(given, findings);
    return;
  }
  given.findUnknownNames(findings);
  if (given.hasValue("default", "%default")) {
    judgeDefaultSection(given, findings);
    return;
  }
  if (given.find("default") != nullptr) {
    judgeRemovedSection(given, findings);
  }
  judgeOrdinarySection(given, findings);
}

// --- One entry -------------------------------------------------------------------------------------------------------

Finding judgePeer(std::string_view peer, bool written) noexcept {
  const Finding finding = judgeSearched(peer, std::string_view(" :").size(), LineMatcher::Covers::Start);
  return finding || !written ? finding : judgeSelectors(peer);
}

void judgeSecret(const Secret& given, Findings& findings) {
  const bool written = given.find("delete") == nullptr;
  if (written) {
    given.findUnknownNames(findings);
  }
  if (!given.hasValue("secret", "%default")) {
    const Vello::String* const peer = given.find("peerIp");
    findings.add("peerIp", peer == nullptr ? missing : judgePeer(*peer, written));
  }
  if (written) {
    const Vello::String* const key = given.find("key");
    findings.add("key", key == nullptr ? missing : hasControlCharacter(*key) ? controlCharacter : judgeKey(*key));
  }
}

}  // namespace

std::string_view knownSetting(std::string_view name) noexcept {
  const auto named = [name](const Setting& setting) { return setting.name == name; };
  const bool known = std::any_of(std::begin(connectionSettings), std::end(connectionSettings), named) ||
                     std::any_of(std::begin(secretSettings), std::end(secretSettings), named);
  return known ? name : std::string_view();
}

bool checkConnection(const stringmap& settings, std::vector<SettingProblem>* problems) {
  Findings findings(problems != nullptr);
  judgeConnection(Connection(settings, connectionSettings), findings);
  return findings.none(problems);
}

bool checkSecret(const stringmap& entry, std::vector<SettingProblem>* problems) {
  Findings findings(problems != nullptr);
  judgeSecret(Secret(entry, secretSettings), findings);
  return findings.none(problems);
}

}  // namespace Ipsec
