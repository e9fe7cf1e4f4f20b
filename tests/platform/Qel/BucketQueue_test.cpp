#include "Qel/BucketQueue.h"

#include <gtest/gtest.h>

#include "support/CountedValue.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Qel {
namespace {

using Ledra::test::CopyThrows;
using Ledra::test::Counted;

using Queue = BucketQueue<int, std::string>;
using Key = Queue::Key;

std::string str(Key const& k) {
  return std::to_string(k.index0) + "." + std::to_string(k.index1);
}

// The whole state of a queue as "[size/buckets] priority.seq=value ...", in iteration order.
std::string show(Queue const& q) {
  std::string s = "[" + std::to_string(q.size()) + "/" + std::to_string(q.buckets()) + "]";
  for (auto [key, value] : q)
    s += " " + str(key) + "=" + value;
  return s;
}

std::string drain(Queue& q) {
  std::string out;
  while (auto v = q.dequeue())
    out += *v;
  return out;
}

class BucketQueueTest : public ::testing::Test {
 protected:
  Queue q;
};

TEST_F(BucketQueueTest, LowestPriorityFirstThenArrivalOrder) {
  EXPECT_EQ(show(q), "[0/0]");
  EXPECT_FALSE(q.dequeue().has_value());
  EXPECT_EQ(str(q.enqueue(3, "a")), "3.0");
  EXPECT_EQ(str(q.enqueue(-2, "b")), "-2.1");
  for (auto [p, v] : {std::pair{3, "c"}, {0, "d"}, {-2, "e"}, {3, "c"}})
    q.enqueue(p, v);  // duplicates are separate members
  EXPECT_EQ(show(q), "[6/3] -2.1=b -2.4=e 0.3=d 3.0=a 3.2=c 3.5=c");
  EXPECT_EQ(q.dequeue(), "b");
  EXPECT_EQ(q.dequeue(), "e");
  EXPECT_EQ(show(q), "[4/2] 0.3=d 3.0=a 3.2=c 3.5=c");
  EXPECT_EQ(drain(q), "dacc");
  EXPECT_EQ(show(q), "[0/0]");
  EXPECT_TRUE(q.empty());
}

TEST_F(BucketQueueTest, ExplicitKeysAreSortedAndLaterEnqueuesLandBehindThem) {
  EXPECT_TRUE(q.insert({3, 7}, "x"));
  EXPECT_TRUE(q.insert({3, 2}, "y"));
  EXPECT_TRUE(q.insert({1, 5}, "z"));
  EXPECT_TRUE(q.insert({3, 4}, "w"));
  EXPECT_FALSE(q.insert({3, 4}, "other"));
  EXPECT_EQ(show(q), "[4/2] 1.5=z 3.2=y 3.4=w 3.7=x");
  EXPECT_EQ(str(q.enqueue(3, "v")), "3.8");
  EXPECT_EQ(str(q.enqueue(2, "u")), "2.9");
  EXPECT_EQ(drain(q), "zuywxv");
}

TEST_F(BucketQueueTest, AtAndEraseFindOnlyExactKeysAndDropEmptyBuckets) {
  q.enqueue(1, "a");                  // 1.0
  q.enqueue(2, "b");                  // 2.1
  Key const mid = q.enqueue(2, "c");  // 2.2
  q.enqueue(2, "d");                  // 2.3
  EXPECT_EQ(q.at({1, 1}), nullptr);   // a sequence number of another bucket
  EXPECT_EQ(q.at({3, 2}), nullptr);
  *q.at(mid) = "C";
  EXPECT_EQ(*std::as_const(q).at(mid), "C");
  EXPECT_TRUE(q.erase(mid));
  EXPECT_FALSE(q.erase(mid));
  EXPECT_FALSE(q.erase({1, 1}));
  EXPECT_FALSE(q.erase({9, 0}));
  EXPECT_TRUE(q.erase({1, 0}));
  EXPECT_EQ(show(q), "[2/1] 2.1=b 2.3=d");
  EXPECT_TRUE(q.erase({2, 3}));
  EXPECT_TRUE(q.erase({2, 1}));
  EXPECT_EQ(show(q), "[0/0]");
}

TEST_F(BucketQueueTest, ARemovedBucketIsReusedUnderItsNewPriorityAndClearKeepsCounting) {
  q.enqueue(3, "a");
  q.enqueue(6, "b");
  EXPECT_EQ(q.dequeue(), "a");  // bucket 3 goes
  q.enqueue(9, "c");            // and comes back as bucket 9
  q.enqueue(1, "d");
  q.enqueue(9, "e");
  EXPECT_EQ(show(q), "[4/3] 1.3=d 6.1=b 9.2=c 9.4=e");
  EXPECT_EQ(q.at({3, 0}), nullptr);
  EXPECT_TRUE(q.erase({1, 3}));
  EXPECT_TRUE(q.insert({4, 0}, "f"));
  EXPECT_EQ(show(q), "[4/3] 4.0=f 6.1=b 9.2=c 9.4=e");
  q.clear();
  EXPECT_EQ(show(q), "[0/0]");
  EXPECT_EQ(str(q.enqueue(1, "g")), "1.5");
}

TEST_F(BucketQueueTest, CopiesAreIndependentAndMovesLeaveAnEmptyQueue) {
  q.enqueue(2, "a");
  q.enqueue(1, "b");
  q.dequeue();
  Queue copy = q;
  copy.enqueue(1, "c");
  for (auto [key, value] : copy)
    value += "!";  // iteration writes through
  EXPECT_EQ(show(q), "[1/1] 2.0=a");
  EXPECT_EQ(show(copy), "[2/2] 1.2=c! 2.0=a!");
  Queue::const_iterator it = copy.begin();  // and converts to const
  EXPECT_EQ((*it++).value, "c!");
  EXPECT_EQ(str((*it).key), "2.0");
  // The copy carries on the counter; assignment replaces everything.
  EXPECT_EQ(str(q.enqueue(1, "d")), "1.2");
  copy = q;
  EXPECT_EQ(show(copy), "[2/2] 1.2=d 2.0=a");
  Queue moved = std::move(copy);
  EXPECT_EQ(str(moved.enqueue(0, "e")), "0.3");
  EXPECT_EQ(show(copy), "[0/0]");  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_FALSE(copy.dequeue().has_value());
  q = std::move(moved);
  EXPECT_EQ(str(q.enqueue(5, "f")), "5.4");  // the counter moves along
  EXPECT_EQ(drain(q), "edaf");
  EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)
}

TEST_F(BucketQueueTest, FailedEnqueueLeavesNoEmptyBucket) {
  BucketQueue<int, CopyThrows> p;
  CopyThrows const bad(1);
  EXPECT_THROW(p.enqueue(7, bad), std::runtime_error);
  EXPECT_THROW(p.insert({7, 3}, bad), std::runtime_error);
  EXPECT_EQ(p.buckets(), 0u);
  EXPECT_TRUE(p.empty());
  EXPECT_EQ(p.enqueue(7, CopyThrows(2)).index1, 0u);
  EXPECT_THROW(p.enqueue(7, bad), std::runtime_error);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_EQ(p.buckets(), 1u);
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

// A priority type with only < and ==: keys still order by priority, then sequence number.
struct Level {
  int n;
  bool operator<(Level const& o) const { return n < o.n; }
  bool operator==(Level const& o) const { return n == o.n; }
};

TEST(BucketQueuePriorityTest, APriorityNeedsOnlyLessAndEqual) {
  using Q = BucketQueue<Level, int>;
  Q q;
  q.enqueue(Level{2}, 20);
  q.enqueue(Level{0}, 0);
  Q::Key const k = q.enqueue(Level{2}, 21);
  EXPECT_EQ(*q.at(k), 21);
  EXPECT_TRUE((Q::Key{Level{0}, 5}) < (Q::Key{Level{1}, 0}));
  EXPECT_TRUE((Q::Key{Level{1}, 0}) < (Q::Key{Level{1}, 1}));
  EXPECT_FALSE((Q::Key{Level{1}, 1}) < (Q::Key{Level{1}, 1}));
  std::vector<int> order;
  while (auto v = q.dequeue())
    order.push_back(*v);
  EXPECT_EQ(order, (std::vector<int>{0, 20, 21}));
}

TEST(BucketQueueLifetimeTest, NothingLeaksOrIsCopied) {
  Counted::reset();
  {
    BucketQueue<int, Counted> q;
    for (int i = 0; i < 8; ++i)
      q.enqueue(i % 3, Counted(i));
    q.emplace(1, 8);
    q.insert({0, 100}, Counted(9));
    EXPECT_EQ(Counted::live, 10);
    EXPECT_TRUE(q.erase({1, 4}));
    EXPECT_EQ(Counted::live, 9);
    EXPECT_EQ(q.dequeue()->v, 0);
    EXPECT_EQ(Counted::live, 8);
    q.clear();
    EXPECT_EQ(Counted::live, 0);
    q.enqueue(1, Counted(1));
  }
  EXPECT_EQ(Counted::live, 0);
  EXPECT_EQ(Counted::copies, 0);
}

}  // namespace
}  // namespace Qel
