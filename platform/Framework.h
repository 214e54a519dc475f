// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Framework types: strings, streams, regular expressions, durations, shared handles.
//
// In a product the agents' framework supplies these types. This header is everything that the library needs of them. It
// is header-only except for Cor::_fmt and the exceptions' destructors, so that no framework string depends on the
// version of the platform library. The destructors give each exception one type information, in the platform library:
// whatever throws one, whatever catches it means the same type.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#pragma GCC visibility push(default)

namespace Vello {

// Thrown when a value does not fit into a type with a fixed limit.
class RangeException : public std::range_error {
 public:
  using std::range_error::range_error;
  ~RangeException() override;
};

// Thrown when shared memory does not hold what its writer must have put there.
class CorruptionDetectedException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~CorruptionDetectedException() override;
};

// The framework's string: a value type that holds bytes, which it shares with no copy. It has no encoding, and NUL is
// allowed inside.
class String {
 public:
  String() = default;
  String(const char* text) : bytes(text) {}
  String(std::string_view text) : bytes(text) {}
  String(std::string text) : bytes(std::move(text)) {}

  operator std::string_view() const noexcept { return bytes; }
  const std::string& str() const noexcept { return bytes; }
  const char* c_str() const noexcept { return bytes.c_str(); }
  const char* data() const noexcept { return bytes.data(); }
  std::size_t size() const noexcept { return bytes.size(); }
  bool empty() const noexcept { return bytes.empty(); }

  String& operator+=(std::string_view more) {
    bytes += more;
    return *this;
  }

  friend bool operator==(const String& left, const String& right) noexcept { return left.bytes == right.bytes; }
  friend bool operator!=(const String& left, const String& right) noexcept { return left.bytes != right.bytes; }
  friend bool operator<(const String& left, const String& right) noexcept { return left.bytes < right.bytes; }
  friend std::ostream& operator<<(std::ostream& out, const String& text) { return out << text.bytes; }

 private:
  std::string bytes;
};

// A string stream whose str() returns the framework's string.
class OStringStream : public std::ostringstream {
 public:
  String str() const { return {std::ostringstream::str()}; }
};

// A time in seconds, held as a double.
class Duration {
 public:
  constexpr Duration(double seconds) noexcept : value(seconds) {}
  constexpr double seconds() const noexcept { return value; }

 private:
  double value;
};

// A shared, reference-counted handle.
template <class T>
using Ptr = std::shared_ptr<T>;

namespace Regex {

// Returns the compiled expression. Throws std::regex_error for a text that is not an expression of the given syntax.
inline std::regex compile(std::string_view expression, std::regex_constants::syntax_option_type syntax) {
  return {expression.data(), expression.size(), syntax};
}

// Returns whether the text contains a match. An expression that was never compiled matches nothing.
inline bool search(std::string_view text, const std::regex& expression,
                   std::regex_constants::match_flag_type flags = std::regex_constants::match_default) {
  return std::regex_search(text.begin(), text.end(), expression, flags);
}

}  // namespace Regex
}  // namespace Vello

template <>
struct std::hash<Vello::String> {
  std::size_t operator()(const Vello::String& text) const noexcept { return std::hash<std::string_view>()(text); }
};

namespace Cor {

using String = Vello::String;

// Formats as printf does. Throws std::bad_alloc, and std::invalid_argument for a format that printf refuses.
String _fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Cor

#pragma GCC visibility pop
