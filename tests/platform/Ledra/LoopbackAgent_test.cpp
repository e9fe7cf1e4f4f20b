// The loopback agent peer driven by an event loop on a simulated clock: connecting, answering
// after turns or a delay, holding and releasing answers out of order, failures with their text,
// the per-path states, closing from either side and reconnecting.
#include "Ledra/LoopbackAgent.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "Ledra/ConnMgrHelper.h"
#include "Qel/Exception.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/SimulatedClock.h"
#include "support/LeakCheck.h"

namespace {

using Ledra::ConnMgrHelper;
using Ledra::LoopbackAgent;
using Ledra::PassiveConnectionStatus;
using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;
using PathState = MountTable::PathState;

// The database side as it appears to a connection: watches the status directory, binds a record
// watcher to each record that appears (noting what it saw when the record reported connected),
// holds the connection's demuxer and table while the record exists and drops them when it
// leaves, and can close connections from inside onConnected.
class Database : public Ledra::ConnectionStatusDir::NotifieeConst {
 public:
  struct Held;
  class RecordWatch : public PassiveConnectionStatus::NotifieeConst {
   public:
    RecordWatch(Database* db, Qel::Name name) : db_(db), name_(std::move(name)) {}
    void onConnected() override { db_->connected(name_, *notifier()); }

   private:
    Database* db_;
    Qel::Name name_;
  };
  struct Held {
    std::unique_ptr<RecordWatch> watch;
    Qel::NboAttrLog::Demuxer::Ptr demuxer;
    MountTable::Ptr table;
  };

  Database() { notifierIs(ConnMgrHelper::connectionStatusDir()); }

  std::vector<std::string> events;
  std::map<Qel::Name, Held> held;
  Qel::String closeWith;  // non-empty: close every connection that reports connected

  void onPassiveConnectionStatus(Qel::Name const& name) override {
    auto record = notifier()->passiveConnectionStatus(name);
    if (!record) {
      events.push_back("-" + name);
      held.erase(name);  // may release the last reference to the demuxer and its table
      return;
    }
    events.push_back("+" + name);
    Held& h = held[name];
    h.watch = std::make_unique<RecordWatch>(this, name);
    h.watch->notifierIs(record);
  }

  void connected(Qel::Name const& name, PassiveConnectionStatus const& s) {
    events.push_back(std::string(s.connected() ? "connected " : "disconnected ") + name +
                     (s.established() ? " established" : "") + " state " +
                     std::to_string(s.state()) + " agent " + s.agentName() + " '" +
                     s.agentString() + "'" + (s.whiteList() ? " whiteList" : ""));
    if (!s.connected()) return;
    Held& h = held[name];
    h.demuxer = Qel::NboAttrLog::demuxerMgr()->demuxer(name);
    h.table = h.demuxer ? h.demuxer->peer() : nullptr;
    if (!closeWith.empty()) h.demuxer->close(closeWith, true, false, true);
  }
};

class LoopbackAgentTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    db = std::make_unique<Database>();
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

  void mount(char const* path, char const* flags, char const* type = "") {
    agent->peerMountTable()->confIs(
        MountTable::Conf(path, type, MountFlags::fromLetters(flags), agent->connectionName()));
  }
  MountTable::Status status(char const* path) const {
    return agent->peerMountTable()->status(ConnectDesc(path));
  }
  Qel::U32 outstanding() const { return agent->demuxer()->flowOutMountRequests(); }

  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  std::unique_ptr<Database> db;
  LoopbackAgent::Ptr agent;
};

TEST_F(LoopbackAgentTest, ConnectAnnouncesTheConnectionWithEveryFieldSet) {
  auto demuxer = agent->connect();
  ASSERT_TRUE(demuxer);
  EXPECT_TRUE(agent->connected());
  EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"), demuxer);
  EXPECT_EQ(demuxer->peer(), agent->peerMountTable());
  EXPECT_EQ(demuxer->peer()->currentVersion(), 5u);
  EXPECT_EQ(demuxer->epoch(), 1u);
  EXPECT_EQ(db->events,
            (std::vector<std::string>{"+agentA",
                                      "connected agentA established state 2 agent agentA "
                                      "'agentA slot=3'"}));
  EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"),
            agent->connectionStatus());
  // Connecting again while connected hands out the same connection.
  EXPECT_EQ(agent->connect(), demuxer);
  EXPECT_EQ(agent->epoch(), 1u);
}

TEST_F(LoopbackAgentTest, WhiteListAndVersionAreAnnounced) {
  agent->whiteListIs(true);
  agent->currentVersionIs(4);
  agent->connect();
  EXPECT_EQ(db->events.back(),
            "connected agentA established state 2 agent agentA 'agentA slot=3' whiteList");
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 4u);
  agent->currentVersionIs(5);
  EXPECT_EQ(agent->peerMountTable()->currentVersion(), 5u);
}

TEST_F(LoopbackAgentTest, RequestIsRecordedAndAnsweredOnTheNextTurn) {
  agent->connect();
  mount("/ledra/Ledra", "Cnp");
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
  unsigned const turns = GetParam();
  agent->answerTurnsIs(turns);
  agent->connect();
  mount("/a", "Cnp");
  for (unsigned i = 1; i < turns; ++i) {
    loop->runOnce();
    EXPECT_EQ(status("/a"), MountTable::inProgress_) << "after turn " << i;
  }
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

INSTANTIATE_TEST_SUITE_P(Turns, AnswerTurnsTest, ::testing::Values(1u, 2u, 5u));

TEST_F(LoopbackAgentTest, DelayedAnswerComesAtTheDelayOnTheSimulatedClock) {
  agent->answerDelayIs(2.5);
  agent->connect();
  mount("/a", "Cnp");
  loop->runFor(2.4);
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  Qel::Time answeredAt = -1;
  EXPECT_TRUE(loop->runUntil(
      [&] {
        if (status("/a") != MountTable::complete_) return false;
        answeredAt = clock->now();
        return true;
      },
      10));
  EXPECT_DOUBLE_EQ(answeredAt, 2.5);
}

TEST_F(LoopbackAgentTest, HeldAnswersAreReleasedOutOfOrder) {
  agent->holdAnswersIs(true);
  agent->connect();
  mount("/a", "Cnp");
  mount("/b", "Cnp");
  mount("/c", "Cnp");
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
  mount("/b", "Cnp");
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::failed_);
  EXPECT_EQ(agent->peerMountTable()->stat(ConnectDesc("/a")).exceptionDesc(),
            "Unknown type: No::Such");
  EXPECT_FALSE(agent->peerMountTable()->hasPathState("/a"));
  EXPECT_EQ(status("/b"), MountTable::complete_);
  // The failure is decided when the answer is given: clearing it lets the next mount succeed.
  agent->mountFailureIs("/a", "");
  mount("/a", "Cnp");
  loop->runOnce();
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

// Sees, at each change of the outstanding count, the path state of /a.
class CountWatch : public Qel::NboAttrLog::Demuxer::NotifieeConst {
 public:
  std::vector<PathState> seen;
  void onFlowOutMountRequests() override { seen.push_back(notifier()->peer()->pathState("/a")); }
};

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
  mount("/a", "Cnp");
  loop->runOnce();
  ASSERT_EQ(watch.seen.size(), 2u);
  EXPECT_EQ(watch.seen[0], PathState());
  EXPECT_EQ(watch.seen[1], wanted);
  EXPECT_EQ(agent->peerMountTable()->pathState("/a"), wanted);
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

PathState state(bool mounted, bool complete, bool synced, bool mountPoint, bool monitoring = false,
                Qel::U64 eid = 0) {
  PathState s;
  s.mountedIs(mounted).completeIs(complete).synchronisedIs(synced).mountPointIs(mountPoint);
  return s.monitoringIs(monitoring).monitoringEidIs(eid);
}

INSTANTIATE_TEST_SUITE_P(
    States, PathStateOnAnswerTest,
    ::testing::Values(HeldState{"completeNotSynced", state(true, true, false, true)},
                      HeldState{"notAMountPoint", state(true, true, false, false)},
                      HeldState{"syncedButMonitoring", state(true, true, true, true, true, 7)},
                      HeldState{"notComplete", state(true, false, false, true)},
                      HeldState{"synchronised", state(true, true, true, true)}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(LoopbackAgentTest, HeldPathIsSynchronisedLater) {
  agent->pathStateOnAnswerIs("/a", state(true, true, false, true));
  agent->connect();
  mount("/a", "Cnp");
  loop->runOnce();
  EXPECT_FALSE(agent->peerMountTable()->pathState("/a").synchronised());
  agent->pathStateIs("/a", state(true, true, true, true));
  EXPECT_TRUE(agent->peerMountTable()->pathState("/a").synchronised());
  agent->pathStateOnAnswerDel("/a");
  EXPECT_TRUE(agent->pathStateOnAnswer("/a").synchronised());
}

TEST_F(LoopbackAgentTest, DatabaseCloseTakesEffectOnALaterTurn) {
  agent->connect();
  auto record = agent->connectionStatus();
  agent->demuxer()->close("invalid mount profile", true, false, true);
  EXPECT_EQ(agent->closeReasons(), (std::vector<Qel::String>{"invalid mount profile"}));
  EXPECT_FALSE(agent->connected());
  // Still there in this turn: nothing is destroyed under the closing handler.
  EXPECT_TRUE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
  EXPECT_TRUE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"));
  EXPECT_TRUE(record->connected());
  loop->runOnce();
  EXPECT_FALSE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
  EXPECT_FALSE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"));
  EXPECT_FALSE(record->connected());
  EXPECT_FALSE(record->established());
  EXPECT_EQ(record->state(), PassiveConnectionStatus::kStateClosed);
  EXPECT_FALSE(agent->demuxer());
  EXPECT_EQ(db->events.back(), "-agentA");
}

TEST_F(LoopbackAgentTest, CloseWithoutNotifyingThePeerGivesNoReason) {
  agent->connect();
  agent->demuxer()->close("internal", false, false, true);
  EXPECT_EQ(agent->closeReasons(), (std::vector<Qel::String>{""}));
  loop->runOnce();
}

TEST_F(LoopbackAgentTest, ClosedConnectionGivesNoMoreAnswers) {
  agent->connect();
  mount("/a", "Cnp");
  auto table = agent->peerMountTable();
  agent->demuxer()->close("bye", true, false, true);
  loop->runFor(1);
  EXPECT_EQ(table->status(ConnectDesc("/a")), MountTable::inProgress_);
  EXPECT_FALSE(table->hasPathState("/a"));
}

TEST_F(LoopbackAgentTest, ReconnectAfterCloseAnnouncesANewRecord) {
  agent->connect();
  auto first = agent->demuxer();
  agent->demuxer()->close("no agent profile", true, false, true);
  loop->runOnce();
  db->events.clear();
  auto second = agent->connect();
  EXPECT_NE(second, first);
  EXPECT_EQ(second->epoch(), 2u);
  EXPECT_EQ(db->events.front(), "+agentA");
  mount("/a", "Cnp");
  EXPECT_EQ(agent->mountRequests().back().epoch, 2u);
  EXPECT_TRUE(first->closed());
}

TEST_F(LoopbackAgentTest, CloseKeepingTheStatusLeavesTheRecordUntilReconnect) {
  agent->connect();
  agent->demuxer()->close("kept", true, false, false);
  loop->runOnce();
  auto stale = ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA");
  ASSERT_TRUE(stale);
  EXPECT_FALSE(stale->connected());
  EXPECT_EQ(stale->state(), PassiveConnectionStatus::kStateClosed);
  EXPECT_FALSE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"));
  db->events.clear();
  agent->connect();
  EXPECT_EQ(db->events[0], "-agentA");
  EXPECT_EQ(db->events[1], "+agentA");
  EXPECT_NE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"), stale);
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
  EXPECT_TRUE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
}

TEST_F(LoopbackAgentTest, AgentDisconnectClosesAtOnceAndLeavesOnALaterTurn) {
  agent->connect();
  auto demuxer = agent->demuxer();
  agent->disconnect("agent restarting");
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(demuxer->closeReason(), "agent restarting");
  EXPECT_TRUE(agent->closeReasons().empty());
  EXPECT_TRUE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
  loop->runOnce();
  EXPECT_FALSE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
  EXPECT_FALSE(agent->connected());
}

TEST_F(LoopbackAgentTest, DatabaseClosingFromInsideOnConnectedIsSafe) {
  db->closeWith = "no agent profile";
  auto demuxer = agent->connect();
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(agent->closeReasons(), (std::vector<Qel::String>{"no agent profile"}));
  demuxer = nullptr;
  // The database drops its references from inside the departure notification.
  loop->runOnce();
  EXPECT_TRUE(db->held.empty());
  EXPECT_EQ(db->events.back(), "-agentA");
}

TEST_F(LoopbackAgentTest, ConnectionNameMayDifferFromTheAgentName) {
  agent->connectionNameIs("agentA.conn");
  agent->connect();
  EXPECT_TRUE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA.conn"));
  EXPECT_EQ(agent->connectionStatus()->agentName(), "agentA");
  EXPECT_EQ(db->events.front(), "+agentA.conn");
}

TEST_F(LoopbackAgentTest, SecondAgentUnderALiveNameIsRefusedAndLeavesNothing) {
  agent->connect();
  auto other = LoopbackAgent::loopbackAgentNew(loop, "agentA");
  EXPECT_THROW(other->connect(), Qel::NameInUseException);
  EXPECT_FALSE(other->connected());
  EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"), agent->demuxer());
}

TEST_F(LoopbackAgentTest, DestroyingTheAgentTearsItsConnectionDownAtOnce) {
  agent->connect();
  mount("/a", "Cnp");
  agent = nullptr;
  EXPECT_FALSE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("agentA"));
  EXPECT_FALSE(Qel::NboAttrLog::demuxerMgr()->demuxer("agentA"));
  // The posted answer finds the connection gone.
  loop->runOnce();
}

TEST_F(LoopbackAgentTest, ServedPathsReachTheAgent) {
  agent->connect();
  agent->demuxer()->pathServedIs("/a", true);
  EXPECT_EQ(agent->servedPaths(), (std::vector<std::pair<Qel::String, bool>>{{"/a", true}}));
}

}  // namespace
