// The demuxer of one agent connection: mount requests through its peer table, answers in and out
// of order, the low-priority property, the three close flags, and the registry.
#include "Qel/NboAttrLog/Demuxer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Qel/Exception.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "support/ExactText.h"
#include "support/LeakCheck.h"

namespace {

using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;
using Qel::NboAttrLog::Demuxer;
using Strings = std::vector<std::string>;

// Records what the demuxer hands to the wire, one line per call.
class RecordingTransport : public Qel::NboAttrLog::Transport {
 public:
  using Ptr = Qel::Ptr<RecordingTransport>;
  static Ptr make() { return Ptr(new RecordingTransport); }
  Strings sent;

  void sendMountRequest(Qel::String const& uri, Qel::String const& type, Qel::U32 seq) override {
    sent.push_back("request " + uri + " (" + type + ") #" + std::to_string(seq));
  }
  void close(Qel::String const& reason, bool removeStatus) override {
    sent.push_back("close '" + reason + "'" + (removeStatus ? " removeStatus" : ""));
  }
  void pathServed(Qel::String const& path, bool s) override {
    sent.push_back("served " + path + (s ? " yes" : " no"));
  }
};

// Logs demuxer and table events in one sequence, with what the table says at that moment.
class EventLog : public Demuxer::NotifieeConst {
 public:
  struct TableWatch : MountTable::NotifieeConst {
    EventLog* log = nullptr;
    void onStatus(ConnectDesc const& cd) override {
      log->events.push_back("status " + cd.path() + " " + log->demuxer->peer()->stat(cd).text());
    }
  };
  explicit EventLog(Demuxer::Ptr const& d) : demuxer(d) {
    notifierIs(d);
    table.log = this;
    table.notifierIs(d->peer());
  }
  Demuxer::Ptr demuxer;
  TableWatch table;
  Strings events;
  std::function<void()> onCount;

  void onFlowOutMountRequests() override {
    events.push_back("count " + std::to_string(demuxer->flowOutMountRequests()));
    if (onCount) onCount();
  }
  void onSeqno() override { events.push_back("seqno " + std::to_string(demuxer->seqno())); }
  void onLowMountPrio() override { events.push_back("lowMountPrio"); }
  void onClosed() override { events.push_back("closed"); }
  void onCloseReason() override { events.push_back("reason " + demuxer->closeReason()); }
  void onPathServed(Qel::String const& p) override { events.push_back("served " + p); }
};

class DemuxerTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    wire = RecordingTransport::make();
    demuxer = Demuxer::demuxerNew("agentA", nullptr, wire, 3);
    log = std::make_unique<EventLog>(demuxer);
  }
  void TearDown() override {
    log.reset();
    demuxer = nullptr;
    wire = nullptr;
    LeakCheckedTest::TearDown();
  }
  void mount(char const* path, char const* flags = "Cnp", char const* type = "") {
    demuxer->peer()->confIs(
        MountTable::Conf(path, type, MountFlags::fromLetters(flags), demuxer->name()));
  }
  MountTable::Status status(char const* path) { return demuxer->peer()->status(ConnectDesc(path)); }
  Strings sent() { return std::exchange(wire->sent, {}); }
  Strings events() { return std::exchange(log->events, {}); }

  RecordingTransport::Ptr wire;
  Demuxer::Ptr demuxer;
  std::unique_ptr<EventLog> log;
};

TEST_F(DemuxerTest, ARequestSetsTheStatusThenTheSeqnoThenTheCountAndGoesOut) {
  mount("/a");
  EXPECT_EQ(events(), (Strings{"status /a inProgress_", "seqno 1", "count 1"}));
  EXPECT_EQ(sent(), (Strings{"request /a?flags=Cnp () #1"}));
  mount("/a");  // the same configuration again is no change
  mount("/b", "wiSp", "Qel::Dir");
  EXPECT_EQ(sent(), (Strings{"request /b?flags=wiSp (Qel::Dir) #2"}));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 2u);
  EXPECT_EQ(demuxer->flowOutMountRequests("/a"), 1u);
}

TEST_F(DemuxerTest, AnswersInAnyOrderSetTheStatusBeforeTheCountFalls) {
  mount("/a");
  mount("/b");
  mount("/c");
  events();
  EXPECT_TRUE(demuxer->mountAnswered("/c", true, ""));
  EXPECT_TRUE(demuxer->mountAnswered("/a", false, "Unknown type: No::Such"));
  EXPECT_EQ(events(), (Strings{"status /c complete_", "count 2",
                               "status /a failed_: Unknown type: No::Such", "count 1"}));
  EXPECT_EQ(status("/b"), MountTable::inProgress_);
  // Answers nobody waits for change nothing.
  EXPECT_FALSE(demuxer->mountAnswered("/never", true, ""));
  EXPECT_FALSE(demuxer->mountAnswered("/c", false, "late"));
  EXPECT_EQ(status("/c"), MountTable::complete_);
  EXPECT_TRUE(events().empty());
  // A remount before the answer counts twice; the answers come in request order.
  mount("/b", "wnp");
  EXPECT_EQ(demuxer->flowOutMountRequests("/b"), 2u);
  EXPECT_TRUE(demuxer->mountAnswered("/b", true, ""));
  EXPECT_TRUE(demuxer->mountAnswered("/b", false, "refused"));
  EXPECT_EQ(status("/b"), MountTable::failed_);
  EXPECT_EQ(demuxer->flowOutMountRequests(), 0u);
}

TEST_F(DemuxerTest, LowMountPrioAndPathServedNotifyOnChange) {
  demuxer->lowMountPrioIs(false);
  EXPECT_TRUE(events().empty());
  demuxer->lowMountPrioIs(true);
  demuxer->lowMountPrioIs(true);
  EXPECT_EQ(demuxer->lowMountPrioSets(), 3u) << "every set counts";
  demuxer->pathServedIs("/a", true);
  demuxer->pathServedIs("/a", true);
  EXPECT_EQ(events(), (Strings{"lowMountPrio", "served /a"}));
  EXPECT_EQ(sent(), (Strings{"served /a yes"}));
}

TEST_F(DemuxerTest, ImmediateCloseTellsThePeerAndStopsRequests) {
  mount("/a");
  events();
  sent();
  demuxer->close("no agent profile", {.notifyPeer = true, .removeStatus = true});
  EXPECT_EQ(sent(), (Strings{"close 'no agent profile' removeStatus"}));
  EXPECT_EQ(events(), (Strings{"reason no agent profile", "closed"}));
  // The unanswered request stays unanswered; answers are ignored now.
  EXPECT_FALSE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 1u);
  // A configuration installed now is stored and marked failed; nothing goes out.
  mount("/b");
  EXPECT_EQ(demuxer->peer()->stat(ConnectDesc("/b")).text(),
            "failed_: connection closed: no agent profile");
  // The first close wins.
  demuxer->close("other", {.notifyPeer = true});
  EXPECT_EQ(demuxer->closeReason(), "no agent profile");
  EXPECT_TRUE(sent().empty());
}

TEST_F(DemuxerTest, PeerAndSilentClosesGiveThePeerNoReason) {
  demuxer->peerClosed("agent went away");
  EXPECT_EQ(demuxer->closeReason(), "agent went away");
  demuxer->close("later", {.notifyPeer = true, .removeStatus = true});
  EXPECT_TRUE(sent().empty()) << "the peer closed: the transport is not called";

  auto silent = Demuxer::demuxerNew("agentB", nullptr, wire);
  silent->close("invalid profile", {});
  EXPECT_EQ(silent->closeReason(), "invalid profile");
  EXPECT_EQ(sent(), (Strings{"close ''"}));
}

TEST_F(DemuxerTest, DeferredCloseWaitsForOutstandingAnswers) {
  mount("/a");
  mount("/b");
  sent();
  demuxer->close("done", {.notifyPeer = true, .deferred = true, .removeStatus = true});
  EXPECT_FALSE(demuxer->closed());
  EXPECT_TRUE(demuxer->closing());
  mount("/c");  // nothing new goes out while closing
  EXPECT_EQ(status("/c"), MountTable::failed_);
  EXPECT_TRUE(demuxer->mountAnswered("/b", true, ""));
  EXPECT_TRUE(sent().empty());
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(sent(), (Strings{"close 'done' removeStatus"}));

  // With nothing outstanding a deferred close closes at once.
  auto idle = Demuxer::demuxerNew("agentB", nullptr, wire);
  idle->close("idle", {.notifyPeer = true, .deferred = true});
  EXPECT_TRUE(idle->closed());
  EXPECT_EQ(sent(), (Strings{"close 'idle'"}));
}

TEST_F(DemuxerTest, HandlerMayCloseTheConnectionThatNotifiesIt) {
  log->onCount = [&] {
    demuxer->close("closed by handler", {.notifyPeer = true, .removeStatus = true});
  };
  mount("/a");
  EXPECT_TRUE(demuxer->closed());
  // The close came between the count and the send: nothing else reached the wire.
  EXPECT_EQ(sent(), (Strings{"close 'closed by handler' removeStatus"}));
}

TEST_F(DemuxerTest, RegistryFindsDemuxersByConnectionName) {
  auto const& mgr = Qel::NboAttrLog::demuxerMgr();
  mgr->demuxerIs(demuxer);
  mgr->demuxerIs(demuxer);
  EXPECT_EQ(mgr->demuxer("agentA"), demuxer);
  EXPECT_THROW_TEXT(mgr->demuxerIs(Demuxer::demuxerNew("agentA", nullptr, nullptr)),
                    Qel::NameInUseException,
                    "Reinstantiating the demuxer with name agentA not allowed");
  mgr->demuxerDel("agentA");
  EXPECT_EQ(mgr->demuxers(), 0u);
}

using DemuxerDeathTest = DemuxerTest;

TEST_F(DemuxerDeathTest, ATableServesOneConnection) {
  EXPECT_DEATH(Demuxer::demuxerNew("again", demuxer->peer(), nullptr),
               Ledra::test::literal("\"mount table already bound to a connection\""));
}

}  // namespace
