// The agent's local tree: path normalisation, ancestors made on the way, what a state brings,
// and the sorted list of held paths.
#include "apps/agent/LocalTree.h"

#include <gtest/gtest.h>

namespace {

using LedraAgent::LocalTree;
using Qel::NboAttrLog::WireEntityState;
using Strings = std::vector<std::string>;

TEST(LocalTreeTest, PathsAreNormalised) {
  for (char const* root : {"", "/", "//"})
    EXPECT_EQ(LocalTree::normalised(root), "/") << root;
  EXPECT_EQ(LocalTree::normalised("/a//b/"), "/a/b");
  EXPECT_EQ(LocalTree::normalised("a/b"), "/a/b");
}

TEST(LocalTreeTest, AMountMakesItsAncestorsWithoutHoldingThem) {
  LocalTree t;
  t.mount("/a/b/c", "T", nullptr);
  EXPECT_EQ(t.nodes(), 4u);
  EXPECT_EQ(t.held(), Strings{"/a/b/c"});
  ASSERT_TRUE(t.node("/a/b"));
  EXPECT_FALSE(t.node("/a/b")->held);
  EXPECT_EQ(t.node("/")->entries, std::set<std::string>{"a"});
  EXPECT_EQ(t.node("/a/b")->entries, std::set<std::string>{"c"});
  EXPECT_EQ(t.node("/a/b/c")->typeName, "T");
  EXPECT_EQ(t.node("/a/b/c")->mounts, 1u);
  EXPECT_EQ(t.node("/x"), nullptr);
}

TEST(LocalTreeTest, TheStateBringsAttributesEntriesAndTheTypeWhenTheRequestNamedNone) {
  LocalTree t;
  t.mount("/d/child", "", nullptr);
  WireEntityState s{3, "/d", "Qel::Dir", true, {{"mode", "on"}}, {"e1", "e2"}};
  t.mount("/d", "", &s);
  LocalTree::Node const* d = t.node("/d");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->typeName, "Qel::Dir");
  EXPECT_EQ(d->attributes, (std::vector<std::pair<std::string, std::string>>{{"mode", "on"}}));
  // The child made earlier stays an entry beside those the database reported.
  EXPECT_EQ(d->entries, (std::set<std::string>{"child", "e1", "e2"}));
  t.mount("/d", "Requested::Type", &s);
  EXPECT_EQ(t.node("/d")->typeName, "Requested::Type");
  EXPECT_EQ(t.node("/d")->mounts, 2u);
}

TEST(LocalTreeTest, HeldPathsAreListedInByteOrderOnce) {
  LocalTree t;
  for (char const* p : {"/b", "/a/z", "/a", "/B", "/a/z/", "/"})
    t.mount(p, "", nullptr);
  EXPECT_EQ(t.held(), (Strings{"/", "/B", "/a", "/a/z", "/b"}));
  EXPECT_EQ(t.node("/a/z")->mounts, 2u);
}

}  // namespace
