// The loopback agent peer driven by an event loop on a simulated clock: connecting, answering
// after turns or a delay, holding and releasing answers out of order, failures with their text,
// the per-path states, closing from either side and reconnecting.
#include "Ledra/LoopbackAgent.h"

#include <gtest/gtest.h>

#include <vector>

#include "Qel/Exception.h"
#include "Qel/SimulatedClock.h"
#include "platform/Ledra/DatabaseWatch.h"
#include "support/LeakCheck.h"

namespace {

using Ledra::ConnMgrHelper;
using Ledra::LoopbackAgent;
using Ledra::PassiveConnectionStatus;
using Qel::ConnectDesc;
using Qel::MountTable;
using PathState = MountTable::PathState;
using Reasons = std::vector<Qel::String>;

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

  void mount(char const* path, char const* flags = "Cnp", char const* type = "") {
    agent->peerMountTable()->confIs(
        MountTable::Conf(path, type, Qel::MountFlags::fromLetters(flags), agent->connectionName()));
  }
  MountTable::Status status(char const* path) const {
    return agent->peerMountTable()->status(ConnectDesc(path));
  }
  Qel::U32 outstanding() const { return agent->demuxer()->flowOutMountRequests(); }
  // What the database lists under the agent's name.
  static PassiveConnectionStatus::Ptr record() {
    return ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA");
  }
  static Qel::NboAttrLog::Demuxer::Ptr listed() {
    return Qel::NboAttrLog::demuxerMgr()->demuxer("agentA");
  }

  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  std::unique_ptr<Ledra::test::DatabaseWatch> db;
  LoopbackAgent::Ptr agent;
};

TEST_F(LoopbackAgentTest, ConnectAnnouncesTheConnectionWithEveryFieldSet) {
  auto demuxer = agent->connect();
  ASSERT_TRUE(demuxer);
  EXPECT_TRUE(agent->connected());
  EXPECT_EQ(listed(), demuxer);
  EXPECT_EQ(demuxer->peer(), agent->peerMountTable());
  EXPECT_EQ(demuxer->peer()->currentVersion(), 5u);
  EXPECT_EQ(demuxer->epoch(), 1u);
  EXPECT_EQ(db->events,
            (std::vector<std::string>{"+agentA",
                                      "connected agentA established state 2 agent agentA "
                                      "'agentA slot=3'"}));
  EXPECT_EQ(record(), agent->connectionStatus());
  // Connecting again while connected hands out the same connection.
  EXPECT_EQ(agent->connect(), demuxer);
  EXPECT_EQ(agent->epoch(), 1u);
  demuxer->pathServedIs("/a", true);
  EXPECT_EQ(agent->servedPaths(), (std::vector<std::pair<Qel::String, bool>>{{"/a", true}}));
}

TEST_F(LoopbackAgentTest, ConnectionNameWhiteListAndVersionAreAnnounced) {
  agent->connectionNameIs("agentA.conn");
  agent->whiteListIs(true);
  agent->currentVersionIs(4);
  agent->connect();
  EXPECT_TRUE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA.conn"));
  EXPECT_EQ(db->events, (std::vector<std::string>{"+agentA.conn",
                                                  "connected agentA.conn established state 2 "
                                                  "agent agentA 'agentA slot=3' whiteList"}));
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 4u);
  // While connected, a new version reaches the table at once.
  agent->currentVersionIs(5);
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 5u);
}

TEST_F(LoopbackAgentTest, RequestIsRecordedAndAnsweredOnTheNextTurn) {
  agent->connect();
  mount("/ledra/Ledra");
  mount("/ledra/Ledra/sys", "wiSp", "Qel::Dir");
  EXPECT_EQ(agent->mountRequests(), (std::vector<LoopbackAgent::MountRequest>{
                                        {"/ledra/Ledra", "Cnp", "", 1, 1},
                                        {"/ledra/Ledra/sys", "wiSp", "Qel::Dir", 2, 1}}));
  EXPECT_EQ(status("/ledra/Ledra"), MountTable::inProgress_);
  EXPECT_EQ(outstanding(), 2u);
  EXPECT_EQ(agent->answersScheduled(), 2u);
  loop->runOnce();
  EXPECT_EQ(status("/ledra/Ledra"), MountTable::complete_);
  EXPECT_EQ(status("/ledra/Ledra/sys"), MountTable::complete_);
  EXPECT_EQ(outstanding(), 0u);
  PathState const s = agent->peerMountTable()->pathState("/ledra/Ledra");
  EXPECT_TRUE(s.mounted() && s.complete() && s.mountPoint() && s.synchronised());
  EXPECT_FALSE(s.monitoring());
}

class AnswerTurnsTest : public LoopbackAgentTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(AnswerTurnsTest, AnswerComesAfterExactlyTheChosenTurns) {
  agent->answerTurnsIs(GetParam());
  agent->connect();
  mount("/a");
  for (unsigned i = 1; i < GetParam(); ++i) {
    loop->runOnce();
    EXPECT_EQ(status("/a"), MountTable::inProgress_) << "after turn " << i;
  }
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

INSTANTIATE_TEST_SUITE_P(Turns, AnswerTurnsTest, ::testing::Values(1u, 2u, 5u),
                         [](auto const& info) { return "Turns" + std::to_string(info.param); });

TEST_F(LoopbackAgentTest, DelayedAnswerComesAtTheDelayOnTheSimulatedClock) {
  agent->answerDelayIs(2.5);
  agent->connect();
  mount("/a");
  loop->runFor(2.4);
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  Qel::Time seenAt = -1;
  EXPECT_TRUE(loop->runUntil(
      [&] {
        seenAt = clock->now();
        return status("/a") == MountTable::complete_;
      },
      10));
  EXPECT_DOUBLE_EQ(seenAt, 2.5);
}

TEST_F(LoopbackAgentTest, HeldAnswersAreReleasedOutOfOrder) {
  agent->holdAnswersIs(true);
  agent->connect();
  mount("/a");
  mount("/b");
  mount("/c");
  loop->runFor(10);
  EXPECT_EQ(agent->heldAnswers(), (std::vector<Qel::String>{"/a", "/b", "/c"}));
  EXPECT_EQ(agent->answersScheduled(), 0u);
  EXPECT_TRUE(agent->answerRelease("/b"));
  EXPECT_FALSE(agent->answerRelease("/b"));
  EXPECT_EQ(status("/b"), MountTable::complete_);
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  EXPECT_EQ(outstanding(), 2u);
  EXPECT_EQ(agent->answersRelease(), 2u);
  EXPECT_EQ(outstanding(), 0u);
  EXPECT_TRUE(agent->heldAnswers().empty());
}

TEST_F(LoopbackAgentTest, FailedMountCarriesItsExceptionTextAndGetsNoPathState) {
  agent->mountFailureIs("/a", "Unknown type: No::Such");
  agent->connect();
  mount("/a", "wnp", "No::Such");
  mount("/b");
  loop->runOnce();
  EXPECT_EQ(agent->peerMountTable()->stat(ConnectDesc("/a")),
            MountTable::Stat(MountTable::failed_, "Unknown type: No::Such"));
  EXPECT_FALSE(agent->peerMountTable()->hasPathState("/a"));
  EXPECT_EQ(status("/b"), MountTable::complete_);
  // The failure is decided when the answer is given: clearing it lets the next mount succeed.
  agent->mountFailureIs("/a", "");
  mount("/a");
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

// Sees, at each change of the outstanding count, the path state of /a.
class CountWatch : public Qel::NboAttrLog::Demuxer::NotifieeConst {
 public:
  std::vector<PathState> seen;
  void onFlowOutMountRequests() override { seen.push_back(notifier()->peer()->pathState("/a")); }
};

PathState state(bool mounted, bool complete, bool synced, bool mountPoint, bool monitoring = false,
                Qel::U64 eid = 0) {
  PathState s;
  s.mountedIs(mounted).completeIs(complete).synchronisedIs(synced).mountPointIs(mountPoint);
  return s.monitoringIs(monitoring).monitoringEidIs(eid);
}

struct HeldState {
  char const* name;
  PathState state;
};

class PathStateOnAnswerTest : public LoopbackAgentTest,
                              public ::testing::WithParamInterface<HeldState> {};

TEST_P(PathStateOnAnswerTest, AnswerSetsTheChosenStateBeforeTheCountFalls) {
  PathState const wanted = GetParam().state;
  agent->pathStateOnAnswerIs("/a", wanted);
  agent->connect();
  CountWatch watch;
  watch.notifierIs(agent->demuxer());
  mount("/a");
  loop->runOnce();
  EXPECT_EQ(watch.seen, (std::vector<PathState>{PathState(), wanted}));
  EXPECT_EQ(agent->peerMountTable()->pathState("/a"), wanted);
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

INSTANTIATE_TEST_SUITE_P(
    States, PathStateOnAnswerTest,
    ::testing::Values(HeldState{"completeNotSynced", state(true, true, false, true)},
                      HeldState{"syncedButMonitoring", state(true, true, true, true, true, 7)},
                      HeldState{"synchronised", state(true, true, true, true)}),
    [](auto const& info) { return std::string(info.param.name); });

// The database closes; the connection goes on a later turn, its answers with it, and the agent
// may connect again.
TEST_F(LoopbackAgentTest, DatabaseCloseTakesEffectOnALaterTurnThenTheAgentMayReconnect) {
  auto const first = agent->connect();
  auto const r = record();
  auto const table = agent->peerMountTable();
  mount("/a");
  first->close("invalid mount profile", true, false, true);
  EXPECT_EQ(agent->closeReasons(), Reasons{"invalid mount profile"});
  EXPECT_FALSE(agent->connected());
  // Still there in this turn: nothing is destroyed under the closing handler.
  EXPECT_TRUE(record());
  EXPECT_TRUE(listed());
  EXPECT_TRUE(r->connected());
  loop->runOnce();
  EXPECT_FALSE(record());
  EXPECT_FALSE(listed());
  EXPECT_FALSE(r->connected());
  EXPECT_FALSE(r->established());
  EXPECT_EQ(r->state(), PassiveConnectionStatus::kStateClosed);
  EXPECT_FALSE(agent->demuxer());
  EXPECT_EQ(db->events.back(), "-agentA");
  loop->runFor(1);
  EXPECT_EQ(table->status(ConnectDesc("/a")), MountTable::inProgress_);
  EXPECT_FALSE(table->hasPathState("/a"));

  db->events.clear();
  auto const second = agent->connect();
  EXPECT_NE(second, first);
  EXPECT_EQ(second->epoch(), 2u);
  EXPECT_EQ(db->events.front(), "+agentA");
  mount("/b");
  EXPECT_EQ(agent->mountRequests().back().epoch, 2u);
  EXPECT_TRUE(first->closed());
}

// A close that neither tells the peer nor removes the record, as the database's own teardown.
TEST_F(LoopbackAgentTest, CloseKeepingTheStatusLeavesTheRecordUntilReconnect) {
  agent->connect();
  agent->demuxer()->close("kept", false, false, false);
  EXPECT_EQ(agent->closeReasons(), Reasons{""});
  loop->runOnce();
  auto const stale = record();
  ASSERT_TRUE(stale);
  EXPECT_FALSE(stale->connected());
  EXPECT_EQ(stale->state(), PassiveConnectionStatus::kStateClosed);
  EXPECT_FALSE(listed());
  db->events.clear();
  agent->connect();
  EXPECT_EQ(db->events[0], "-agentA");
  EXPECT_EQ(db->events[1], "+agentA");
  EXPECT_NE(record(), stale);
}

TEST_F(LoopbackAgentTest, ReconnectBeforeTheTeardownFinishesItFirst) {
  agent->connect();
  agent->demuxer()->close("quick", true, false, true);
  db->events.clear();
  agent->connect();
  ASSERT_GE(db->events.size(), 3u);
  EXPECT_EQ(db->events[0], "disconnected agentA state 3 agent agentA 'agentA slot=3'");
  EXPECT_EQ(db->events[1], "-agentA");
  EXPECT_EQ(db->events[2], "+agentA");
  // The old connection's posted teardown does nothing to the new one.
  loop->runOnce();
  EXPECT_TRUE(agent->connected());
  EXPECT_TRUE(record());
}

TEST_F(LoopbackAgentTest, AgentDisconnectClosesAtOnceAndLeavesOnALaterTurn) {
  agent->connect();
  auto demuxer = agent->demuxer();
  agent->disconnect("agent restarting");
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(demuxer->closeReason(), "agent restarting");
  EXPECT_TRUE(agent->closeReasons().empty());
  EXPECT_TRUE(record());
  loop->runOnce();
  EXPECT_FALSE(record());
  EXPECT_FALSE(agent->connected());
}

TEST_F(LoopbackAgentTest, DatabaseClosingFromInsideOnConnectedIsSafe) {
  db->closeWith = "no agent profile";
  auto demuxer = agent->connect();
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(agent->closeReasons(), Reasons{"no agent profile"});
  demuxer = nullptr;
  // The database drops its references from inside the departure notification.
  loop->runOnce();
  EXPECT_TRUE(db->held.empty());
  EXPECT_EQ(db->events.back(), "-agentA");
}

TEST_F(LoopbackAgentTest, SecondAgentUnderALiveNameIsRefusedAndLeavesNothing) {
  agent->connect();
  auto other = LoopbackAgent::loopbackAgentNew(loop, "agentA");
  EXPECT_THROW(other->connect(), Qel::NameInUseException);
  EXPECT_FALSE(other->connected());
  EXPECT_EQ(listed(), agent->demuxer());
}

TEST_F(LoopbackAgentTest, DestroyingTheAgentTearsItsConnectionDownAtOnce) {
  agent->connect();
  mount("/a");
  agent = nullptr;
  EXPECT_FALSE(record());
  EXPECT_FALSE(listed());
  // The posted answer finds the connection gone.
  loop->runOnce();
}

}  // namespace
