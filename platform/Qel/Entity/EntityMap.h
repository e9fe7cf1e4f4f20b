// EntityMap<E>: the storage of a collection of entities owned by another entity, keyed by name.
// Inserting sets the child's parent to the owner, removing clears it, and so does the owner's
// destruction, so that an entity still held elsewhere is seen as cut off from the tree. The owner
// notifies; the map only keeps the parents right. Unordered unless another map type is given
// (an ordered one iterates in ascending name order). The default map's keys are views of the
// children's own names, which are fixed at construction and live as long as the map holds the
// child: a child's name is stored once. Single-threaded.
#pragma once

#include <string_view>
#include <unordered_map>

#include "Qel/Entity/Entity.h"

namespace Qel {

template <class E, class M = std::unordered_map<std::string_view, Ptr<E>>>
class EntityMap {
 public:
  using Map = M;

  explicit EntityMap(Entity* owner) : owner_(owner) {}
  EntityMap(EntityMap const&) = delete;
  EntityMap& operator=(EntityMap const&) = delete;
  ~EntityMap() {
    for (auto& [name, e] : map_)
      e->qelParentIs(nullptr);
  }

  // Any text the map's key can be compared with: a name, or a view where the key is one.
  template <class K>
  Ptr<E> find(K const& name) const {
    auto it = map_.find(name);
    return it == map_.end() ? nullptr : it->second;
  }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  Map const& map() const { return map_; }
  Name const& anyName() const { return map_.begin()->second->name(); }

  void insert(Ptr<E> const& e) {
    map_.emplace(typename Map::key_type(e->name()), e);
    e->qelParentIs(owner_);
  }
  // Removes and returns the entity, or null when absent.
  Ptr<E> erase(Name const& name) {
    auto it = map_.find(name);
    if (it == map_.end()) return nullptr;
    Ptr<E> e = std::move(it->second);
    map_.erase(it);
    e->qelParentIs(nullptr);
    return e;
  }

 private:
  Entity* owner_;
  Map map_;
};

}  // namespace Qel
