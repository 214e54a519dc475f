// LineMatcher finds what std::regex_search finds with the ECMAScript expression "^" + start, followed by "$" for a whole
// line. The names and addresses in use hold no metacharacter but ".", and are compared byte by byte, which costs a
// fraction of the search.
#pragma once

#include <regex>
#include <string>
#include <string_view>

namespace Ipsec {

class LineMatcher {
 public:
  enum class Covers { Start, WholeLine };

  // Throws std::regex_error. A plain start that is too long for an expression is refused too, but without compiling it:
  // the standard library's compiler recurses at every character, and its stack would end first.
  LineMatcher(std::string text, Covers extent);

  bool matches(std::string_view line) const;

 private:
  std::string start;
  Covers covers;
  bool plain;
  std::regex expression;  // compiled when the start is not plain
};

}  // namespace Ipsec
