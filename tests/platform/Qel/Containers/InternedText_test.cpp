// Interned texts: one node per distinct text, released by its last holder, and maps keyed by
// InternedText searched with a plain text.
#include "Qel/Containers/InternedText.h"

#include <gtest/gtest.h>

#include <map>
#include <unordered_map>

namespace {

using Qel::InternedText;

TEST(InternedTextTest, EqualTextsShareOneNodeThatTheLastHolderReleases) {
  std::size_t const before = InternedText::interned();
  {
    InternedText const a("/ledra/a");
    InternedText b(std::string("/ledra/") + "a");
    InternedText const other("/ledra/b");
    EXPECT_EQ(a, b);
    EXPECT_NE(a, other);
    EXPECT_EQ(&a.str(), &b.str());
    EXPECT_EQ(InternedText::interned(), before + 2);

    InternedText moved(std::move(b));
    b = other;  // the moved-from holder takes another node
    EXPECT_EQ(b.str(), "/ledra/b");
    moved = InternedText();  // one holder of "/ledra/a" left
    EXPECT_EQ(InternedText::interned(), before + 2);
    EXPECT_EQ(a.str(), "/ledra/a");
  }
  EXPECT_EQ(InternedText::interned(), before);
}

TEST(InternedTextTest, EmptyTextHoldsNoNode) {
  std::size_t const before = InternedText::interned();
  InternedText const empty("");
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty, InternedText());
  EXPECT_EQ(empty.str(), "");
  EXPECT_EQ(empty.hash(), std::hash<std::string_view>()(""));
  EXPECT_EQ(InternedText::interned(), before);
}

TEST(InternedTextTest, MapsAreOrderedByTextAndSearchedWithPlainText) {
  std::map<InternedText, int, std::less<>> ordered;
  for (char const* p : {"/b", "/a/c", "/a", "/a/b"})
    ordered.emplace(InternedText(p), 0);
  std::string order;
  for (auto const& [path, value] : ordered)
    order += path.str() + " ";
  EXPECT_EQ(order, "/a /a/b /a/c /b ");
  EXPECT_NE(ordered.find(Qel::String("/a/b")), ordered.end());
  EXPECT_EQ(ordered.find(std::string_view("/a/d")), ordered.end());

  std::unordered_map<InternedText, int, InternedText::Hash, InternedText::Equal> hashed;
  hashed.emplace(InternedText("/ledra/x"), 7);
  auto const it = hashed.find(std::string_view("/ledra/x"));
  ASSERT_NE(it, hashed.end());
  EXPECT_EQ(it->second, 7);
  EXPECT_EQ(hashed.find(std::string_view("/ledra/y")), hashed.end());
}

}  // namespace
