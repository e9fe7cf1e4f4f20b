// Entity URIs: path, query and scheme, and the canonical text that parses back.
#include "Qel/Mount/EntityUri.h"

#include <gtest/gtest.h>

namespace {

using Qel::EntityUri;

struct UriCase {
  char const* text;
  char const* path;
  char const* query;
  char const* canonical;
};

class EntityUriParseTest : public ::testing::TestWithParam<UriCase> {};

TEST_P(EntityUriParseTest, SplitsPathAndQuery) {
  UriCase const c = GetParam();
  EntityUri const u{Qel::String(c.text)};
  EXPECT_EQ(u.path(), c.path);
  EXPECT_EQ(u.query(), c.query);
  EXPECT_EQ(u.scheme(), "entity");
  EXPECT_EQ(u.text(), c.canonical);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, EntityUriParseTest,
    ::testing::Values(UriCase{"/a/b?flags=Cnp", "/a/b", "flags=Cnp", "/a/b?flags=Cnp"},
                      UriCase{"entity:/a/b?flags=w", "/a/b", "flags=w", "/a/b?flags=w"},
                      UriCase{"entity:x:/a?flags=w", "x:/a", "flags=w", "entity:x:/a?flags=w"},
                      UriCase{"/a:b/c", "/a:b/c", "", "/a:b/c"},
                      // '_' may not stand in a scheme: no scheme, the whole text is the path.
                      UriCase{"a_b:/x?flags=w", "a_b:/x", "flags=w", "a_b:/x?flags=w"},
                      UriCase{"/a?x=1?y", "/a", "x=1?y", "/a?x=1?y"}));

}  // namespace
