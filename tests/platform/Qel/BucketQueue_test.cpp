#include "Qel/BucketQueue.h"

#include <gtest/gtest.h>

#include "support/CountedValue.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Qel {

// Readable keys in failure messages.
static void PrintTo(BucketQueue<int, std::string>::Key const& k, std::ostream* os) {
  *os << "{" << k.index0 << ", " << k.index1 << "}";
}

namespace {

using Ledra::test::CopyThrows;
using Ledra::test::Counted;

using Queue = BucketQueue<int, std::string>;
using Key = Queue::Key;
using Listing = std::vector<std::pair<Key, std::string>>;

template <class Q>
Listing listing(Q const& q) {
  Listing out;
  for (auto [key, value] : q)
    out.emplace_back(key, value);
  return out;
}

std::vector<std::string> drain(Queue& q) {
  std::vector<std::string> out;
  while (auto v = q.dequeue())
    out.push_back(*v);
  return out;
}

class BucketQueueTest : public ::testing::Test {
 protected:
  Queue q;
};

TEST_F(BucketQueueTest, StartsEmpty) {
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.size(), 0u);
  EXPECT_EQ(q.buckets(), 0u);
  EXPECT_EQ(q.begin(), q.end());
  EXPECT_FALSE(q.dequeue().has_value());
}

TEST_F(BucketQueueTest, LowestPriorityFirstThenArrivalOrder) {
  EXPECT_EQ(q.enqueue(5, "a"), (Key{5, 0}));
  EXPECT_EQ(q.enqueue(1, "b"), (Key{1, 1}));
  EXPECT_EQ(q.enqueue(5, "c"), (Key{5, 2}));
  EXPECT_EQ(q.size(), 3u);
  EXPECT_EQ(q.buckets(), 2u);
  EXPECT_EQ(q.dequeue(), "b");
  EXPECT_EQ(q.buckets(), 1u);
  EXPECT_EQ(q.dequeue(), "a");
  EXPECT_EQ(q.dequeue(), "c");
  EXPECT_EQ(q.buckets(), 0u);
  EXPECT_TRUE(q.empty());
  EXPECT_FALSE(q.dequeue().has_value());
}

TEST_F(BucketQueueTest, IterationGoesBucketByBucketInArrivalOrder) {
  q.enqueue(3, "a");
  q.enqueue(-2, "b");
  q.enqueue(3, "c");
  q.enqueue(0, "d");
  q.enqueue(-2, "e");
  q.enqueue(3, "c");  // duplicates are separate members
  EXPECT_EQ(listing(q), (Listing{{{-2, 1}, "b"},
                                 {{-2, 4}, "e"},
                                 {{0, 3}, "d"},
                                 {{3, 0}, "a"},
                                 {{3, 2}, "c"},
                                 {{3, 5}, "c"}}));
  EXPECT_EQ(q.buckets(), 3u);
  EXPECT_EQ(drain(q), (std::vector<std::string>{"b", "e", "d", "a", "c", "c"}));
}

TEST_F(BucketQueueTest, ExplicitKeysOutOfOrderAreSorted) {
  EXPECT_TRUE(q.insert({3, 7}, "x"));
  EXPECT_TRUE(q.insert({3, 2}, "y"));
  EXPECT_TRUE(q.insert({1, 5}, "z"));
  EXPECT_TRUE(q.insert({3, 4}, "w"));
  EXPECT_EQ(listing(q), (Listing{{{1, 5}, "z"}, {{3, 2}, "y"}, {{3, 4}, "w"}, {{3, 7}, "x"}}));

  EXPECT_FALSE(q.insert({3, 4}, "other"));
  EXPECT_EQ(*q.at({3, 4}), "w");
  EXPECT_EQ(q.size(), 4u);

  // Later enqueues land behind the explicit keys.
  EXPECT_EQ(q.enqueue(3, "v"), (Key{3, 8}));
  EXPECT_EQ(q.enqueue(2, "u"), (Key{2, 9}));
  EXPECT_EQ(drain(q), (std::vector<std::string>{"z", "u", "y", "w", "x", "v"}));
}

TEST_F(BucketQueueTest, InsertWithALowKeyDoesNotRewindTheCounter) {
  q.enqueue(1, "a");
  q.enqueue(1, "b");
  EXPECT_EQ(q.dequeue(), "a");
  EXPECT_TRUE(q.insert({1, 0}, "c"));  // the key "a" had is free again
  EXPECT_FALSE(q.insert({1, 1}, "d"));
  EXPECT_EQ(q.enqueue(1, "e"), (Key{1, 2}));
  EXPECT_EQ(listing(q), (Listing{{{1, 0}, "c"}, {{1, 1}, "b"}, {{1, 2}, "e"}}));
}

TEST_F(BucketQueueTest, AtFindsOnlyExactKeys) {
  Key const k = q.enqueue(4, "a");
  q.enqueue(4, "b");
  ASSERT_NE(q.at(k), nullptr);
  EXPECT_EQ(*q.at(k), "a");
  EXPECT_EQ(q.at({5, k.index1}), nullptr);
  EXPECT_EQ(q.at({4, 7}), nullptr);
  *q.at(k) = "changed";
  Queue const& view = q;
  EXPECT_EQ(*view.at(k), "changed");
}

TEST_F(BucketQueueTest, EraseAnywhereAndDropEmptyBuckets) {
  q.enqueue(1, "a");                  // {1,0}
  q.enqueue(2, "b");                  // {2,1}
  Key const mid = q.enqueue(2, "c");  // {2,2}
  q.enqueue(2, "d");                  // {2,3}
  EXPECT_TRUE(q.erase(mid));
  EXPECT_FALSE(q.erase(mid));
  EXPECT_FALSE(q.erase({1, 1}));
  EXPECT_FALSE(q.erase({9, 0}));
  EXPECT_EQ(q.size(), 3u);
  EXPECT_TRUE(q.erase({1, 0}));
  EXPECT_EQ(q.buckets(), 1u);
  EXPECT_EQ(listing(q), (Listing{{{2, 1}, "b"}, {{2, 3}, "d"}}));
  EXPECT_TRUE(q.erase({2, 3}));
  EXPECT_TRUE(q.erase({2, 1}));
  EXPECT_EQ(q.buckets(), 0u);
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.begin(), q.end());
}

TEST_F(BucketQueueTest, ClearKeepsCounting) {
  q.enqueue(1, "a");
  q.enqueue(2, "b");
  q.clear();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.buckets(), 0u);
  EXPECT_EQ(q.enqueue(1, "c"), (Key{1, 2}));
}

TEST_F(BucketQueueTest, ARemovedBucketIsReusedUnderItsNewPriority) {
  q.enqueue(3, "a");
  q.enqueue(6, "b");
  EXPECT_EQ(q.dequeue(), "a");  // bucket 3 goes
  q.enqueue(9, "c");            // and comes back as bucket 9
  q.enqueue(1, "d");
  q.enqueue(9, "e");
  EXPECT_EQ(q.buckets(), 3u);
  EXPECT_EQ(listing(q), (Listing{{{1, 3}, "d"}, {{6, 1}, "b"}, {{9, 2}, "c"}, {{9, 4}, "e"}}));
  EXPECT_EQ(q.at({3, 0}), nullptr);
  EXPECT_TRUE(q.erase({1, 3}));
  EXPECT_TRUE(q.insert({4, 0}, "f"));
  EXPECT_EQ(drain(q), (std::vector<std::string>{"f", "b", "c", "e"}));
}

TEST_F(BucketQueueTest, CopiesAreIndependent) {
  q.enqueue(2, "a");
  q.enqueue(1, "b");
  q.dequeue();
  Queue copy = q;
  copy.enqueue(1, "c");
  *copy.at({2, 0}) = "changed";
  EXPECT_EQ(listing(q), (Listing{{{2, 0}, "a"}}));
  EXPECT_EQ(listing(copy), (Listing{{{1, 2}, "c"}, {{2, 0}, "changed"}}));
  // The copy carries on the counter; assignment replaces everything.
  EXPECT_EQ(q.enqueue(1, "d"), (Key{1, 2}));
  copy = q;
  EXPECT_EQ(listing(copy), (Listing{{{1, 2}, "d"}, {{2, 0}, "a"}}));
  Queue moved = std::move(copy);
  EXPECT_EQ(moved.size(), 2u);
  EXPECT_EQ(moved.enqueue(0, "e"), (Key{0, 3}));
  EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): a moved-from queue is empty
  EXPECT_EQ(copy.begin(), copy.end());
  EXPECT_FALSE(copy.dequeue().has_value());
  q = std::move(moved);
  EXPECT_EQ(drain(q), (std::vector<std::string>{"e", "d", "a"}));
  EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)
}

TEST_F(BucketQueueTest, IterationWritesThroughAndConvertsToConst) {
  q.enqueue(2, "a");
  q.enqueue(1, "b");
  for (auto [key, value] : q)
    value += "!";
  Queue::const_iterator it = q.begin();
  EXPECT_EQ((*it).key, (Key{1, 1}));
  EXPECT_EQ((*it++).value, "b!");
  EXPECT_EQ((*it).value, "a!");
  EXPECT_EQ(++it, q.end());
}

TEST_F(BucketQueueTest, FailedEnqueueLeavesNoEmptyBucket) {
  BucketQueue<int, CopyThrows> p;
  CopyThrows const bad(1);
  EXPECT_THROW(p.enqueue(7, bad), std::runtime_error);
  EXPECT_THROW(p.insert({7, 3}, bad), std::runtime_error);
  EXPECT_EQ(p.buckets(), 0u);
  EXPECT_TRUE(p.empty());
  EXPECT_EQ(p.enqueue(7, CopyThrows(2)), (BucketQueue<int, CopyThrows>::Key{7, 0}));
  EXPECT_THROW(p.enqueue(7, bad), std::runtime_error);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_EQ(p.buckets(), 1u);
}

TEST(BucketQueueKeyTest, ComparesPriorityFirst) {
  Key const a{1, 9};
  Key const b{2, 0};
  Key const c{2, 1};
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(b < c);
  EXPECT_TRUE(a <= b);
  EXPECT_TRUE(c > b);
  EXPECT_TRUE(b >= a);
  EXPECT_TRUE(b != c);
  EXPECT_TRUE(b == (Key{2, 0}));
  EXPECT_FALSE(b < (Key{2, 0}));
  EXPECT_TRUE(b <= (Key{2, 0}));
  EXPECT_TRUE(b >= (Key{2, 0}));
}

using BucketQueueDeathTest = BucketQueueTest;

TEST_F(BucketQueueDeathTest, SequenceNumbersHaveALimit) {
  U64 const max = std::numeric_limits<U64>::max();
  EXPECT_DEATH(q.insert({1, max}, "a"),
               "Assertion failed: key.index1 != kNoSeq && \"bucketqueue sequence number out of "
               "range\"");
  EXPECT_TRUE(q.insert({1, max - 1}, "a"));
  EXPECT_DEATH(q.enqueue(1, "b"),
               "Assertion failed: seq_ != kNoSeq && \"bucketqueue sequence numbers exhausted\"");
}

// Priorities of other types: one with only < and ==, and text.
struct Level {
  int n;
  bool operator<(Level const& o) const { return n < o.n; }
  bool operator==(Level const& o) const { return n == o.n; }
};

template <class P>
struct PriorityOf;
template <>
struct PriorityOf<Level> {
  static Level make(int n) { return Level{n}; }
};
template <>
struct PriorityOf<std::string> {
  static std::string make(int n) { return std::string(1, static_cast<char>('a' + n)); }
};
template <>
struct PriorityOf<U8> {
  static U8 make(int n) { return static_cast<U8>(n); }
};

template <class P>
class BucketQueuePriorityTest : public ::testing::Test {};
using PriorityTypes = ::testing::Types<Level, std::string, U8>;
TYPED_TEST_SUITE(BucketQueuePriorityTest, PriorityTypes);

TYPED_TEST(BucketQueuePriorityTest, OrdersByPriorityThenKey) {
  using P = PriorityOf<TypeParam>;
  using Q = BucketQueue<TypeParam, int>;
  Q q;
  q.enqueue(P::make(2), 20);
  q.enqueue(P::make(0), 0);
  typename Q::Key const k = q.enqueue(P::make(2), 21);
  q.enqueue(P::make(1), 10);
  EXPECT_TRUE((typename Q::Key{P::make(0), 5}) < (typename Q::Key{P::make(1), 0}));
  EXPECT_TRUE((typename Q::Key{P::make(1), 0}) < (typename Q::Key{P::make(1), 1}));
  EXPECT_EQ(q.buckets(), 3u);
  EXPECT_EQ(*q.at(k), 21);
  std::vector<typename Q::Key> keys;
  for (auto [key, value] : q)
    keys.push_back(key);
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  std::vector<int> order;
  while (auto v = q.dequeue())
    order.push_back(*v);
  EXPECT_EQ(order, (std::vector<int>{0, 10, 20, 21}));
}

class BucketQueueLifetimeTest : public ::testing::Test {
 protected:
  void SetUp() override { Counted::reset(); }
  void TearDown() override { EXPECT_EQ(Counted::live, 0); }
};

TEST_F(BucketQueueLifetimeTest, NothingLeaksOrIsCopied) {
  {
    BucketQueue<int, Counted> q;
    for (int i = 0; i < 8; ++i)
      q.enqueue(i % 3, Counted(i));
    q.emplace(1, 8);
    q.insert({0, 100}, Counted(9));
    EXPECT_EQ(Counted::live, 10);

    EXPECT_TRUE(q.erase({1, 4}));
    EXPECT_EQ(Counted::live, 9);

    auto v = q.dequeue();
    EXPECT_EQ(v->v, 0);
    EXPECT_EQ(Counted::live, 9);
    v.reset();
    EXPECT_EQ(Counted::live, 8);

    q.clear();
    EXPECT_EQ(Counted::live, 0);
    q.enqueue(1, Counted(1));
    q.enqueue(2, Counted(2));
  }
  EXPECT_EQ(Counted::copies, 0);
}

TEST_F(BucketQueueLifetimeTest, MoveOnlyValues) {
  BucketQueue<int, std::unique_ptr<Counted>> q;
  q.enqueue(2, std::make_unique<Counted>(2));
  q.enqueue(1, std::make_unique<Counted>(1));
  q.insert({1, 0}, std::make_unique<Counted>(0));
  std::vector<int> order;
  while (auto v = q.dequeue())
    order.push_back((*v)->v);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

}  // namespace
}  // namespace Qel
