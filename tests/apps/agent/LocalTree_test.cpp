// The agent's local tree: path normalisation, ancestors made on the way, what a state brings,
// and the sorted list of held paths.
#include "apps/agent/LocalTree.h"

#include <gtest/gtest.h>

namespace {

using LedraAgent::LocalTree;
using Qel::NboAttrLog::WireEntityState;
using Strings = std::vector<std::string>;

TEST(LocalTreeTest, AncestorsAreMadeWithoutBeingHeldAndHeldPathsAreListedInByteOrderOnce) {
  EXPECT_EQ(LocalTree::normalised("//"), "/");
  EXPECT_EQ(LocalTree::normalised("a//b/"), "/a/b");
  LocalTree t;
  for (char const* p : {"/b", "/a/z/c", "/a", "/B", "/a/z/c/", "/"})
    t.mount(p, "", "", nullptr);
  EXPECT_EQ(t.held(), (Strings{"/", "/B", "/a", "/a/z/c", "/b"}));
  EXPECT_EQ(t.nodes(), 6u);
  EXPECT_FALSE(t.node("/a/z")->held);
  EXPECT_EQ(t.node("/a")->entries, std::set<std::string>{"z"});
  EXPECT_EQ(t.node("/a/z/c")->mounts, 2u);
}

TEST(LocalTreeTest, TheStateBringsAttributesEntriesAndTheTypeWhenTheRequestNamedNone) {
  LocalTree t;
  t.mount("/d/child", "", "", nullptr);
  WireEntityState s{3, "/d", "Qel::Dir", true, {{"mode", "on"}}, {"e1", "e2"}};
  t.mount("/d", "", "Cnp", &s);
  LocalTree::Node const* d = t.node("/d");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->typeName, "Qel::Dir");
  EXPECT_EQ(d->attributes, (std::vector<std::pair<std::string, std::string>>{{"mode", "on"}}));
  // The child made earlier stays an entry beside those the database reported.
  EXPECT_EQ(d->entries, (std::set<std::string>{"child", "e1", "e2"}));
  t.mount("/d", "Requested::Type", "wp", &s);
  EXPECT_EQ(t.node("/d")->typeName, "Requested::Type");
}

}  // namespace
