#include "Qel/Containers/BucketQueue.h"

#include <gtest/gtest.h>

#include "tests/support/CountedValue.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace Qel {
namespace {

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

// Explicit keys sort into their buckets and move the counter past them; at() and erase() find
// exact keys only; an emptied bucket goes and comes back under another priority.
TEST_F(BucketQueueTest, ExplicitKeysLookupsAndErasures) {
  EXPECT_TRUE(q.insert({3, 7}, "x"));
  EXPECT_TRUE(q.insert({3, 2}, "y"));
  EXPECT_TRUE(q.insert({1, 5}, "z"));
  EXPECT_FALSE(q.insert({3, 2}, "other"));
  EXPECT_EQ(str(q.enqueue(3, "v")), "3.8");
  EXPECT_EQ(str(q.enqueue(2, "u")), "2.9");
  EXPECT_EQ(show(q), "[5/3] 1.5=z 2.9=u 3.2=y 3.7=x 3.8=v");
  EXPECT_EQ(q.at({1, 2}), nullptr);  // a sequence number of another bucket
  *q.at({3, 7}) = "X";
  EXPECT_TRUE(q.erase({3, 2}));
  EXPECT_FALSE(q.erase({3, 2}));
  EXPECT_FALSE(q.erase({2, 5}));
  EXPECT_TRUE(q.erase({1, 5}));
  EXPECT_TRUE(q.erase({2, 9}));
  EXPECT_EQ(show(q), "[2/1] 3.7=X 3.8=v");
  q.enqueue(9, "c");
  EXPECT_EQ(q.dequeue(), "X");
  EXPECT_EQ(drain(q), "vc");
  EXPECT_EQ(q.buckets(), 0u);
  q.clear();
  EXPECT_EQ(str(q.enqueue(1, "g")), "1.11");  // clear() does not reset the counter
}

TEST(BucketQueueLifetimeTest, NothingLeaksOrIsCopied) {
  Counted::reset();
  {
    BucketQueue<int, Counted> q;
    for (int i = 0; i < 8; ++i)
      q.enqueue(i % 3, Counted(i));
    q.emplace(1, 8);
    EXPECT_TRUE(q.erase({1, 4}));
    EXPECT_EQ(q.dequeue()->v, 0);
    EXPECT_EQ(Counted::live, 7);
    q.clear();
    EXPECT_EQ(Counted::live, 0);
    q.enqueue(1, Counted(1));
  }
  EXPECT_EQ(Counted::live, 0);
  EXPECT_EQ(Counted::copies, 0);
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

}  // namespace
}  // namespace Qel
