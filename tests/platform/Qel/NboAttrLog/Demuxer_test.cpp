// The demuxer of one agent connection: the low-priority property (also written by name), the
// closes by the peer, silent, deferred and from inside a notification. Requests and answers are
// checked by the simulation through loopback agents.
#include "Qel/NboAttrLog/Demuxer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Qel/Core/Exception.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/Reflection/ValueTraits.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

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

// Logs the low-priority and path-served notifications; runs `onCount` when the number of
// outstanding requests changes.
class CountWatch : public Demuxer::NotifieeConst {
 public:
  std::function<void()> onCount;
  Strings events;
  void onFlowOutMountRequests() override {
    if (onCount) onCount();
  }
  void onLowMountPrio() override { events.push_back("lowMountPrio"); }
  void onPathServed(Qel::String const& p) override { events.push_back("served " + p); }
};

class DemuxerTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    wire = RecordingTransport::make();
    demuxer = Demuxer::demuxerNew("agentA", nullptr, wire, 3);
    log = std::make_unique<CountWatch>();
    log->notifierIs(demuxer);
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
  std::unique_ptr<CountWatch> log;
};

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
  // By name: a write goes through the demuxer's own mutator, and a path written empty is
  // reported not served rather than forgotten.
  demuxer->attributeIs("lowMountPrio", Qel::String("false"));
  EXPECT_EQ(demuxer->lowMountPrioSets(), 4u);
  demuxer->attributeIs("pathServed", Qel::GenericIf::PtrConst(),
                       Qel::ValueTraits<Qel::String>::box(Qel::String("/a")));
  EXPECT_EQ(demuxer->pathServed().size(), 1u);
  EXPECT_EQ(events(), (Strings{"lowMountPrio", "served /a"}));
  EXPECT_EQ(sent(), (Strings{"served /a no"}));
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

// The manager holds one demuxer per name: the same one again is nothing, another one is refused.
TEST_F(DemuxerTest, TheManagerRefusesASecondDemuxerUnderALiveName) {
  auto const mgr = Qel::NboAttrLog::demuxerMgr();
  mgr->demuxerIs(demuxer);
  mgr->demuxerIs(demuxer);
  EXPECT_THROW_TEXT(mgr->demuxerIs(Demuxer::demuxerNew("agentA", nullptr, nullptr)),
                    Qel::NameInUseException,
                    "Reinstantiating the demuxer with name agentA not allowed");
  EXPECT_EQ(mgr->demuxer("agentA"), demuxer);
  mgr->demuxerDel("agentA");
}

using DemuxerDeathTest = DemuxerTest;

TEST_F(DemuxerDeathTest, ATableServesOneConnection) {
  EXPECT_DEATH(Demuxer::demuxerNew("again", demuxer->peer(), nullptr),
               Ledra::test::literal("\"mount table already bound to a connection\""));
  EXPECT_DEATH(Qel::NboAttrLog::demuxerMgr()->demuxerIs(nullptr), "\"null demuxer\"");
}

}  // namespace
