// Finding an entity by its full path from the root remembers where it was found: whatever changes
// in the tree between two searches, the second finds what a search component by component finds.
#include "Qel/Entity/EntityPathIndex.h"

#include <gtest/gtest.h>

#include <map>

#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/TypeBuilder.h"
#include "tests/support/LeakCheck.h"

namespace {

using Qel::Dir;
using Qel::Entity;

// An entity that is no Dir and holds children found by name, which it replaces without the
// tree's version moving.
class Shelf : public Entity {
 public:
  static Qel::Ptr<Shelf> shelfNew(char const* name) { return Qel::Ptr<Shelf>(new Shelf(name)); }
  void put(Entity::Ptr const& e) { held_[e->name()] = e; }
  Entity::Ptr child(Qel::Name const& name) const override {
    auto const it = held_.find(name);
    return it == held_.end() ? nullptr : it->second;
  }
  Qel::QelType const* fwkType() const override {
    static Qel::QelType const* const t = Qel::TypeBuilder<Shelf>("test::PathIndexShelf").done();
    return t;
  }

 private:
  explicit Shelf(char const* name) : Entity(Qel::Name(name)) {}
  std::map<Qel::Name, Entity::Ptr> held_;
};

class EntityPathIndexTest : public Ledra::test::ScratchDirTest {
 protected:
  EntityPathIndexTest() : ScratchDirTest("pathtest") {}
  static Entity::Ptr at(char const* path) { return Qel::globalDir()->entity(path); }
};

TEST_F(EntityPathIndexTest, ASecondSearchSeesEveryChangeOfTheTree) {
  Dir::Ptr const a = tree->dirIs("a");
  Dir::Ptr const b = a->dirIs("b");
  EXPECT_EQ(at("/pathtest/a/b"), b);
  EXPECT_EQ(at("/pathtest/a/b"), b);

  // Replaced by another of the same name while the first lives on elsewhere.
  a->entryDel("b");
  Dir::Ptr const other = a->dirIs("b");
  EXPECT_EQ(at("/pathtest/a/b"), other);

  // An ancestor taken out of the tree, then put back.
  tree->entryDel("a");
  EXPECT_EQ(at("/pathtest/a/b"), nullptr);
  tree->entryIs(a);
  EXPECT_EQ(at("/pathtest/a/b"), other);
  EXPECT_EQ(at("//pathtest/a//b/"), other);

  // Moved to another directory.
  a->entryDel("b");
  tree->entryIs(other);
  EXPECT_EQ(at("/pathtest/a/b"), nullptr);
  EXPECT_EQ(at("/pathtest/b"), other);

  // Destroyed, and another made at its path (likely at the same address).
  EXPECT_NE(at("/pathtest/a"), nullptr);
  tree->entryDel("a");
  EXPECT_EQ(at("/pathtest/a"), nullptr);
  Dir::Ptr const again = tree->dirIs("a");
  EXPECT_EQ(at("/pathtest/a"), again);
}

// An entity stands at a path only when each of its names is a whole component: a name holding a
// "/" does not stand for two.
TEST_F(EntityPathIndexTest, ANameHoldingASlashIsNoTwoComponents) {
  Dir::Ptr const slash = Dir::dirNew("a/b");
  tree->entryIs(slash);
  EXPECT_EQ(at("/pathtest/a/b"), nullptr);
  EXPECT_FALSE(Qel::EntityPathIndex::standsAt(*slash, "/pathtest/a/b"));
  EXPECT_TRUE(Qel::EntityPathIndex::standsAt(*tree, "//pathtest/"));
}

// Only a search through Dirs alone is remembered: an entity that is no Dir may change what it
// holds without the tree's version moving, and a later search must see that.
TEST_F(EntityPathIndexTest, ASearchThroughAnEntityThatIsNoDirIsNotRemembered) {
  auto const shelf = Shelf::shelfNew("shelf");
  tree->entryIs(shelf);
  Dir::Ptr const first = Dir::dirNew("x");
  shelf->put(first);
  EXPECT_EQ(at("/pathtest/shelf/x"), first);
  Dir::Ptr const second = Dir::dirNew("x");
  shelf->put(second);  // `first` lives on, held here
  EXPECT_EQ(at("/pathtest/shelf/x"), second);
}

}  // namespace
