// A forward iterator over the occupied slots of an array-like range.
//
// Containers that keep their values in slots, some of them vacant (a free slot of a flat hash
// table, a hole left by an erasure), iterate with SkippingIterator<SlotIt, Reader>. It walks the
// slots from where it stands to the end of the range and stops only at occupied ones. The reader
// says how a slot is read:
//
//   struct Reader {
//     static bool vacant(Slot const&);      // whether iteration passes over the slot
//     static Ref read(Slot&);               // what dereferencing yields (often a proxy of refs)
//   };
//
// Dereferencing yields Reader::read's result by value, so the iterator models a forward iterator
// (iterator_concept) whose category is input for the standard library's older algorithms. A
// mutable iterator converts to a const one over the same slots when its slot iterator does.
//
// Invalidated by whatever invalidates SlotIt.
#pragma once

#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Qel {

template <class SlotIt, class Reader>
class SkippingIterator {
 public:
  using reference = decltype(Reader::read(*std::declval<SlotIt>()));
  using value_type = reference;
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using difference_type = std::ptrdiff_t;
  // operator-> holds the yielded proxy for as long as the expression lasts.
  struct Arrow {
    reference ref;
    reference const* operator->() const { return &ref; }
  };

  SkippingIterator() = default;
  // Stands at the first occupied slot of [at, end).
  SkippingIterator(SlotIt at, SlotIt end) : at_(at), end_(end) { skipVacant(); }
  // A mutable iterator converts to a const one.
  template <class OtherIt, class OtherReader,
            class = std::enable_if_t<!std::is_same_v<OtherIt, SlotIt> &&
                                     std::is_convertible_v<OtherIt, SlotIt>>>
  SkippingIterator(SkippingIterator<OtherIt, OtherReader> const& o) : at_(o.slot()), end_(o.end_) {}

  // The slot the iterator stands at.
  SlotIt slot() const { return at_; }

  reference operator*() const { return Reader::read(*at_); }
  Arrow operator->() const { return Arrow{**this}; }
  SkippingIterator& operator++() {
    ++at_;
    skipVacant();
    return *this;
  }
  SkippingIterator operator++(int) {
    SkippingIterator old = *this;
    ++*this;
    return old;
  }
  friend bool operator==(SkippingIterator const& a, SkippingIterator const& b) {
    return a.at_ == b.at_;
  }

 private:
  template <class, class>
  friend class SkippingIterator;

  void skipVacant() {
    while (at_ != end_ && Reader::vacant(*at_))
      ++at_;
  }

  SlotIt at_{};
  SlotIt end_{};
};

}  // namespace Qel
