// A checked map lookup whose exception text is our own: standard libraries word unordered_map::at differently.
#pragma once

#include <stdexcept>

namespace Ipsec {

template <class Map>
const typename Map::mapped_type& checkedAt(const Map& map, const typename Map::key_type& key) {
  const auto found = map.find(key);
  if (found == map.end()) {
    throw std::out_of_range("_Map_base::at");
  }
  return found->second;
}

}  // namespace Ipsec
