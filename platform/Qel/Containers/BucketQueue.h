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
// Cost: with P distinct priorities in the queue, enqueue() is O(log P) to find or create the
// bucket and O(1) to append; dequeue() is O(1) amortised. The node of the last bucket removed is
// kept and reused for the next bucket created, so a bucket that empties and refills costs no
// allocation. at() and erase() are O(log P + log m)
// to find a member of a bucket of m, and erasing or inserting in the middle of a bucket moves up
// to m/2 members.
//
// Single-threaded. Any change to the queue invalidates its iterators and member pointers.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <deque>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <type_traits>
#include <utility>

#include "Check/Check.h"
#include "Qel/Core/Types.h"

namespace Qel {

template <class Priority, class V>
class BucketQueue {
  struct Member {
    template <class... Args>
    explicit Member(U64 s, Args&&... args) : seq(s), value(std::forward<Args>(args)...) {}
    U64 seq;
    V value;
  };
  using Bucket = std::deque<Member>;
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
    bucket->second.emplace_back(seq_, std::forward<Args>(args)...);
    guard.release();
    ++size_;
    return Key{bucket->first, seq_++};
  }

  // Removes and returns the first member of the lowest-priority bucket; empty when the queue is.
  std::optional<V> dequeue() {
    if (buckets_.empty()) return std::nullopt;
    auto bucket = buckets_.begin();
    std::optional<V> v(std::move(bucket->second.front().value));
    bucket->second.pop_front();
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
    auto m = findIn(bucket->second, key.index1);
    return m == bucket->second.end() ? nullptr : &m->value;
  }
  V const* at(Key const& key) const { return const_cast<BucketQueue*>(this)->at(key); }

  // Removes the member with this key. Returns whether there was one.
  bool erase(Key const& key) {
    auto bucket = buckets_.find(key.index0);
    if (bucket == buckets_.end()) return false;
    auto m = findIn(bucket->second, key.index1);
    if (m == bucket->second.end()) return false;
    bucket->second.erase(m);
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

  static typename Bucket::iterator lowerBound(Bucket& b, U64 seq) {
    return std::lower_bound(b.begin(), b.end(), seq,
                            [](Member const& m, U64 s) { return m.seq < s; });
  }
  static typename Bucket::iterator findIn(Bucket& b, U64 seq) {
    auto it = lowerBound(b, seq);
    return it != b.end() && it->seq == seq ? it : b.end();
  }

  template <class T>
  bool place(Key const& key, T&& v) {
    QEL_CHECK(key.index1 != kNoSeq,
              "key.index1 != kNoSeq && \"bucketqueue sequence number out of range\"");
    auto [bucket, created] = bucketFor(key.index0);
    BucketGuard guard{*this, bucket, created};
    Bucket& b = bucket->second;
    auto pos = (b.empty() || b.back().seq < key.index1) ? b.end() : lowerBound(b, key.index1);
    if (pos != b.end() && pos->seq == key.index1) return false;
    b.emplace(pos, key.index1, std::forward<T>(v));
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
