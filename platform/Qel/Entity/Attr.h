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
//                                    NotifyingEntityMapIn<M, kAid> names it by its map type.
//   NotifyingQueue<V, kAid>          a LinkQueue: enq(), deq(), set(), del() notify with the index
//                                    of the entry; delAll() dequeues one by one, each notified.
//   NotifyingRecordMap<K, V...>      several keyed collections whose elements share their keys:
//                                    one hashed record per key holds the key's element of each
//                                    collection I (of type V_I) that has one, so a key costs one
//                                    node and one lookup for all of them. RecordField<Records, I,
//                                    Told> names collection I and the key type its notifiees are
//                                    told; set() and del() store, notify and return as
//                                    NotifyingMap's do, each for its own collection.
//
// Each notification is delivered through GenericIf::notify: the typed notifiee's qelDispatch
// turns it into its onX callbacks (see AttrList.h). A map keyed by InternedText tells its keys as
// the String they hold (NotifiedKey), the type its reflection registers for them.
// Lookups take any key the map can search with. None of these keeps a pointer to its owner or
// allocates beyond what the stored value itself needs. Single-threaded.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

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
  // Makes room for n elements, for a map type that can (see its reserve).
  void reserve(std::size_t n) { map_.reserve(n); }
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
  template <class K>
  Ptr<E> find(K const& name) const {
    return entities_.find(name);
  }

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

// The map type an EntityMap<E> holds by default.
template <class E>
using EntityMapOf = typename EntityMap<E>::Map;

// Child entities held in the map type M, from name to Ptr<E>.
template <class M, AttributeId kAid>
using NotifyingEntityMapIn = NotifyingEntityMap<typename M::mapped_type::element_type, kAid, M>;

// What a Ptr to a notifiee's notifier() gives: the Ptr to the notifier it watches.
template <class P>
using NotifierOf = decltype(std::declval<P const&>()->notifier());

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

// The key of a record map that a lookup value stands for: the value itself, unless an overload
// for its type (found by argument-dependent lookup) gives the key it holds.
template <class Q>
Q const& qelRecordKey(Q const& q) {
  return q;
}

// K has a nested Hash and Equal (as InternedText does); lookups take anything they take.
template <class K, class... V>
class NotifyingRecordMap {
 public:
  static_assert(sizeof...(V) > 0 && sizeof...(V) <= 8, "one to eight collections");
  using Key = K;
  template <std::size_t I>
  using Element = std::tuple_element_t<I, std::tuple<V...>>;

  template <std::size_t I>
  std::size_t size() const {
    return counts_[I];
  }
  // Collection I's element under `q`, or null.
  template <std::size_t I, class Q>
  Element<I> const* find(Q const& q) const {
    auto const it = map_.find(qelRecordKey(q));
    if (it == map_.end() || !it->second.has(I)) return nullptr;
    return &std::get<I>(it->second.values);
  }
  // Calls f(key, element) for every element of collection I, in no particular order.
  template <std::size_t I, class F>
  void forEach(F&& f) const {
    for (auto const& [key, record] : map_) {
      if (record.has(I)) f(key, std::get<I>(record.values));
    }
  }
  // Collection I as (key, element) pairs ordered by key, the key as S.
  template <std::size_t I, class S>
  std::vector<std::pair<S, Element<I>>> sorted() const {
    std::vector<std::pair<S, Element<I>>> out;
    out.reserve(counts_[I]);
    forEach<I>([&out](K const& key, Element<I> const& v) { out.emplace_back(S(key), v); });
    std::sort(out.begin(), out.end(),
              [](auto const& a, auto const& b) { return a.first < b.first; });
    return out;
  }

  // Stores `v` in collection I under `q`; on a change, notifies attribute kAid with the key as
  // Told. Returns whether anything changed.
  template <std::size_t I, AttributeId kAid, class Told, class Q>
  bool set(GenericIf const& owner, Q const& q, Element<I> const& v) {
    return set<I, kAid, Told>(owner, q, v, [](Element<I> const*) {});
  }
  // The same, calling changing(old) once the element is known to change, before it is stored
  // and told; `old` is the element replaced, or null when there was none.
  template <std::size_t I, AttributeId kAid, class Told, class Q, class F>
  bool set(GenericIf const& owner, Q const& q, Element<I> const& v, F&& changing) {
    auto it = map_.find(qelRecordKey(q));
    if (it == map_.end()) it = map_.try_emplace(K(qelRecordKey(q))).first;
    Record& record = it->second;
    auto& slot = std::get<I>(record.values);
    if (record.has(I)) {
      if (slot == v) return false;
      changing(&std::as_const(slot));
      slot = v;
    } else {
      changing(static_cast<Element<I> const*>(nullptr));
      slot = v;
      record.present |= bit(I);
      ++counts_[I];
    }
    // A notifiee may remove the record: the key is told from a copy.
    K const key = it->first;
    tell<kAid, Told>(owner, key);
    return true;
  }
  // Removes collection I's element under `q`; returns whether there was one. The removed element
  // is released after the notification, and the record with its last element.
  template <std::size_t I, AttributeId kAid, class Told, class Q>
  bool del(GenericIf const& owner, Q const& q) {
    return del<I, kAid, Told>(owner, q, [](Element<I> const&) {});
  }
  // The same, calling removing(old) with the element before it is removed and told.
  template <std::size_t I, AttributeId kAid, class Told, class Q, class F>
  bool del(GenericIf const& owner, Q const& q, F&& removing) {
    auto const it = map_.find(qelRecordKey(q));
    if (it == map_.end() || !it->second.has(I)) return false;
    Record& record = it->second;
    removing(std::as_const(std::get<I>(record.values)));
    [[maybe_unused]] Element<I> const removed =
        std::exchange(std::get<I>(record.values), Element<I>());
    record.present &= static_cast<std::uint8_t>(~bit(I));
    --counts_[I];
    K const key = it->first;
    if (record.present == 0) map_.erase(it);
    tell<kAid, Told>(owner, key);
    return true;
  }
  template <std::size_t I, AttributeId kAid, class Told>
  void delAll(GenericIf const& owner) {
    std::vector<K> keys;
    keys.reserve(counts_[I]);
    forEach<I>([&keys](K const& key, Element<I> const&) { keys.push_back(key); });
    for (K const& key : keys)
      del<I, kAid, Told>(owner, key);
  }

 private:
  struct Record {
    std::tuple<V...> values;
    std::uint8_t present = 0;
    bool has(std::size_t i) const { return (present & bit(i)) != 0; }
  };
  static constexpr std::uint8_t bit(std::size_t i) { return static_cast<std::uint8_t>(1u << i); }

  template <AttributeId kAid, class Told>
  static void tell(GenericIf const& owner, K const& key) {
    if constexpr (std::is_convertible_v<K const&, Told const&>) {
      AttrNotifier::notifyKey(owner, kAid, key);
    } else {
      AttrNotifier::notifyKey(owner, kAid, Told(key));
    }
  }

  std::unordered_map<K, Record, typename K::Hash, typename K::Equal> map_;
  std::array<std::size_t, sizeof...(V)> counts_{};
};

// Collection I of the record map Records, its keys told to notifiees (and given to the
// reflection) as Told; Sorted is the key of its ordered listing (Told, or the record map's own
// key when that converts to Told without a copy).
template <class Records, std::size_t I, class Told>
struct RecordField {
  static constexpr std::size_t kIndex = I;
  using Element = typename Records::template Element<I>;
  using Key = Told;
  using Sorted =
      std::conditional_t<std::is_convertible_v<typename Records::Key const&, Told const&>,
                         typename Records::Key, Told>;
};

}  // namespace Qel
