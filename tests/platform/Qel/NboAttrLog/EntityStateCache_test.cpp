// The kept EntityState frames: bounded in count and bytes, least recently used dropped first,
// never holding an entity, and never kept for a state that can change without its entity telling.
// (That a kept frame follows every change of its entity is shown through the socket transport.)
#include "Qel/NboAttrLog/EntityStateCache.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Qel/Entity/Dir.h"
#include "Qel/NboAttrLog/WireMessage.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "tests/support/LeakCheck.h"

namespace {

using Qel::NboAttrLog::EntityStateCache;
using Qel::NboAttrLog::WireDecoder;
using Qel::NboAttrLog::WireEntityState;
using Qel::NboAttrLog::WireMessage;

Qel::QelType const* linkType() {
  static Qel::QelType const* t = Qel::defineType("cachetest::Link", {{"peer", "Qel::Entity"}});
  return t;
}

class EntityStateCacheTest : public Ledra::test::ScratchDirTest {
 protected:
  EntityStateCacheTest() : ScratchDirTest("cachetest") {}

  static WireEntityState decode(std::string_view frame) {
    WireMessage m;
    Qel::String error;
    EXPECT_TRUE(WireDecoder::decodeBody(frame.substr(WireDecoder::kHeaderBytes), m, error))
        << error;
    return std::get<WireEntityState>(m);
  }
};

TEST_F(EntityStateCacheTest, KeepsAtMostItsBoundDroppingTheLeastRecentlyUsed) {
  for (char const* name : {"a", "b", "c"})
    tree->dirIs(name);
  EntityStateCache cache(2);
  cache.frame("/cachetest/a");
  cache.frame("/cachetest/b");
  cache.frame("/cachetest/a");
  cache.frame("/cachetest/c");
  EXPECT_EQ(cache.entries(), 2u);
  EXPECT_EQ(cache.renders(), 3u);
  cache.frame("/cachetest/a");
  EXPECT_EQ(cache.renders(), 3u);
  cache.frame("/cachetest/b");
  EXPECT_EQ(cache.renders(), 4u);

  // A byte bound below two frames keeps one.
  EntityStateCache small(100, cache.bytes() / 2 + 1);
  small.frame("/cachetest/a");
  small.frame("/cachetest/b");
  EXPECT_EQ(small.entries(), 1u);
  EXPECT_LE(small.bytes(), small.maxBytes());

  // An entity that dies takes its frame with it.
  tree->entryDel("a");
  EXPECT_EQ(cache.entries(), 1u);
  EXPECT_EQ(small.entries(), 1u);
  tree->entryDel("b");
  EXPECT_EQ(small.entries(), 0u);
}

// An attribute naming another entity reads as that entity's path, which changes (here: the other
// entity leaves its directory) without the entity holding the attribute being told.
TEST(EntityStateCacheDeathTest, ACacheHoldsAtLeastOneEntry) {
  EXPECT_DEATH(EntityStateCache(0, 1024), "\"an entity state cache of at least one entry\"");
}

TEST_F(EntityStateCacheTest, AStateNamingAnotherEntityIsRenderedEveryTime) {
  auto const target = tree->dirIs("target");
  auto const link = Qel::DynamicEntity::entityNew(linkType(), "link");
  link->valueIs(link->attributeId("peer"), target);
  tree->entryIs(link);
  EntityStateCache cache;
  EXPECT_EQ(decode(cache.frame("/cachetest/link")).attributes,
            (std::vector<std::pair<Qel::String, Qel::String>>{{"peer", "/cachetest/target"}}));
  tree->entryDel("target");
  EXPECT_EQ(decode(cache.frame("/cachetest/link")).attributes,
            (std::vector<std::pair<Qel::String, Qel::String>>{{"peer", "target"}}));
  EXPECT_EQ(cache.entries(), 0u);
}

}  // namespace
