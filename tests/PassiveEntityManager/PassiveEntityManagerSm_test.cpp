// The engine's lifecycle and scheduling against a loopback agent on simulated time: start-up and
// the root mount, the protocol version gate, the low mount priority, cleanup and destruction, the
// order of groups, template-condition skips, waiting mounts, conversion and completion.
#include "PassiveEntityManager/PassiveEntityManagerSm.h"

#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/MountsInProgressAnchor.h"
#include "Qel/Exception.h"

namespace Ledra::test {
namespace {

using Qel::MountTable;
using Strings = std::vector<std::string>;

class EngineTest : public EngineHarness {
 protected:
  // A group mounting the directory /ledra/Ledra/<path>.
  PassiveMountGroup::Ptr group(char const* name, Qel::U32 priority, char const* path,
                               char const* flags = "r") {
    dir(path);
    auto g = profile->mountGroupIs(name, priority);
    g->addProfile(Qel::String("/ledra/Ledra/") + path, "Qel::Dir", flags);
    return g;
  }
};

TEST_F(EngineTest, RootMountLeavesFromInsideTheFactory) {
  startEngine();
  // Recorded before any loop turn: the request left while the factory ran.
  EXPECT_EQ(requests(), Strings{"/ledra/Ledra?flags=Cnp"});
  EXPECT_TRUE(engine->initialized());
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::init);
  EXPECT_EQ(engine->ledraRoot(), root);
  expectTraced({"initiating loading mount profiles", "agent has no template keys"});
  EXPECT_FALSE(agent->demuxer()->lowMountPrio());
  EXPECT_EQ(agent->demuxer()->lowMountPrioSets(), 0u);
}

TEST_F(EngineTest, OlderProtocolVersionWaitsForVersionFive) {
  agent->currentVersionIs(4);
  startEngine();
  EXPECT_TRUE(requests().empty());
  EXPECT_TRUE(capture.contains("peer mount table is talking older version"));
  // A pass run from elsewhere (writes granted, say) before the root mount was asked for waits.
  engine->doInitiateMounts();
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::init);
  agent->currentVersionIs(5);
  EXPECT_EQ(requests(), Strings{"/ledra/Ledra?flags=Cnp"});
}

TEST_F(EngineTest, HandleInitializedTwiceDoesTheWorkOnceAndSetsLowMountPrioOnce) {
  profile->lowMountPrioIs(true);
  startEngine();
  std::size_t const populated = capture.count("doPopulateMountPaths()");
  engine->handleInitialized();
  EXPECT_EQ(requests().size(), 1u);
  EXPECT_EQ(capture.count("doPopulateMountPaths()"), populated);
  EXPECT_TRUE(agent->demuxer()->lowMountPrio());
  EXPECT_EQ(agent->demuxer()->lowMountPrioSets(), 1u);
  EXPECT_TRUE(capture.contains(" setting low prio for agentName: agentA"));
}

TEST_F(EngineTest, MissingDatabaseRootLeavesLedraRootNullAndSendsNothing) {
  Qel::ActivityManagerConfig::instance()->systemNameIs("elsewhere");
  startEngine();
  Qel::ActivityManagerConfig::instance()->systemNameIs("ledra");
  EXPECT_FALSE(engine->ledraRoot());
  EXPECT_TRUE(requests().empty());
}

TEST_F(EngineTest, CleanupKeepsTemplatesPathsBlockingAndState) {
  dir("a");
  profile->templateKeyIs(1, "%slot");
  profile->mountGroupIs("g", 1)->addProfile("/ledra/Ledra/%slot", "Qel::Dir", "r");
  status->agentStringIs("agentA-a");
  startEngine();
  engine->blockingConditionalsIs("1 == /x.y", true);
  engine->stateIs(PassiveEntityManagerSm::readyMountGroupPending);
  engine->pendingMountProfileIs(Mount("/ledra/Ledra/z", "", "r"));
  engine->convertableMountsEnq(Mount("/ledra/Ledra/w", "", "w"));
  auto const aside = PassiveMountGroup::mountGroupNew("aside", 2);
  aside->conditionColEnq("1 == /ledra/Ledra/nowhere.x");
  engine->conditionalMountGroupIs(aside);
  engine->doCleanup();
  EXPECT_FALSE(engine->initialized());
  EXPECT_EQ(engine->pendingMountProfiles(), 0u);
  EXPECT_EQ(engine->convertableMountsCount(), 0u);
  EXPECT_TRUE(engine->conditionalMountGroup().empty());
  ASSERT_TRUE(engine->templateCache("/ledra/Ledra/%slot"));
  EXPECT_EQ(*engine->templateCache("/ledra/Ledra/%slot"), "/ledra/Ledra/a");
  EXPECT_NE(engine->allMountPaths("/ledra/Ledra/a"), nullptr);
  EXPECT_TRUE(engine->blockingConditionals("1 == /x.y"));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::readyMountGroupPending);
  run();  // nothing reacts any more
  EXPECT_EQ(requests().size(), 1u);
}

TEST_F(EngineTest, DestructionCleansUpOnceAfterTheReactorsWentQuiet) {
  agent->holdAnswersIs(true);
  startEngine();
  engine = nullptr;
  EXPECT_EQ(capture.count("PassiveEntityManagerSm::doCleanup()"), 1u);
  EXPECT_EQ(capture.count("PassiveEntityManagerSm::handleDeletion()"), 1u);
  capture.clear();
  // The answer lowers the count of unanswered requests: nobody is left to react.
  agent->answersRelease();
  run();
  EXPECT_FALSE(capture.contains("doInitiateMounts"));
}

TEST_F(EngineTest, HandleCloseClosesTheConnectionWithTheReason) {
  startEngine();
  std::string const err = stderrOf([&] { engine->handleClose("bad entry"); });
  std::string const line = "Processed an invalid mount profile. bad entry\n";
  EXPECT_EQ(err.rfind(line, 0), 0u) << err;
  EXPECT_GT(err.size(), line.size()) << "followed by a backtrace";
  EXPECT_FALSE(engine->initialized());
  run();
  EXPECT_EQ(agent->closeReasons(),
            (std::vector<Qel::String>{"Processed an invalid mount profile. bad entry"}));
  EXPECT_FALSE(agent->connected());
  // A closed engine is set up again when handleInitialized runs again.
  engine->handleInitialized();
  EXPECT_TRUE(engine->initialized());
}

TEST_F(EngineTest, ConstViewRefusesWritesAndAnchorClearsMountsInProgressOnEveryWayOut) {
  startEngine();
  EXPECT_EQ(errorOf<Qel::ConstInstanceException>([&] {
              Qel::GenericIf::PtrConst(engine.ptr())->attributeIs("deletion", Qel::String("true"));
            }),
            "attempting to modify a const instance");
  try {
    MountsInProgressAnchor const anchor(engine.ptr());
    EXPECT_TRUE(engine->mountsInProgress());
    throw std::runtime_error("pass left by an exception");
  } catch (std::runtime_error const&) {
  }
  EXPECT_FALSE(engine->mountsInProgress());
  {
    MountsInProgressAnchor const guard(engine.ptr());
    {
      MountsInProgressAnchor const copy(guard.text());
      EXPECT_EQ(copy.pEmSm(), engine.ptr());
    }
    EXPECT_TRUE(engine->mountsInProgress()) << "a copy read from text guards nothing";
  }
  EXPECT_FALSE(engine->mountsInProgress());
}

// --- scheduling

// The simulation checks the priority order of the queue; a key whose priority is not the group's
// is a programming error.
TEST_F(EngineTest, AReadyGroupKeyedWithAnotherPriorityIsFatal) {
  startEngine();
  EXPECT_DEATH(engine->readyMountGroupIs(4, PassiveMountGroup::mountGroupNew("g", 3)),
               "rv->priority\\(\\) == prio");
}

// The simulation checks the gate and the priority order on random profiles; here the texts of a
// pass held by an unanswered request and of one run after completion.
TEST_F(EngineTest, APassWaitsForUnansweredRequestsAndNoneRunsAfterCompletion) {
  group("g1", 1, "b1");
  agent->holdAnswersIs(true);
  startEngine();
  capture.clear();
  engine->doInitiateMounts();  // the root mount is unanswered: only the count is traced
  EXPECT_TRUE(capture.contains("flowOut mount requests: 1 mountsInProgress: false"));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::init);
  EXPECT_EQ(engine->readyMountGroups(), 0u);
  agent->holdAnswersIs(false);
  agent->answersRelease();
  run();
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/b1"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 1u);
  EXPECT_FALSE(engine->demuxer());
  EXPECT_FALSE(engine->peerMountTable());
  // Later notifications change nothing.
  engine->doInitiateMounts();
  EXPECT_TRUE(capture.contains("mount complete..returning"));
  EXPECT_EQ(requestPaths().size(), 2u);
}

// A profile reloaded as a profile file is (a changed group is a new object, a dropped group is
// deleted, a new group is added) while the engine has its old groups queued behind an unanswered
// request: the engine goes on with the groups it took, as they were, and this connection gets
// nothing of the new content.
TEST_F(EngineTest, AProfileReloadedWhileOldGroupsAreQueuedLeavesThemAsTheEngineTookThem) {
  group("g1", 1, "b1");
  group("g2", 2, "b2");
  group("g3", 3, "b3");
  agent->holdAnswersIs(true);
  startEngine();
  agent->answersRelease();
  run();
  ASSERT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/b1"}));
  ASSERT_EQ(engine->readyMountGroups(), 2u);
  profile->mountGroupDel("g2");
  group("g2", 2, "new2");
  profile->mountGroupDel("g3");
  group("g4", 4, "new4");
  agent->holdAnswersIs(false);
  agent->answersRelease();
  run();
  EXPECT_EQ(requestPaths(),
            (Strings{"/ledra/Ledra", "/ledra/Ledra/b1", "/ledra/Ledra/b2", "/ledra/Ledra/b3"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, FalseTemplateConditionSkipsTheGroupForGood) {
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("agentA-3");
  group("never", 1, "n")->templateConditionColIs("%slot == 4", true);
  group("always", 2, "y")->templateConditionColIs("%slot != 4", true);
  startEngine();
  run();
  expectTraced({"template condition evaluted to False.", "template condition evaluted to True."});
  EXPECT_EQ(capture.count("At least one template condition evaluted to False.  Skipping mount"),
            1u);
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/y"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, ConditionalGroupTrueAtCreationIsMountedInTheSamePass) {
  auto const flag = ConditionRes::conditionResNew("flag");
  flag->enabledIs(true);
  root->entryIs(flag);
  auto const g = group("cond", 1, "c");
  g->conditionColEnq("true == /ledra/Ledra/flag.enabled");
  g->entireConditionIs("true == /ledra/Ledra/flag.enabled");
  group("later", 2, "d");
  agent->holdAnswersIs(true);
  startEngine();
  ASSERT_TRUE(agent->answerRelease("/ledra/Ledra"));
  run();
  EXPECT_TRUE(capture.contains("conditional mountgroup cond done inline"));
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/c"}));
  EXPECT_FALSE(engine->conditionalMountGroup("cond"));
}

TEST_F(EngineTest, FamilyMemberForWhichEveryGroupIsSkippedCompletesAfterTheRootMount) {
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("x-2");
  group("one", 1, "a")->templateConditionColIs("%slot == 1", true);
  group("two", 2, "b")->templateConditionColIs("%slot == 1", true);
  startEngine();
  run();
  EXPECT_EQ(capture.count("At least one template condition evaluted to False.  Skipping mount"),
            2u);
  EXPECT_EQ(requestPaths(), Strings{"/ledra/Ledra"});
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 1u);
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, PathMountedByThreeGroupsWithoutAnEntityCompletesWithEveryTraceOn) {
  // No entity stands at the path: the second group finds the mount unchanged and completes the
  // reference without an entity, which the third group's completeness check reads as orphaned.
  for (char const* name : {"g1", "g2", "g3"})
    profile->mountGroupIs(name, name[1] - '0')->addProfile("/ledra/Ledra/n", "Ledra::Thing", "c");
  startEngine();
  run();
  EXPECT_EQ(capture.count("mount reference holding orphaned entity: "), 1u);
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/n"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, MountWaitingForItsParentHoldsLaterGroupsAndRetriesEachTick) {
  group("parent", 1, "p");
  group("child", 2, "p/q");
  group("later", 3, "r");
  MountTable::PathState notSynced;
  notSynced.mountedIs(true).completeIs(true).mountPointIs(true);
  agent->pathStateOnAnswerIs("/ledra/Ledra/p", notSynced);
  startEngine();
  run();
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/p"}));
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/p/q"));
  EXPECT_TRUE(capture.contains("mount for /ledra/Ledra/p is complete but not synced"));
  EXPECT_TRUE(capture.contains(
      "1 outstanding mount groups 1 pending mount profiles 0 blocking conditional"));
  // Polled once per tick, still waiting.
  std::size_t const polls = capture.count("doPendingMounts: pendingMountProfiles(): 1");
  run(0.01);
  EXPECT_GE(capture.count("doPendingMounts: pendingMountProfiles(): 1"), polls + 5);
  agent->pathStateIs("/ledra/Ledra/p", MountTable::PathState(notSynced).synchronisedIs(true));
  run();
  EXPECT_EQ(requestPaths(),
            (Strings{"/ledra/Ledra", "/ledra/Ledra/p", "/ledra/Ledra/p/q", "/ledra/Ledra/r"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, RetryTimerIsArmedWhileAMountWaitsAndDisarmedByTheCompletingPass) {
  group("parent", 1, "p");
  group("child", 2, "p/q");
  MountTable::PathState notSynced;
  notSynced.mountedIs(true).completeIs(true).mountPointIs(true);
  agent->pathStateOnAnswerIs("/ledra/Ledra/p", notSynced);
  startEngine();
  run();
  ASSERT_TRUE(engine->pendingMountProfile("/ledra/Ledra/p/q"));
  EXPECT_LE(engine->retryTime(), clock->now() + 0.001);
  // A pass run before the next tick makes the waiting mount and completes: the timer it leaves
  // armed is disarmed by the completion.
  agent->pathStateIs("/ledra/Ledra/p", MountTable::PathState(notSynced).synchronisedIs(true));
  engine->doInitiateMounts();
  ASSERT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
  EXPECT_EQ(engine->retryTime(), Qel::kNever);
}

TEST_F(EngineTest, WriteMountsAreConvertedOnceWritingIsGranted) {
  group("g", 1, "w", "w");
  startEngine();
  run();
  EXPECT_EQ(requests(), (Strings{"/ledra/Ledra?flags=Cnp", "/ledra/Ledra/w?flags=Cnp"}));
  EXPECT_EQ(engine->convertableMountsCount(), 1u);
  EXPECT_NE(engine->state(), PassiveEntityManagerSm::mountComplete);
  entMgr->writeMountsGrantedIs(true);
  engine->doInitiateMounts();
  expectTraced({"Num mounts to convert: 1", "Converting /ledra/Ledra/w to w"});
  run();
  EXPECT_EQ(requests().back(), "/ledra/Ledra/w?flags=wnp");
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(EngineTest, FailedMountBlocksTheSchedule) {
  group("a", 1, "a");
  group("b", 2, "b");
  agent->mountFailureIs("/ledra/Ledra/a", "no such type");
  startEngine();
  run();
  EXPECT_TRUE(capture.contains(
      "readyMountGroupPending_ Exception: no such type, status: failed_, path: /ledra/Ledra/a"));
  EXPECT_EQ(requestPaths(), (Strings{"/ledra/Ledra", "/ledra/Ledra/a"}));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::readyMountGroupPending);
}

TEST_F(EngineTest, InvalidProfileEntryStopsTheGroupAndLaterPasses) {
  group("a", 1, "a");
  // The same path mounted before by another connection of this agent: a conflict.
  status->mountReferenceIs("/ledra/Ledra/a")->entityIs(dir("a"));
  std::string const err = stderrOf([&] {
    startEngine();
    run();
  });
  EXPECT_TRUE(capture.contains("Mount path /ledra/Ledra/a already mounted by agent agentA"));
  EXPECT_NE(err.find("Processed an invalid mount profile. agentA"), std::string::npos);
  EXPECT_FALSE(engine->initialized());
  EXPECT_NE(engine->state(), PassiveEntityManagerSm::mountComplete);
  EXPECT_FALSE(capture.contains("All mounts complete"));
}

}  // namespace
}  // namespace Ledra::test
