// Agents over a real Unix socket: a listener on a temporary path and agents written here with the
// frame codec, all driven by one event loop on a simulated clock.
#include "Ledra/AgentListener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Qel/NboAttrLog/WireMessage.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "tests/platform/Ledra/DatabaseWatch.h"
#include "tests/support/LeakCheck.h"

namespace Qel::NboAttrLog {
// Failure messages show the messages as text.
void PrintTo(WireMessage const& m, std::ostream* os) {
  *os << wireText(m);
}
}  // namespace Qel::NboAttrLog

namespace {

using Ledra::AgentListener;
using Ledra::ConnMgrHelper;
using Ledra::PassiveConnectionStatus;
using Qel::ConnectDesc;
using Qel::MountTable;
using Qel::NboAttrLog::Demuxer;
using Qel::NboAttrLog::WireClose;
using Qel::NboAttrLog::WireEntityState;
using Qel::NboAttrLog::WireHello;
using Qel::NboAttrLog::WireMessage;
using Qel::NboAttrLog::WireMountAnswer;
using Qel::NboAttrLog::WireMountRequest;
namespace Wire = Qel::NboAttrLog;
using Log = std::vector<std::string>;

sockaddr_un address(std::string const& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  return addr;
}

// An agent process as the listener sees it: a socket speaking the codec, watched by the loop.
class TestAgent {
 public:
  TestAgent(Qel::EventLoop::Ptr loop, std::string const& path) : loop_(std::move(loop)) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un const addr = address(path);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr const*>(&addr), sizeof addr), 0)
        << std::strerror(errno);
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
    readAgain();
  }
  ~TestAgent() { shut(); }

  void sendRaw(std::string const& bytes) {
    ssize_t const n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    EXPECT_EQ(n, static_cast<ssize_t>(bytes.size())) << std::strerror(errno);
  }
  void send(WireMessage const& m) { sendRaw(Wire::wireFrame(m)); }
  void hello(std::string const& name, std::string const& agentString = {},
             Qel::U32 version = MountTable::kProtocolVersion) {
    send(WireHello{version, name, agentString});
  }
  void answer(Qel::U32 seqno, std::string const& path, bool ok = true, std::string const& text = {},
              Qel::U8 bits = WireMountAnswer::kDefaultPathState) {
    send(WireMountAnswer{seqno, path, ok, text, bits, 0});
  }
  // Stops writing; the listener sees the end of the stream but can still send.
  void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }
  // Stops reading from the socket (a slow agent); readAgain() resumes.
  void stopReading() { loop_->unwatch(fd_); }
  void readAgain() {
    loop_->watch(fd_, Qel::EventLoop::readable, [this](unsigned) { onReadable(); });
  }
  void shut() {
    if (fd_ < 0) return;
    loop_->unwatch(fd_);
    ::close(fd_);
    fd_ = -1;
  }

  std::vector<WireMessage> received;
  bool eof = false;

  // The reason of the last Close received, or "<none>".
  std::string closeReason() const {
    for (auto it = received.rbegin(); it != received.rend(); ++it) {
      if (auto const* c = std::get_if<WireClose>(&*it)) return c->reason;
    }
    return "<none>";
  }

 private:
  void onReadable() {
    char buf[65536];
    for (;;) {
      ssize_t const n = ::read(fd_, buf, sizeof buf);
      if (n > 0) {
        decoder_.feed(std::string_view(buf, static_cast<std::size_t>(n)));
        continue;
      }
      if (n < 0 && errno == EAGAIN) break;
      // End of stream, or a reset after the peer's last frame.
      eof = true;
      loop_->unwatch(fd_);
      break;
    }
    WireMessage m;
    while (decoder_.next(m) == Wire::WireDecoder::Result::message)
      received.push_back(m);
  }

  Qel::EventLoop::Ptr loop_;
  int fd_ = -1;
  Wire::WireDecoder decoder_;
};

class AgentListenerTest : public Ledra::test::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    static bool defined = false;
    if (defined) return;
    defined = true;
    Qel::defineEnum("WireTestColour", {{"red", 0}, {"green", 1}});
    Qel::defineType("WireTestThing", {{"count", "U32"},
                                      {"label", "string"},
                                      {"on", "bool"},
                                      {"colour", "WireTestColour"},
                                      {"tags", "bool", "string"}});
  }

  void SetUp() override {
    LeakCheckedTest::SetUp();
    char tmpl[] = "/tmp/ledra-listener-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir = tmpl;
    path = dir + "/agents.sock";
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    db = std::make_unique<Ledra::test::DatabaseWatch>();
    listener = AgentListener::agentListenerNew(loop, path);
    tree = Qel::globalDir()->dirIs("wiretest");
  }

  void TearDown() override {
    agents.clear();
    listener = nullptr;
    db.reset();
    Qel::globalDir()->entryDel("wiretest");
    tree = nullptr;
    loop = nullptr;
    clock = nullptr;
    EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatuses(), 0u);
    EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxers(), 0u);
    ::unlink(path.c_str());
    EXPECT_EQ(::rmdir(dir.c_str()), 0) << "socket file left behind";
    LeakCheckedTest::TearDown();
  }

  TestAgent& agent() {
    agents.push_back(std::make_unique<TestAgent>(loop, path));
    return *agents.back();
  }
  // Runs the loop until `pred` holds; false when 60 simulated seconds pass first.
  bool run(std::function<bool()> const& pred) { return loop->runUntil(pred, clock->now() + 60.0); }
  // A connected agent `name` whose connection the database has seen.
  TestAgent& connected(std::string const& name, std::string const& agentString = {}) {
    TestAgent& a = agent();
    a.hello(name, agentString);
    EXPECT_TRUE(run([&] { return demuxer(name) != nullptr; }));
    return a;
  }
  static Demuxer::Ptr demuxer(std::string const& name) {
    return Qel::NboAttrLog::demuxerMgr()->demuxer(name);
  }
  static PassiveConnectionStatus::Ptr record(std::string const& name) {
    return ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus(name);
  }
  static bool gone(std::string const& name) { return !demuxer(name) && !record(name); }
  static void mount(std::string const& name, std::string const& mountPath,
                    char const* flags = "Cnp", std::string const& type = {}) {
    demuxer(name)->peer()->confIs(
        MountTable::Conf(mountPath, type, Qel::MountFlags::fromLetters(flags), name));
  }
  static MountTable::Stat stat(std::string const& name, std::string const& mountPath) {
    return demuxer(name)->peer()->stat(ConnectDesc(mountPath));
  }
  // An entity of the test type under /wiretest whose label is `bytes` long.
  void bigThing(Qel::Name const& name, std::size_t bytes) {
    auto thing = Qel::QelType::typeOrThrow("WireTestThing").newEntity(name);
    thing->attributeIs("label", Qel::String(std::string(bytes, 'x')));
    tree->entryIs(thing);
  }

  std::string dir;
  std::string path;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  std::unique_ptr<Ledra::test::DatabaseWatch> db;
  AgentListener::Ptr listener;
  Qel::Dir::Ptr tree;
  std::vector<std::unique_ptr<TestAgent>> agents;
};

TEST_F(AgentListenerTest, AnAgentIsAnnouncedOnceItsHelloIsAccepted) {
  TestAgent& a = agent();
  ASSERT_TRUE(run([&] { return listener->pendingConnections() == 1; }));
  EXPECT_TRUE(db->events.empty());
  a.hello("agentA", "agentA-slot-3");
  ASSERT_TRUE(run([&] { return listener->connections() == 1; }));
  EXPECT_EQ(db->events,
            (Log{"+agentA", "connected agentA established state 2 agent agentA 'agentA-slot-3'"}));
  EXPECT_EQ(demuxer("agentA")->epoch(), 1u);
  EXPECT_EQ(demuxer("agentA")->peer()->currentVersion(), 5u);
  // The oldest protocol version is served too, and the peer table reports it.
  agent().hello("old", "", 1);
  ASSERT_TRUE(run([&] { return listener->connections() == 2; }));
  EXPECT_EQ(demuxer("old")->peer()->currentVersion(), 1u);
  EXPECT_TRUE(a.received.empty());  // the database speaks when it mounts
}

// A request leaves from inside confIs() with the entity's state: the entries of a directory, the
// plain attributes of another entity as text in the type's order (collections left out), none
// where nothing stands or the state would not fit in a frame.
TEST_F(AgentListenerTest, AMountRequestLeavesWithTheStateAndTheAnswerCompletesIt) {
  auto sub = tree->dirIs("d");
  sub->dirIs("x");
  sub->dirIs("a b");
  auto thing = Qel::QelType::typeOrThrow("WireTestThing").newEntity("thing");
  thing->attributeIs("count", Qel::String("42"));
  thing->attributeIs("label", Qel::String("two words"));
  thing->attributeIs("colour", Qel::String("green"));
  thing->attributeIs("tags", Qel::String("true"), Qel::String("k"));
  tree->entryIs(thing);
  bigThing("big", 500);
  listener->maxFrameIs(400);
  TestAgent& a = connected("agentA");
  mount("agentA", "/wiretest/d", "Cnp", "Qel::Dir");
  EXPECT_EQ(demuxer("agentA")->flowOutMountRequests(), 1u);
  mount("agentA", "/wiretest/thing", "w");
  mount("agentA", "/wiretest/absent");
  mount("agentA", "/wiretest/big");
  ASSERT_TRUE(run([&] { return a.received.size() == 6; }));
  EXPECT_EQ(a.received[0],
            WireMessage(WireMountRequest{1, "/wiretest/d?flags=Cnp", "Qel::Dir", true}));
  EXPECT_EQ(a.received[1],
            WireMessage(WireEntityState{1, "/wiretest/d", "Qel::Dir", true, {}, {"a b", "x"}}));
  EXPECT_EQ(a.received[3],
            WireMessage(WireEntityState{
                2,
                "/wiretest/thing",
                "WireTestThing",
                false,
                {{"count", "42"}, {"label", "two words"}, {"on", "false"}, {"colour", "green"}},
                {}}));
  EXPECT_EQ(a.received[4],
            WireMessage(WireMountRequest{3, "/wiretest/absent?flags=Cnp", "", false}));
  EXPECT_EQ(a.received[5], WireMessage(WireMountRequest{4, "/wiretest/big?flags=Cnp", "", false}));
  a.answer(1, "/wiretest/d");
  ASSERT_TRUE(run([&] { return demuxer("agentA")->flowOutMountRequests() == 3; }));
  EXPECT_EQ(stat("agentA", "/wiretest/d"), MountTable::Stat(MountTable::complete_, ""));
  // A failed answer carries its text and sets no path state.
  a.answer(3, "/wiretest/absent", false, "no such entity", WireMountAnswer::kMounted);
  ASSERT_TRUE(run([&] { return demuxer("agentA")->flowOutMountRequests() == 2; }));
  EXPECT_EQ(stat("agentA", "/wiretest/absent"),
            MountTable::Stat(MountTable::failed_, "no such entity"));
  EXPECT_FALSE(demuxer("agentA")->peer()->hasPathState("/wiretest/absent"));
}

// An agent that goes away after reading its request ends the stream, one that leaves it unread
// resets the connection; the database's close is sent with its reason unless the peer is not told.
TEST_F(AgentListenerTest, ClosesFromEitherSideEndTheConnectionWithTheirReasons) {
  TestAgent& a = connected("agentA");
  TestAgent& b = connected("agentB");
  mount("agentA", "/wiretest/x");
  ASSERT_TRUE(run([&] { return a.received.size() == 1; }));
  mount("agentB", "/wiretest/x");
  Demuxer::Ptr const ended = demuxer("agentA");
  Demuxer::Ptr const reset = demuxer("agentB");
  a.shut();
  b.shut();
  ASSERT_TRUE(run([&] { return gone("agentA") && gone("agentB"); }));
  EXPECT_EQ(ended->closeReason(), "connection lost: end of stream");
  EXPECT_EQ(reset->closeReason(), "connection lost: read error: Connection reset by peer");
  TestAgent& told = connected("told");
  TestAgent& untold = connected("untold");
  demuxer("told")->close("no agent profile", {.notifyPeer = true, .removeStatus = true});
  demuxer("untold")->close("internal", {.removeStatus = true});
  EXPECT_TRUE(record("told"));  // until a later turn
  ASSERT_TRUE(run([&] { return told.eof && untold.eof && gone("told") && gone("untold"); }));
  EXPECT_EQ(told.received, (std::vector<WireMessage>{WireClose{"no agent profile"}}));
  EXPECT_TRUE(untold.received.empty());
}

// The agent closes and connects again at once: both arrive in the same turn, and the old
// connection is torn down before the new one is announced, with the next epoch.
TEST_F(AgentListenerTest, AnAgentThatReconnectsIsServedWithTheNextEpochAfterTheOldTeardown) {
  TestAgent& first = connected("agentA");
  Demuxer::Ptr const old = demuxer("agentA");
  TestAgent& second = agent();
  first.send(WireClose{"restart"});
  second.hello("agentA");
  ASSERT_TRUE(run([&] { return demuxer("agentA") && demuxer("agentA") != old; }));
  EXPECT_EQ(db->events, (Log{"+agentA", "connected agentA established state 2 agent agentA ''",
                             "disconnected agentA state 3 agent agentA ''", "-agentA", "+agentA",
                             "connected agentA established state 2 agent agentA ''"}));
  EXPECT_EQ(demuxer("agentA")->epoch(), 2u);
  mount("agentA", "/wiretest/y");
  ASSERT_TRUE(run([&] { return second.received.size() == 1; }));
  EXPECT_EQ(std::get<WireMountRequest>(second.received[0]).seqno, 1u);
}

// Every connection of a name, forgotten or not, gets a higher epoch than all its earlier ones.
TEST_F(AgentListenerTest, EpochsOfForgottenNamesStayAboveEveryEarlierOne) {
  listener->maxRememberedNamesIs(1);
  auto session = [&](std::string const& name) {
    TestAgent& a = connected(name);
    Qel::U32 const epoch = demuxer(name)->epoch();
    a.send(WireClose{"bye"});
    EXPECT_TRUE(run([&] { return gone(name); }));
    return epoch;
  };
  session("old");
  EXPECT_EQ(session("old"), 2u);
  session("new");
  EXPECT_EQ(listener->epoch("old"), 0u);
  EXPECT_EQ(session("old"), 3u);
}

// The output of all connections together is bounded, even within one turn of the loop: the agent
// with the most waiting is given up at once (its output freed, its close on a later turn), the
// one with less stays and gets everything once it reads.
TEST_F(AgentListenerTest, TheAgentWithTheMostOutputIsClosedWhenAllTogetherHoldTooMuch) {
  bigThing("big", 100000);
  listener->maxOutputTotalIs(600000);
  TestAgent& small = connected("small");
  TestAgent& large = connected("large");
  small.stopReading();
  large.stopReading();
  char const* const flags[] = {"w", "Cnp"};
  auto const smallT = listener->transport("small");
  int smallRequests = 0;
  while (smallT->outputBuffered() < 150000 && smallRequests < 20) {
    mount("small", "/wiretest/big", flags[smallRequests++ % 2]);
    loop->runOnce();
  }
  auto const largeT = listener->transport("large");
  for (int i = 0; i < 20 && !largeT->discarding(); ++i) {
    mount("large", "/wiretest/big", flags[i % 2]);
    EXPECT_LE(listener->outputTotal(), 600000u);
  }
  ASSERT_TRUE(largeT->discarding()) << listener->outputTotal();
  ASSERT_TRUE(run([&] { return demuxer("large")->closed(); }));
  std::string const reason = demuxer("large")->closeReason();
  std::string const prefix =
      "output to all agents exceeds 600000 bytes; this agent has the most waiting (";
  ASSERT_EQ(reason.rfind(prefix, 0), 0u) << reason;
  std::size_t const waiting = std::stoul(reason.substr(prefix.size()));
  EXPECT_EQ(reason, prefix + std::to_string(waiting) + " bytes)");
  EXPECT_GT(waiting, smallT->outputBuffered());
  small.readAgain();
  ASSERT_TRUE(run([&] { return small.received.size() == 2u * smallRequests && gone("large"); }));
  EXPECT_EQ(listener->outputTotal(), 0u);
}

// A second live connection under a name is refused; a database closing the connection from inside
// onConnected() is safe.
TEST_F(AgentListenerTest, ASecondConnectionUnderALiveNameIsRefusedAClosingWatcherIsSafe) {
  TestAgent& first = connected("agentA");
  TestAgent& second = agent();
  second.hello("agentA");
  ASSERT_TRUE(run([&] { return second.eof; }));
  EXPECT_EQ(second.closeReason(), "agent agentA is already connected");
  EXPECT_EQ(listener->epoch("agentA"), 1u);
  EXPECT_FALSE(first.eof);
  db->closeWith = "no agent profile";
  TestAgent& b = agent();
  b.hello("agentB");
  ASSERT_TRUE(run([&] { return b.eof && gone("agentB"); }));
  EXPECT_EQ(b.closeReason(), "no agent profile");
}

// What a socket sends that breaks the protocol, and the reason it is closed with.
struct BadInput {
  char const* what;
  std::function<void(TestAgent&)> send;
  std::string reason;
};

std::string badInputName(::testing::TestParamInfo<BadInput> const& info) {
  return info.param.what;
}

std::string u32(Qel::U32 v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}

// After a good hello: closes its own connection only, tells the agent why, and the connection is
// torn down like any other. (The decoder's own error texts are the codec's tests' business.)
class AgentListenerViolationTest : public AgentListenerTest,
                                   public ::testing::WithParamInterface<BadInput> {};

TEST_P(AgentListenerViolationTest, ClosesOnlyThatConnection) {
  TestAgent& bystander = connected("bystander");
  TestAgent& a = connected("agentA");
  listener->maxFrameIs(64);  // also for the connections that are live already
  mount("agentA", "/wiretest/m");
  ASSERT_TRUE(run([&] { return a.received.size() == 1; }));
  Demuxer::Ptr const d = demuxer("agentA");
  GetParam().send(a);
  ASSERT_TRUE(run([&] { return a.eof && gone("agentA"); }));
  EXPECT_EQ(a.closeReason(), GetParam().reason);
  EXPECT_EQ(d->closeReason(), GetParam().reason);
  // The other agent goes on being served.
  EXPECT_FALSE(bystander.eof);
  EXPECT_EQ(listener->connections(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, AgentListenerViolationTest,
    ::testing::Values(
        BadInput{"Oversized", [](TestAgent& a) { a.sendRaw(u32(65)); },
                 "frame of 65 bytes exceeds the limit of 64 bytes"},
        BadInput{"Truncated",
                 [](TestAgent& a) {
                   a.sendRaw(Wire::wireFrame(WireClose{"bye"}).substr(0, 7));
                   a.shutdownWrite();
                 },
                 "truncated frame: 3 of 8 body bytes received"},
        BadInput{"AnswerToNoRequest", [](TestAgent& a) { a.answer(7, "/wiretest/m"); },
                 "answer to unknown request 7"},
        BadInput{"AnswerForAnotherPath", [](TestAgent& a) { a.answer(1, "/wiretest/other"); },
                 "answer to request 1 names /wiretest/other, the request was for /wiretest/m"},
        BadInput{"SecondAnswer",
                 [](TestAgent& a) {
                   a.answer(1, "/wiretest/m");
                   a.answer(1, "/wiretest/m");
                 },
                 "answer to unknown request 1"},
        BadInput{"RequestFromTheAgent",
                 [](TestAgent& a) {
                   a.send(WireMountRequest{1, "/x?flags=w", "", false});
                 },
                 "unexpected MountRequest from the agent"},
        BadInput{"SecondHello", [](TestAgent& a) { a.hello("agentA"); }, "unexpected Hello"}),
    badInputName);

// Instead of an acceptable hello: the socket is closed with the reason ("<none>" when it closed
// itself) and the database never hears of it.
class AgentListenerBadHelloTest : public AgentListenerTest,
                                  public ::testing::WithParamInterface<BadInput> {};

TEST_P(AgentListenerBadHelloTest, IsRefusedBeforeAnythingIsAnnounced) {
  TestAgent& a = agent();
  GetParam().send(a);
  ASSERT_TRUE(run([&] { return a.eof; }));
  EXPECT_EQ(a.closeReason(), GetParam().reason);
  EXPECT_TRUE(db->events.empty());
  EXPECT_EQ(listener->epoch("agentA"), 0u);
  ASSERT_TRUE(run([&] { return listener->pendingConnections() == 0; }));
}

INSTANTIATE_TEST_SUITE_P(
    Hellos, AgentListenerBadHelloTest,
    ::testing::Values(
        BadInput{"AnswerFirst", [](TestAgent& a) { a.answer(1, "/a"); },
                 "expected a Hello, got MountAnswer"},
        BadInput{"HelloLongerThanAnyHello",
                 [](TestAgent& a) { a.hello("agentA", std::string(64 * 1024, 's')); },
                 "frame of 65555 bytes exceeds the limit of 65536 bytes"},
        BadInput{"NoName", [](TestAgent& a) { a.hello(""); }, "hello without an agent name"},
        BadInput{"Slash", [](TestAgent& a) { a.hello("a/b"); }, "agent name a/b contains '/'"},
        BadInput{"VersionSix", [](TestAgent& a) { a.hello("agentA", "", 6); },
                 "unsupported protocol version 6"},
        BadInput{"NameTooLong", [](TestAgent& a) { a.hello(std::string(256, 'n')); },
                 "agent name of 256 bytes is longer than the limit of 255 bytes"},
        BadInput{"AgentStringWithEscape", [](TestAgent& a) { a.hello("agentA", "x\x1b[2Jy"); },
                 "agent string x\\x1b[2Jy holds control character U+001B at byte 1"}),
    badInputName);

TEST_F(AgentListenerTest, DestroyingTheListenerClosesEveryConnectionAndRemovesTheSocket) {
  TestAgent& a = connected("agentA");
  TestAgent& b = connected("agentB");
  TestAgent& pending = agent();
  ASSERT_TRUE(run([&] { return listener->pendingConnections() == 1; }));
  listener = nullptr;
  EXPECT_TRUE(gone("agentA"));
  EXPECT_TRUE(gone("agentB"));
  struct stat st {};
  EXPECT_NE(::lstat(path.c_str(), &st), 0);
  ASSERT_TRUE(run([&] { return a.eof && b.eof && pending.eof; }));
}

TEST_F(AgentListenerTest, PathsThatCannotBeTakenAreRefusedWithTheReason) {
  auto refusal = [&](std::string const& p) -> std::string {
    try {
      AgentListener::agentListenerNew(loop, p);
    } catch (Qel::Exception const& e) {
      return e.what();
    }
    return "<listening>";
  };
  std::string const prefix = "cannot listen for agents on ";
  EXPECT_EQ(refusal(path), prefix + path + ": another process is listening there");
  std::string const file = dir + "/plain";
  std::ofstream(file) << "not a socket";
  EXPECT_EQ(refusal(file), prefix + file + ": not a socket");
  ::unlink(file.c_str());
  std::string const missing = dir + "/no/such/dir.sock";
  EXPECT_EQ(refusal(missing), prefix + missing + ": No such file or directory");
  std::string const longPath = dir + "/" + std::string(120, 'x');
  EXPECT_EQ(refusal(longPath), prefix + longPath + ": path longer than 107 bytes");
  EXPECT_EQ(refusal(""), prefix + ": empty path");
  // A socket file nobody listens on any more (its process died) is taken over, and removed with
  // the listener.
  std::string const stale = dir + "/stale.sock";
  int const s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un const staleAddress = address(stale);
  ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr const*>(&staleAddress), sizeof staleAddress), 0);
  ::close(s);
  EXPECT_EQ(refusal(stale), "<listening>");
  // The live listener was left alone.
  connected("agentA");
}

using AgentListenerDeathTest = AgentListenerTest;

TEST_F(AgentListenerDeathTest, ContractViolationsAbort) {
  EXPECT_DEATH(AgentListener::agentListenerNew(nullptr, path),
               "\"an agent listener needs an event loop\"");
  EXPECT_DEATH(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatusIs(
                   PassiveConnectionStatus::Ptr()),
               "\"null connection status record\"");
  EXPECT_DEATH(listener->helloTimeoutIs(0), "seconds > 0 && \"a hello timeout must be positive\"");
  EXPECT_DEATH(listener->maxFrameIs(0), "bytes >= 1 && \"a frame limit of at least one byte\"");
  EXPECT_DEATH(listener->maxOutputTotalIs(0), "an output limit of at least one byte");
  EXPECT_DEATH(listener->maxRememberedNamesIs(0), "remembering at least one agent name");
}

}  // namespace
