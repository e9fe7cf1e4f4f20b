// A first-in first-out queue whose entries carry 32-bit indices.
//
// Numbering. Each entry receives an index when it is enqueued, and the queue's index state is its
// metadata: `next`, the index the next entry receives, and `head`, the start of the range of
// indices in use, which is the index of the entry at the head (or `next` when the queue is empty).
// enqueue() gives the new entry `next`, unless the last entry's index compares at or above `next`
// (the numbering has wrapped past 0xffffffff while the tail has not), in which case it gives the
// index after the tail. Either way the new index follows the tail, so indices rise strictly in
// enqueue order modulo 2^32 and no index is held by two entries. When the index after the new one
// would reach `head`, the 32-bit space is exhausted: enqueue() throws
// RangeException("linkqueue index space full") and changes nothing.
//
// metadataIs() sets both numbers of an empty queue, to resume a numbering anywhere in the space.
// `head` may then differ from `next`: the indices from `head` up to `next` count as in use until
// the front entry leaves (dequeue, or erase of the front), which moves `head` to the new front
// entry, or to `next` when the queue becomes empty. Setting the metadata of a non-empty queue is a
// contract violation.
//
// Cost: enqueue, dequeue and erase are O(1) amortised; at(), set() and erase() find an index by
// binary search, O(log n). The entries stand in one array: a dequeued entry leaves its slot
// behind at the front, and an entry erased in the middle leaves a hole that iteration skips; once
// those vacated slots outnumber the entries they are compacted away, so storage stays
// proportional to size(). An empty queue that never held an entry owns no storage; a drained one
// keeps its array's room for the next entries.
//
// Single-threaded. Any change to the queue invalidates its iterators and entry pointers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "Check/Check.h"
#include "Qel/Containers/SkippingIterator.h"
#include "Qel/Core/Exception.h"
#include "Qel/Core/Types.h"

namespace Qel {

class QelType;

// The index state of a LinkQueue; see LinkQueue. A value of the reflection,
// "Qel::LinkQueueMetadata" (attributes head and next), printed as "head <head> next <next>".
struct QEL_API LinkQueueMetadata {
  static constexpr bool kQelValueType = true;

  U32 head = 0;
  U32 next = 0;

  friend bool operator==(LinkQueueMetadata const&, LinkQueueMetadata const&) = default;
  String text() const;
  static QelType const* staticType();
};

template <class V>
class LinkQueue {
  // One stored position. `value` is empty for a hole left by erase(); the first and the last slot
  // always hold a value.
  struct Slot {
    template <class... Args>
    explicit Slot(U32 i, Args&&... args)
        : index(i), value(std::in_place, std::forward<Args>(args)...) {}
    U32 index;
    std::optional<V> value;
  };
  using Slots = std::vector<Slot>;

 public:
  using value_type = V;

  // What iteration yields: an entry's index and a reference to its value.
  template <class T>
  struct EntryRef {
    U32 index;
    T& value;
  };

  // How iteration reads a slot: a hole left by erase() is passed over.
  template <class T>
  struct SlotReader {
    static bool vacant(Slot const& s) { return !s.value; }
    static EntryRef<T> read(std::conditional_t<std::is_const_v<T>, Slot const, Slot>& s) {
      return {s.index, *s.value};
    }
  };
  using iterator = SkippingIterator<typename Slots::iterator, SlotReader<V>>;
  using const_iterator = SkippingIterator<typename Slots::const_iterator, SlotReader<V const>>;

  LinkQueue() = default;
  LinkQueue(LinkQueue const&) = default;
  LinkQueue& operator=(LinkQueue const&) = default;
  // A moved-from queue is empty and keeps its numbering.
  LinkQueue(LinkQueue&& o)
      : slots_(std::move(o.slots_)),
        first_(std::exchange(o.first_, 0)),
        size_(std::exchange(o.size_, 0)),
        holes_(std::exchange(o.holes_, 0)),
        head_(o.head_),
        next_(o.next_) {
    o.slots_.clear();
    o.head_ = o.next_;
  }
  LinkQueue& operator=(LinkQueue&& o) {
    if (this == &o) return *this;
    slots_ = std::move(o.slots_);
    first_ = std::exchange(o.first_, 0);
    size_ = std::exchange(o.size_, 0);
    holes_ = std::exchange(o.holes_, 0);
    head_ = o.head_;
    next_ = o.next_;
    o.clear();
    return *this;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The positions held in storage, entries and vacated slots: never more than 2 * size().
  std::size_t storedSlots() const { return slots_.size(); }

  LinkQueueMetadata metadata() const { return {head_, next_}; }
  void metadataIs(LinkQueueMetadata m) {
    QEL_CHECK(empty(), "empty() && \"linkqueue metadata set on a non-empty queue\"");
    head_ = m.head;
    next_ = m.next;
  }

  // Appends an entry and returns its index; throws when the index space is exhausted (see the
  // class comment), leaving the queue unchanged.
  U32 enqueue(V const& v) { return emplace(v); }
  U32 enqueue(V&& v) { return emplace(std::move(v)); }
  template <class... Args>
  U32 emplace(Args&&... args) {
    U32 const index =
        (live() == 0 || slots_.back().index < next_) ? next_ : slots_.back().index + 1;
    if (index + 1 == head_) throw RangeException("linkqueue index space full");
    slots_.emplace_back(index, std::forward<Args>(args)...);
    ++size_;
    next_ = index + 1;
    return index;
  }

  // Removes and returns the entry at the head; empty when the queue is.
  std::optional<V> dequeue() {
    if (live() == 0) return std::nullopt;
    std::optional<V> v(std::move(*slots_[first_].value));
    popFront();
    return v;
  }

  // The value at the head, or null when the queue is empty.
  V* front() { return live() == 0 ? nullptr : &*slots_[first_].value; }
  V const* front() const { return live() == 0 ? nullptr : &*slots_[first_].value; }

  // The value of the entry with this index, or null when no entry holds it.
  V* at(U32 index) {
    auto it = find(index);
    return it == slots_.end() ? nullptr : &*it->value;
  }
  V const* at(U32 index) const { return const_cast<LinkQueue*>(this)->at(index); }

  // Replaces the value of the entry with this index. Returns whether anything changed: false
  // when no entry holds the index or when the stored value equals the new one.
  bool set(U32 index, V const& v) { return assign(index, v); }
  bool set(U32 index, V&& v) { return assign(index, std::move(v)); }

  // Removes the entry with this index, wherever it stands. Returns whether there was one.
  bool erase(U32 index) {
    auto it = find(index);
    if (it == slots_.end()) return false;
    if (it == liveBegin()) {
      popFront();
      return true;
    }
    if (std::next(it) == slots_.end()) {
      popBack();
      return true;
    }
    it->value.reset();
    --size_;
    ++holes_;
    compactIfSparse();
    return true;
  }

  void clear() {
    slots_.clear();
    first_ = 0;
    size_ = 0;
    holes_ = 0;
    head_ = next_;
  }

  iterator begin() { return {liveBegin(), slots_.end()}; }
  iterator end() { return {slots_.end(), slots_.end()}; }
  const_iterator begin() const {
    return {slots_.cbegin() + static_cast<std::ptrdiff_t>(first_), slots_.cend()};
  }
  const_iterator end() const { return {slots_.cend(), slots_.cend()}; }

 private:
  // Distance of an index from the head, in the order of the queue.
  U32 offset(U32 index) const { return index - head_; }

  // The slots from the head on; those before first_ were vacated by dequeues.
  std::size_t live() const { return slots_.size() - first_; }
  typename Slots::iterator liveBegin() {
    return slots_.begin() + static_cast<std::ptrdiff_t>(first_);
  }

  // The slot holding the entry with this index, or end().
  typename Slots::iterator find(U32 index) {
    if (live() == 0) return slots_.end();
    auto it = std::lower_bound(liveBegin(), slots_.end(), offset(index),
                               [this](Slot const& s, U32 t) { return offset(s.index) < t; });
    if (it == slots_.end() || it->index != index || !it->value) return slots_.end();
    return it;
  }

  template <class T>
  bool assign(U32 index, T&& v) {
    auto it = find(index);
    if (it == slots_.end()) return false;
    if (*it->value == v) return false;
    *it->value = std::forward<T>(v);
    return true;
  }

  // Vacates the head's slot, and the holes right behind it.
  void popFront() {
    slots_[first_++].value.reset();
    --size_;
    while (live() != 0 && !slots_[first_].value) {
      ++first_;
      --holes_;
    }
    head_ = live() == 0 ? next_ : slots_[first_].index;
    compactIfSparse();
  }

  void popBack() {
    slots_.pop_back();
    --size_;
    while (live() != 0 && !slots_.back().value) {
      slots_.pop_back();
      --holes_;
    }
    compactIfSparse();
  }

  // Drops the vacated slots once they outnumber the entries; a drained array keeps its room.
  void compactIfSparse() {
    if (first_ + holes_ <= size_) return;
    slots_.erase(slots_.begin(), liveBegin());
    first_ = 0;
    std::erase_if(slots_, [](Slot const& s) { return !s.value; });
    holes_ = 0;
  }

  Slots slots_;
  std::size_t first_ = 0;  // slots_[first_] holds the head; the ones before it are vacated
  std::size_t size_ = 0;
  std::size_t holes_ = 0;
  U32 head_ = 0;
  U32 next_ = 0;
};

}  // namespace Qel
