// Directory mounts entry by entry, on simulated time: a directory that stands already, entries
// present when the directory appears, entries that follow it, an entry that comes late, a
// blocking mounter holding its group, one mounter per path, and a mounter released mid-wait.
#include "PassiveEntityManager/PassiveDirMounter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "EngineHarness.h"
#include "Ledra/PassiveConnectionConfig.h"

namespace Ledra::test {
namespace {

constexpr char kDirPath[] = "/ledra/Ledra/d/e";

// A mounter is built from the flag letters and the entity type name, in that order; the letters
// have a type of their own, so neither the two swapped nor two plain texts compile.
template <class Flags, class Type>
concept MounterArguments = requires(Flags const& flags, Type const& type) {
  passiveDirMounterFactory(Qel::String(), Qel::String(), flags, type, EntityManager::PtrConst(),
                           Qel::Clock::PtrConst(), Mount(), nullptr);
};
static_assert(MounterArguments<UserFlags, Qel::String>);
static_assert(!MounterArguments<Qel::String, UserFlags>);
static_assert(!MounterArguments<Qel::String, Qel::String>);

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
  // The request the agent received for `path`, as "path?flags=letters type"; empty when none.
  std::string requestFor(std::string const& path) const {
    for (std::string const& r : requests())
      if (r.rfind(path + "?", 0) == 0) return r;
    return {};
  }
  bool requested(std::string const& path) const { return !requestFor(path).empty(); }
};

TEST_F(PassiveDirMounterTest, DirectoryThatStandsIsMountedDirectly) {
  dirAppears({"one"});
  startWith("rD");
  EXPECT_TRUE(
      capture.contains("/ledra/Ledra/d/e already is present. Skipping passive dir mounter"));
  EXPECT_FALSE(capture.contains("Starting passive dirMounter for"));
  EXPECT_TRUE(requested(kDirPath));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

// Entries cannot be mounted below the directory while its mounter holds the directory's path:
// they wait in pendingMountProfile, and go out once the mounter has ended and the directory is
// mounted in its place.
TEST_F(PassiveDirMounterTest, EntriesPresentWhenTheDirectoryAppearsAreMountedReadOnly) {
  startWith("wDB");
  ASSERT_TRUE(mounter());
  EXPECT_TRUE(capture.contains("Starting passive dirMounter for /ledra/Ledra/d/e"));
  dirAppears({"one", "two"});
  run(0.05);
  EXPECT_EQ(capture.count("handleExistingDirEntry entityPtr: 0x"), 2u);
  EXPECT_TRUE(capture.contains(" path: /ledra/Ledra/d/e/two"));
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/d/e/one"));
  EXPECT_FALSE(requested("/ledra/Ledra/d/e/one"));
  run(1.0);
  EXPECT_FALSE(mounter());
  EXPECT_TRUE(capture.contains("/ledra/Ledra/d/e Removing a blocking DirMounter"));
  EXPECT_TRUE(capture.contains("waiting for other entries for path prefix /ledra/Ledra/d/e/"));
  run(0.3);
  // Read-only directories: the same request as the plain "r" mount of the second group.
  std::string const sibling = requestFor("/ledra/Ledra/f");
  ASSERT_FALSE(sibling.empty());
  for (char const* entry : {"/ledra/Ledra/d/e/one", "/ledra/Ledra/d/e/two"}) {
    std::string const r = requestFor(entry);
    ASSERT_FALSE(r.empty()) << entry;
    EXPECT_EQ(r.substr(r.find('?')), sibling.substr(sibling.find('?'))) << entry;
  }
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(PassiveDirMounterTest, EntriesFollowingTheDirectoryGetTheProfileFlagsLessDAndB) {
  startWith("wDB");
  EXPECT_TRUE(capture.contains("/ledra/Ledra/d/e Enabling a blocking DirMounter"));
  EXPECT_EQ(mounter()->mountFlags(), "w");
  dirAppears({"old"});
  run(0.5);
  dir("d/e/new");
  run(0.05);
  EXPECT_TRUE(capture.contains("Mounting /ledra/Ledra/d/e/new"));
  EXPECT_TRUE(capture.contains("PassiveDirMounter Finished Mounting"));
  Mount const* const pending = engine->pendingMountProfile("/ledra/Ledra/d/e/new");
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->flags(), "w");
  EXPECT_EQ(pending->type(), "Qel::Dir");
  run(1.5);
  std::string const fresh = requestFor("/ledra/Ledra/d/e/new");
  std::string const old = requestFor("/ledra/Ledra/d/e/old");
  ASSERT_FALSE(fresh.empty());
  ASSERT_FALSE(old.empty());
  // "w", not the read-only mount of the entry that was there first.
  EXPECT_NE(fresh.substr(fresh.find('?')), old.substr(old.find('?')));
}

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

// A blocking mounter holds back the next group until it ends; a plain one only holds back the
// agent's completion.
class PassiveDirMounterBlockingTest : public PassiveDirMounterTest,
                                      public ::testing::WithParamInterface<bool> {};

TEST_P(PassiveDirMounterBlockingTest, HoldsTheNextGroupOnlyWhenBlocking) {
  bool const blocking = GetParam();
  startWith(blocking ? "rDB" : "rD");
  EXPECT_EQ(mounter()->blocking(), blocking);
  EXPECT_EQ(engine->pendingMountProfile(kDirPath) != nullptr, blocking);
  run(3.0);
  EXPECT_EQ(requested("/ledra/Ledra/f"), !blocking);
  EXPECT_NE(engine->state(), PassiveEntityManagerSm::mountComplete);
  dirAppears({"one"});
  run(1.2);
  EXPECT_FALSE(mounter());
  EXPECT_EQ(capture.contains("/ledra/Ledra/d/e Removing a blocking DirMounter"), blocking);
  run(0.2);
  EXPECT_TRUE(requested("/ledra/Ledra/f"));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
  EXPECT_TRUE(capture.contains("All mounts complete for agentA"));
}

INSTANTIATE_TEST_SUITE_P(BlockingOrNot, PassiveDirMounterBlockingTest, ::testing::Bool());

TEST_F(PassiveDirMounterTest, SecondProfileForTheSamePathStartsNoSecondMounter) {
  startWith("rD");
  PassiveDirMounter::Ptr const first = mounter();
  engine->doNestedPassiveMount(Mount(kDirPath, "Qel::Dir", "rD"));
  EXPECT_EQ(capture.count("Starting passive dirMounter for /ledra/Ledra/d/e"), 1u);
  EXPECT_TRUE(capture.contains("A passive dirMounter for /ledra/Ledra/d/e is already present"));
  EXPECT_EQ(engine->passiveDirMounterCol().size(), 1u);
  EXPECT_EQ(mounter(), first);
}

TEST_F(PassiveDirMounterTest, CleanupReleasesAWaitingMounterAndItsTimers) {
  startWith("wDB");
  dirAppears({});
  dir("d/e")->entryIs(PassiveConnectionConfig::passiveConnectionConfigNew("late"));
  std::size_t const armed = clock->timers();
  long const before = Qel::RefCounted::liveInstances();
  engine->doCleanup();
  EXPECT_TRUE(engine->passiveDirMounterCol().empty());
  EXPECT_LT(Qel::RefCounted::liveInstances(), before);
  EXPECT_LT(clock->timers(), armed);
  // Its retry never runs.
  std::size_t const delays = capture.count("not present ..delaying mount ");
  run(2.0);
  EXPECT_EQ(capture.count("not present ..delaying mount "), delays);
}

}  // namespace
}  // namespace Ledra::test
