// The engine's lifecycle against a loopback agent on simulated time, where the simulation does not
// look: the older protocol, a second start and the low mount priority, cleanup and destruction, the
// close with its standard-error line, the mounts-in-progress guard, the retry timer and a
// conflicting profile entry.
#include "PassiveEntityManager/PassiveEntityManagerSm.h"

#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/MountsInProgressAnchor.h"
#include "Qel/Core/Exception.h"

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

TEST_F(EngineTest, OlderProtocolVersionWaitsForVersionFive) {
  agent->currentVersionIs(4);
  startEngine();
  EXPECT_TRUE(requests().empty());
  EXPECT_TRUE(capture.contains("peer mount table is talking older version"));
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

TEST_F(EngineTest, AnchorClearsMountsInProgressOnEveryWayOut) {
  startEngine();
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

// The simulation checks the priority order of the queue; a key whose priority is not the group's,
// or no group at all, is a programming error.
TEST_F(EngineTest, AReadyGroupKeyedWithAnotherPriorityOrNoGroupIsFatal) {
  startEngine();
  EXPECT_DEATH(engine->readyMountGroupIs(4, PassiveMountGroup::mountGroupNew("g", 3)),
               "rv->priority\\(\\) == prio");
  EXPECT_DEATH(engine->readyMountGroupIs(1, nullptr), "\"readyMountGroupIs of a null group\"");
  EXPECT_DEATH(engine->readyMountGroupEnq(nullptr), "\"readyMountGroupEnq of a null group\"");
  EXPECT_DEATH(engine->conditionalMountGroupIs(nullptr),
               "\"conditionalMountGroupIs of a null group\"");
  EXPECT_DEATH(engine->handleMountProfile(nullptr), "\"handleMountProfile of a null group\"");
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
