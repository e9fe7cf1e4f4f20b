// The directory mounter base with a derived test mounter on a simulated clock, where the
// simulation does not reach: a directory on the path replaced, handlers changing the directory
// under the scan, the mounter dying inside its own completion or while it waits, the quiet
// period, the queued paths and the contract.
#include "Ledra/DirMounter.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "Ledra/PassiveConnectionConfig.h"
#include "Ledra/StripString.h"
#include "Qel/Loop/SimulatedClock.h"
#include "tests/support/LeakCheck.h"

namespace {

using Ledra::DirMounter;
using EntryMount = DirMounter::EntryMount;
using Log = std::vector<std::string>;

// Mounts an entry when it is a directory; otherwise retries after `retryDelay` seconds.
class TestMounter : public DirMounter {
 public:
  using Ptr = Qel::Ptr<TestMounter>;

  static Ptr make(Qel::String const& path, Qel::String const& flags,
                  Qel::Clock::PtrConst const& clock) {
    Ptr m(new TestMounter);
    m->mountPathIs(path);
    m->mountFlagsIs(flags);
    m->entityTypeIs("Qel::Dir");
    m->clockIs(clock);
    return m;
  }

  std::vector<std::string> log;
  std::function<void(Qel::String const&)> onExisting;
  std::function<void()> onComplete;
  Qel::Time retryDelay = 1.0;

  void handleInit() override {
    log.push_back("init");
    mountFlagsIs(Ledra::stripString(mountFlags(), "DB"));
  }
  void handleExistingDirEntry(Qel::Entity::Ptr const& entity, Qel::String path) override {
    log.push_back("existing " + path + (entity ? "" : " (null)"));
    if (onExisting) onExisting(path);
  }
  void handleMountRequest() override {
    Qel::String const path = mountPath() + "/" + entryName();
    EXPECT_TRUE(hasDirEntryMounter());
    EXPECT_EQ(dirEntryMounter().path(), path);
    Qel::Entity::Ptr e = Qel::globalDir()->entity(path);
    if (!dynamic_cast<Qel::Dir*>(e.ptr())) {
      log.push_back("delay " + path);
      timeMinIs(clock()->now() + retryDelay);
      return;
    }
    EntryMount const m = deferredMountDeq();
    log.push_back("mount " + m.path() + " " + m.flags());
  }
  void handleComplete(Qel::Entity::Ptr const& entity) override {
    log.push_back("complete " + entity->fullName());
    if (onComplete) onComplete();
  }

 private:
  TestMounter() : DirMounter("testMounter") {}
};

class DirMounterTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    clock = Qel::SimulatedClock::simulatedClockNew();
    root = Qel::globalDir()->dirIs("dmTest");
  }
  void TearDown() override {
    Qel::globalDir()->entryDel("dmTest");
    root = nullptr;
    clock = nullptr;
    LeakCheckedTest::TearDown();
  }
  // A plain entity that is not a directory.
  static Qel::Entity::Ptr plain(Qel::Name const& name) {
    return Ledra::PassiveConnectionConfig::passiveConnectionConfigNew(name);
  }
  // /dmTest/d holding x, a plain entity: the test mounter retries it until it is a directory.
  Qel::Dir::Ptr dirWithPlainX() {
    auto d = root->dirIs("d");
    d->entryIs(plain("x"));
    return d;
  }
  // The waiting entry x of `d` turns up as a directory.
  static void xTurnsUp(Qel::Dir::Ptr const& d) {
    d->entryDel("x");
    d->dirIs("x");
  }
  TestMounter::Ptr mounter(Qel::String const& path = "/dmTest/d",
                           Qel::String const& flags = "DBw") {
    return TestMounter::make(path, flags, clock);
  }

  Qel::SimulatedClock::Ptr clock;
  Qel::Dir::Ptr root;
};

TEST_F(DirMounterTest, EntriesAppearingLaterAreQueuedBehindTheWaitingOne) {
  auto d = dirWithPlainX();
  auto m = mounter();
  m->start();
  clock->nowIs(0.5);
  d->dirIs("b");
  // The pending retry is kept: the new entry waits for it.
  EXPECT_EQ(m->log.size(), 3u);
  EXPECT_EQ(m->timeMin(), 1.0);
  xTurnsUp(d);
  clock->nowIs(2.0);
  EXPECT_EQ(m->log, (Log{"init", "existing /dmTest/d/x", "delay /dmTest/d/x", "mount /dmTest/d/x w",
                         "mount /dmTest/d/b w", "complete /dmTest/d"}));
}

TEST_F(DirMounterTest, DirectoryOnThePathDeletedAndCreatedAgainIsFollowed) {
  auto p = root->dirIs("p");
  auto m = mounter("/dmTest/p/q/d");
  m->start();
  EXPECT_EQ(m->awaitedEntry(), "q");
  // The directory the mounter waits in goes: it waits for it in its parent.
  root->entryDel("p");
  EXPECT_EQ(m->pos(), 1u);
  EXPECT_EQ(m->awaitedEntry(), "p");
  EXPECT_EQ(p->notifiees(), 0u);
  // The detached directory is no longer followed.
  p->dirIs("q")->dirIs("d");
  EXPECT_EQ(m->pos(), 1u);
  // Created again, with the rest of the path made in it afterwards.
  auto p2 = root->dirIs("p");
  EXPECT_EQ(m->awaitedEntry(), "q");
  auto q = p2->dirIs("q");
  EXPECT_EQ(m->pos(), 3u);
  // Replaced in one go, the whole path already inside the new directory.
  auto q2 = Qel::Dir::dirNew("q");
  q2->dirIs("d")->dirIs("a");
  p2->entryDel("q");
  EXPECT_EQ(q->notifiees(), 0u);
  p2->entryIs(q2);
  EXPECT_EQ(m->log, (Log{"init", "existing /dmTest/p/q/d/a", "mount /dmTest/p/q/d/a w",
                         "complete /dmTest/p/q/d"}));
  EXPECT_EQ(root->notifiees(), 0u);
  EXPECT_EQ(p2->notifiees(), 0u);
  EXPECT_EQ(q2->notifiees(), 0u);
}

TEST_F(DirMounterTest, EntriesCreatedByAHandlerAreQueuedInTheRunningScan) {
  auto d = root->dirIs("d");
  d->dirIs("a");
  d->dirIs("b");
  auto m = mounter();
  m->onExisting = [&](Qel::String const& path) {
    if (path == "/dmTest/d/a") d->dirIs("z");
  };
  m->start();
  EXPECT_EQ(m->log,
            (Log{"init", "existing /dmTest/d/a", "existing /dmTest/d/b", "mount /dmTest/d/a w",
                 "mount /dmTest/d/z w", "mount /dmTest/d/b w", "complete /dmTest/d"}));
}

TEST_F(DirMounterTest, EntryRemovedByAnEarlierHandlerIsNotReportedAsExisting) {
  auto d = root->dirIs("d");
  d->dirIs("a");
  d->dirIs("b");
  auto m = mounter();
  m->onExisting = [&](Qel::String const&) { d->entryDel("b"); };
  m->start();
  EXPECT_EQ(m->log,
            (Log{"init", "existing /dmTest/d/a", "mount /dmTest/d/a w", "complete /dmTest/d"}));
}

TEST_F(DirMounterTest, CompletionMayDropTheLastReferenceToTheMounter) {
  auto d = root->dirIs("d");
  d->dirIs("a");
  TestMounter::Ptr holder = mounter();
  TestMounter* raw = holder.ptr();
  raw->onComplete = [&] { holder = nullptr; };
  long const before = Qel::RefCounted::liveInstances();
  raw->start();
  EXPECT_FALSE(holder);
  EXPECT_LT(Qel::RefCounted::liveInstances(), before);
  // The same from inside the retry timer.
  auto x = dirWithPlainX();
  holder = mounter();
  holder->onComplete = [&] { holder = nullptr; };
  holder->start();
  xTurnsUp(x);
  clock->nowIs(1.0);
  EXPECT_FALSE(holder);
  EXPECT_EQ(clock->timers(), 0u);
}

TEST_F(DirMounterTest, MounterDestroyedWhileWaitingOrSettlingLeavesNoTimerOrWatch) {
  auto d = dirWithPlainX();
  auto m = mounter();
  m->start();
  EXPECT_EQ(clock->timers(), 1u);
  EXPECT_EQ(d->notifiees(), 1u);
  m = nullptr;
  EXPECT_EQ(clock->timers(), 0u);
  EXPECT_EQ(d->notifiees(), 0u);
  // The same while the directory settles.
  root->dirIs("e");
  m = mounter("/dmTest/e");
  m->settleDelayIs(1.0);
  m->start();
  EXPECT_EQ(clock->timers(), 1u);
  m = nullptr;
  EXPECT_EQ(clock->timers(), 0u);
  clock->nowIs(2.0);
}

// With a settle delay the mounter stays until the directory has been quiet that long.
TEST_F(DirMounterTest, RemovalsDoNotRestartTheQuietPeriodAdditionsDo) {
  auto settling = [&] {
    auto m = mounter();
    m->settleDelayIs(1.0);
    return m;
  };
  auto d = root->dirIs("d");
  d->dirIs("a");
  auto m = settling();
  m->start();
  clock->nowIs(0.5);
  d->entryDel("a");
  clock->nowIs(1.0);
  EXPECT_TRUE(m->complete());
  auto again = settling();
  root->entryDel("d");
  d = root->dirIs("d");
  d->dirIs("a");
  again->start();
  clock->nowIs(1.5);
  d->entryDel("a");
  d->dirIs("a");  // seen before: nothing queued, but the directory was not quiet
  clock->nowIs(2.4);
  EXPECT_FALSE(again->complete());
  clock->nowIs(2.5);
  EXPECT_TRUE(again->complete());
  EXPECT_EQ(std::count(again->log.begin(), again->log.end(), "mount /dmTest/d/a w"), 1);
}

// The set of queued paths holds a path while any queued mount has it.
TEST_F(DirMounterTest, DeferredPathsFollowEveryQueuedMount) {
  auto m = mounter("/x");
  EXPECT_EQ(m->deferredMountEnq(EntryMount("/x/a", "T", "w")), 0u);
  EXPECT_EQ(m->deferredMountEnq(EntryMount("/x/a", "T", "r")), 1u);
  EXPECT_EQ(m->deferredMountDeq(), EntryMount("/x/a", "T", "w"));
  EXPECT_EQ(m->deferredMountPaths("/x/a"), std::optional<bool>(true));
  // Replacing a mount by one of another path releases the old path.
  m->deferredMountIs(1, EntryMount("/x/e", "T", "w"));
  EXPECT_EQ(m->deferredMountPaths("/x/a"), std::nullopt);
  m->deferredMountDel(1);
  EXPECT_EQ(m->deferredMountPaths("/x/e"), std::nullopt);
}

using DirMounterDeathTest = DirMounterTest;

TEST_F(DirMounterDeathTest, ContractViolations) {
  root->dirIs("d");
  auto m = mounter();
  m->start();
  EXPECT_DEATH(m->start(), "\"DirMounter started twice\"");
  EXPECT_DEATH(TestMounter::make("", "", clock)->start(), "\"DirMounter without a mount path\"");
  auto noClock = TestMounter::make("/dmTest/d", "", nullptr);
  EXPECT_DEATH(noClock->timeMinIs(1.0), "\"DirMounter retry without a clock\"");
  noClock->settleDelayIs(1.0);
  EXPECT_DEATH(noClock->start(), "\"DirMounter settle delay without a clock\"");
  EXPECT_DEATH(m->settleDelayIs(-1.0), "\"DirMounter settle delay is negative\"");
  auto stranger = mounter("/elsewhere/d");
  stranger->parentDirIs(root);
  EXPECT_DEATH(stranger->start(), "\"DirMounter parent dir is not an ancestor of the mount path\"");
}

}  // namespace
