#include "Qel/Dir.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "Qel/QelType.h"
#include "support/LeakCheck.h"

namespace {

class DirTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    top = Qel::globalDir()->dirIs("dirtest");
  }
  void TearDown() override {
    top = nullptr;
    Qel::globalDir()->entryDel("dirtest");
    LeakCheckedTest::TearDown();
  }
  Qel::Dir::Ptr top;
};

TEST_F(DirTest, PathsLookupAndCuttingOff) {
  auto a = top->dirIs("a");
  auto leaf = a->dirIs("b");
  EXPECT_EQ(leaf->fullName(), "/dirtest/a/b");
  EXPECT_EQ(Qel::globalDir()->entity("/dirtest/a/b"), leaf);
  EXPECT_EQ(Qel::globalDir()->entity("dirtest//a/b/"), leaf);
  EXPECT_EQ(top->entity("a/b"), leaf);
  EXPECT_FALSE(Qel::globalDir()->entity("/dirtest/a/b/c"));

  // A removed entity is cut off but stays readable.
  top->entryDel("a");
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(leaf->root(), a.ptr());
  EXPECT_EQ(leaf->fullName(), "a/b");
}

class EntryWatcher : public Qel::Dir::NotifieeConst {
 public:
  std::vector<Qel::Name> seen;
  void onEntry(Qel::Name const& name) override { seen.push_back(name); }
};

TEST_F(DirTest, EntriesNotifyRealChangesAndRefuseTakenNames) {
  EntryWatcher w;
  w.notifierIs(top);
  auto a = top->dirIs("a");
  top->dirIs("a");  // exists: no change
  EXPECT_THROW(top->entryIs(Qel::Dir::dirNew("a")), Qel::NameInUseException);
  top->entryIs(a);  // the same entity again changes nothing
  EXPECT_EQ(top->entries(), 1u);
  EXPECT_THROW(top->entryIs(a->dirIs("x")), Qel::NameInUseException) << "already has a parent";
  top->entryDel("a");
  top->entryDel("a");  // absent: no change
  EXPECT_EQ(w.seen, (std::vector<Qel::Name>{"a", "a"}));
  w.notifierIs(nullptr);
}

}  // namespace
