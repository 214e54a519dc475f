// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "Json.h"

#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>

namespace Exchange {
namespace {

std::string quoted(std::string_view text) {
  std::ostringstream out;
  out << '"';
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
      out << '\\' << character;
    } else if (code < 0x20) {
      out << "\\u" << std::hex << std::setw(4) << std::setfill('0') << static_cast<unsigned>(code);
    } else {
      out << character;
    }
  }
  out << '"';
  return out.str();
}

const char* truth(bool value) {
  return value ? "true" : "false";
}

// Writes the elements of a list, one per line, with commas between them.
template <class List, class Write>
void printList(std::ostream& out, const List& list, const char* indent, Write write) {
  out << "[";
  const char* separator = "\n";
  for (const auto& element : list) {
    out << separator << indent;
    write(element);
    separator = ",\n";
  }
  out << "]";
}

void printExchange(std::ostream& out, const ExchangeResult& exchange) {
  out << "{\"prf\": " << quoted(exchange.suite->prfName) << ", \"agrees\": " << truth(exchange.agrees())
      << ", \"initMicroseconds\": " << exchange.initMicroseconds
      << ", \"agreementMicroseconds\": " << exchange.agreementMicroseconds << ", \"keyBytes\": " << exchange.keyBytes
      << "}";
}

void printGroup(std::ostream& out, const GroupResult& group) {
  const ExchangeResult& any = group.exchanges.back();
  out << "{\"group\": " << group.group->number << ", \"name\": " << quoted(group.group->name)
      << ", \"publicBytes\": " << any.publicBytes << ", \"secretBytes\": " << any.secretBytes
      << ", \"agrees\": " << truth(agreeing(group) == suites.size()) << ", \"initMicroseconds\": " << medianInit(group)
      << ", \"agreementMicroseconds\": " << medianAgreement(group) << ", \"keyBytes\": " << keyBytes(group)
      << ", \"exchanges\": ";
  printList(out, group.exchanges, "      ", [&out](const ExchangeResult& one) { printExchange(out, one); });
  out << "}";
}

void printPublished(std::ostream& out, const PublishedResult& result) {
  const PublishedSide& side = *result.published;
  out << "{\"source\": " << quoted(side.source) << ", \"side\": " << quoted(side.side)
      << ", \"group\": " << side.group->number << ", \"name\": " << quoted(side.group->name)
      << ", \"asPublished\": " << truth(result.agrees()) << "}";
}

void printSuite(std::ostream& out, const Suite& suite) {
  const KeyLengths lengths = keyLengths(suite);
  out << "{\"prf\": " << quoted(suite.prfName) << ", \"encryption\": " << quoted(suite.encryptionName)
      << ", \"integrity\": " << (suite.integrity ? quoted(suite.integrityName) : "null") << ", \"keyBytes\": {";
  for (std::size_t index = 0; index < keyCount; ++index) {
    out << (index == 0 ? "" : ", ") << quoted(keyNames[index]) << ": " << lengths[index];
  }
  out << "}}";
}

}  // namespace

void printJson(std::ostream& out, const Results& results) {
  out << std::fixed << std::setprecision(1) << "{\n  \"published\": ";
  printList(out, results.published, "    ", [&out](const PublishedResult& one) { printPublished(out, one); });
  out << ",\n  \"suites\": ";
  printList(out, suites, "    ", [&out](const Suite& one) { printSuite(out, one); });
  out << ",\n  \"groups\": ";
  printList(out, results.groups, "    ", [&out](const GroupResult& one) { printGroup(out, one); });
  out << ",\n  \"failures\": ";
  printList(out, results.failures, "    ", [&out](const std::string& one) { out << quoted(one); });
  out << ",\n  \"agrees\": " << truth(results.failures.empty()) << "\n}\n";
  out.flush();
}

}  // namespace Exchange
