// The transport of one agent connection over a socket pair, on a simulated clock: a burst of
// requests is gathered and taken by the socket in large writes. (An agent that stops reading is
// the listener's tests' business.)
#include "Qel/NboAttrLog/SocketTransport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "Qel/Entity/Dir.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "tests/support/LeakCheck.h"

namespace Qel::NboAttrLog {
// Failure messages show the messages as text (defined with the codec's tests).
void PrintTo(WireMessage const& m, std::ostream* os);
}  // namespace Qel::NboAttrLog

namespace {

using Qel::MountFlags;
using Qel::MountTable;
using Qel::NboAttrLog::Demuxer;
using Qel::NboAttrLog::SocketTransport;
using Qel::NboAttrLog::WireDecoder;
using Qel::NboAttrLog::WireEntityState;
using Qel::NboAttrLog::WireHello;
using Qel::NboAttrLog::WireMessage;
using Qel::NboAttrLog::WireMountRequest;
using Messages = std::vector<WireMessage>;

Qel::QelType const* itemType() {
  static Qel::QelType const* t = Qel::defineType("sockettest::Item", {{"count", "U32"}});
  return t;
}

// Binds a demuxer to the hello and follows the bytes waiting as they are reported.
class Owner : public SocketTransport::Owner {
 public:
  void onHello(SocketTransport& t, WireHello const& hello) override {
    demuxer = Demuxer::demuxerNew(hello.agentName, nullptr, Qel::NboAttrLog::Transport::Ptr(&t));
    t.demuxerIs(demuxer);
  }
  void onGone(SocketTransport&, bool) override {}
  void onOutputBuffered(SocketTransport& t, std::size_t before) override {
    EXPECT_EQ(before, waiting);
    waiting = t.outputBuffered();
    peak = std::max(peak, waiting);
  }

  Demuxer::Ptr demuxer;
  std::size_t waiting = 0;
  std::size_t peak = 0;
};

class SocketTransportTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    int fd[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fd), 0);
    agent = fd[1];
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    transport = SocketTransport::socketTransportNew(loop.ptr(), fd[0], &owner);
    std::string const hello = wireFrame(WireHello{MountTable::kProtocolVersion, "agent", "agent"});
    ASSERT_EQ(::send(agent, hello.data(), hello.size(), 0), static_cast<ssize_t>(hello.size()));
    ASSERT_TRUE(loop->runUntil([&] { return owner.demuxer != nullptr; }, 1));
    tree = Qel::globalDir()->dirIs("sockettest");
  }

  void TearDown() override {
    transport->teardownNow();
    loop->runUntil([&] { return loop->tasks() == 0; }, clock->now() + 1);
    owner.demuxer = nullptr;
    transport = nullptr;
    loop = nullptr;
    clock = nullptr;
    tree = nullptr;
    Qel::globalDir()->entryDel("sockettest");
    ::close(agent);
    LeakCheckedTest::TearDown();
  }

  void mount(std::string const& path) {
    owner.demuxer->peer()->confIs(
        MountTable::Conf(path, "", MountFlags::fromLetters("Cnp"), "agent"));
  }
  // Reads what is there and decodes it.
  Messages receive() {
    char buf[65536];
    for (;;) {
      ssize_t const n = ::read(agent, buf, sizeof buf);
      if (n <= 0) break;
      decoder.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    }
    Messages out;
    WireMessage m;
    while (decoder.next(m) == WireDecoder::Result::message)
      out.push_back(m);
    EXPECT_FALSE(decoder.failed()) << decoder.error();
    return out;
  }

  int agent = -1;
  Owner owner;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  SocketTransport::Ptr transport;
  Qel::Dir::Ptr tree;
  WireDecoder decoder;
};

// 2,700 requests of 45 bytes in one turn, written one by one, would fill the socket with small
// buffers long before their 120 KB and leave more than the 64 KB bound waiting. Gathered, they
// leave in 64 KB writes and the socket takes them all: an agent that reads keeps its connection.
TEST_F(SocketTransportTest, ABurstOfRequestsInOneTurnIsTakenInLargeWrites) {
  transport->maxOutputIs(64 * 1024);
  constexpr int kRequests = 2700;
  Qel::U64 const sends = transport->sends();
  loop->post([&] {
    for (int i = 0; i < kRequests; ++i)
      mount("/sockettest/p" + std::to_string(1000 + i));
  });
  loop->runOnce();
  EXPECT_FALSE(transport->discarding());
  EXPECT_EQ(owner.peak, 0u);
  EXPECT_LE(transport->sends(), sends + 3);
  Messages const got = receive();
  ASSERT_EQ(got.size(), static_cast<std::size_t>(kRequests));
  EXPECT_EQ(got.back(),
            WireMessage(WireMountRequest{kRequests, "/sockettest/p3699?flags=Cnp", "", false}));
  EXPECT_FALSE(owner.demuxer->closed());
}

// Requests for one path are answered from one rendering while its entity stands unchanged; each
// request still carries its own sequence number, and whatever changed before a request shows in
// the state that follows it: an attribute stored, an entry added to a directory, the entity
// replaced at its path by another (the old one still alive elsewhere), or removed.
TEST_F(SocketTransportTest, EachStateShowsTheEntityAsItStandsWhenItsRequestGoesOut) {
  Qel::U32 seqno = 0;
  // The request for `path` and the state after it (none when the request says none follows).
  auto request = [&](std::string const& path) {
    transport->sendMountRequest(path + "?flags=Cnp", "", ++seqno);
    Messages const got = receive();
    EXPECT_FALSE(got.empty());
    if (got.empty()) return std::optional<WireMessage>();
    auto const& r = std::get<WireMountRequest>(got[0]);
    EXPECT_EQ(r.seqno, seqno);
    EXPECT_EQ(got.size(), r.stateFollows ? 2u : 1u);
    if (got.size() < 2) return std::optional<WireMessage>();
    EXPECT_TRUE(std::holds_alternative<WireEntityState>(got[1]));
    return std::optional<WireMessage>(got[1]);
  };
  auto item = [](char const* count) {
    auto const e = Qel::DynamicEntity::entityNew(itemType(), "item");
    e->attributeIs("count", Qel::String(count));
    return e;
  };
  auto itemState = [&](Qel::U32 n, char const* count) {
    return WireMessage(
        WireEntityState{n, "/sockettest/item", "sockettest::Item", false, {{"count", count}}, {}});
  };
  auto dirState = [&](Qel::U32 n, std::vector<Qel::String> entries) {
    return WireMessage(WireEntityState{n, "/sockettest", "Qel::Dir", true, {}, std::move(entries)});
  };

  auto const first = item("1");
  tree->entryIs(first);
  EXPECT_EQ(request("/sockettest/item"), itemState(1, "1"));
  EXPECT_EQ(request("/sockettest/item"), itemState(2, "1"));
  first->attributeIs("count", Qel::String("2"));
  EXPECT_EQ(request("/sockettest/item"), itemState(3, "2"));

  EXPECT_EQ(request("/sockettest"), dirState(4, {"item"}));
  tree->dirIs("more");
  EXPECT_EQ(request("/sockettest"), dirState(5, {"item", "more"}));

  tree->entryDel("item");
  tree->entryIs(item("3"));
  EXPECT_EQ(request("/sockettest/item"), itemState(6, "3"));
  tree->entryDel("item");
  EXPECT_EQ(request("/sockettest/item"), std::nullopt);
  EXPECT_EQ(request("/sockettest"), dirState(8, {"more"}));
}

using SocketTransportDeathTest = SocketTransportTest;

TEST_F(SocketTransportDeathTest, ATransportIsBoundToOneDemuxerOfItsOwn) {
  EXPECT_DEATH(SocketTransport::socketTransportNew(nullptr, agent, &owner),
               "\"a socket transport needs an event loop\"");
  EXPECT_DEATH(SocketTransport::socketTransportNew(loop.ptr(), -1, &owner),
               "\"a socket transport needs an open socket\"");
  EXPECT_DEATH(transport->demuxerIs(Demuxer::demuxerNew("other", nullptr, nullptr)),
               "\"binding a demuxer of another transport\"");
  EXPECT_DEATH(transport->demuxerIs(owner.demuxer),
               "\"socket transport already bound to a demuxer\"");
}

}  // namespace
