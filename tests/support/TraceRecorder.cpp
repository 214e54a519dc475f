// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "tests/support/TraceRecorder.h"

#include <gtest/gtest.h>

namespace Ipsec::Testing {

namespace {

template <class Condition>
std::vector<std::string> messages(const std::vector<Cor::TraceLine>& lines, Condition wanted) {
  std::vector<std::string> found;
  for (const Cor::TraceLine& line : lines) {
    if (wanted(line)) {
      found.push_back(line.message);
    }
  }
  return found;
}

}  // namespace

TraceRecorder::TraceRecorder(std::string_view levels)
    : capture([this](const Cor::TraceLine& line) {
        const std::lock_guard<std::mutex> lock(guard);
        recorded.push_back(line);
      }) {
  if (!levels.empty()) {
    EXPECT_TRUE(Cor::setTraceLevels(levels)) << levels;
  }
}

std::vector<Cor::TraceLine> TraceRecorder::lines() const {
  const std::lock_guard<std::mutex> lock(guard);
  return recorded;
}

std::vector<std::string> TraceRecorder::errors() const {
  return messages(lines(), [](const Cor::TraceLine& line) { return line.sink == Cor::TraceSink::Ring; });
}

std::vector<std::string> TraceRecorder::text() const {
  return messages(lines(), [](const Cor::TraceLine& line) { return line.sink == Cor::TraceSink::Text; });
}

std::vector<std::string> TraceRecorder::text(unsigned level) const {
  return messages(lines(), [level](const Cor::TraceLine& line) {
    return line.sink == Cor::TraceSink::Text && line.level == level;
  });
}

bool TraceRecorder::mentions(std::string_view bytes) const {
  const auto holds = [bytes](const std::string& field) { return field.find(bytes) != std::string::npos; };
  for (const Cor::TraceLine& line : lines()) {
    if (holds(line.message) || holds(line.function) || holds(line.file) || holds(line.handle)) {
      return true;
    }
  }
  return false;
}

void TraceRecorder::clear() {
  const std::lock_guard<std::mutex> lock(guard);
  recorded.clear();
}

}  // namespace Ipsec::Testing
