// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// Look-ups in the constant tables and in maps of settings. find() returns null for a missing key. checkedAt() is for
// keys that the caller must provide: it throws for a missing one. The exception has its own text, because standard
// libraries word that of unordered_map::at differently.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <stdexcept>

namespace Ipsec {

// Kept (missing-key-text): callers log this text.
inline constexpr char missingKey[] = "_Map_base::at";

// One row of a constant table.
template <class Key, class Value>
struct TableRow {
  Key key;
  Value value;
};

// Returns the value of a table's row, or null if no row has the key.
template <class Key, class Value, std::size_t rowCount>
constexpr const Value* find(const TableRow<Key, Value> (&rows)[rowCount], Key key) {
  const auto* row = std::find_if(std::begin(rows), std::end(rows), [key](const auto& each) { return each.key == key; });
  return row == std::end(rows) ? nullptr : &row->value;
}

template <class Key, class Value, std::size_t rowCount>
const Value& checkedAt(const TableRow<Key, Value> (&rows)[rowCount], Key key) {
  const Value* const found = find(rows, key);
  if (found == nullptr) {
    throw std::out_of_range(missingKey);
  }
  return *found;
}

template <class Map>
const typename Map::mapped_type& checkedAt(const Map& map, const typename Map::key_type& key) {
  const auto found = map.find(key);
  if (found == map.end()) {
    throw std::out_of_range(missingKey);
  }
  return found->second;
}

}  // namespace Ipsec
