// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/VectorFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <string_view>
#include <utility>

namespace Ipsec::Testing {

namespace {

std::string place(const std::string& path, std::size_t line) {
  return path + ":" + std::to_string(line);
}

[[noreturn]] void fail(const std::string& path, std::size_t line, const std::string& reason) {
  throw VectorFileError(place(path, line) + ": " + reason);
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

std::string trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isBlank(text.back())) {
    text.remove_suffix(1);
  }
  return std::string(text);
}

// Returns the value of a hex digit, -1 for any other character.
int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

bool decodeHex(const std::string& text, std::vector<unsigned char>* out) {
  if (text.size() % 2 != 0) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = hexDigit(text[i]);
    const int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) {
      return false;
    }
    out->push_back(static_cast<unsigned char>(high * 16 + low));
  }
  return true;
}

bool isForPeople(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  return name == "note" || name == "source";
}

}  // namespace

Block::Block(std::string pathOfFile, std::size_t line) : path(std::move(pathOfFile)), firstLine(line) {}

Block::Attribute& Block::find(const std::string& name) {
  const auto found = attributes.find(name);
  if (found == attributes.end()) {
    fail(path, firstLine, "the block has no attribute " + name);
  }
  found->second.read = true;
  return found->second;
}

const std::string& Block::text(const std::string& name) {
  return find(name).value;
}

std::uint64_t Block::number(const std::string& name) {
  const Attribute& attribute = find(name);
  const char* const end = attribute.value.data() + attribute.value.size();
  std::uint64_t result = 0;
  const auto [stop, error] = std::from_chars(attribute.value.data(), end, result);
  if (error != std::errc() || stop != end) {
    fail(path, attribute.line, name + " is not a decimal number: " + attribute.value);
  }
  return result;
}

std::vector<unsigned char> Block::bytes(const std::string& name) {
  const Attribute& attribute = find(name);
  const std::string& value = attribute.value;
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    return std::vector<unsigned char>(value.begin() + 1, value.end() - 1);
  }
  std::vector<unsigned char> result;
  if (!decodeHex(value, &result)) {
    fail(path, attribute.line, name + " is neither hex nor quoted text: " + value);
  }
  return result;
}

bool Block::has(const std::string& name) const {
  return attributes.count(name) != 0;
}

void Block::ignore(const std::string& name) {
  const auto found = attributes.find(name);
  if (found != attributes.end()) {
    found->second.read = true;
  }
}

std::string Block::where() const {
  const auto note = std::find_if(attributes.begin(), attributes.end(),
                                 [](const auto& attribute) { return isForPeople(attribute.first); });
  return place(path, firstLine) + (note == attributes.end() ? "" : " (" + note->second.value + ")");
}

void Block::finish() const {
  for (const auto& [name, attribute] : attributes) {
    if (!attribute.read && !isForPeople(name)) {
      ADD_FAILURE() << place(path, attribute.line) << ": the attribute " << name << " was never read";
    }
  }
}

VectorFile::VectorFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw VectorFileError(path + ": cannot be opened");
  }
  std::string line;
  std::size_t lineNumber = 0;
  while (std::getline(file, line)) {
    addLine(path, ++lineNumber, trimmed(line));
  }
  if (file.bad()) {
    fail(path, lineNumber, "cannot be read further");
  }
  if (blocks.empty()) {
    fail(path, lineNumber, "the file has no blocks");
  }
}

void VectorFile::addLine(const std::string& path, std::size_t lineNumber, const std::string& line) {
  if (line.empty()) {
    inBlock = false;
    return;
  }
  if (line.front() == '#') {
    return;
  }
  const std::size_t equals = line.find('=');
  const std::string name = trimmed(std::string_view(line).substr(0, equals));
  if (equals == std::string::npos || name.empty()) {
    fail(path, lineNumber, "not of the form \"Name = value\": " + line);
  }
  if (!inBlock) {
    blocks.push_back(Block(path, lineNumber));
    inBlock = true;
  }
  const std::string value = trimmed(std::string_view(line).substr(equals + 1));
  if (!blocks.back().attributes.emplace(name, Block::Attribute{value, lineNumber, false}).second) {
    fail(path, lineNumber, "the block has a second attribute " + name);
  }
}

std::size_t forEachBlock(const std::string& path, const std::function<void(Block&)>& check) {
  VectorFile file(path);
  for (Block& block : file) {
    SCOPED_TRACE(block.where());
    try {
      check(block);
      block.finish();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
  }
  return file.size();
}

}  // namespace Ipsec::Testing
