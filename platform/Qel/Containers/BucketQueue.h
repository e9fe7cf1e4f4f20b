// A bucketed priority queue.
//
// Members are grouped in one bucket per priority value; buckets are ordered by ascending priority
// and the members of a bucket by their sequence number, which for enqueued members is their
// arrival order. Every member is named by a Key: index0 is its priority, index1 its sequence
// number. Keys compare index0 first, then index1, so the order of the keys is the order of the
// queue. Several members may share a priority and a value; their keys still differ.
//
// The sequence number comes from a counter of the queue that each enqueue() takes and advances.
// insert() places a member under an explicit key; it advances the counter past that key's
// sequence number, so that later enqueues still land behind it in its bucket. clear() does not
// reset the counter, so a key is not handed out twice by one queue.
//
// Invariants: no bucket is empty (the last member to leave removes its bucket); the members of a
// bucket are in strictly ascending sequence order; size() is the sum of the bucket sizes.
//
// Storage: a bucket's members lie in one ring of its own, as large as the most members it has
// held rounded up to a power of two (one member, one member's room). The node of the last bucket
// removed is kept, with its ring, and reused for the next bucket created, so a bucket that
// empties and refills costs no allocation.
//
// Cost: with P distinct priorities in the queue, enqueue() is O(log P) to find or create the
// bucket and O(1) amortised to append; dequeue() is O(1) amortised. at() and erase() are
// O(log P + log m) to find a member of a bucket of m, and erasing or inserting in the middle of a
// bucket moves up to m/2 members.
//
// Values must move without throwing. An enqueue or insert that throws (the value's constructor,
// or an allocation) leaves the queue as it was.
//
// Single-threaded. Any change to the queue invalidates its iterators and member pointers.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "Check/Check.h"
#include "Qel/Core/Types.h"

namespace Qel {

template <class Priority, class V>
class BucketQueue {
  static_assert(std::is_nothrow_move_constructible_v<V> && std::is_nothrow_move_assignable_v<V>,
                "a bucket moves its members within its ring");

  struct Member {
    template <class... Args>
    explicit Member(U64 s, Args&&... args) : seq(s), value(std::forward<Args>(args)...) {}
    U64 seq;
    V value;
  };

  // The members of one bucket, in order: a ring of a power-of-two capacity read from head_. It
  // allocates at its first member and when full, and keeps its room while empty.
  class Bucket {
   public:
    Bucket() = default;
    Bucket(Bucket const& o) {
      if (o.size_ == 0) return;
      std::size_t cap = 1;
      while (cap < o.size_)
        cap *= 2;
      Member* const data = allocate(cap);
      std::size_t n = 0;
      try {
        for (; n < o.size_; ++n)
          new (data + n) Member(o[n]);
      } catch (...) {
        std::destroy_n(data, n);
        deallocate(data, cap);
        throw;
      }
      data_ = data;
      cap_ = cap;
      size_ = o.size_;
    }
    Bucket(Bucket&& o) noexcept
        : data_(std::exchange(o.data_, nullptr)),
          cap_(std::exchange(o.cap_, 0)),
          head_(std::exchange(o.head_, 0)),
          size_(std::exchange(o.size_, 0)) {}
    Bucket& operator=(Bucket const&) = delete;
    Bucket& operator=(Bucket&&) = delete;
    ~Bucket() {
      for (std::size_t i = 0; i < size_; ++i)
        std::destroy_at(&(*this)[i]);
      deallocate(data_, cap_);
    }

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    Member& operator[](std::size_t i) { return data_[(head_ + i) & (cap_ - 1)]; }
    Member const& operator[](std::size_t i) const { return data_[(head_ + i) & (cap_ - 1)]; }

    template <class... Args>
    void emplaceBack(Args&&... args) {
      if (size_ < cap_) {
        new (&(*this)[size_]) Member(std::forward<Args>(args)...);
        ++size_;
        return;
      }
      std::size_t const cap = cap_ == 0 ? 1 : cap_ * 2;
      Member* const data = allocate(cap);
      try {
        new (data + size_) Member(std::forward<Args>(args)...);
      } catch (...) {
        deallocate(data, cap);
        throw;
      }
      moveInto(data, cap);
      ++size_;
    }

    // Places a member at position i (0 <= i <= size()), moving the fewer of the members before
    // and after it.
    template <class... Args>
    void emplaceAt(std::size_t i, Args&&... args) {
      if (i == size_) return emplaceBack(std::forward<Args>(args)...);
      Member m(std::forward<Args>(args)...);
      if (size_ == cap_) {
        std::size_t const cap = cap_ * 2;
        moveInto(allocate(cap), cap);
      }
      if (i < size_ - i) {
        head_ = (head_ - 1) & (cap_ - 1);
        ++size_;
        if (i == 0) {
          new (&(*this)[0]) Member(std::move(m));
          return;
        }
        new (&(*this)[0]) Member(std::move((*this)[1]));
        for (std::size_t k = 1; k < i; ++k)
          (*this)[k] = std::move((*this)[k + 1]);
        (*this)[i] = std::move(m);
        return;
      }
      new (&(*this)[size_]) Member(std::move((*this)[size_ - 1]));
      for (std::size_t k = size_ - 1; k > i; --k)
        (*this)[k] = std::move((*this)[k - 1]);
      (*this)[i] = std::move(m);
      ++size_;
    }

    // Removes the member at position i, moving the fewer of the members before and after it.
    void eraseAt(std::size_t i) {
      if (i < size_ - 1 - i) {
        for (std::size_t k = i; k > 0; --k)
          (*this)[k] = std::move((*this)[k - 1]);
        std::destroy_at(&(*this)[0]);
        head_ = (head_ + 1) & (cap_ - 1);
        --size_;
        return;
      }
      for (std::size_t k = i; k + 1 < size_; ++k)
        (*this)[k] = std::move((*this)[k + 1]);
      std::destroy_at(&(*this)[size_ - 1]);
      --size_;
    }

   private:
    static Member* allocate(std::size_t n) { return std::allocator<Member>().allocate(n); }
    static void deallocate(Member* p, std::size_t n) {
      if (p) std::allocator<Member>().deallocate(p, n);
    }

    // Moves the members, in order, to the start of a new ring of capacity cap and frees the old.
    void moveInto(Member* data, std::size_t cap) noexcept {
      for (std::size_t i = 0; i < size_; ++i) {
        new (data + i) Member(std::move((*this)[i]));
        std::destroy_at(&(*this)[i]);
      }
      deallocate(data_, cap_);
      data_ = data;
      cap_ = cap;
      head_ = 0;
    }

    Member* data_ = nullptr;
    std::size_t cap_ = 0;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
  };
  using Buckets = std::map<Priority, Bucket>;

 public:
  using value_type = V;

  struct Key {
    Priority index0{};
    U64 index1 = 0;

    friend bool operator==(Key const&, Key const&) = default;
    friend std::weak_ordering operator<=>(Key const&, Key const&) = default;
  };

  // What iteration yields: a member's key and a reference to its value.
  template <class T>
  struct EntryRef {
    Key key;
    T& value;
  };

  template <bool kConst>
  class BasicIterator {
    using BucketIt =
        std::conditional_t<kConst, typename Buckets::const_iterator, typename Buckets::iterator>;

   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = EntryRef<std::conditional_t<kConst, V const, V>>;
    using reference = value_type;
    using difference_type = std::ptrdiff_t;

    BasicIterator() = default;
    // A mutable iterator converts to a const one.
    template <bool kOther, class = std::enable_if_t<kConst && !kOther>>
    BasicIterator(BasicIterator<kOther> const& o) : bucket_(o.bucket_), pos_(o.pos_) {}

    reference operator*() const {
      auto& m = bucket_->second[pos_];
      return {Key{bucket_->first, m.seq}, m.value};
    }
    BasicIterator& operator++() {
      if (++pos_ == bucket_->second.size()) {
        ++bucket_;
        pos_ = 0;
      }
      return *this;
    }
    BasicIterator operator++(int) {
      BasicIterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(BasicIterator const& a, BasicIterator const& b) {
      return a.bucket_ == b.bucket_ && a.pos_ == b.pos_;
    }

   private:
    friend class BucketQueue;
    template <bool>
    friend class BasicIterator;
    BasicIterator(BucketIt bucket, std::size_t pos) : bucket_(bucket), pos_(pos) {}

    BucketIt bucket_{};
    std::size_t pos_ = 0;
  };
  using iterator = BasicIterator<false>;
  using const_iterator = BasicIterator<true>;

  BucketQueue() = default;
  BucketQueue(BucketQueue const& o) : buckets_(o.buckets_), size_(o.size_), seq_(o.seq_) {}
  // A moved-from queue is empty and keeps counting where it was.
  BucketQueue(BucketQueue&& o)
      : buckets_(std::move(o.buckets_)), size_(std::exchange(o.size_, 0)), seq_(o.seq_) {
    o.buckets_.clear();
  }
  BucketQueue& operator=(BucketQueue const& o) {
    if (this != &o) *this = BucketQueue(o);
    return *this;
  }
  BucketQueue& operator=(BucketQueue&& o) {
    if (this == &o) return *this;
    buckets_ = std::move(o.buckets_);
    o.buckets_.clear();
    size_ = std::exchange(o.size_, 0);
    seq_ = o.seq_;
    return *this;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The number of buckets, which is the number of distinct priorities among the members.
  std::size_t buckets() const { return buckets_.size(); }

  // Appends a member to the bucket of its priority and returns its key.
  Key enqueue(Priority const& priority, V const& v) { return emplace(priority, v); }
  Key enqueue(Priority const& priority, V&& v) { return emplace(priority, std::move(v)); }
  template <class... Args>
  Key emplace(Priority const& priority, Args&&... args) {
    QEL_CHECK(seq_ != kNoSeq, "seq_ != kNoSeq && \"bucketqueue sequence numbers exhausted\"");
    auto [bucket, created] = bucketFor(priority);
    BucketGuard guard{*this, bucket, created};
    bucket->second.emplaceBack(seq_, std::forward<Args>(args)...);
    guard.release();
    ++size_;
    return Key{bucket->first, seq_++};
  }

  // Removes and returns the first member of the lowest-priority bucket; empty when the queue is.
  std::optional<V> dequeue() {
    if (buckets_.empty()) return std::nullopt;
    auto bucket = buckets_.begin();
    std::optional<V> v(std::move(bucket->second[0].value));
    bucket->second.eraseAt(0);
    --size_;
    if (bucket->second.empty()) dropBucket(bucket);
    return v;
  }

  // Places a member under an explicit key, in the bucket of key.index0 at the position of
  // key.index1. Returns false, changing nothing, when the key is already in use.
  bool insert(Key const& key, V const& v) { return place(key, v); }
  bool insert(Key const& key, V&& v) { return place(key, std::move(v)); }

  // The value of the member with this key, or null when there is none.
  V* at(Key const& key) {
    auto bucket = buckets_.find(key.index0);
    if (bucket == buckets_.end()) return nullptr;
    auto const i = findIn(bucket->second, key.index1);
    return i == kAbsent ? nullptr : &bucket->second[i].value;
  }
  V const* at(Key const& key) const { return const_cast<BucketQueue*>(this)->at(key); }

  // Removes the member with this key. Returns whether there was one.
  bool erase(Key const& key) {
    auto bucket = buckets_.find(key.index0);
    if (bucket == buckets_.end()) return false;
    auto const i = findIn(bucket->second, key.index1);
    if (i == kAbsent) return false;
    bucket->second.eraseAt(i);
    --size_;
    if (bucket->second.empty()) dropBucket(bucket);
    return true;
  }

  void clear() {
    buckets_.clear();
    size_ = 0;
  }

  iterator begin() { return {buckets_.begin(), 0}; }
  iterator end() { return {buckets_.end(), 0}; }
  const_iterator begin() const { return {buckets_.begin(), 0}; }
  const_iterator end() const { return {buckets_.end(), 0}; }

 private:
  static constexpr U64 kNoSeq = std::numeric_limits<U64>::max();

  // Removes a bucket created for a member whose construction threw.
  struct BucketGuard {
    BucketQueue& queue;
    typename Buckets::iterator bucket;
    bool armed;
    ~BucketGuard() {
      if (armed) queue.dropBucket(bucket);
    }
    void release() { armed = false; }
  };

  // The bucket of a priority, created when absent (second: whether it was). A new bucket reuses
  // the node of the last bucket removed: a queue whose lowest bucket keeps emptying and refilling
  // then allocates nothing.
  std::pair<typename Buckets::iterator, bool> bucketFor(Priority const& priority) {
    auto it = buckets_.lower_bound(priority);
    if (it != buckets_.end() && !(priority < it->first)) return {it, false};
    if (spare_.empty()) return {buckets_.emplace_hint(it, priority, Bucket()), true};
    spare_.key() = priority;
    return {buckets_.insert(it, std::move(spare_)), true};
  }

  // Removes an empty bucket, keeping its node for the next bucket created.
  void dropBucket(typename Buckets::iterator bucket) { spare_ = buckets_.extract(bucket); }

  static constexpr std::size_t kAbsent = std::numeric_limits<std::size_t>::max();

  // The position of the first member of b whose sequence number is not below seq.
  static std::size_t lowerBound(Bucket const& b, U64 seq) {
    std::size_t lo = 0;
    std::size_t n = b.size();
    while (n > 0) {
      std::size_t const half = n / 2;
      if (b[lo + half].seq < seq) {
        lo += half + 1;
        n -= half + 1;
        continue;
      }
      n = half;
    }
    return lo;
  }
  // The position of the member of b with this sequence number, or kAbsent.
  static std::size_t findIn(Bucket const& b, U64 seq) {
    auto const i = lowerBound(b, seq);
    return i != b.size() && b[i].seq == seq ? i : kAbsent;
  }

  template <class T>
  bool place(Key const& key, T&& v) {
    QEL_CHECK(key.index1 != kNoSeq,
              "key.index1 != kNoSeq && \"bucketqueue sequence number out of range\"");
    auto [bucket, created] = bucketFor(key.index0);
    BucketGuard guard{*this, bucket, created};
    Bucket& b = bucket->second;
    auto const pos =
        (b.empty() || b[b.size() - 1].seq < key.index1) ? b.size() : lowerBound(b, key.index1);
    if (pos != b.size() && b[pos].seq == key.index1) return false;
    b.emplaceAt(pos, key.index1, std::forward<T>(v));
    guard.release();
    ++size_;
    seq_ = std::max(seq_, key.index1 + 1);
    return true;
  }

  Buckets buckets_;
  // An empty bucket's node kept for reuse, or none.
  typename Buckets::node_type spare_;
  std::size_t size_ = 0;
  U64 seq_ = 0;
};

}  // namespace Qel
