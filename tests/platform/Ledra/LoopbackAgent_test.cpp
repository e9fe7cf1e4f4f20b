// The loopback agent peer driven by an event loop on a simulated clock: what neither the simulation
// nor the engine's tests see of it (the chosen turns, held answers, and the order of teardown and
// reconnection).
#include "Ledra/LoopbackAgent.h"

#include <gtest/gtest.h>

#include <vector>

#include "Qel/Core/Exception.h"
#include "Qel/Loop/SimulatedClock.h"
#include "tests/platform/Ledra/DatabaseWatch.h"
#include "tests/support/LeakCheck.h"

namespace {

using Ledra::ConnMgrHelper;
using Ledra::LoopbackAgent;
using Qel::MountTable;
using PathState = MountTable::PathState;

class LoopbackAgentTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    db = std::make_unique<Ledra::test::DatabaseWatch>();
    db->holdDemuxers = true;
    agent = LoopbackAgent::loopbackAgentNew(loop, "agentA", "agentA slot=3");
  }
  void TearDown() override {
    agent = nullptr;
    db.reset();
    loop = nullptr;
    clock = nullptr;
    EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatuses(), 0u);
    EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxers(), 0u);
    LeakCheckedTest::TearDown();
  }

  void mount(char const* path) {
    agent->peerMountTable()->confIs(
        MountTable::Conf(path, "", Qel::MountFlags::fromLetters("Cnp"), agent->connectionName()));
  }
  MountTable::Status status(char const* path) const {
    return agent->peerMountTable()->status(Qel::ConnectDesc(path));
  }

  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  std::unique_ptr<Ledra::test::DatabaseWatch> db;
  LoopbackAgent::Ptr agent;
};

// A request is answered after the chosen number of turns with the chosen path state. (That the
// path state is set before the count falls is seen by the engine's tests.)
TEST_F(LoopbackAgentTest, AnswerComesAfterExactlyTheChosenTurnsWithItsPathState) {
  PathState wanted;
  wanted.mountedIs(true).completeIs(true).monitoringIs(true).monitoringEidIs(7);
  agent->pathStateOnAnswerIs("/a", wanted);
  agent->answerTurnsIs(3);
  agent->connect();
  mount("/a");
  loop->runOnce();
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
  EXPECT_EQ(agent->peerMountTable()->pathState("/a"), wanted);
}

TEST_F(LoopbackAgentTest, HeldAnswersAreReleasedOutOfOrder) {
  agent->holdAnswersIs(true);
  agent->connect();
  mount("/a");
  mount("/b");
  loop->runFor(10);
  EXPECT_TRUE(agent->answerRelease("/b"));
  EXPECT_FALSE(agent->answerRelease("/b"));
  EXPECT_EQ(status("/b"), MountTable::complete_);
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  agent->holdAnswersIs(false);
  mount("/d");  // scheduled, not held: no release answers it early
  EXPECT_FALSE(agent->answerRelease("/d"));
  EXPECT_EQ(agent->answersRelease(), 1u);
}

TEST_F(LoopbackAgentTest, ReconnectBeforeTheTeardownFinishesItFirst) {
  agent->connect();
  agent->disconnect("agent restarting");
  db->events.clear();
  agent->connect();
  ASSERT_GE(db->events.size(), 3u);
  EXPECT_EQ(db->events[0], "disconnected agentA state 3 agent agentA 'agentA slot=3'");
  EXPECT_EQ(db->events[1], "-agentA");
  EXPECT_EQ(db->events[2], "+agentA");
  // The old connection's posted teardown does nothing to the new one.
  loop->runOnce();
  EXPECT_TRUE(agent->connected());
  EXPECT_EQ(agent->demuxer()->epoch(), 2u);
}

TEST_F(LoopbackAgentTest, DatabaseClosingFromInsideOnConnectedIsSafe) {
  db->closeWith = "no agent profile";
  EXPECT_TRUE(agent->connect()->closed());
  EXPECT_EQ(agent->closeReasons(), std::vector<Qel::String>{"no agent profile"});
  // The database drops its references from inside the departure notification.
  loop->runOnce();
  EXPECT_TRUE(db->held.empty());
}

TEST_F(LoopbackAgentTest, ASecondAgentUnderALiveNameIsRefused) {
  agent->connect();
  auto other = LoopbackAgent::loopbackAgentNew(loop, "agentA");
  EXPECT_THROW(other->connect(), Qel::NameInUseException);
}

using LoopbackAgentDeathTest = LoopbackAgentTest;

TEST_F(LoopbackAgentDeathTest, ContractViolations) {
  EXPECT_DEATH(LoopbackAgent::loopbackAgentNew(nullptr, "a"),
               "\"a loopback agent needs an event loop\"");
  EXPECT_DEATH(LoopbackAgent::loopbackAgentNew(loop, ""), "\"a loopback agent needs a name\"");
  EXPECT_DEATH(agent->answerTurnsIs(0), "\"answers come on a later loop turn\"");
  EXPECT_DEATH(agent->answerDelayIs(-1), "\"answer delay must be finite, not negative\"");
  EXPECT_DEATH(agent->pathStateIs("/a", PathState()),
               "\"path state of an agent that is not connected\"");
}

}  // namespace
