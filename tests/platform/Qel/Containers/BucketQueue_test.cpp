#include "Qel/Containers/BucketQueue.h"

#include <gtest/gtest.h>

#include "tests/support/CountedValue.h"

#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

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

// One bucket's ring: dequeues move its head on, enqueues wrap round its end, inserts and erasures
// move the members of the shorter side, and growth keeps the order of a wrapped ring.
TEST_F(BucketQueueTest, OneBucketWrapsGrowsAndShiftsBothWays) {
  for (U64 seq : {100, 200, 300, 400})
    EXPECT_TRUE(q.insert({1, seq}, std::to_string(seq)));
  EXPECT_EQ(q.dequeue(), "100");
  EXPECT_EQ(q.dequeue(), "200");
  EXPECT_EQ(str(q.enqueue(1, "a")), "1.401");
  EXPECT_EQ(str(q.enqueue(1, "b")), "1.402");  // the ring is full, and wrapped
  EXPECT_EQ(show(q), "[4/1] 1.300=300 1.400=400 1.401=a 1.402=b");
  EXPECT_TRUE(q.insert({1, 350}, "350"));  // grows the wrapped ring
  EXPECT_TRUE(q.insert({1, 250}, "250"));  // before the first
  EXPECT_TRUE(q.insert({1, 390}, "390"));  // as many members before as after
  EXPECT_TRUE(q.insert({1, 320}, "320"));  // fewer before
  EXPECT_FALSE(q.insert({1, 401}, "x"));
  EXPECT_EQ(str(q.enqueue(1, "c")), "1.403");  // grows again, wrapped
  EXPECT_EQ(show(q),
            "[9/1] 1.250=250 1.300=300 1.320=320 1.350=350 1.390=390 1.400=400 1.401=a 1.402=b "
            "1.403=c");
  EXPECT_TRUE(q.erase({1, 300}));  // fewer before
  EXPECT_TRUE(q.erase({1, 401}));  // fewer after
  EXPECT_FALSE(q.erase({1, 999}));
  EXPECT_EQ(*q.at({1, 390}), "390");
  EXPECT_EQ(show(q), "[7/1] 1.250=250 1.320=320 1.350=350 1.390=390 1.400=400 1.402=b 1.403=c");
  EXPECT_EQ(drain(q), "250320350390400bc");
  EXPECT_EQ(str(q.enqueue(1, "z")), "1.404");
  EXPECT_EQ(show(q), "[1/1] 1.404=z");
}

// Random work against a map of the same keys: every operation leaves both holding the same
// members in the same order.
TEST_F(BucketQueueTest, KeepsTheOrderOfAMapOfItsKeys) {
  std::map<std::pair<int, U64>, std::string> model;
  std::mt19937 rng(19);
  auto modelShow = [&] {
    std::string s = "[" + std::to_string(model.size()) + "/";
    std::map<int, int> buckets;
    for (auto const& [k, v] : model)
      ++buckets[k.first];
    s += std::to_string(buckets.size()) + "]";
    for (auto const& [k, v] : model)
      s += " " + std::to_string(k.first) + "." + std::to_string(k.second) + "=" + v;
    return s;
  };
  U64 next = 0;
  for (int step = 0; step < 4000; ++step) {
    int const priority = static_cast<int>(rng() % 3);
    std::string const value = std::to_string(step);
    switch (rng() % 4) {
      case 0: {
        Key const k = q.enqueue(priority, value);
        EXPECT_EQ(k.index0, priority);
        EXPECT_EQ(k.index1, next);
        model[{priority, next++}] = value;
        break;
      }
      case 1: {
        U64 const seq = next == 0 ? 0 : rng() % (next + 4);
        bool const fresh = !model.contains({priority, seq});
        EXPECT_EQ(q.insert({priority, seq}, value), fresh);
        if (fresh) model[{priority, seq}] = value;
        next = std::max(next, seq + 1);
        break;
      }
      case 2: {
        U64 const seq = next == 0 ? 0 : rng() % next;
        EXPECT_EQ(q.erase({priority, seq}), model.erase({priority, seq}) == 1);
        break;
      }
      default: {
        auto const v = q.dequeue();
        ASSERT_EQ(v.has_value(), !model.empty());
        if (!v) break;
        EXPECT_EQ(*v, model.begin()->second);
        model.erase(model.begin());
      }
    }
    ASSERT_EQ(show(q), modelShow()) << "step " << step;
  }
  Queue const copy = q;
  EXPECT_EQ(show(copy), modelShow());
}

// An enqueue or insert whose value fails to copy leaves the queue as it was: a new bucket goes
// again, a full ring keeps its members, a member in the middle moves nothing.
TEST(BucketQueueFailureTest, AFailedCopyChangesNothing) {
  BucketQueue<int, CopyThrows> q;
  auto shown = [&] {
    std::string s = std::to_string(q.size()) + "/" + std::to_string(q.buckets()) + ":";
    for (auto [key, value] : q)
      s += " " + std::to_string(key.index0) + "." + std::to_string(key.index1) + "=" +
           std::to_string(value.v);
    return s;
  };
  CopyThrows const bad(9);
  EXPECT_THROW(q.enqueue(1, bad), std::runtime_error);
  EXPECT_EQ(shown(), "0/0:");
  q.insert({1, 0}, CopyThrows(1));
  q.insert({1, 2}, CopyThrows(2));
  EXPECT_THROW(q.enqueue(1, bad), std::runtime_error);  // the ring is full
  EXPECT_THROW(q.insert({1, 1}, bad), std::runtime_error);
  EXPECT_THROW(q.enqueue(2, bad), std::runtime_error);
  EXPECT_EQ(shown(), "2/1: 1.0=1 1.2=2");
  EXPECT_EQ(q.dequeue()->v, 1);
  q.enqueue(1, CopyThrows(3));  // wraps
  EXPECT_THROW(q.enqueue(1, bad), std::runtime_error);
  EXPECT_THROW(q.insert({1, 1}, bad), std::runtime_error);
  EXPECT_EQ(shown(), "2/1: 1.2=2 1.3=3");
  q.enqueue(3, CopyThrows(4));
  EXPECT_EQ(shown(), "3/2: 1.2=2 1.3=3 3.4=4");
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

// Members moved round a wrapped ring, erased from either side and grown past are each destroyed
// once; a copy of the queue copies each member once.
TEST(BucketQueueLifetimeTest, ARingDestroysWhatLeavesIt) {
  Counted::reset();
  {
    BucketQueue<int, Counted> q;
    for (int i = 0; i < 4; ++i)
      q.enqueue(1, Counted(i));
    q.dequeue();
    q.dequeue();
    q.enqueue(1, Counted(4));
    q.enqueue(1, Counted(5));  // full, wrapped
    EXPECT_TRUE(q.insert({1, 1}, Counted(6)));
    q.enqueue(1, Counted(7));
    EXPECT_EQ(Counted::live, 6);
    EXPECT_TRUE(q.erase({1, 3}));  // fewer before
    EXPECT_TRUE(q.erase({1, 5}));  // fewer after
    EXPECT_EQ(Counted::live, 4);
    EXPECT_EQ(Counted::copies, 0);
    {
      BucketQueue<int, Counted> const copy = q;
      EXPECT_EQ(Counted::live, 8);
      EXPECT_EQ(Counted::copies, 4);
      std::string order;
      for (auto [key, value] : copy)
        order += std::to_string(value.v);
      EXPECT_EQ(order, "6247");
    }
    EXPECT_EQ(Counted::live, 4);
    EXPECT_EQ(q.dequeue()->v, 6);
    EXPECT_EQ(Counted::live, 3);
  }
  EXPECT_EQ(Counted::live, 0);
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
