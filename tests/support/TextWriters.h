// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The library's two writers on texts in memory. The program is built with their silent sources: ipsecsilent.
#pragma once

#include "DaemonFiles.h"
#include "tests/support/PlainWriters.h"

#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Ipsec::Testing {

inline stringmap libraryMap(const PlainSettings& settings) {
  stringmap map;
  for (const auto& [name, value] : settings) {
    map.emplace(name, value);
  }
  return map;
}

struct TextCopy {
  std::string text;

  void append(std::string_view more) { text += more; }
};

template <class Rewrite>
PlainOutcome outcomeOf(const Rewrite& rewrite) {
  TextCopy copy;
  try {
    rewrite(copy);
  } catch (const std::regex_error&) {
    return {PlainOutcome::End::ExpressionRefused, std::move(copy.text)};
  } catch (const std::out_of_range&) {
    return {PlainOutcome::End::SettingMissing, std::move(copy.text)};
  }
  return {PlainOutcome::End::Done, std::move(copy.text)};
}

inline PlainOutcome libraryConnections(const stringmap& settings, std::string_view before) {
  return outcomeOf([&](TextCopy& copy) { rewriteConnections(before, settings, copy); });
}

inline PlainOutcome librarySecrets(const stringmap& entry, std::string_view before) {
  return outcomeOf([&](TextCopy& copy) { rewriteSecrets(before, entry, copy); });
}

}  // namespace Ipsec::Testing
