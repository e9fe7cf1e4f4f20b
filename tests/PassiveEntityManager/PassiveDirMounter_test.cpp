// Directory mounts entry by entry, on simulated time, at the time boundaries the simulation does
// not pin down: the quiet second after the last new entry, an entry that comes late and its
// retries, and one mounter per path.
#include "PassiveEntityManager/PassiveDirMounter.h"

#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "Ledra/PassiveConnectionConfig.h"

namespace Ledra::test {
namespace {

constexpr char kDirPath[] = "/ledra/Ledra/d/e";

class PassiveDirMounterTest : public EngineHarness {
 protected:
  void SetUp() override {
    EngineHarness::SetUp();
    dir("d");
    dir("f");
    entMgr->writeMountsGrantedIs(true);
  }
  // The engine, past its root mount, mounting the directory with `flags` in its first group and
  // the plain directory /ledra/Ledra/f in a second one.
  void startWith(char const* flags) {
    profile->mountGroupIs("g", 1)->addProfile(kDirPath, "Qel::Dir", flags);
    profile->mountGroupIs("later", 2)->addProfile("/ledra/Ledra/f", "Qel::Dir", "r");
    startEngine();
    run();
  }
  PassiveDirMounter::Ptr mounter() const { return engine->passiveDirMounterCol(kDirPath); }
  // The directory, inserted whole with the entries `names`.
  void dirAppears(std::initializer_list<char const*> names) {
    auto e = Qel::Dir::dirNew("e");
    for (char const* name : names)
      e->dirIs(name);
    dir("d")->entryIs(e);
  }
  bool requested(std::string const& path) const {
    for (std::string const& r : requests())
      if (r.rfind(path + "?", 0) == 0) return true;
    return false;
  }
};

// The mounter completes once the directory has had no new entry for one retry period.
TEST_F(PassiveDirMounterTest, MounterEndsOneSecondAfterTheLastNewEntry) {
  startWith("rD");
  Qel::Time const appeared = clock->now();
  dirAppears({"one"});
  run(0.6);
  dir("d/e/two");
  run(0.9);  // 0.9 s after "two": still open
  EXPECT_TRUE(mounter());
  EXPECT_FALSE(capture.contains("PassiveDirMounter::handleComplete"));
  run(0.15);
  EXPECT_FALSE(mounter());
  EXPECT_TRUE(capture.contains("PassiveDirMounter::handleComplete: /ledra/Ledra/d/e"));
  EXPECT_FALSE(capture.contains("Removing a blocking DirMounter"));
  EXPECT_GT(clock->now() - appeared, 1.6);
  run(0.05);
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

// The mounter's own attributes are read by name and by ids that follow the base's.
TEST_F(PassiveDirMounterTest, OwnAttributesFollowTheBaseInTheReflection) {
  startWith("wDB");
  PassiveDirMounter::Ptr const m = mounter();
  ASSERT_TRUE(m);
  Qel::QelType const* const type = m->qelType();
  EXPECT_EQ(type->attribute(PassiveDirMounter::kHeadWaits)->name(), "headWaits");
  EXPECT_EQ(type->attribute(PassiveDirMounter::kMount)->name(), "mount");
  EXPECT_EQ(type->attribute(PassiveDirMounter::kBlocking)->name(), "blocking");
  EXPECT_EQ(type->attribute(PassiveDirMounter::kInitialized)->name(), "initialized");
  EXPECT_EQ(m->attribute(PassiveDirMounter::kMountPath)->valueAs<Qel::String>(), kDirPath);
  EXPECT_TRUE(m->attribute(PassiveDirMounter::kBlocking)->valueAs<bool>());
  EXPECT_TRUE(m->attribute(PassiveDirMounter::kInitialized)->valueAs<bool>());
}

// An entry asked for before it is a directory: a placeholder entity that is replaced later, or a
// request for a name that is not there at all.
enum class LateEntry { placeholderReplaced, requestedBeforeCreated };

class PassiveDirMounterLateEntryTest : public PassiveDirMounterTest,
                                       public ::testing::WithParamInterface<LateEntry> {};

TEST_P(PassiveDirMounterLateEntryTest, IsMountedAtTheFirstRetryAfterItsCreation) {
  startWith("wDB");
  dirAppears({});
  run(0.05);
  Qel::Time const requestedAt = clock->now();
  if (GetParam() == LateEntry::placeholderReplaced) {
    dir("d/e")->entryIs(PassiveConnectionConfig::passiveConnectionConfigNew("late"));
  } else {
    mounter()->deferredMountEnq(
        DirMounter::EntryMount("/ledra/Ledra/d/e/late", "Qel::Dir", mounter()->mountFlags()));
  }
  EXPECT_EQ(capture.count("/ledra/Ledra/d/e/late not present ..delaying mount "), 1u);
  EXPECT_EQ(mounter()->timeMin(), requestedAt + 1.0);
  // Retries at +1, +2 and +3 s find nothing; the entry is created right after the third.
  clock->nowIs(requestedAt + 3.0);
  EXPECT_EQ(capture.count("/ledra/Ledra/d/e/late not present ..delaying mount "), 4u);
  if (GetParam() == LateEntry::placeholderReplaced) dir("d/e")->entryDel("late");
  dir("d/e/late");
  clock->nowIs(requestedAt + 3.99);
  EXPECT_FALSE(capture.contains("Mounting /ledra/Ledra/d/e/late"));
  EXPECT_TRUE(mounter());
  clock->nowIs(requestedAt + 4.0);
  EXPECT_TRUE(capture.contains("Mounting /ledra/Ledra/d/e/late"));
  EXPECT_EQ(capture.count("/ledra/Ledra/d/e/late not present ..delaying mount "), 4u);
  run(1.1);
  EXPECT_TRUE(requested("/ledra/Ledra/d/e/late"));
  EXPECT_FALSE(mounter());
  EXPECT_TRUE(capture.contains("/ledra/Ledra/d/e Removing a blocking DirMounter"));
}

INSTANTIATE_TEST_SUITE_P(Ways, PassiveDirMounterLateEntryTest,
                         ::testing::Values(LateEntry::placeholderReplaced,
                                           LateEntry::requestedBeforeCreated));

TEST_F(PassiveDirMounterTest, SecondProfileForTheSamePathStartsNoSecondMounter) {
  startWith("rD");
  PassiveDirMounter::Ptr const first = mounter();
  engine->doNestedPassiveMount(Mount(kDirPath, "Qel::Dir", "rD"));
  EXPECT_EQ(capture.count("Starting passive dirMounter for /ledra/Ledra/d/e"), 1u);
  EXPECT_TRUE(capture.contains("A passive dirMounter for /ledra/Ledra/d/e is already present"));
  EXPECT_EQ(engine->passiveDirMounterCol().size(), 1u);
  EXPECT_EQ(mounter(), first);
}

}  // namespace
}  // namespace Ledra::test
