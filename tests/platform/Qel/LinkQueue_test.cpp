#include "Qel/LinkQueue.h"

#include <gtest/gtest.h>

#include "support/CountedValue.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Qel {
namespace {

using Ledra::test::CopyThrows;
using Ledra::test::Counted;

template <class V>
std::vector<std::pair<U32, int>> contents(LinkQueue<V> const& q) {
  std::vector<std::pair<U32, int>> out;
  for (auto [index, value] : q)
    out.emplace_back(index, value);
  return out;
}

std::vector<std::pair<U32, int>> contents(LinkQueue<Counted> const& q) {
  std::vector<std::pair<U32, int>> out;
  for (auto [index, value] : q)
    out.emplace_back(index, value.v);
  return out;
}

using Contents = std::vector<std::pair<U32, int>>;
constexpr U32 kMax = 0xffffffffu;

class LinkQueueTest : public ::testing::Test {
 protected:
  LinkQueue<int> q;
};

TEST_F(LinkQueueTest, StartsEmptyAtIndexZero) {
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.size(), 0u);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{0, 0}));
  EXPECT_EQ(q.front(), nullptr);
  EXPECT_EQ(q.begin(), q.end());
  EXPECT_FALSE(q.dequeue().has_value());
}

TEST_F(LinkQueueTest, DequeueLeavesLaterIndicesAndNumberingContinues) {
  EXPECT_EQ(q.enqueue(10), 0u);
  EXPECT_EQ(q.enqueue(11), 1u);
  EXPECT_EQ(q.enqueue(12), 2u);
  EXPECT_EQ(q.dequeue(), 10);
  EXPECT_EQ(contents(q), (Contents{{1, 11}, {2, 12}}));
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{1, 3}));
  EXPECT_EQ(*q.front(), 11);
  EXPECT_EQ(q.enqueue(13), 3u);
  EXPECT_EQ(contents(q), (Contents{{1, 11}, {2, 12}, {3, 13}}));
}

TEST_F(LinkQueueTest, HeadMovesToNextWhenTheQueueEmpties) {
  q.enqueue(1);
  q.enqueue(2);
  q.dequeue();
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{1, 2}));
  q.dequeue();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{2, 2}));
  EXPECT_FALSE(q.dequeue().has_value());
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{2, 2}));
  EXPECT_EQ(q.enqueue(3), 2u);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{2, 3}));
}

TEST_F(LinkQueueTest, ClearKeepsTheNumbering) {
  q.enqueue(1);
  q.enqueue(2);
  q.clear();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{2, 2}));
  EXPECT_EQ(q.at(0), nullptr);
  EXPECT_EQ(q.enqueue(3), 2u);
}

TEST_F(LinkQueueTest, ExhaustedIndexSpaceThrowsAndChangesNothing) {
  // Indices 10 .. 0xffffffff and 0 .. 4 count as in use: 5 .. 8 remain, since 9 would leave
  // next equal to head.
  q.metadataIs({10, 5});
  for (U32 i = 5; i <= 8; ++i)
    EXPECT_EQ(q.enqueue(static_cast<int>(i)), i);
  Contents const before = contents(q);
  try {
    q.enqueue(99);
    FAIL() << "enqueue into a full index space succeeded";
  } catch (RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{10, 9}));
  EXPECT_EQ(contents(q), before);
  EXPECT_EQ(q.size(), 4u);
  EXPECT_EQ(q.at(9), nullptr);

  // The front entry leaving frees the reserved range.
  EXPECT_EQ(q.dequeue(), 5);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{6, 9}));
  EXPECT_EQ(q.enqueue(9), 9u);
  EXPECT_EQ(q.enqueue(10), 10u);
}

TEST_F(LinkQueueTest, ExhaustionLeavesAMovedValueUntouched) {
  LinkQueue<std::unique_ptr<int>> p;
  p.metadataIs({1, 0});
  auto v = std::make_unique<int>(7);
  EXPECT_THROW(p.enqueue(std::move(v)), RangeException);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(*v, 7);
  EXPECT_TRUE(p.empty());
  EXPECT_EQ(p.metadata(), (LinkQueueMetadata{1, 0}));
}

TEST_F(LinkQueueTest, EraseInTheMiddleDoesNotRenumber) {
  for (int i = 0; i < 5; ++i)
    q.enqueue(i);
  EXPECT_TRUE(q.erase(2));
  EXPECT_FALSE(q.erase(2));
  EXPECT_EQ(q.at(2), nullptr);
  EXPECT_EQ(q.size(), 4u);
  EXPECT_EQ(q.enqueue(5), 5u);
  EXPECT_EQ(contents(q), (Contents{{0, 0}, {1, 1}, {3, 3}, {4, 4}, {5, 5}}));
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{0, 6}));
}

TEST_F(LinkQueueTest, ErasingTheTailDoesNotReuseItsIndex) {
  for (int i = 0; i < 3; ++i)
    q.enqueue(i);
  EXPECT_TRUE(q.erase(2));
  EXPECT_EQ(q.enqueue(3), 3u);
  EXPECT_TRUE(q.erase(3));
  EXPECT_TRUE(q.erase(1));
  EXPECT_EQ(q.enqueue(4), 4u);
  EXPECT_EQ(contents(q), (Contents{{0, 0}, {4, 4}}));
}

TEST_F(LinkQueueTest, ErasingTheFrontMovesTheHeadPastHoles) {
  for (int i = 0; i < 4; ++i)
    q.enqueue(i);
  q.erase(1);
  q.erase(2);
  EXPECT_TRUE(q.erase(0));
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{3, 4}));
  EXPECT_EQ(*q.front(), 3);
  EXPECT_TRUE(q.erase(3));
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{4, 4}));
  EXPECT_EQ(q.begin(), q.end());
}

TEST_F(LinkQueueTest, ManyHolesStayConsistent) {
  for (int i = 0; i < 20; ++i)
    q.enqueue(i);
  // Erase every interior entry: the holes outnumber the entries and get compacted.
  for (U32 i = 1; i < 19; ++i)
    EXPECT_TRUE(q.erase(i)) << i;
  EXPECT_EQ(contents(q), (Contents{{0, 0}, {19, 19}}));
  EXPECT_EQ(q.size(), 2u);
  EXPECT_EQ(*q.at(19), 19);
  EXPECT_EQ(q.at(10), nullptr);
  EXPECT_EQ(q.enqueue(20), 20u);
  EXPECT_EQ(q.dequeue(), 0);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{19, 21}));
  EXPECT_EQ(q.dequeue(), 19);
  EXPECT_EQ(q.dequeue(), 20);
  EXPECT_TRUE(q.empty());
}

TEST_F(LinkQueueTest, SetChangesOnlyOnADifferentValue) {
  q.enqueue(1);
  q.enqueue(2);
  EXPECT_FALSE(q.set(1, 2));
  EXPECT_TRUE(q.set(1, 5));
  EXPECT_EQ(*q.at(1), 5);
  EXPECT_FALSE(q.set(7, 5));
  q.erase(0);
  EXPECT_FALSE(q.set(0, 9));
  EXPECT_EQ(q.at(0), nullptr);
  EXPECT_EQ(contents(q), (Contents{{1, 5}}));
}

TEST_F(LinkQueueTest, IterationWritesThroughAndConvertsToConst) {
  for (int i = 0; i < 3; ++i)
    q.enqueue(i);
  for (auto [index, value] : q)
    value += 10;
  LinkQueue<int>::const_iterator it = q.begin();
  EXPECT_EQ((*it).value, 10);
  EXPECT_EQ((*it++).index, 0u);
  EXPECT_EQ((*it).index, 1u);
  EXPECT_EQ(contents(q), (Contents{{0, 10}, {1, 11}, {2, 12}}));
}

TEST_F(LinkQueueTest, TailRuleAcrossTheWrap) {
  q.metadataIs({kMax - 1, kMax - 1});
  q.enqueue(1);  // 0xfffffffe
  q.enqueue(2);  // 0xffffffff
  q.enqueue(3);  // 0
  q.enqueue(4);  // 1
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{kMax - 1, 2}));
  // With 0 and 1 gone the tail, 0xffffffff, compares above next, so the new entry follows it.
  q.erase(1);
  q.erase(0);
  EXPECT_EQ(q.enqueue(5), 0u);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{kMax - 1, 1}));
  EXPECT_EQ(contents(q), (Contents{{kMax - 1, 1}, {kMax, 2}, {0, 5}}));
  ASSERT_NE(q.at(0), nullptr);
  EXPECT_EQ(*q.at(0), 5);
}

TEST_F(LinkQueueTest, CopiesAreIndependentAndMovesLeaveAnEmptyQueue) {
  for (int i = 0; i < 4; ++i)
    q.enqueue(i);
  q.erase(1);
  LinkQueue<int> copy = q;
  copy.dequeue();
  EXPECT_EQ(contents(q), (Contents{{0, 0}, {2, 2}, {3, 3}}));
  EXPECT_EQ(contents(copy), (Contents{{2, 2}, {3, 3}}));

  LinkQueue<int> moved = std::move(q);
  EXPECT_EQ(contents(moved), (Contents{{0, 0}, {2, 2}, {3, 3}}));
  EXPECT_TRUE(q.empty());  // NOLINT(bugprone-use-after-move): a moved-from queue is empty
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{4, 4}));
  EXPECT_EQ(q.begin(), q.end());
  EXPECT_EQ(q.enqueue(9), 4u);
  q = std::move(copy);
  EXPECT_EQ(contents(q), (Contents{{2, 2}, {3, 3}}));
  EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(copy.dequeue().has_value());
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

// Numbering that starts at various points of the 32-bit space, across its end.
class LinkQueueWrapTest : public ::testing::TestWithParam<U32> {};

TEST_P(LinkQueueWrapTest, IndicesRunOnModuloTheSpace) {
  U32 const start = GetParam();
  LinkQueue<int> q;
  q.metadataIs({start, start});
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(q.enqueue(i), static_cast<U32>(start + i));
  Contents expected;
  for (int i = 0; i < 6; ++i)
    expected.emplace_back(static_cast<U32>(start + i), i);
  EXPECT_EQ(contents(q), expected);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(*q.at(static_cast<U32>(start + i)), i);
  EXPECT_EQ(q.at(static_cast<U32>(start + 6)), nullptr);
  EXPECT_EQ(q.at(static_cast<U32>(start - 1)), nullptr);

  EXPECT_TRUE(q.erase(static_cast<U32>(start + 3)));
  EXPECT_EQ(q.dequeue(), 0);
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{static_cast<U32>(start + 1), start + 6}));
  EXPECT_EQ(q.enqueue(6), static_cast<U32>(start + 6));
  std::vector<int> order;
  while (auto v = q.dequeue())
    order.push_back(*v);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 4, 5, 6}));
  EXPECT_EQ(q.metadata(), (LinkQueueMetadata{start + 7, start + 7}));
}

INSTANTIATE_TEST_SUITE_P(Starts, LinkQueueWrapTest,
                         ::testing::Values(0u, 0x7ffffffdu, kMax - 5, kMax - 2, kMax));

class LinkQueueLifetimeTest : public ::testing::Test {
 protected:
  void SetUp() override { Counted::reset(); }
  void TearDown() override { EXPECT_EQ(Counted::live, 0); }
};

TEST_F(LinkQueueLifetimeTest, NothingLeaksOrIsCopied) {
  {
    LinkQueue<Counted> q;
    for (int i = 0; i < 6; ++i)
      q.enqueue(Counted(i));
    q.emplace(6);
    EXPECT_EQ(Counted::live, 7);

    q.erase(3);  // a hole: the value goes at once
    EXPECT_EQ(Counted::live, 6);
    q.erase(6);
    EXPECT_EQ(Counted::live, 5);

    auto v = q.dequeue();
    EXPECT_EQ(v->v, 0);
    EXPECT_EQ(Counted::live, 5);
    v.reset();

    EXPECT_TRUE(q.set(1, Counted(10)));
    EXPECT_FALSE(q.set(1, Counted(10)));
    EXPECT_EQ(contents(q), (Contents{{1, 10}, {2, 2}, {4, 4}, {5, 5}}));
    EXPECT_EQ(Counted::live, 4);

    q.clear();
    EXPECT_EQ(Counted::live, 0);
    q.enqueue(Counted(1));
    q.enqueue(Counted(2));
  }
  EXPECT_EQ(Counted::copies, 0);
}

TEST_F(LinkQueueLifetimeTest, CompactionMovesWithoutCopying) {
  LinkQueue<Counted> q;
  for (int i = 0; i < 50; ++i)
    q.enqueue(Counted(i));
  for (U32 i = 1; i < 49; i += 2)
    q.erase(i);
  for (U32 i = 2; i < 48; i += 2)
    q.erase(i);
  EXPECT_EQ(Counted::live, 3);
  EXPECT_EQ(contents(q), (Contents{{0, 0}, {48, 48}, {49, 49}}));
  EXPECT_EQ(Counted::copies, 0);
}

}  // namespace
}  // namespace Qel
