#include "Qel/Containers/KeyedFlatMap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <string_view>

namespace Qel {
namespace {

// A value carrying its key. A key's home slot is its first digit (modulo the slot count), so
// tests choose their collisions.
struct Item {
  std::string key;
  int v = 0;
  friend std::string const& qelKey(Item const& i) { return i.key; }
};

struct DigitHash {
  std::size_t operator()(std::string_view k) const {
    return static_cast<std::size_t>(k.empty() ? 0 : k[0] - '0');
  }
};
struct SameText {
  bool operator()(std::string_view a, std::string_view b) const { return a == b; }
};

using Map = KeyedFlatMap<Item, DigitHash, SameText>;

// The keys in slot order.
std::string show(Map const& m) {
  std::string s = "[" + std::to_string(m.size()) + "/" + std::to_string(m.slots()) + "]";
  for (auto const& [key, item] : m)
    s += " " + key + "=" + std::to_string(item.v);
  return s;
}

void put(Map& m, std::string const& key, int v) {
  EXPECT_TRUE(m.try_emplace(key, Item{key, v}).second) << key;
}

int valueOf(Map const& m, std::string const& key) {
  auto const it = m.find(key);
  return it == m.end() ? -1 : it->second.v;
}

// Room for four takes seven slots and holds four without growing; runs wrap round the end, and
// an erasure moves back each later value of its run that may stand in the gap, and no other.
TEST(KeyedFlatMapTest, RunsWrapAndErasuresCloseTheirGaps) {
  Map m;
  m.reserve(4);
  EXPECT_EQ(m.slots(), 7u);
  put(m, "6a", 1);
  put(m, "6b", 2);  // wraps to slot 0
  put(m, "0c", 3);
  put(m, "1d", 4);
  EXPECT_FALSE(m.try_emplace("0c", Item{"0c", 9}).second);
  EXPECT_EQ(show(m), "[4/7] 6b=2 0c=3 1d=4 6a=1");
  m.erase(m.find("6a"));
  EXPECT_EQ(show(m), "[3/7] 0c=3 1d=4 6b=2");
  auto node = m.extract(m.find("0c"));
  EXPECT_EQ(node.key(), "0c");
  EXPECT_EQ(node.mapped().v, 3);
  EXPECT_EQ(show(m), "[2/7] 1d=4 6b=2");  // 1d is at its home: it stays
  EXPECT_EQ(valueOf(m, "0c"), -1);
  EXPECT_EQ(valueOf(m, "6b"), 2);
  put(m, "3e", 5);
  put(m, "3f", 6);
  EXPECT_EQ(m.slots(), 7u);
  put(m, "3g", 7);  // the fifth: the slots double
  EXPECT_EQ(show(m), "[5/14] 1d=4 3e=5 3f=6 3g=7 6b=2");
}

// Random insertions and erasures in crowded runs, against a map of the same keys: every key
// present is found with its value, every key erased is not, through growth and copies.
TEST(KeyedFlatMapTest, FindsWhatAMapOfTheSameKeysHolds) {
  Map m;
  m.reserve(10);
  std::map<std::string, int> model;
  std::mt19937 rng(5);
  for (int step = 0; step < 3000; ++step) {
    std::string const key = std::to_string(rng() % 4) + std::to_string(rng() % 12);
    if (rng() % 3 != 0) {
      bool const fresh = !model.contains(key);
      EXPECT_EQ(m.try_emplace(key, Item{key, step}).second, fresh);
      if (fresh) model[key] = step;
    } else if (model.erase(key) == 1) {
      m.erase(m.find(key));
    }
    ASSERT_EQ(m.size(), model.size());
    for (auto const& [k, v] : model)
      ASSERT_EQ(valueOf(m, k), v) << "step " << step << " key " << k;
    ASSERT_EQ(valueOf(m, key), model.contains(key) ? model[key] : -1);
  }
  Map const copy = m;
  std::map<std::string, int> seen;
  for (auto const& [k, item] : copy)
    seen[k] = item.v;
  EXPECT_EQ(seen, model);
  Map moved = std::move(m);
  EXPECT_EQ(moved.size(), model.size());
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.find("00"), m.end());
}

// However small, a table keeps a slot free: a missing key's probe run ends. Filled one value at a
// time after room made for 0 to 5, and every key of one home missing at each size.
TEST(KeyedFlatMapTest, EveryTableKeepsASlotFreeSoAMissingKeyIsNotFound) {
  for (std::size_t room = 0; room <= 5; ++room) {
    Map m;
    m.reserve(room);
    for (int i = 0; i < 9; ++i) {
      put(m, "1" + std::to_string(i), i);
      ASSERT_LT(m.size(), m.slots()) << "room " << room << " " << show(m);
      EXPECT_EQ(m.find("1x"), m.end()) << show(m);
    }
  }
}

using KeyedFlatMapDeathTest = ::testing::Test;

TEST_F(KeyedFlatMapDeathTest, AValueMustCarryItsOwnNonEmptyKey) {
  Map m;
  EXPECT_DEATH(
      m.try_emplace("1a", Item{"1b", 0}),
      "Assertion failed: qelKey\\(v\\) == key && \"keyedflatmap value under another key\"");
  EXPECT_DEATH(
      m.try_emplace("", Item{"", 0}),
      "Assertion failed: !qelKey\\(v\\).empty\\(\\) && \"keyedflatmap value without a key\"");
}

}  // namespace
}  // namespace Qel
