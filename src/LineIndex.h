// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// LineIndex finds, among many lines, the first that LineMatcher would find for a plain start: one in which "." stands
// for any character but a line's end. It is a tree with one node per place where lines part, so that a search follows
// the lines that agree with the start so far, and no others.
//
// Whole lines are read from their ends. The names of connections end in a number of their own there, which leads to the
// line before any "." is met. Behind a "." the lines of many similar addresses would have to be followed.
#pragma once

#include "LineMatcher.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

namespace Ipsec {

class LineIndex {
 public:
  // The number of a line. It is above those of all lines added before.
  using Number = std::uint32_t;
  static constexpr Number none = std::numeric_limits<Number>::max();

  explicit LineIndex(LineMatcher::Covers extent)
      : covers(extent), step(extent == LineMatcher::Covers::Start ? 1 : -1), nodes(1) {}

  // Makes room for as many lines, so that they are not moved while they become more.
  void reserve(std::size_t count);

  // Adds a line. The text must outlive the index. Throws std::bad_alloc, also when there are too many lines to count.
  void add(std::string_view line, std::size_t number);

  // Removes a line by its number. Among equal lines it must be the one with the smallest number.
  void remove(Number line);

  // Returns the smallest number of a line that matches, or none.
  Number first(std::string_view start);

 private:
  using NodeNumber = std::uint32_t;

  // Half a cache line: a search in a large tree is as fast as it finds its nodes in memory.
  struct Node {
    const char* label = nullptr;  // what it adds to the node above: its first character in the order of reading
    std::uint32_t labelLength = 0;
    std::uint32_t childCount = 0;
    std::uint32_t firstChild = 0;  // the place of its children, with room for as many as the next power of two
    NodeNumber above = 0;
    Number firstLine = none;  // of the lines that end here, which are chained in their order
    Number smallest = none;   // the smallest number here and below
  };
  static_assert(sizeof(Node) == 32);

  // All children of a node lie side by side, so that a search looks at one or two cache lines for the one it goes on
  // with.
  struct Child {
    NodeNumber node;
    char labelBegin;
  };

  // A node to be searched, and how much of the start the nodes above it have matched.
  struct Place {
    NodeNumber node;
    std::uint32_t matched;
  };

  // What belongs to a line by its number.
  struct Line {
    NodeNumber node = 0;  // where it ends
    Number next = none;   // the next line of the same text
    Number last = none;   // the last one, for the first
  };

  const char* begin(std::string_view line) const;
  std::uint32_t common(const Node& node, const char* line, std::size_t length) const;
  bool matches(const Node& node, const char* start, std::size_t length) const;
  std::span<const Child> childrenOf(const Node& node) const;
  Child* childFor(NodeNumber above, char next);
  NodeNumber addChild(NodeNumber above, const char* label, std::size_t length);
  NodeNumber split(Child& child, std::uint32_t length);
  Number smallestBelow(const Node& node) const;

  LineMatcher::Covers covers;
  std::ptrdiff_t step;  // from one character to the next in the order of reading
  std::vector<Node> nodes;
  std::vector<Child> children;
  std::vector<Line> lines;
  std::vector<Place> places;  // of a search, kept for its memory
};

}  // namespace Ipsec
