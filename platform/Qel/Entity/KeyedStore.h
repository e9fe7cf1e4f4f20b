// Helpers for the keyed collections of entities, which notify only on a real change.
#pragma once

#include <utility>

namespace Qel {

// Inserts or updates map[key] = value; false when an equal value was already stored.
template <class Map, class K, class V>
bool storeIfChanged(Map& map, K const& key, V&& value) {
  auto [it, inserted] = map.try_emplace(key, std::forward<V>(value));
  if (inserted) return true;
  if (it->second == value) return false;
  it->second = std::forward<V>(value);
  return true;
}

// Erases the element at key, which may be any type the map searches with; false when absent.
template <class Map, class K>
bool eraseIfPresent(Map& map, K const& key) {
  auto const it = map.find(key);
  if (it == map.end()) return false;
  map.erase(it);
  return true;
}

// The element at key, or null.
template <class Map, class K>
auto findOrNull(Map const& map, K const& key) -> decltype(&map.begin()->second) {
  auto it = map.find(key);
  return it == map.end() ? nullptr : &it->second;
}

}  // namespace Qel
