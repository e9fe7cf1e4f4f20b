// The demuxer of one agent connection: mount requests through its peer table, answers in and out
// of order, failures, the low-priority property, the three close flags, and the registry.
#include "Qel/NboAttrLog/Demuxer.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <vector>

#include "Qel/Exception.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "support/LeakCheck.h"

namespace {

using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;
using Qel::NboAttrLog::Demuxer;

// Records what the demuxer hands to the wire.
class RecordingTransport : public Qel::NboAttrLog::Transport {
 public:
  using Ptr = Qel::Ptr<RecordingTransport>;
  struct Request {
    Qel::String uri, type;
    Qel::U32 seqno;
    bool operator==(Request const&) const = default;
  };
  struct Close {
    Qel::String reason;
    bool removeStatus;
    bool operator==(Close const&) const = default;
  };
  static Ptr make() { return Ptr(new RecordingTransport); }

  std::vector<Request> requests;
  std::vector<Close> closes;
  std::vector<std::pair<Qel::String, bool>> served;

  void sendMountRequest(Qel::String const& uri, Qel::String const& type, Qel::U32 seqno) override {
    requests.push_back({uri, type, seqno});
  }
  void close(Qel::String const& reason, bool removeStatus) override {
    closes.push_back({reason, removeStatus});
  }
  void pathServed(Qel::String const& path, bool s) override { served.emplace_back(path, s); }
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
  std::vector<std::string> events;
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
  void mount(char const* path, char const* flags, char const* type = "") {
    demuxer->peer()->confIs(
        MountTable::Conf(path, type, MountFlags::fromLetters(flags), demuxer->name()));
  }
  MountTable::Status status(char const* path) { return demuxer->peer()->status(ConnectDesc(path)); }

  RecordingTransport::Ptr wire;
  Demuxer::Ptr demuxer;
  std::unique_ptr<EventLog> log;
};

TEST_F(DemuxerTest, OutMountIsThePeerTableAndIsBound) {
  EXPECT_EQ(demuxer->outMount(), demuxer->peer());
  EXPECT_EQ(demuxer->peer()->connection(), demuxer.ptr());
  EXPECT_EQ(demuxer->peer()->name(), "agentA");
  EXPECT_EQ(demuxer->epoch(), 3u);
  EXPECT_EQ(demuxer->seqno(), 0u);
}

TEST_F(DemuxerTest, InstallingAConfSendsOneRequestStatusFirstThenCount) {
  mount("/a", "Cnp");
  EXPECT_EQ(log->events, (std::vector<std::string>{"status /a inProgress_", "seqno 1", "count 1"}));
  EXPECT_EQ(wire->requests, (std::vector<RecordingTransport::Request>{{"/a?flags=Cnp", "", 1}}));
  // The same configuration again is no change: no second request.
  mount("/a", "Cnp");
  EXPECT_EQ(wire->requests.size(), 1u);
  mount("/b", "wiSp", "Qel::Dir");
  EXPECT_EQ(wire->requests.back(), (RecordingTransport::Request{"/b?flags=wiSp", "Qel::Dir", 2}));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 2u);
  EXPECT_EQ(demuxer->flowOutMountRequests("/a"), 1u);
}

TEST_F(DemuxerTest, AnswerSetsStatusBeforeTheCountFalls) {
  mount("/a", "Cnp");
  MountTable::Status seenAtCount = MountTable::none_;
  log->onCount = [&] { seenAtCount = status("/a"); };
  log->events.clear();
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_EQ(seenAtCount, MountTable::complete_);
  EXPECT_EQ(log->events, (std::vector<std::string>{"status /a complete_", "count 0"}));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 0u);
}

TEST_F(DemuxerTest, FailedMountCarriesTheExceptionText) {
  mount("/a", "wnp", "No::Such");
  log->events.clear();
  EXPECT_TRUE(demuxer->mountAnswered("/a", false, "Unknown type: No::Such"));
  EXPECT_EQ(status("/a"), MountTable::failed_);
  EXPECT_EQ(demuxer->peer()->stat(ConnectDesc("/a")).exceptionDesc(), "Unknown type: No::Such");
  EXPECT_EQ(log->events,
            (std::vector<std::string>{"status /a failed_: Unknown type: No::Such", "count 0"}));
}

TEST_F(DemuxerTest, AnswersOutOfOrderSettleTheirOwnPaths) {
  mount("/a", "Cnp");
  mount("/b", "Cnp");
  mount("/c", "Cnp");
  EXPECT_TRUE(demuxer->mountAnswered("/c", true, ""));
  EXPECT_EQ(status("/a"), MountTable::inProgress_);
  EXPECT_EQ(status("/c"), MountTable::complete_);
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 1u);
  EXPECT_EQ(status("/b"), MountTable::inProgress_);
}

TEST_F(DemuxerTest, UnexpectedAnswersChangeNothing) {
  EXPECT_FALSE(demuxer->mountAnswered("/never", true, ""));
  mount("/a", "Cnp");
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_FALSE(demuxer->mountAnswered("/a", false, "late"));
  EXPECT_EQ(status("/a"), MountTable::complete_);
  EXPECT_EQ(demuxer->flowOutMountRequests(), 0u);
}

TEST_F(DemuxerTest, RemountBeforeTheAnswerCountsTwice) {
  mount("/a", "Cnp");
  mount("/a", "wnp");
  EXPECT_EQ(demuxer->flowOutMountRequests("/a"), 2u);
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 1u);
  EXPECT_TRUE(demuxer->mountAnswered("/a", false, "refused"));
  EXPECT_EQ(status("/a"), MountTable::failed_);
  EXPECT_EQ(demuxer->flowOutMountRequests(), 0u);
}

TEST_F(DemuxerTest, LowMountPrioNotifiesOnChangeAndCountsEverySet) {
  demuxer->lowMountPrioIs(false);
  EXPECT_EQ(demuxer->lowMountPrioSets(), 1u);
  EXPECT_TRUE(log->events.empty());
  demuxer->lowMountPrioIs(true);
  demuxer->lowMountPrioIs(true);
  EXPECT_TRUE(demuxer->lowMountPrio());
  EXPECT_EQ(demuxer->lowMountPrioSets(), 3u);
  EXPECT_EQ(log->events, (std::vector<std::string>{"lowMountPrio"}));
}

TEST_F(DemuxerTest, PathServedIsRecordedNotifiedAndPassedOn) {
  EXPECT_FALSE(demuxer->pathServed("/a"));
  demuxer->pathServedIs("/a", true);
  demuxer->pathServedIs("/a", true);
  EXPECT_TRUE(demuxer->pathServed("/a"));
  EXPECT_EQ(log->events, (std::vector<std::string>{"served /a"}));
  EXPECT_EQ(wire->served, (std::vector<std::pair<Qel::String, bool>>{{"/a", true}}));
}

TEST_F(DemuxerTest, ImmediateCloseTellsThePeerAndStopsRequests) {
  mount("/a", "Cnp");
  log->events.clear();
  demuxer->close("no agent profile", true, false, true);
  EXPECT_TRUE(demuxer->closed());
  EXPECT_FALSE(demuxer->closing());
  EXPECT_EQ(demuxer->closeReason(), "no agent profile");
  EXPECT_EQ(wire->closes, (std::vector<RecordingTransport::Close>{{"no agent profile", true}}));
  EXPECT_EQ(log->events, (std::vector<std::string>{"reason no agent profile", "closed"}));
  EXPECT_FALSE(demuxer->transport());
  // The unanswered request stays unanswered; answers are ignored now.
  EXPECT_FALSE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_EQ(demuxer->flowOutMountRequests(), 1u);
  // A configuration installed now is stored and marked failed; nothing goes out.
  mount("/b", "Cnp");
  EXPECT_EQ(wire->requests.size(), 1u);
  EXPECT_EQ(status("/b"), MountTable::failed_);
  EXPECT_EQ(demuxer->peer()->stat(ConnectDesc("/b")).exceptionDesc(),
            "connection closed: no agent profile");
  // The first close wins.
  demuxer->close("other", true, false, false);
  EXPECT_EQ(demuxer->closeReason(), "no agent profile");
  EXPECT_EQ(wire->closes.size(), 1u);
}

TEST_F(DemuxerTest, CloseWithoutNotifyingThePeerGivesItNoReason) {
  demuxer->close("invalid profile", false, false, false);
  EXPECT_EQ(wire->closes, (std::vector<RecordingTransport::Close>{{"", false}}));
  EXPECT_EQ(demuxer->closeReason(), "invalid profile");
}

TEST_F(DemuxerTest, DeferredCloseWaitsForOutstandingAnswers) {
  mount("/a", "Cnp");
  mount("/b", "Cnp");
  demuxer->close("done", true, true, true);
  EXPECT_FALSE(demuxer->closed());
  EXPECT_TRUE(demuxer->closing());
  EXPECT_TRUE(wire->closes.empty());
  // Nothing new goes out while closing.
  mount("/c", "Cnp");
  EXPECT_EQ(wire->requests.size(), 2u);
  EXPECT_EQ(status("/c"), MountTable::failed_);
  EXPECT_TRUE(demuxer->mountAnswered("/b", true, ""));
  EXPECT_TRUE(wire->closes.empty());
  EXPECT_TRUE(demuxer->mountAnswered("/a", true, ""));
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(wire->closes, (std::vector<RecordingTransport::Close>{{"done", true}}));
  EXPECT_EQ(status("/a"), MountTable::complete_);
}

TEST_F(DemuxerTest, DeferredCloseWithNothingOutstandingClosesAtOnce) {
  demuxer->close("idle", true, true, true);
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(wire->closes.size(), 1u);
}

TEST_F(DemuxerTest, ImmediateCloseOverridesAPendingDeferredOne) {
  mount("/a", "Cnp");
  demuxer->close("first", true, true, true);
  demuxer->close("second", false, false, false);
  EXPECT_TRUE(demuxer->closed());
  // The pending close keeps its reason and flags.
  EXPECT_EQ(wire->closes, (std::vector<RecordingTransport::Close>{{"first", true}}));
}

TEST_F(DemuxerTest, HandlerMayCloseTheConnectionThatNotifiesIt) {
  log->onCount = [&] { demuxer->close("closed by handler", true, false, true); };
  mount("/a", "Cnp");
  EXPECT_TRUE(demuxer->closed());
  // The close came between the count and the send: nothing reached the wire.
  EXPECT_TRUE(wire->requests.empty());
  EXPECT_EQ(wire->closes.size(), 1u);
}

TEST_F(DemuxerTest, PeerCloseRecordsTheReasonWithoutCallingTheTransport) {
  demuxer->peerClosed("agent went away");
  EXPECT_TRUE(demuxer->closed());
  EXPECT_EQ(demuxer->closeReason(), "agent went away");
  EXPECT_TRUE(wire->closes.empty());
  demuxer->close("later", true, false, true);
  EXPECT_TRUE(wire->closes.empty());
}

TEST_F(DemuxerTest, TableOutlivingItsDemuxerIsUnboundAndSendsNothing) {
  MountTable::Ptr table = demuxer->peer();
  log.reset();
  demuxer = nullptr;
  EXPECT_EQ(table->connection(), nullptr);
  table->confIs(MountTable::Conf("/a", "", MountFlags(), "agentA"));
  EXPECT_TRUE(wire->requests.empty());
  EXPECT_EQ(table->statuses(), 0u);
}

TEST_F(DemuxerTest, ReflectionShowsTheConnection) {
  Qel::GenericIf::PtrConst g(demuxer.ptr());
  mount("/a", "Cnp");
  EXPECT_EQ(g->attribute(g->attributeId("flowOutMountRequests"))->valueAs<Qel::U32>(), 1u);
  EXPECT_EQ(g->attribute(g->attributeId("epoch"))->valueAs<Qel::U32>(), 3u);
  EXPECT_EQ(g->attribute(g->attributeId("peer")).ptr(), demuxer->peer().ptr());
  demuxer->attributeIs("lowMountPrio", Qel::String("true"));
  EXPECT_TRUE(demuxer->lowMountPrio());
  EXPECT_THROW(demuxer->attributeIs("epoch", Qel::String("4")), Qel::TypeException);
}

class DemuxerMgrWatch : public Qel::NboAttrLog::DemuxerMgr::NotifieeConst {
 public:
  std::vector<Qel::Name> names;
  void onDemuxer(Qel::Name const& n) override { names.push_back(n); }
};

TEST_F(DemuxerTest, RegistryFindsDemuxersByConnectionName) {
  auto const& mgr = Qel::NboAttrLog::demuxerMgr();
  ASSERT_TRUE(mgr);
  EXPECT_EQ(mgr.ptr(), Qel::NboAttrLog::demuxerMgr().ptr());
  DemuxerMgrWatch watch;
  watch.notifierIs(mgr);
  mgr->demuxerIs(demuxer);
  mgr->demuxerIs(demuxer);
  EXPECT_EQ(mgr->demuxer("agentA"), demuxer);
  EXPECT_EQ(mgr->demuxer("agentB"), nullptr);
  auto other = Demuxer::demuxerNew("agentA", nullptr, nullptr);
  try {
    mgr->demuxerIs(other);
    FAIL();
  } catch (Qel::NameInUseException const& e) {
    EXPECT_STREQ(e.what(), "Reinstantiating the demuxer with name agentA not allowed");
  }
  mgr->demuxerDel("agentA");
  mgr->demuxerDel("agentA");
  EXPECT_EQ(mgr->demuxers(), 0u);
  EXPECT_EQ(watch.names, (std::vector<Qel::Name>{"agentA", "agentA"}));
  // A demuxer without transport stores and counts but sends nothing.
  other->peer()->confIs(MountTable::Conf("/a", "", MountFlags(), "agentA"));
  EXPECT_EQ(other->flowOutMountRequests(), 1u);
}

std::string literal(std::string const& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

using DemuxerDeathTest = DemuxerTest;

TEST_F(DemuxerDeathTest, ATableServesOneConnection) {
  EXPECT_DEATH(Demuxer::demuxerNew("again", demuxer->peer(), nullptr),
               literal("\"mount table already bound to a connection\""));
}

}  // namespace
