// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

#include "LineIndex.h"

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

namespace Ipsec {

// A line adds up to two nodes. Their places among the children take half as much again, because what a node's children
// outgrow stays empty.
void LineIndex::reserve(std::size_t count) {
  nodes.reserve(2 * count);
  children.reserve(3 * count);
  lines.reserve(count);
}

void LineIndex::add(std::string_view line, std::size_t number) {
  if (number >= none / 8 || line.size() >= none) {  // two nodes, each with up to four places among the children
    throw std::bad_alloc();
  }
  const auto added = static_cast<Number>(number);
  const char* rest = begin(line);
  std::size_t left = line.size();
  NodeNumber at = 0;
  nodes[at].smallest = std::min(nodes[at].smallest, added);
  while (left != 0) {
    Child* const child = childFor(at, *rest);
    if (child == nullptr) {
      at = addChild(at, rest, left);
    } else {
      const std::uint32_t length = common(nodes[child->node], rest, left);
      at = length < nodes[child->node].labelLength ? split(*child, length) : child->node;
    }
    nodes[at].smallest = std::min(nodes[at].smallest, added);
    rest += nodes[at].labelLength * step;
    left -= nodes[at].labelLength;
  }
  lines.resize(number + 1);
  lines[added].node = at;
  Number& first = nodes[at].firstLine;
  if (first == none) {
    first = added;
  } else {
    lines[lines[first].last].next = added;
  }
  lines[first].last = added;
}

void LineIndex::remove(Number line) {
  NodeNumber at = lines[line].node;
  const Number next = lines[line].next;
  nodes[at].firstLine = next;
  if (next != none) {
    lines[next].last = lines[line].last;
  }
  for (; nodes[at].smallest == line; at = nodes[at].above) {  // the root is above itself, and is renewed once
    nodes[at].smallest = smallestBelow(nodes[at]);
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

// Returns the child whose label begins with a character, or null.
LineIndex::Child* LineIndex::childFor(NodeNumber above, char next) {
  Child* const begin = children.data() + nodes[above].firstChild;
  Child* const end = begin + nodes[above].childCount;
  Child* const found = std::find_if(begin, end, [next](const Child& child) { return child.labelBegin == next; });
  return found == end ? nullptr : found;
}

LineIndex::NodeNumber LineIndex::addChild(NodeNumber above, const char* label, std::size_t length) {
  const auto child = static_cast<NodeNumber>(nodes.size());
  nodes.push_back({label, static_cast<std::uint32_t>(length), 0, 0, above, none, none});
  Node& parent = nodes[above];
  if (parent.childCount == 0 || std::has_single_bit(parent.childCount)) {  // all the room is taken: make twice as much
    const std::size_t room = children.size();
    children.resize(room + std::max(1U, 2 * parent.childCount));
    std::copy_n(children.begin() + parent.firstChild, parent.childCount,
                children.begin() + static_cast<std::ptrdiff_t>(room));
    parent.firstChild = static_cast<std::uint32_t>(room);
  }
  children[parent.firstChild + parent.childCount++] = {child, *label};
  return child;
}

// Puts a node in between that takes the first characters of a child's label. The child keeps its number, which its
// lines and the nodes below it hold. Returns the new node.
LineIndex::NodeNumber LineIndex::split(Child& child, std::uint32_t length) {
  const auto between = static_cast<NodeNumber>(nodes.size());
  const auto place = static_cast<std::uint32_t>(children.size());
  const NodeNumber below = std::exchange(child.node, between);
  Node& rest = nodes[below];
  const Node upper = {rest.label, length, 1, place, rest.above, none, rest.smallest};
  rest.label += length * step;
  rest.labelLength -= length;
  rest.above = between;
  children.push_back({below, *rest.label});
  nodes.push_back(upper);
  return between;
}

LineIndex::Number LineIndex::smallestBelow(const Node& node) const {
  Number smallest = node.firstLine;
  for (const Child& child : childrenOf(node)) {
    smallest = std::min(smallest, nodes[child.node].smallest);
  }
  return smallest;
}

}  // namespace Ipsec
