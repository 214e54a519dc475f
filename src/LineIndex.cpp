// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "LineIndex.h"

#include <algorithm>
#include <bit>
#include <new>

namespace Ipsec {

// A line adds up to two nodes. Their places among the children take half as much again, because what a node's children
// outgrow stays empty.
void LineIndex::reserve(std::size_t lines) {
  nodes.reserve(2 * lines);
  children.reserve(3 * lines);
  equals.reserve(lines);
}

void LineIndex::add(std::string_view line, std::size_t number) {
  if (number >= none / 2 || line.size() >= none) {  // a line adds up to two nodes
    throw std::bad_alloc();
  }
  const auto added = static_cast<Number>(number);
  const char* rest = begin(line);
  std::size_t left = line.size();
  NodeNumber at = 0;
  nodes[at].smallest = std::min(nodes[at].smallest, added);
  while (left != 0) {
    NodeNumber child = childFor(at, *rest);
    if (child == 0) {
      child = addChild(at, rest, left);
    }
    const std::uint32_t length = common(nodes[child], rest, left);
    if (length < nodes[child].labelLength) {
      split(child, length);
    }
    rest += length * step;
    left -= length;
    at = child;
    nodes[at].smallest = std::min(nodes[at].smallest, added);
  }
  equals.resize(number + 1);
  Number& first = nodes[at].firstLine;
  if (first == none) {
    first = added;
  } else {
    equals[equals[first].last].next = added;
  }
  equals[first].last = added;
}

void LineIndex::remove(std::string_view line) {
  path.assign(1, 0);
  const char* rest = begin(line);
  for (std::size_t left = line.size(); left != 0;) {
    path.push_back(childFor(path.back(), *rest));
    rest += nodes[path.back()].labelLength * step;
    left -= nodes[path.back()].labelLength;
  }
  Number& first = nodes[path.back()].firstLine;
  const Number removed = first;
  first = equals[removed].next;
  if (first != none) {
    equals[first].last = equals[removed].last;
  }
  for (auto node = path.rbegin(); node != path.rend() && nodes[*node].smallest == removed; ++node) {
    nodes[*node].smallest = smallestBelow(nodes[*node]);
  }
}

LineIndex::Number LineIndex::first(std::string_view start) {
  const char* const read = begin(start);
  Number found = none;
  places.assign(1, {0, 0});
  while (!places.empty()) {
    const Place place = places.back();
    places.pop_back();
    const Node& node = nodes[place.node];
    if (!matches(node, read + place.matched * step, start.size() - place.matched)) {
      continue;
    }
    const std::uint32_t matched = place.matched + node.labelLength;
    if (matched < start.size()) {
      for (const Child& child : childrenOf(node)) {
        if (matchesOne(read[matched * step], child.labelBegin) && nodes[child.node].smallest < found) {
          places.push_back({child.node, matched});
        }
      }
    } else if (covers == LineMatcher::Covers::Start) {
      found = std::min(found, node.smallest);
    } else if (matched == start.size()) {
      found = std::min(found, node.firstLine);
    }
  }
  return found;
}

// Returns the first character in the order of reading.
const char* LineIndex::begin(std::string_view line) const {
  return step > 0 || line.empty() ? line.data() : &line.back();
}

// Returns how many characters a child's label and a line have in common. They have the first one: most labels hold no
// more, and are then not looked up in the text that they are a part of.
std::uint32_t LineIndex::common(const Node& node, const char* line, std::size_t length) const {
  std::uint32_t count = 1;
  while (count < node.labelLength && count < length && node.label[count * step] == line[count * step]) {
    ++count;
  }
  return count;
}

// Returns whether a node's label matches what is left of a start, as far as the shorter of the two goes. The first
// character of a child's label is known to match.
bool LineIndex::matches(const Node& node, const char* start, std::size_t length) const {
  std::uint32_t count = std::min(node.labelLength, 1U);
  while (count < node.labelLength && count < length && matchesOne(start[count * step], node.label[count * step])) {
    ++count;
  }
  return count == node.labelLength || count == length;
}

std::span<const LineIndex::Child> LineIndex::childrenOf(const Node& node) const {
  return {children.data() + node.firstChild, node.childCount};
}

// Returns the child whose label begins with a character, or 0.
LineIndex::NodeNumber LineIndex::childFor(NodeNumber parent, char next) const {
  for (const Child& child : childrenOf(nodes[parent])) {
    if (child.labelBegin == next) {
      return child.node;
    }
  }
  return 0;
}

LineIndex::NodeNumber LineIndex::addChild(NodeNumber parent, const char* label, std::size_t length) {
  const auto child = static_cast<NodeNumber>(nodes.size());
  nodes.push_back({label, static_cast<std::uint32_t>(length), 0, 0, none, none});
  Node& above = nodes[parent];
  if (above.childCount == 0 || std::has_single_bit(above.childCount)) {  // all the room is taken: make twice as much
    const std::size_t room = children.size();
    children.resize(room + std::max(std::size_t{1}, 2 * std::size_t{above.childCount}));
    std::copy_n(children.begin() + static_cast<std::ptrdiff_t>(above.firstChild), above.childCount,
                children.begin() + static_cast<std::ptrdiff_t>(room));
    above.firstChild = room;
  }
  children[above.firstChild + above.childCount++] = {child, *label};
  return child;
}

// Shortens a node's label, and moves the rest, with all that the node had, into a new child.
void LineIndex::split(NodeNumber node, std::uint32_t length) {
  Node rest = nodes[node];
  rest.label += length * step;
  rest.labelLength -= length;
  const auto below = static_cast<NodeNumber>(nodes.size());
  nodes.push_back(rest);
  Node& above = nodes[node];
  above.labelLength = length;
  above.childCount = 1;
  above.firstChild = children.size();
  above.firstLine = none;
  children.push_back({below, *rest.label});
}

LineIndex::Number LineIndex::smallestBelow(const Node& node) const {
  Number smallest = node.firstLine;
  for (const Child& child : childrenOf(node)) {
    smallest = std::min(smallest, nodes[child.node].smallest);
  }
  return smallest;
}

}  // namespace Ipsec
