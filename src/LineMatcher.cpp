#include "LineMatcher.h"

#include "platform/Framework.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Ipsec {

namespace {

constexpr std::size_t longestPlain = 99996;  // Kept (plain-name-length): libstdc++ refuses a longer one.

// Returns whether a character stands for itself in an expression, or is the "." that matches all but a line's end.
bool isPlain(char character) noexcept {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
         (character >= 'A' && character <= 'Z') || (character != '\0' && std::strchr(" .:-_%/@", character) != nullptr);
}

bool matchesOne(char expected, char character) noexcept {
  return expected == character || (expected == '.' && character != '\r' && character != '\n');
}

}  // namespace

LineMatcher::LineMatcher(std::string text, Covers extent)
    : start(std::move(text)), covers(extent), plain(std::all_of(start.begin(), start.end(), isPlain)) {
  const std::string searched = "^" + start + (covers == Covers::WholeLine ? "$" : "");
  if (!plain) {
    // Kept (name-is-expression): a text that does not compile throws.
    expression = Vello::Regex::compile(searched, std::regex_constants::ECMAScript);
  } else if (searched.size() > longestPlain) {
    throw std::regex_error(std::regex_constants::error_space);
  }
}

bool LineMatcher::matches(std::string_view line) const {
  if (!plain) {
    return Vello::Regex::search(line, expression);
  }
  const bool longEnough = covers == Covers::WholeLine ? line.size() == start.size() : line.size() >= start.size();
  return longEnough && std::equal(start.begin(), start.end(), line.begin(), matchesOne);
}

}  // namespace Ipsec
