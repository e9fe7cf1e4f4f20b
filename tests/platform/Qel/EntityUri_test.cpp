// Entity URIs (path, query, scheme) and connect descriptors.
#include "Qel/EntityUri.h"

#include <gtest/gtest.h>

#include <map>
#include <unordered_set>

#include "Qel/ConnectDesc.h"
#include "Qel/Exception.h"

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
    ::testing::Values(UriCase{"/a/b", "/a/b", "", "/a/b"},
                      UriCase{"/a/b?flags=Cnp", "/a/b", "flags=Cnp", "/a/b?flags=Cnp"},
                      UriCase{"entity:/a/b?flags=w", "/a/b", "flags=w", "/a/b?flags=w"},
                      UriCase{"entity:/x", "/x", "", "/x"},
                      UriCase{"/a:b/c?flags=p", "/a:b/c", "flags=p", "/a:b/c?flags=p"},
                      UriCase{"/a?", "/a", "", "/a"},
                      UriCase{"/a?x=1?y", "/a", "x=1?y", "/a?x=1?y"},
                      UriCase{"relative/path", "relative/path", "", "relative/path"}));

TEST(EntityUriTest, OtherSchemesAreRefusedWithTheText) {
  for (char const* text : {"http://host/a", "file:/a/b", "Entity:/a", "x-y.z:/q"}) {
    try {
      EntityUri u{Qel::String(text)};
      FAIL() << "accepted " << text;
    } catch (Qel::ParseException const& e) {
      EXPECT_EQ(std::string(e.what()), std::string("not an entity URI: ") + text);
    }
  }
}

TEST(EntityUriTest, EmptyPathIsRefused) {
  EXPECT_THROW(EntityUri(Qel::String("?flags=w")), Qel::ParseException);
  EXPECT_THROW(EntityUri(Qel::String("entity:")), Qel::ParseException);
  EXPECT_THROW(EntityUri(Qel::String("")), Qel::ParseException);
  EXPECT_THROW(EntityUri("", "flags=w"), Qel::ParseException);
}

TEST(EntityUriTest, FlagsComeFromTheQuery) {
  EXPECT_EQ(EntityUri(Qel::String("/a?flags=wiSnp")).flags().text(), "wiSnp");
  EXPECT_EQ(EntityUri(Qel::String("/a")).flags().value(), 0u);
  EXPECT_THROW(EntityUri(Qel::String("/a?flags=Q")).flags(), Qel::ParseException);
}

TEST(EntityUriTest, BuiltFromPartsPrintsCanonically) {
  EXPECT_EQ(EntityUri("/a/b", "flags=Cp").text(), "/a/b?flags=Cp");
  EXPECT_EQ(EntityUri("/a/b", "flags=Cp"), EntityUri(Qel::String("entity:/a/b?flags=Cp")));
}

TEST(ConnectDescTest, OrderedHashedAndPrintedByPath) {
  Qel::ConnectDesc const a("/a"), b("/a/b"), c("/b");
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_EQ(a, Qel::ConnectDesc("/a"));
  EXPECT_EQ(b.path(), "/a/b");
  EXPECT_EQ(b.text(), "/a/b");
  std::map<Qel::ConnectDesc, int> ordered{{c, 3}, {a, 1}, {b, 2}};
  EXPECT_EQ(ordered.begin()->first, a);
  std::unordered_set<Qel::ConnectDesc> set{a, b, Qel::ConnectDesc("/a")};
  EXPECT_EQ(set.size(), 2u);
  EXPECT_EQ(Qel::ValueTraits<Qel::ConnectDesc>::box(b)->text(), "/a/b");
}

}  // namespace
