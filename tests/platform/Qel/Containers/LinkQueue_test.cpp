#include "Qel/Containers/LinkQueue.h"

#include <gtest/gtest.h>

#include "tests/support/CountedValue.h"
#include "tests/support/ExactText.h"

#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Qel {
namespace {

using Ledra::test::CopyThrows;
using Ledra::test::Counted;

constexpr U32 kMax = 0xffffffffu;

int plain(int v) {
  return v;
}
int plain(Counted const& c) {
  return c.v;
}

// The whole state of a queue as "[size] head..next: index=value ...", in iteration order.
template <class V>
std::string show(LinkQueue<V> const& q) {
  std::string s = "[" + std::to_string(q.size()) + "] " + std::to_string(q.metadata().head) + ".." +
                  std::to_string(q.metadata().next) + ":";
  for (auto [index, value] : q)
    s += " " + std::to_string(index) + "=" + std::to_string(plain(value));
  return s;
}

class LinkQueueTest : public ::testing::Test {
 protected:
  LinkQueue<int> q;
};

TEST_F(LinkQueueTest, NumberingStartsAtZeroAndNeverGoesBack) {
  EXPECT_FALSE(q.dequeue().has_value());
  EXPECT_EQ(q.enqueue(10), 0u);
  EXPECT_EQ(q.enqueue(11), 1u);
  EXPECT_EQ(q.enqueue(12), 2u);
  EXPECT_EQ(q.dequeue(), 10);
  EXPECT_EQ(*q.front(), 11);
  q.dequeue();
  EXPECT_EQ(q.dequeue(), 12);
  // Empty again: the head moves to next, and stays there.
  EXPECT_EQ(show(q), "[0] 3..3:");
  EXPECT_EQ(q.enqueue(13), 3u);
  q.clear();
  EXPECT_EQ(show(q), "[0] 4..4:");
  EXPECT_EQ(q.at(3), nullptr);
  EXPECT_EQ(q.enqueue(14), 4u);
}

TEST_F(LinkQueueTest, ExhaustedIndexSpaceThrowsAndChangesNothing) {
  // Indices 10 .. 0xffffffff and 0 .. 4 count as in use: 5 .. 8 remain, since 9 would leave
  // next equal to head.
  q.metadataIs({10, 5});
  for (int i = 5; i <= 8; ++i)
    EXPECT_EQ(q.enqueue(i), static_cast<U32>(i));
  EXPECT_THROW_TEXT(q.enqueue(99), RangeException, "linkqueue index space full");
  EXPECT_EQ(show(q), "[4] 10..9: 5=5 6=6 7=7 8=8");
  // The front entry leaving frees the reserved range.
  EXPECT_EQ(q.dequeue(), 5);
  EXPECT_EQ(q.enqueue(9), 9u);
  EXPECT_EQ(q.enqueue(10), 10u);
}

TEST_F(LinkQueueTest, EraseLeavesHolesWithoutRenumberingOrReusingIndices) {
  for (int i = 0; i < 5; ++i)
    q.enqueue(i);
  EXPECT_TRUE(q.erase(2));
  EXPECT_FALSE(q.erase(2));
  EXPECT_TRUE(q.erase(4));  // the tail's index is not handed out again
  EXPECT_EQ(q.enqueue(5), 5u);
  EXPECT_EQ(show(q), "[4] 0..6: 0=0 1=1 3=3 5=5");
  q.erase(1);
  EXPECT_TRUE(q.erase(0));  // the head moves past the hole
  EXPECT_EQ(show(q), "[2] 3..6: 3=3 5=5");
  // A hole left behind by the tail goes with it.
  q.enqueue(6);
  q.enqueue(7);
  EXPECT_TRUE(q.erase(6));
  EXPECT_TRUE(q.erase(7));
  EXPECT_EQ(q.storedSlots(), 2u);
  q.erase(5);
  EXPECT_TRUE(q.erase(3));
  EXPECT_EQ(show(q), "[0] 8..8:");
}

TEST_F(LinkQueueTest, TailRuleAcrossTheWrap) {
  q.metadataIs({kMax - 1, kMax - 1});
  for (int i = 1; i <= 4; ++i)
    q.enqueue(i);  // 0xfffffffe, 0xffffffff, 0, 1
  // With 0 and 1 gone the tail, 0xffffffff, compares above next (2), so the new entry follows it.
  q.erase(1);
  q.erase(0);
  EXPECT_EQ(q.enqueue(5), 0u);
  EXPECT_EQ(show(q), "[3] 4294967294..1: 4294967294=1 4294967295=2 0=5");
  EXPECT_EQ(*q.at(0), 5);
}

TEST_F(LinkQueueTest, CopyThrowingEnqueueChangesNothing) {
  LinkQueue<CopyThrows> p;
  p.enqueue(CopyThrows(1));
  CopyThrows const bad(2);
  EXPECT_THROW(p.enqueue(bad), std::runtime_error);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_EQ(p.metadata(), (LinkQueueMetadata{0, 1}));
  EXPECT_EQ(p.enqueue(CopyThrows(3)), 1u);
}

using LinkQueueDeathTest = LinkQueueTest;

TEST_F(LinkQueueDeathTest, MetadataOfANonEmptyQueueIsFixed) {
  q.enqueue(1);
  EXPECT_DEATH(q.metadataIs({5, 5}),
               "Assertion failed: empty\\(\\) && \"linkqueue metadata set on a non-empty queue\"");
}

class LinkQueueLifetimeTest : public ::testing::Test {
 protected:
  void SetUp() override { Counted::reset(); }
  void TearDown() override {
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(Counted::copies, 0);
  }
};

TEST_F(LinkQueueLifetimeTest, ValuesGoAtOnceAndSetStoresOnlyADifferentValue) {
  LinkQueue<Counted> q;
  for (int i = 0; i < 6; ++i)
    q.enqueue(Counted(i));
  q.emplace(6);
  q.erase(3);  // a hole: the value goes at once
  q.erase(6);
  EXPECT_EQ(Counted::live, 5);
  EXPECT_EQ(q.dequeue()->v, 0);
  EXPECT_EQ(Counted::live, 4);
  EXPECT_TRUE(q.set(1, Counted(10)));
  EXPECT_FALSE(q.set(1, Counted(10)));
  EXPECT_FALSE(q.set(3, Counted(9)));  // a hole
  EXPECT_FALSE(q.set(0, Counted(9)));  // dequeued
  EXPECT_EQ(show(q), "[4] 1..7: 1=10 2=2 4=4 5=5");
  EXPECT_EQ(Counted::live, 4);
  q.clear();
  EXPECT_EQ(Counted::live, 0);
  q.enqueue(Counted(1));
}

TEST_F(LinkQueueLifetimeTest, CompactionOfManyHolesKeepsLookupsAndMovesWithoutCopying) {
  LinkQueue<Counted> q;
  for (int i = 0; i < 20; ++i)
    q.enqueue(Counted(i));
  // Erase every interior entry: the holes outnumber the entries and get compacted.
  for (U32 i = 1; i < 19; ++i) {
    EXPECT_TRUE(q.erase(i)) << i;
    EXPECT_LE(q.storedSlots(), 2 * q.size()) << i;
  }
  EXPECT_EQ(Counted::live, 2);
  EXPECT_EQ(q.at(19)->v, 19);
  EXPECT_EQ(q.at(10), nullptr);
  EXPECT_EQ(q.enqueue(Counted(20)), 20u);
  EXPECT_EQ(q.dequeue()->v, 0);
  EXPECT_EQ(show(q), "[2] 19..21: 19=19 20=20");
}

// A queue worked as a sliding window (entries enqueued at the tail, dequeued at the head, some
// erased anywhere) against a plain map: every lookup and every value agree, values die when they
// leave, and the slots vacated at the head and in the middle never outnumber the entries.
TEST_F(LinkQueueLifetimeTest, ASlidingWindowKeepsItsStorageProportionalToItsEntries) {
  LinkQueue<Counted> q;
  std::map<U32, int> model;
  std::mt19937 random(11);
  for (int step = 0; step < 4000; ++step) {
    unsigned const what = random() % 8;
    if (what < 4 || model.empty()) {
      int const v = step;
      model.emplace(q.enqueue(Counted(v)), v);
    } else if (what < 6) {
      auto const v = q.dequeue();
      ASSERT_TRUE(v.has_value());
      EXPECT_EQ(v->v, model.begin()->second);
      model.erase(model.begin());
    } else {
      auto it = model.begin();
      std::advance(it, static_cast<long>(random() % model.size()));
      EXPECT_TRUE(q.erase(it->first));
      model.erase(it);
    }
    ASSERT_EQ(q.size(), model.size()) << step;
    ASSERT_EQ(Counted::live, static_cast<int>(model.size())) << step;
    ASSERT_LE(q.storedSlots(), 2 * q.size()) << step;
    if (!model.empty()) {
      ASSERT_EQ(q.front()->v, model.begin()->second) << step;
      ASSERT_EQ(q.metadata().head, model.begin()->first) << step;
    }
    U32 const probe = static_cast<U32>(random() % static_cast<unsigned>(step + 1));
    auto const found = model.find(probe);
    Counted const* at = q.at(probe);
    ASSERT_EQ(at != nullptr, found != model.end()) << step << " " << probe;
    if (at) {
      ASSERT_EQ(at->v, found->second) << step;
    }
  }
  std::vector<int> inOrder;
  for (auto [index, value] : q)
    inOrder.push_back(value.v);
  std::vector<int> expected;
  for (auto const& [index, v] : model)
    expected.push_back(v);
  EXPECT_EQ(inOrder, expected);
}

}  // namespace
}  // namespace Qel
