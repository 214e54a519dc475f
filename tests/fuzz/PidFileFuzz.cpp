// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// The number in a pid file against arithmetic by hand: blanks, a sign, digits; letters after them are ignored. An input
// is the file.
#include "PidFile.h"
#include "tests/fuzz/FuzzInput.h"

#include <cerrno>
#include <limits>
#include <optional>
#include <stdexcept>

namespace {

using namespace Ipsec::Testing;

struct Answer {
  enum class End { Nothing, Number, NoNumber, OutOfRange };

  End end;
  int number = 0;

  friend bool operator==(const Answer&, const Answer&) = default;
};

Answer plainAnswer(const std::string& text) {
  const std::string line = text.substr(0, text.find('\n'));
  if (line.empty()) {
    return {Answer::End::Nothing};
  }
  std::size_t at = 0;
  const auto character = [&] { return at < line.size() ? line[at] : '\0'; };
  while (character() != '\0' && std::string(" \t\v\f\r").find(character()) != std::string::npos) {
    ++at;
  }
  const bool negative = character() == '-';
  if (negative || character() == '+') {
    ++at;
  }
  if (character() < '0' || character() > '9') {
    return {Answer::End::NoNumber};
  }
  constexpr std::int64_t beyond = std::int64_t{1} << 40;  // no number comes back from there
  std::int64_t number = 0;
  for (; character() >= '0' && character() <= '9'; ++at) {
    number = std::min(beyond, number * 10 + (character() - '0'));
  }
  number = negative ? -number : number;
  if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max()) {
    return {Answer::End::OutOfRange};
  }
  return {Answer::End::Number, static_cast<int>(number)};
}

Answer libraryAnswer(const std::string& text) {
  try {
    const std::optional<int> pid = Ipsec::firstPid(text);
    return pid ? Answer{Answer::End::Number, *pid} : Answer{Answer::End::Nothing};
  } catch (const std::invalid_argument& refusal) {
    require(refusal.what() == std::string("stoi"), "a line without a number throws another text");
    return {Answer::End::NoNumber};
  } catch (const std::out_of_range& refusal) {
    require(refusal.what() == std::string("stoi"), "a number out of range throws another text");
    return {Answer::End::OutOfRange};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = FuzzInput(data, size).restText();
  errno = ENOTTY;
  const Answer seen = libraryAnswer(text);
  require(errno == ENOTTY || seen.end == Answer::End::OutOfRange, "reading a number changes errno");
  require(seen == plainAnswer(text), "the pid file is read in another way than by hand");
  return 0;
}
