// What a directory of named children promises, for two kinds of child: plain entities, and
// directories (a directory of directories).
#include "Qel/Entity/NamedEntityDir.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/GenericValue.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeafEntity.h"
#include "tests/support/LeakCheck.h"

namespace {

using Log = std::vector<std::string>;

using Ledra::test::Leaf;

class LeafDir : public Qel::NamedEntityDir<LeafDir, Leaf, &Leaf::leafNew> {
 public:
  static constexpr Qel::NamedEntityDirNames kNames{"test::LeafDir", "leaf", "leaf"};
  static Qel::QelType const* staticType() {
    static Qel::QelType const* const t = typeNew();
    return t;
  }

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
};

class DirDir : public Qel::NamedEntityDir<DirDir, Qel::Dir, &Qel::Dir::dirNew> {
 public:
  static constexpr Qel::NamedEntityDirNames kNames{"test::DirDir", "dir", "directory"};
  static Qel::QelType const* staticType() {
    static Qel::QelType const* const t = typeNew();
    return t;
  }

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
};

// Registered at start-up, as a directory's library does.
[[maybe_unused]] Qel::QelType const* const kRegistered[] = {LeafDir::staticType(),
                                                            DirDir::staticType()};

// Logs each callback as "name", "immediate" or "whole". `onName` runs after the name is logged.
template <class D>
class Watch : public D::template EntryNotifieeT<D const> {
 public:
  Log* log;
  std::function<void(Qel::Name const&)> onName;
  explicit Watch(Log* l) : log(l) {}
  void onEntry(Qel::Name const& name) override {
    log->push_back(name);
    if (onName) onName(name);
  }
  void onEntryqelImmediate() override { log->push_back("immediate"); }
  void onEntry() override { log->push_back("whole"); }
};

template <class D>
class NamedEntityDirTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir = D::dirNew("top");
  }
  void TearDown() override {
    watch.reset();
    dir = nullptr;
    LeakCheckedTest::TearDown();
  }
  // Starts logging the directory's changes.
  void watchIt() {
    watch = std::make_unique<Watch<D>>(&log);
    watch->notifierIs(dir);
  }
  typename D::Ptr dir;
  Log log;
  std::unique_ptr<Watch<D>> watch;
};

using Directories = ::testing::Types<LeafDir, DirDir>;
TYPED_TEST_SUITE(NamedEntityDirTest, Directories);

// Creating returns the present child and notifies only when it creates; inserting refuses a name
// in use and a child with a parent.
TYPED_TEST(NamedEntityDirTest, CreateAndInsertNotifyOnlyNewChildren) {
  auto const other = TypeParam::dirNew("other");
  auto const b = other->entryIs("b");
  this->watchIt();
  auto const a = this->dir->entryIs("a");
  EXPECT_EQ(this->dir->entryIs("a"), a);
  this->dir->entryIs(a);
  EXPECT_EQ(a->parent(), this->dir.ptr());
  EXPECT_THROW_TEXT(this->dir->entryIs(TypeParam::dirNew("x")->entryIs("a")),
                    Qel::NameInUseException,
                    std::string("Reinstantiating the ") + TypeParam::kNames.entryNoun +
                        " with name a not allowed");
  EXPECT_THROW_TEXT(this->dir->entryIs(b), Qel::NameInUseException,
                    "entity other/b already has a parent");
  other->entryDel("b");
  this->dir->entryIs(b);
  EXPECT_EQ(this->dir->entries(), 2u);
  EXPECT_EQ(this->log, (Log{"a", "immediate", "whole", "b", "immediate", "whole"}));
}

TYPED_TEST(NamedEntityDirTest, DeleteNotifiesWhileTheChildLivesAndIgnoresAnAbsentName) {
  auto* const a = this->dir->entryIs("a").ptr();
  this->watchIt();
  long const live = Qel::RefCounted::liveInstances();
  long liveWhenTold = 0;
  this->watch->onName = [&](Qel::Name const&) {
    liveWhenTold = Qel::RefCounted::liveInstances();
    EXPECT_FALSE(this->dir->entry("a"));
    EXPECT_EQ(a->parent(), nullptr);
  };
  this->dir->entryDel("absent");
  this->dir->entryDel("a");
  this->dir->entryDel("a");
  EXPECT_EQ(liveWhenTold, live);
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live - 1);
  EXPECT_EQ(this->log, (Log{"a", "immediate", "whole"}));
}

TYPED_TEST(NamedEntityDirTest, ReflectionReadsWritesAndCreatesByTypeName) {
  Qel::QelType const* type = Qel::QelType::type(TypeParam::kNames.typeName);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(this->dir->fwkType(), type);
  Qel::AttributeId const aid = this->dir->attributeId(TypeParam::kNames.collection);
  EXPECT_EQ(aid, TypeParam::kEntry);
  this->watchIt();
  auto const name = Qel::ValueTraits<Qel::Name>::box("a");
  // Any child written under a name makes the directory hold a fresh child of that name.
  auto const spare = TypeParam::dirNew("spare")->entryIs("a");
  this->dir->attributeIs(TypeParam::kNames.collection, Qel::GenericIf::PtrConst(spare), name);
  ASSERT_TRUE(this->dir->entry("a"));
  EXPECT_NE(this->dir->entry("a"), spare);
  EXPECT_EQ(this->dir->attribute(aid, name)->text(), "top/a");
  EXPECT_TRUE(this->dir->isMember(aid, name)->template valueAs<bool>());
  EXPECT_EQ(this->dir->colLength(aid)->template valueAs<Qel::U32>(), 1u);
  this->dir->attributeIs(TypeParam::kNames.collection, Qel::GenericIf::PtrConst(), name);
  EXPECT_FALSE(this->dir->entry("a"));
  EXPECT_EQ(this->log, (Log{"a", "immediate", "whole", "a", "immediate", "whole"}));
  EXPECT_EQ(type->newEntity("made")->fwkType(), type);
}

}  // namespace
