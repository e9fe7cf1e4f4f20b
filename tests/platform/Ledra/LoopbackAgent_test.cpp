// The loopback agent peer driven by an event loop on a simulated clock: what the simulation cannot
// see of it (the chosen turns, delays, held answers, failure texts, path states and the order of
// teardown and reconnection).
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
  agent->connectionNameIs("agentA.conn");
  agent->whiteListIs(true);
  agent->currentVersionIs(4);
  auto demuxer = agent->connect();
  EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA.conn"), demuxer);
  EXPECT_EQ(demuxer->epoch(), 1u);
  EXPECT_EQ(db->events, (std::vector<std::string>{"+agentA.conn",
                                                  "connected agentA.conn established state 2 "
                                                  "agent agentA 'agentA slot=3' whiteList"}));
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 4u);
  EXPECT_EQ(agent->connect(), demuxer);  // connecting while connected changes nothing
  // While connected, a new version reaches the table at once.
  agent->currentVersionIs(5);
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 5u);
}

// Sees, at each change of the outstanding count, the path state of /a.
class CountWatch : public Qel::NboAttrLog::Demuxer::NotifieeConst {
 public:
  std::vector<PathState> seen;
  void onFlowOutMountRequests() override { seen.push_back(notifier()->peer()->pathState("/a")); }
};

// A request is recorded and answered after the chosen number of turns; the answer sets the chosen
// path state before the count falls, and a failure carries its text and sets none.
class AnswerTurnsTest : public LoopbackAgentTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(AnswerTurnsTest, AnswerComesAfterExactlyTheChosenTurns) {
  PathState wanted;
  wanted.mountedIs(true).completeIs(true).monitoringIs(true).monitoringEidIs(7);
  agent->pathStateOnAnswerIs("/a", wanted);
  agent->mountFailureIs("/b", "Unknown type: No::Such");
  agent->answerTurnsIs(GetParam());
  agent->connect();
  CountWatch watch;
  watch.notifierIs(agent->demuxer());
  mount("/a");
  mount("/b", "wiSp", "No::Such");
  EXPECT_EQ(agent->mountRequests(),
            (std::vector<LoopbackAgent::MountRequest>{{"/a", "Cnp", "", 1, 1},
                                                      {"/b", "wiSp", "No::Such", 2, 1}}));
  for (unsigned i = 1; i < GetParam(); ++i) {
    loop->runOnce();
    EXPECT_EQ(status("/a"), MountTable::inProgress_) << "after turn " << i;
  }
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
  EXPECT_EQ(watch.seen, (std::vector<PathState>{PathState(), PathState(), wanted, wanted}));
  EXPECT_EQ(agent->peerMountTable()->stat(ConnectDesc("/b")),
            MountTable::Stat(MountTable::failed_, "Unknown type: No::Such"));
  EXPECT_FALSE(agent->peerMountTable()->hasPathState("/b"));
}

INSTANTIATE_TEST_SUITE_P(Turns, AnswerTurnsTest, ::testing::Values(1u, 2u, 5u),
                         [](auto const& info) { return "Turns" + std::to_string(info.param); });

TEST_F(LoopbackAgentTest, DelayedAnswerComesAtTheDelayOnTheSimulatedClock) {
  agent->answerDelayIs(2.5);
  agent->connect();
  mount("/a");
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
  EXPECT_TRUE(agent->answerRelease("/b"));
  EXPECT_FALSE(agent->answerRelease("/b"));
  EXPECT_EQ(status("/b"), MountTable::complete_);
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  agent->holdAnswersIs(false);
  mount("/d");  // scheduled, not held: no release answers it early
  EXPECT_FALSE(agent->answerRelease("/d"));
  EXPECT_EQ(agent->answersRelease(), 2u);
  EXPECT_EQ(outstanding(), 1u);
}

// The database closes; the connection goes on a later turn, its answers with it, and the agent
// may connect again.
TEST_F(LoopbackAgentTest, DatabaseCloseTakesEffectOnALaterTurnThenTheAgentMayReconnect) {
  auto const first = agent->connect();
  auto const r = record();
  auto const table = agent->peerMountTable();
  mount("/a");
  first->close("invalid mount profile", {.notifyPeer = true, .removeStatus = true});
  EXPECT_EQ(agent->closeReasons(), Reasons{"invalid mount profile"});
  EXPECT_FALSE(agent->connected());
  EXPECT_TRUE(record());  // nothing is destroyed under the closing handler
  loop->runOnce();
  EXPECT_FALSE(record());
  EXPECT_FALSE(listed());
  EXPECT_FALSE(r->connected());
  EXPECT_EQ(r->state(), PassiveConnectionStatus::kStateClosed);
  loop->runFor(1);
  EXPECT_EQ(table->status(ConnectDesc("/a")), MountTable::inProgress_);
  auto const second = agent->connect();
  EXPECT_EQ(second->epoch(), 2u);
  mount("/b");
  EXPECT_EQ(agent->mountRequests().back().epoch, 2u);
}

// A close that neither tells the peer nor removes the record, as the database's own teardown.
TEST_F(LoopbackAgentTest, CloseKeepingTheStatusLeavesTheRecordUntilReconnect) {
  agent->connect();
  agent->demuxer()->close("kept", {});
  EXPECT_EQ(agent->closeReasons(), Reasons{""});
  loop->runOnce();
  auto const stale = record();
  ASSERT_TRUE(stale);
  EXPECT_FALSE(stale->connected());
  db->events.clear();
  agent->connect();
  EXPECT_EQ(db->events[0], "-agentA");
  EXPECT_EQ(db->events[1], "+agentA");
}

TEST_F(LoopbackAgentTest, ReconnectBeforeTheTeardownFinishesItFirst) {
  agent->connect();
  agent->disconnect("agent restarting");
  EXPECT_EQ(listed()->closeReason(), "agent restarting");
  EXPECT_TRUE(agent->closeReasons().empty());
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

TEST_F(LoopbackAgentTest, DatabaseClosingFromInsideOnConnectedIsSafe) {
  db->closeWith = "no agent profile";
  EXPECT_TRUE(agent->connect()->closed());
  EXPECT_EQ(agent->closeReasons(), Reasons{"no agent profile"});
  // The database drops its references from inside the departure notification.
  loop->runOnce();
  EXPECT_TRUE(db->held.empty());
}

TEST_F(LoopbackAgentTest, ASecondAgentUnderALiveNameIsRefusedDestroyingOneTearsDownAtOnce) {
  agent->connect();
  auto other = LoopbackAgent::loopbackAgentNew(loop, "agentA");
  EXPECT_THROW(other->connect(), Qel::NameInUseException);
  EXPECT_EQ(listed(), agent->demuxer());
  mount("/a");
  agent = nullptr;
  EXPECT_FALSE(record());
  EXPECT_FALSE(listed());
  loop->runOnce();  // the posted answer finds the connection gone
}

}  // namespace
