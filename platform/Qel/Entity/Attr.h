// The storage of an entity's attributes, each holding the store-only-on-change and notify logic
// once. A member of one of these types is declared per attribute (normally by an attribute list,
// see AttrList.h); its mutators take the owning entity, whose notifiees they tell of each change.
//
//   Attr<T, kAid>                    a plain value: set() stores and notifies only when the new
//                                    value differs from the stored one.
//   NotifyingMap<M, kAid>            a keyed collection held in map type M: set() stores and
//                                    notifies (with the key) only on a change, del() only when the
//                                    key was present (a removed value lives until every notifiee
//                                    has been told), delAll() removes the keys one by one, each
//                                    notified.
//   NotifyingEntityMap<E, kAid, M>   child entities keyed by name (an EntityMap): insert() and
//                                    del() notify with the name; a removed child stays alive until
//                                    every notifiee has been told; delAll() removes one by one.
//   NotifyingQueue<V, kAid>          a LinkQueue: enq(), deq(), set(), del() notify with the index
//                                    of the entry; delAll() dequeues one by one, each notified.
//
// Each notification is delivered through GenericIf::notify: the typed notifiee's qelDispatch
// turns it into its onX callbacks (see AttrList.h). A map keyed by InternedText tells its keys as
// the String they hold (NotifiedKey), the type its reflection registers for them.
// Lookups take any key the map can search with. None of these keeps a pointer to its owner or
// allocates beyond what the stored value itself needs. Single-threaded.
#pragma once

#include <cstddef>
#include <iterator>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "Qel/Containers/InternedText.h"
#include "Qel/Containers/LinkQueue.h"
#include "Qel/Core/Exception.h"
#include "Qel/Entity/EntityMap.h"
#include "Qel/Entity/KeyedStore.h"
#include "Qel/Reflection/GenericIf.h"

namespace Qel {

// How a key reaches a notifiee's callback: scalars by value, the rest by reference.
template <class K>
using KeyArg = std::conditional_t<std::is_scalar_v<K>, K, K const&>;

// The type a key is told in: an interned text as its String, any other key as itself.
template <class K>
using NotifiedKey = std::conditional_t<std::is_same_v<K, InternedText>, String, K>;

namespace detail {
template <class V>
struct IsCountedPtr : std::false_type {};
template <class T>
struct IsCountedPtr<Ptr<T>> : std::true_type {};
}  // namespace detail

// What a keyed lookup returns: a scalar element as an optional copy, a Ptr element as the Ptr
// (null when absent), any other as a pointer to the stored element (null when absent).
template <class V>
using LookupResult =
    std::conditional_t<std::is_scalar_v<V>, std::optional<V>,
                       std::conditional_t<detail::IsCountedPtr<V>::value, V, V const*>>;

// The one way the attribute storage reaches the owner's (protected) notification.
struct AttrNotifier {
  static void notify(GenericIf const& owner, AttributeId aid) { owner.notify(aid); }
  template <class K>
  static void notifyKey(GenericIf const& owner, AttributeId aid, K const& key) {
    owner.notifyKey(aid, key);
  }
  static void notifyKey(GenericIf const& owner, AttributeId aid, InternedText const& key) {
    owner.notifyKey(aid, key.str());
  }
};

template <class T, AttributeId kAid>
class Attr {
 public:
  static constexpr AttributeId kId = kAid;

  Attr() = default;
  // An attribute whose value before any write is `initial`.
  explicit Attr(T initial) : value_(std::move(initial)) {}

  T const& get() const { return value_; }
  void set(GenericIf const& owner, T const& v) {
    if (value_ == v) return;
    value_ = v;
    AttrNotifier::notify(owner, kAid);
  }

 private:
  T value_{};
};

template <class M, AttributeId kAid>
class NotifyingMap {
 public:
  static constexpr AttributeId kId = kAid;
  using Map = M;
  using Key = typename M::key_type;
  using Value = typename M::mapped_type;

  Map const& map() const { return map_; }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  template <class K>
  LookupResult<Value> find(K const& key) const {
    auto it = map_.find(key);
    if constexpr (std::is_scalar_v<Value>) {
      if (it == map_.end()) return std::nullopt;
      return it->second;
    } else if constexpr (detail::IsCountedPtr<Value>::value) {
      return it == map_.end() ? Value() : it->second;
    } else {
      return it == map_.end() ? nullptr : &it->second;
    }
  }

  void set(GenericIf const& owner, Key const& key, Value const& v) {
    if (!storeIfChanged(map_, key, v)) return;
    AttrNotifier::notifyKey(owner, kAid, key);
  }
  // Returns whether `key` was present. The removed value is released after the notification, so
  // a notifiee (or the value itself, when it removes itself) still finds it alive.
  bool del(GenericIf const& owner, Key const& key) {
    auto const it = map_.find(key);
    if (it == map_.end()) return false;
    auto removed = map_.extract(it);
    AttrNotifier::notifyKey(owner, kAid, removed.key());
    return true;
  }
  // Removes the element at `it`; returns the one after it.
  typename Map::const_iterator del(GenericIf const& owner, typename Map::const_iterator it) {
    auto next = std::next(it);
    auto removed = map_.extract(it);
    AttrNotifier::notifyKey(owner, kAid, removed.key());
    return next;
  }
  void delAll(GenericIf const& owner) {
    while (!map_.empty())
      del(owner, Key(map_.begin()->first));
  }

 private:
  Map map_;
};

template <class E, AttributeId kAid, class M = typename EntityMap<E>::Map>
class NotifyingEntityMap {
 public:
  static constexpr AttributeId kId = kAid;
  using Map = M;

  explicit NotifyingEntityMap(Entity* owner) : entities_(owner) {}

  Map const& map() const { return entities_.map(); }
  std::size_t size() const { return entities_.size(); }
  bool empty() const { return entities_.empty(); }
  Ptr<E> find(Name const& name) const { return entities_.find(name); }

  // `child` must not be in the map yet.
  void insert(GenericIf const& owner, Ptr<E> const& child) {
    entities_.insert(child);
    AttrNotifier::notifyKey(owner, kAid, child->name());
  }
  void del(GenericIf const& owner, Name const& name) {
    Ptr<E> const gone = entities_.erase(name);
    if (!gone) return;
    AttrNotifier::notifyKey(owner, kAid, name);
  }
  void delAll(GenericIf const& owner) {
    while (!entities_.empty())
      del(owner, Name(entities_.anyName()));
  }

 private:
  EntityMap<E, M> entities_;
};

template <class V, AttributeId kAid>
class NotifyingQueue {
 public:
  static constexpr AttributeId kId = kAid;
  using Queue = LinkQueue<V>;

  Queue const& queue() const { return queue_; }
  std::size_t size() const { return queue_.size(); }
  bool empty() const { return queue_.empty(); }
  V const* find(U32 index) const { return queue_.at(index); }
  LinkQueueMetadata metadata() const { return queue_.metadata(); }
  // Only on an empty queue; tells nobody (the owner notifies the numbering as it sees fit).
  void metadataIs(LinkQueueMetadata const& m) { queue_.metadataIs(m); }

  // Returns the new entry's index; throws "linkqueue index space full".
  U32 enq(GenericIf const& owner, V const& v) {
    U32 const index = queue_.enqueue(v);
    AttrNotifier::notifyKey(owner, kAid, index);
    return index;
  }
  // Removes and returns the oldest entry; a default V, telling nobody, when the queue is empty.
  V deq(GenericIf const& owner) {
    if (queue_.empty()) return V();
    U32 const index = queue_.metadata().head;
    V v = std::move(*queue_.dequeue());
    AttrNotifier::notifyKey(owner, kAid, index);
    return v;
  }
  // Replaces an existing entry; throws RangeException for an index no entry holds.
  void set(GenericIf const& owner, U32 index, V const& v) {
    if (!queue_.at(index)) throw RangeException(kNullValidPtr);
    if (!queue_.set(index, v)) return;
    AttrNotifier::notifyKey(owner, kAid, index);
  }
  void del(GenericIf const& owner, U32 index) {
    if (!queue_.erase(index)) return;
    AttrNotifier::notifyKey(owner, kAid, index);
  }
  void delAll(GenericIf const& owner) {
    while (!queue_.empty())
      deq(owner);
  }

 private:
  Queue queue_;
};

}  // namespace Qel
