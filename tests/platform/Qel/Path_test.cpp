#include "Qel/Path.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

namespace {

using Components = std::vector<std::string>;

struct Split {
  char const* path;
  Components skipped;
  Components kept;
};

class PathComponentsTest : public ::testing::TestWithParam<Split> {};

Components split(std::string_view path, Qel::EmptyComponents empty) {
  Components out;
  for (std::string_view const c : Qel::pathComponents(path, empty))
    out.emplace_back(c);
  return out;
}

TEST_P(PathComponentsTest, SplitsAtEverySlash) {
  Split const& s = GetParam();
  EXPECT_EQ(split(s.path, Qel::EmptyComponents::skip), s.skipped);
  EXPECT_EQ(split(s.path, Qel::EmptyComponents::keep), s.kept);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, PathComponentsTest,
    ::testing::Values(Split{"", {}, {""}}, Split{"/", {}, {"", ""}}, Split{"//", {}, {"", "", ""}},
                      Split{"a", {"a"}, {"a"}}, Split{"/a", {"a"}, {"", "a"}},
                      Split{"a/", {"a"}, {"a", ""}}, Split{"/a/b", {"a", "b"}, {"", "a", "b"}},
                      Split{"a//b", {"a", "b"}, {"a", "", "b"}},
                      Split{"/./../b/", {".", "..", "b"}, {"", ".", "..", "b", ""}},
                      Split{"ab/cd/e", {"ab", "cd", "e"}, {"ab", "cd", "e"}}));

TEST(PathComponents, AreViewsIntoThePathAndAForwardRange) {
  std::string const path = "/x/yz";
  auto const components = Qel::pathComponents(path);
  static_assert(std::forward_iterator<decltype(components.begin())>);
  auto it = components.begin();
  EXPECT_EQ((*it).data(), path.data() + 1);
  auto const first = it++;
  EXPECT_EQ(*first, "x");
  EXPECT_EQ(*it, "yz");
  EXPECT_EQ(std::distance(components.begin(), components.end()), 2);
  EXPECT_TRUE(Qel::pathComponents("//").empty());
}

}  // namespace
