// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonSyntax.h"

#include "TextParts.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

namespace Ipsec {

namespace {

// --- Characters ------------------------------------------------------------------------------------------------------

bool isDigit(char character) noexcept {
  return character >= '0' && character <= '9';
}

bool isHexDigit(char character) noexcept {
  return isDigit(character) || (character >= 'a' && character <= 'f') || (character >= 'A' && character <= 'F');
}

bool isLetter(char character) noexcept {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isAll(std::string_view text, bool (*fits)(char)) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), fits);
}

bool has(std::string_view text, char character) noexcept {
  return text.find(character) != std::string_view::npos;
}

bool startsWith(std::string_view text, std::string_view start) noexcept {
  return text.substr(0, start.size()) == start;
}

bool equalsInAnyCase(std::string_view text, std::string_view lowerCase) noexcept {
  return text.size() == lowerCase.size() &&
         std::equal(text.begin(), text.end(), lowerCase.begin(),
                    [](char left, char right) { return left == right || (isLetter(left) && (left | 0x20) == right); });
}

// --- Numbers ---------------------------------------------------------------------------------------------------------

constexpr std::uint64_t most32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t most64 = std::numeric_limits<std::uint64_t>::max();

constexpr Finding noNumber = {"The value is not a number."};
constexpr Finding outOfRange = {"The number is out of range: the daemon would read another one."};

struct Number {
  std::uint64_t value = 0;
  bool negative = false;
  bool tooLarge = false;
  std::size_t length = 0;  // how many characters were read; 0 if there is no number
};

unsigned digitOf(char character) noexcept {
  if (isDigit(character)) {
    return static_cast<unsigned>(character - '0');
  }
  return isLetter(character) ? static_cast<unsigned>((character | 0x20) - 'a') + 10U : 99U;
}

// Reads a number as strtoull does. For the base 0, "0x" introduces hexadecimal and "0" octal.
Number readNumber(std::string_view text, unsigned base) noexcept {
  Number number;
  std::size_t at = std::min(text.find_first_not_of(' '), text.size());
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    number.negative = text[at] == '-';
    ++at;
  }
  if (base == 0) {
    const std::string_view digits = text.substr(at);
    const bool hex = digits.size() > 2 && digits[0] == '0' && (digits[1] | 0x20) == 'x' && isHexDigit(digits[2]);
    base = hex ? 16 : (!digits.empty() && digits[0] == '0' ? 8 : 10);
    at += hex ? 2 : 0;
  }
  for (; at < text.size() && digitOf(text[at]) < base; ++at) {
    const unsigned digit = digitOf(text[at]);
    number.tooLarge = number.tooLarge || number.value > (most64 - digit) / base;
    number.value = number.value * base + digit;
    number.length = at + 1;
  }
  number.negative = number.negative && number.value != 0;
  return number;
}

Finding judgeNumber(std::string_view text, const Number& number, std::uint64_t most) noexcept {
  if (number.length == 0 || number.length != text.size()) {
    return noNumber;
  }
  return number.negative || number.tooLarge || number.value > most ? outOfRange : Finding();
}

// Whether the text is a number from 0 on, in the base 0.
bool isNumberUpTo(std::string_view text, std::uint64_t most) noexcept {
  return !judgeNumber(text, readNumber(text, 0), most);
}

// --- Addresses -------------------------------------------------------------------------------------------------------

struct Address {
  int family = AF_UNSPEC;
  std::array<unsigned char, 16> bytes = {};
};

std::optional<Address> readAddress(std::string_view text) noexcept {
  std::array<char, INET6_ADDRSTRLEN> copy = {};
  if (text.empty() || text.size() >= copy.size() || has(text, '\0')) {
    return std::nullopt;
  }
  std::memcpy(copy.data(), text.data(), text.size());
  Address address;
  address.family = has(text, ':') ? AF_INET6 : AF_INET;
  if (inet_pton(address.family, copy.data(), address.bytes.data()) != 1) {
    return std::nullopt;
  }
  return address;
}

unsigned longestPrefix(const Address& address) noexcept {
  return address.family == AF_INET6 ? 128 : 32;
}

// Whether the text is an address and, behind a slash, the length of a prefix.
bool isSubnet(std::string_view text) noexcept {
  const std::size_t slash = text.find('/');
  const std::optional<Address> address = readAddress(text.substr(0, slash));
  if (!address || slash == std::string_view::npos) {
    return false;
  }
  const std::string_view prefix = text.substr(slash + 1);
  return !judgeNumber(prefix, readNumber(prefix, 10), longestPrefix(*address));
}

// Whether the text is two addresses of one family with a hyphen between them, the lower one first.
bool isRange(std::string_view text) noexcept {
  const std::size_t hyphen = text.find('-');
  if (hyphen == std::string_view::npos) {
    return false;
  }
  const std::optional<Address> from = readAddress(trimmed(text.substr(0, hyphen)));
  const std::optional<Address> to = readAddress(trimmed(text.substr(hyphen + 1)));
  return from && to && from->family == to->family && from->bytes <= to->bytes;
}

// Whether the text may be the name of a host. Only a resolver can tell whether it is one. What looks like an address
// that went wrong is none: a resolver would fill in the parts that are missing.
bool mayBeHostName(std::string_view text) noexcept {
  const auto fits = [](char character) {
    return isLetter(character) || isDigit(character) || std::strchr(".-_", character) != nullptr ||
           static_cast<unsigned char>(character) >= 0x80;
  };
  const auto ofAddress = [](char character) { return isDigit(character) || character == '.' || character == '-'; };
  const bool likeAddress = isAll(text, ofAddress) && (has(text, '.') || !has(text, '-'));
  return isAll(text, fits) && !likeAddress;
}

bool isAny(std::string_view text) noexcept {
  return text == "%any" || text == "%any4" || text == "%any6";
}

bool isHost(std::string_view text) noexcept {
  return isAny(text) || readAddress(text) || isSubnet(text) || isRange(text) || mayBeHostName(text);
}

// --- Traffic selectors -----------------------------------------------------------------------------------------------

// Whether the text may be the name of a protocol or a service. Which names there are is the host's affair.
bool mayBeServiceName(std::string_view text) noexcept {
  return std::any_of(text.begin(), text.end(), isLetter) && !isDigit(text.front()) && text.front() != '%';
}

bool isPort(std::string_view text) noexcept {
  if (text.empty() || text == "%any" || text == "%opaque" || isNumberUpTo(text, 65535)) {
    return true;
  }
  const std::size_t hyphen = text.find('-');
  if (hyphen != std::string_view::npos && hyphen != 0 && isNumberUpTo(text.substr(0, hyphen), 65535)) {
    return isNumberUpTo(text.substr(hyphen + 1), 65535);
  }
  return mayBeServiceName(text);
}

bool isProtocolAndPort(std::string_view text) noexcept {
  const std::size_t slash = std::min(text.find('/'), text.size());
  const std::string_view protocol = text.substr(0, slash);
  const std::string_view port = text.substr(std::min(slash + 1, text.size()));
  const bool known =
      protocol.empty() || protocol == "%any" || isNumberUpTo(protocol, 255) || mayBeServiceName(protocol);
  return known && !has(port, '/') && isPort(port);
}

bool isSelectorAddress(std::string_view text) noexcept {
  if (text == "%dynamic") {
    return true;
  }
  // The daemon takes "%any" for the address 0.0.0.0 and no dots in an IPv6 address here.
  const std::string_view address = text.substr(0, text.find('/'));
  if (isAny(address)) {
    return text.substr(address.size()) == "/0";
  }
  return !(has(address, ':') && has(address, '.')) && (readAddress(text) || isSubnet(text));
}

bool isTrafficSelector(std::string_view text) noexcept {
  const std::size_t bracket = text.find('[');
  if (bracket == std::string_view::npos) {
    return isSelectorAddress(text) || text == "%dynamic/32" || text == "%dynamic/128";
  }
  std::string_view inside = text.substr(bracket + 1);
  if (inside.empty() || inside.back() != ']') {
    return false;
  }
  inside.remove_suffix(1);
  return isSelectorAddress(text.substr(0, bracket)) && !has(inside, '[') && !has(inside, ']') &&
         isProtocolAndPort(inside);
}

// --- Marks -----------------------------------------------------------------------------------------------------------

// The daemon keeps the two highest marks for %unique and %unique-dir.
constexpr std::uint64_t mostMark = most32 - 2;

// --- Quotes ----------------------------------------------------------------------------------------------------------

constexpr Finding needsQuotes = {"The value needs quotes around all of it: the daemon would refuse or misread it."};
constexpr Finding wrongQuotes = {"The quotes do not enclose all of the value: the daemon would refuse or misread it."};
constexpr Finding wrongEscape = {"A backslash inside the quotes escapes nothing: the daemon would leave it out."};

ReadValue readQuoted(std::string_view text) noexcept {
  for (std::size_t at = 1; at < text.size(); ++at) {
    if (text[at] == '\\') {
      ++at;
      if (at < text.size() && std::strchr("\"\\nrtbf", text[at]) == nullptr) {
        return {text, true, wrongEscape};
      }
    } else if (text[at] == '"') {
      const bool isLast = at + 1 == text.size();
      return {text.substr(1, at - 1), true, isLast ? Finding() : wrongQuotes};
    }
  }
  return {text, true, wrongQuotes};
}

// Whether a value without quotes holds the daemon's directive to read another file.
bool includesFile(std::string_view text) noexcept {
  constexpr std::string_view directive = "include ";
  for (std::size_t at = text.find(directive); at != std::string_view::npos; at = text.find(directive, at + 1)) {
    if (at == 0 || text[at - 1] == ' ') {
      return true;
    }
  }
  return false;
}

// A comment begins at every "#" but that of "@#" at the start.
bool needsQuotesAround(std::string_view text) noexcept {
  const std::size_t hash = text.find('#', startsWith(text, "@#") ? 2 : 0);
  return hash != std::string_view::npos || has(text, '"') || has(text, '=') || includesFile(text);
}

}  // namespace

bool hasControlCharacter(std::string_view text) noexcept {
  return std::any_of(text.begin(), text.end(), [](char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7F;
  });
}

ReadValue readValue(std::string_view written) noexcept {
  const std::string_view text = trimmed(written);
  if (startsWith(text, "\"")) {
    return readQuoted(text);
  }
  return {text, false, needsQuotesAround(text) ? needsQuotes : Finding()};
}

// --- The connections file --------------------------------------------------------------------------------------------

Finding judgeSectionName(const ReadValue& value) noexcept {
  if (value.text == "%default") {
    return {"This is the name of the default section."};
  }
  return has(value.text, ' ') && !value.quoted ? Finding{"The name of a section is one word, or needs quotes."}
                                               : Finding();
}

Finding judgeIdentity(const ReadValue& value) noexcept {
  if (!value.quoted && value.text.find("  ") != std::string_view::npos) {
    return needsQuotes;
  }
  if (!startsWith(value.text, "@#")) {
    return {};
  }
  return isAll(value.text.substr(2), isHexDigit) ? Finding() : Finding{"Hexadecimal digits must follow \"@#\"."};
}

Finding judgeHosts(const ReadValue& value) noexcept {
  constexpr Finding noAddress = {"The value is neither an address, a range, a subnet nor the name of a host."};
  if (value.text == "%defaultroute" || isAny(value.text)) {
    return {};
  }
  std::string_view rest = value.text;
  if (startsWith(rest, "%")) {
    // In front of an address, "%" lets any other address be used too.
    rest.remove_prefix(1);
    const std::string_view first = rest.substr(0, rest.find(','));
    if (first.empty() || first.front() == ' ' || first.front() == '%' ||
        isAny(value.text.substr(0, first.size() + 1)) || trimmed(first) == "defaultroute") {
      return noAddress;
    }
  }
  bool some = false;
  while (!rest.empty()) {
    const std::string_view part = takePart(rest, ',');
    if (!part.empty() && !isHost(part)) {
      return noAddress;
    }
    some = some || !part.empty();
  }
  return some ? Finding() : noAddress;
}

Finding judgeSubnets(const ReadValue& value) noexcept {
  bool some = false;
  for (std::string_view rest = value.text; !rest.empty();) {
    const std::string_view part = takePart(rest, ',');
    if (!part.empty() && !isTrafficSelector(part)) {
      return {"The value is no list of subnets: the daemon would leave one out or read another one."};
    }
    some = some || !part.empty();
  }
  return some ? Finding() : Finding{"The value is no list of subnets."};
}

Finding judgeMark(const ReadValue& value) noexcept {
  const std::size_t slash = std::min(value.text.find('/'), value.text.size());
  const std::string_view mark = value.text.substr(0, slash);
  std::uint64_t mask = most32;
  if (slash < value.text.size()) {
    const std::string_view text = value.text.substr(slash + 1);
    const Number number = readNumber(text, 0);
    if (const Finding finding = judgeNumber(text, number, most32)) {
      return finding;
    }
    mask = number.value;
  }
  if (equalsInAnyCase(mark, "%unique") || equalsInAnyCase(mark, "%unique-dir")) {
    return {};
  }
  const Number number = readNumber(mark, 0);
  if (const Finding finding = judgeNumber(mark, number, mostMark)) {
    return finding;
  }
  return (number.value & ~mask) != 0 ? Finding{"The mask cuts bits off the mark."} : Finding();
}

Finding judgeRequestId(const ReadValue& value) noexcept {
  return judgeNumber(value.text, readNumber(value.text, 10), most32);
}

Finding judgeReplayWindow(const ReadValue& value) noexcept {
  // The daemon reads its highest number as -1, which stands for the daemon's own size.
  return value.text == "-1" ? Finding() : judgeNumber(value.text, readNumber(value.text, 10), most32 - 1);
}

Finding judgeLimit(const ReadValue& value) noexcept {
  return judgeNumber(value.text, readNumber(value.text, 10), most64);
}

Finding judgeDuration(const ReadValue& value) noexcept {
  struct Unit {
    char letter;
    std::uint64_t seconds;
  };
  constexpr Unit units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  std::string_view text = value.text;
  std::uint64_t most = most32;
  for (const Unit& unit : units) {
    if (!text.empty() && text.back() == unit.letter) {
      text.remove_suffix(1);
      most = most32 / unit.seconds;
      break;
    }
  }
  return judgeNumber(text, readNumber(text, 10), most);
}

Finding judgeSecondsOfIke(std::string_view written) noexcept {
  return judgeNumber(written, readNumber(written, 10), most32);
}

Finding judgeSecondsOfTunnel(std::string_view written) noexcept {
  return judgeNumber(written, readNumber(written, 10), most64);
}

bool isMarginTooLarge(std::string_view margin, std::string_view limit) noexcept {
  const std::string_view marginText = readValue(margin).text;
  const std::string_view limitText = readValue(limit).text;
  const Number marginNumber = readNumber(marginText, 10);
  const Number limitNumber = readNumber(limitText, 10);
  const bool numbers = !judgeNumber(marginText, marginNumber, most64) && !judgeNumber(limitText, limitNumber, most64);
  return numbers && limitNumber.value != 0 && marginNumber.value >= limitNumber.value;
}

// --- The secrets file ------------------------------------------------------------------------------------------------

namespace {

constexpr Finding noSelector = {"The value is neither an address nor an identity that the daemon understands."};

// Whether the text is an identity whose type is written in front of it.
bool hasIdentityType(std::string_view text) noexcept {
  constexpr std::string_view types[] = {
      "asn1dn:", "asn1gn:", "dns:", "email:", "fqdn:", "ipv4:#", "ipv6:#", "keyid:", "rfc822:", "userfqdn:"};
  return std::any_of(std::begin(types), std::end(types), [&](std::string_view type) { return startsWith(text, type); });
}

bool isSelector(std::string_view text) noexcept {
  if (text.front() == '#') {
    return false;  // a comment, over which the daemon may even crash
  }
  const bool other = (has(text, '@') && !has(text, ',')) || hasIdentityType(text);
  return other || (isHost(text) && !has(text, ','));
}

}  // namespace

Finding judgeSelectors(std::string_view selectors) noexcept {
  if (trimmed(selectors).empty() || selectors == "include" || startsWith(trimmed(selectors), "include ")) {
    return noSelector;
  }
  for (std::string_view rest = trimmed(selectors); !rest.empty();) {
    if (rest.front() == '"') {
      const std::size_t end = rest.find('"', 1);
      if (end == std::string_view::npos || (end + 1 < rest.size() && rest[end + 1] != ' ')) {
        return noSelector;
      }
      rest = trimmed(rest.substr(end + 1));
      continue;
    }
    const std::string_view part = takePart(rest, ' ');
    if (!part.empty() && !isSelector(part)) {
      return noSelector;
    }
  }
  return {};
}

namespace {

// Whether the daemon reads all of the text as bytes in base 64.
bool isBase64(std::string_view text) noexcept {
  const std::size_t end = std::min(text.find('='), text.size());
  const auto fits = [](char character) {
    return isLetter(character) || isDigit(character) || character == '+' || character == '/';
  };
  const bool padded = text.size() - end <= 2 && text.find_first_not_of('=', end) == std::string_view::npos;
  return text.size() % 4 == 0 && padded && isAll(text.substr(0, end), fits);
}

// Whether the text is hexadecimal digits, or pairs of them with colons in between.
bool isHex(std::string_view text) noexcept {
  if (!has(text, ':')) {
    return isAll(text, isHexDigit);
  }
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool fits = at % 3 == 2 ? text[at] == ':' : isHexDigit(text[at]);
    if (!fits) {
      return false;
    }
  }
  return text.size() % 3 == 2;
}

}  // namespace

Finding judgeKey(std::string_view key) noexcept {
  const std::string_view text = trimmed(key);
  if (text.empty() || text.front() == '#') {
    return {"The key is empty: the daemon would refuse it and all entries below it."};
  }
  if (text.front() == '"' || text.front() == '\'') {
    const std::size_t end = text.find(text.front(), 1);
    return end == text.size() - 1
               ? Finding()
               : Finding{"The quotes do not enclose all of the key: the daemon would cut or refuse it."};
  }
  if (has(text, ' ')) {
    return {"The key needs quotes: the daemon would cut it at a blank."};
  }
  const bool prefixed = text.size() > 2 && text[0] == '0';
  if (prefixed && (text[1] == 'x' || text[1] == 'X') && !isHex(text.substr(2))) {
    return {"The key is not hexadecimal: the daemon would read another one."};
  }
  if (prefixed && (text[1] == 's' || text[1] == 'S') && !isBase64(text.substr(2))) {
    return {"The key is not in base 64: the daemon would cut it or read another one."};
  }
  return {};
}

}  // namespace Ipsec
