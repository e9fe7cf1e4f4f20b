// A hash map whose values carry their own keys, held flat.
//
// Each value V names its key through qelKey(v) (found by argument-dependent lookup); the map
// stores the values alone, in one array probed linearly, with no node per value and no second
// copy of the key. A slot is free when its value's key is empty, so an empty key cannot be
// stored. Iteration yields (first, second) pairs of references, the key and its value, in no
// particular order; the map's interface is the part of std::unordered_map's that keyed
// collections use (find, try_emplace, extract, erase, size, iteration).
//
// Room: reserve(n) makes room for n values at once (the array then holds 3n/2 + 1 slots, so it
// is at most two thirds full and a missing key's probe run stays short); an insertion beyond that
// doubles the array. Nothing else allocates or frees: erasing shifts the values of the probe run
// back instead of leaving a marker.
//
// Cost: find, insert and erase are O(1) expected: one hash, and a probe run that at two thirds
// load averages two slots for a key present and five for one missing.
//
// Single-threaded. Any insertion or erasure invalidates iterators and references.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "Check/Check.h"
#include "Qel/Containers/SkippingIterator.h"

namespace Qel {

template <class V, class Hash, class Equal>
class KeyedFlatMap {
 public:
  using key_type = std::decay_t<decltype(qelKey(std::declval<V const&>()))>;
  using mapped_type = V;

  // What iteration yields: the key and its value.
  template <bool kConst>
  struct Ref {
    key_type const& first;
    std::conditional_t<kConst, V const, V>& second;
  };

  // How iteration reads a slot: a slot whose key is empty is free.
  template <bool kConst>
  struct SlotReader {
    static bool vacant(V const& v) { return KeyedFlatMap::vacant(v); }
    static Ref<kConst> read(std::conditional_t<kConst, V const, V>& v) { return {qelKey(v), v}; }
  };
  using iterator = SkippingIterator<V*, SlotReader<false>>;
  using const_iterator = SkippingIterator<V const*, SlotReader<true>>;

  // A value taken out of the map, alive as long as the handle.
  class node_type {
   public:
    key_type const& key() const { return qelKey(value_); }
    V const& mapped() const { return value_; }

   private:
    friend class KeyedFlatMap;
    explicit node_type(V&& v) : value_(std::move(v)) {}
    V value_;
  };

  KeyedFlatMap() = default;
  KeyedFlatMap(KeyedFlatMap const& o) {
    if (o.size_ == 0) return;
    reserveSlots(o.cap_);
    for (auto const& [k, v] : o)
      place(V(v));
  }
  KeyedFlatMap(KeyedFlatMap&& o) noexcept
      : slots_(std::move(o.slots_)),
        cap_(std::exchange(o.cap_, 0)),
        room_(std::exchange(o.room_, 0)),
        size_(std::exchange(o.size_, 0)) {}
  KeyedFlatMap& operator=(KeyedFlatMap o) noexcept {
    slots_ = std::move(o.slots_);
    cap_ = std::exchange(o.cap_, 0);
    room_ = std::exchange(o.room_, 0);
    size_ = std::exchange(o.size_, 0);
    return *this;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The number of slots; the map holds up to two thirds of them before it grows.
  std::size_t slots() const { return cap_; }

  // Makes room for n values without growing again.
  void reserve(std::size_t n) {
    if (n <= room_) return;
    reserveSlots(n + n / 2 + 1);
  }

  iterator begin() { return {slots_.get(), slots_.get() + cap_}; }
  iterator end() { return {slots_.get() + cap_, slots_.get() + cap_}; }
  const_iterator begin() const { return {slots_.get(), slots_.get() + cap_}; }
  const_iterator end() const { return {slots_.get() + cap_, slots_.get() + cap_}; }

  template <class K>
  iterator find(K const& key) {
    if (size_ == 0) return end();
    for (std::size_t i = Hash()(key) % cap_;; i = next(i)) {
      V& slot = slots_[i];
      if (vacant(slot)) return end();
      if (Equal()(qelKey(slot), key)) return {&slot, slots_.get() + cap_};
    }
  }
  template <class K>
  const_iterator find(K const& key) const {
    return const_cast<KeyedFlatMap*>(this)->find(key);
  }

  // Stores v under key (which must be v's own key) unless the key is present.
  std::pair<iterator, bool> try_emplace(key_type const& key, V const& v) {
    QEL_CHECK(Equal()(qelKey(v), key),
              "qelKey(v) == key && \"keyedflatmap value under another key\"");
    auto const it = find(key);
    if (it != end()) return {it, false};
    return {place(V(v)), true};
  }

  // Takes the value at it out of the map.
  node_type extract(const_iterator it) {
    V* const at = const_cast<V*>(it.slot());
    node_type node(std::move(*at));
    *at = V();
    --size_;
    closeGap(static_cast<std::size_t>(at - slots_.get()));
    return node;
  }
  void erase(const_iterator it) { extract(it); }

 private:
  static bool vacant(V const& v) { return qelKey(v).empty(); }
  std::size_t next(std::size_t i) const { return i + 1 == cap_ ? 0 : i + 1; }

  // Moves every value into a new array of `cap` slots.
  void reserveSlots(std::size_t cap) {
    std::unique_ptr<V[]> old = std::exchange(slots_, std::make_unique<V[]>(cap));
    std::size_t const oldCap = std::exchange(cap_, cap);
    room_ = cap - cap / 3 - 1;
    size_ = 0;
    for (std::size_t i = 0; i < oldCap; ++i) {
      if (!vacant(old[i])) place(std::move(old[i]));
    }
  }

  // Stores v, whose key is absent and not empty, and returns where.
  iterator place(V&& v) {
    QEL_CHECK(!vacant(v), "!qelKey(v).empty() && \"keyedflatmap value without a key\"");
    if (size_ == room_) reserveSlots(cap_ == 0 ? 4 : cap_ * 2);
    std::size_t i = Hash()(qelKey(v)) % cap_;
    while (!vacant(slots_[i]))
      i = next(i);
    slots_[i] = std::move(v);
    ++size_;
    return {&slots_[i], slots_.get() + cap_};
  }

  // Slot `gap` was just emptied: moves back each later value of its run that may stand there.
  void closeGap(std::size_t gap) {
    for (std::size_t i = next(gap); !vacant(slots_[i]); i = next(i)) {
      std::size_t const home = Hash()(qelKey(slots_[i])) % cap_;
      // The value may move to the gap when its home is not cyclically within (gap, i].
      bool const between = gap <= i ? (gap < home && home <= i) : (gap < home || home <= i);
      if (between) continue;
      slots_[gap] = std::move(slots_[i]);
      slots_[i] = V();
      gap = i;
    }
  }

  std::unique_ptr<V[]> slots_;
  std::size_t cap_ = 0;
  std::size_t room_ = 0;  // the most values the slots hold before they grow
  std::size_t size_ = 0;
};

}  // namespace Qel
