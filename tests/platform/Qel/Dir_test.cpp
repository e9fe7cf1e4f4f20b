#include "Qel/Dir.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "Qel/QelType.h"
#include "support/LeakCheck.h"

namespace {

class DirTest : public Ledra::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    Qel::globalDir()->entryDel("dirtest");
    LeakCheckedTest::TearDown();
  }
};

TEST_F(DirTest, PathsAndLookup) {
  auto top = Qel::globalDir()->dirIs("dirtest");
  auto leaf = top->dirIs("a")->dirIs("b");
  EXPECT_EQ(Qel::globalDir()->fullName(), "/");
  EXPECT_EQ(leaf->fullName(), "/dirtest/a/b");
  EXPECT_EQ(Qel::globalDir()->entity("/dirtest/a/b"), leaf);
  EXPECT_EQ(Qel::globalDir()->entity("dirtest//a/b/"), leaf);
  EXPECT_EQ(top->entity("a/b"), leaf);
  EXPECT_FALSE(Qel::globalDir()->entity("/dirtest/a/c"));
  EXPECT_FALSE(Qel::globalDir()->entity("/dirtest/a/b/c"));
  EXPECT_EQ(leaf->root(), Qel::globalDir().ptr());
  EXPECT_EQ(top->dirIs("a"), top->entry("a"));
}

TEST_F(DirTest, RemovedEntityIsCutOffButStaysReadable) {
  auto top = Qel::globalDir()->dirIs("dirtest");
  auto a = top->dirIs("a");
  auto b = a->dirIs("b");
  top->entryDel("a");
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(b->root(), a.ptr());
  EXPECT_EQ(b->fullName(), "a/b");
  EXPECT_FALSE(Qel::globalDir()->entity("/dirtest/a"));
}

TEST_F(DirTest, NameInUseIsRefused) {
  auto top = Qel::globalDir()->dirIs("dirtest");
  auto a = top->dirIs("a");
  EXPECT_THROW(top->entryIs(Qel::Dir::dirNew("a")), Qel::NameInUseException);
  top->entryIs(a);  // the same entity again changes nothing
  EXPECT_EQ(top->entries(), 1u);
  auto other = Qel::globalDir()->dirIs("dirtest")->dirIs("b");
  EXPECT_THROW(top->entryIs(a->dirIs("x")), Qel::NameInUseException) << "already has a parent";
}

TEST_F(DirTest, TypesAreRegisteredAndCreatable) {
  Qel::QelType const* t = Qel::QelType::type("Qel::Dir");
  ASSERT_NE(t, nullptr);
  auto made = t->newEntity("made");
  EXPECT_EQ(made->fwkType(), t);
  EXPECT_EQ(made->name(), "made");
  EXPECT_NE(Qel::QelType::type("Qel::Entity"), nullptr);
  EXPECT_EQ(Qel::QelType::type("No::SuchType"), nullptr);
}

class EntryWatcher : public Qel::Dir::NotifieeConst {
 public:
  std::vector<Qel::Name> seen;
  void onEntry(Qel::Name const& name) override { seen.push_back(name); }
};

TEST_F(DirTest, EntryChangesNotifyWithTheName) {
  auto top = Qel::globalDir()->dirIs("dirtest");
  EntryWatcher w;
  w.notifierIs(top);
  top->dirIs("x");
  top->dirIs("x");  // exists: no change
  top->entryDel("x");
  top->entryDel("x");  // absent: no change
  EXPECT_EQ(w.seen, (std::vector<Qel::Name>{"x", "x"}));
  w.notifierIs(nullptr);
}

}  // namespace
