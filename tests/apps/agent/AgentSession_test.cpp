// The agent program's session in process: against a real AgentListener on a temporary socket
// (everything on one event loop with a simulated clock), and against a hand-written database on
// a socket pair for the protocol errors. Checks the printed lines exactly, the answers the
// database sees, the local tree, and how each kind of end sets the exit status.
#include "apps/agent/AgentSession.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Ledra/AgentListener.h"
#include "Ledra/ConnMgrHelper.h"
#include "Qel/Dir.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/SimulatedClock.h"
#include "support/LeakCheck.h"

namespace {

using LedraAgent::AgentOptions;
using LedraAgent::AgentSession;
using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;
namespace Wire = Qel::NboAttrLog;
using Strings = std::vector<std::string>;

Strings lines(std::ostringstream const& out) {
  Strings v;
  std::istringstream in(out.str());
  for (std::string l; std::getline(in, l);)
    v.push_back(l);
  return v;
}

int connectTo(std::string const& path) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

class AgentSessionTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    char tmpl[] = "/tmp/ledra-agent-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir = tmpl;
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    listener = Ledra::AgentListener::agentListenerNew(loop, dir + "/agents.sock");
    tree = Qel::globalDir()->dirIs("agenttest");
    tree->dirIs("d")->dirIs("inner");
  }
  void TearDown() override {
    session.reset();
    listener = nullptr;
    Qel::globalDir()->entryDel("agenttest");
    tree = nullptr;
    loop = nullptr;
    clock = nullptr;
    EXPECT_EQ(Ledra::ConnMgrHelper::connectionStatusDir()->passiveConnectionStatuses(), 0u);
    EXPECT_EQ(Qel::NboAttrLog::demuxerMgr()->demuxers(), 0u);
    EXPECT_EQ(::rmdir(dir.c_str()), 0);
    LeakCheckedTest::TearDown();
  }

  // Starts a session named `name` with `extra` options and waits until the database has it.
  void start(std::string const& name, std::function<void(AgentOptions&)> const& extra = {}) {
    AgentOptions o;
    o.socketPath = listener->socketPath();
    o.name = name;
    o.agentString = name;
    if (extra) extra(o);
    session = std::make_unique<AgentSession>(loop, connectTo(o.socketPath), o, out);
    session->start();
    ASSERT_TRUE(run([&] { return demuxer() != nullptr; }));
  }
  bool run(std::function<bool()> const& pred) { return loop->runUntil(pred, clock->now() + 60.0); }
  Wire::Demuxer::Ptr demuxer() const { return Qel::NboAttrLog::demuxerMgr()->demuxer("a"); }
  void mount(std::string const& path, char const* flags = "Cnp", std::string const& type = {}) {
    demuxer()->peer()->confIs(MountTable::Conf(path, type, MountFlags::fromLetters(flags), "a"));
  }
  bool answered() const { return demuxer()->flowOutMountRequests() == 0; }
  MountTable::Stat stat(std::string const& path) const {
    return demuxer()->peer()->stat(ConnectDesc(path));
  }

  std::string dir;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  Ledra::AgentListener::Ptr listener;
  Qel::Dir::Ptr tree;
  std::ostringstream out;
  std::unique_ptr<AgentSession> session;
};

TEST_F(AgentSessionTest, ConnectsMountsAnswersAndStops) {
  start("a", [](AgentOptions& o) {
    o.agentString = "a-7-x";
    o.version = 4;
  });
  auto const record = Ledra::ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("a");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->agentString(), "a-7-x");
  EXPECT_EQ(demuxer()->peer()->currentVersion(), 4u);
  mount("/agenttest/d", "Cnp", "Qel::Dir");
  mount("/agenttest/missing/leaf", "w");
  mount("/agenttest/B");
  ASSERT_TRUE(run([&] { return answered(); }));
  EXPECT_EQ(stat("/agenttest/d").status(), MountTable::complete_);
  EXPECT_EQ(demuxer()->peer()->pathState("/agenttest/d").text(),
            "mounted complete synchronised mountPoint");
  auto const* d = session->tree().node("/agenttest/d");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->typeName, "Qel::Dir");
  EXPECT_EQ(d->entries, (std::set<std::string>{"inner"}));
  // Stopping prints the held paths sorted and tells the database, once.
  Wire::Demuxer::Ptr const demuxer = this->demuxer();
  session->stop();
  EXPECT_TRUE(session->ended());
  EXPECT_EQ(session->exitStatus(), 0);
  EXPECT_EQ(lines(out), (Strings{"connected as a", "mount 1 /agenttest/d flags=Cnp type=Qel::Dir",
                                 "mount 2 /agenttest/missing/leaf flags=w type=",
                                 "mount 3 /agenttest/B flags=Cnp type=", "holds:", "/agenttest/B",
                                 "/agenttest/d", "/agenttest/missing/leaf"}));
  ASSERT_TRUE(run([&] { return !this->demuxer(); }));
  EXPECT_EQ(demuxer->closeReason(), "agent stopped");
  session->stop();
  EXPECT_EQ(lines(out).size(), 8u);
}

TEST_F(AgentSessionTest, AFailedPathIsAnsweredWithItsTextAHeldPathNever) {
  start("a", [](AgentOptions& o) {
    o.failures["/agenttest/d"] = "no such entity: /agenttest/d";
    o.holds.insert("/agenttest/h");
  });
  mount("/agenttest/d");
  mount("/agenttest/h");
  mount("/agenttest/other");
  ASSERT_TRUE(run([&] { return demuxer()->flowOutMountRequests() == 1; }));
  loop->runFor(5);
  EXPECT_EQ(stat("/agenttest/d"),
            MountTable::Stat(MountTable::failed_, "no such entity: /agenttest/d"));
  EXPECT_EQ(stat("/agenttest/h").status(), MountTable::inProgress_);
  EXPECT_EQ(stat("/agenttest/other").status(), MountTable::complete_);
  EXPECT_EQ(session->unanswered(), (std::map<Qel::U32, std::string>{{2, "/agenttest/h"}}));
  EXPECT_EQ(session->tree().held(), Strings{"/agenttest/other"});
}

TEST_F(AgentSessionTest, TheDatabasesCloseEndsWithStatusZeroADroppedConnectionWithOne) {
  for (bool const byDatabase : {true, false}) {
    start("a");
    demuxer()->close(byDatabase ? "no agent profile" : "", byDatabase, false, true);
    ASSERT_TRUE(run([&] { return session->ended(); }));
    EXPECT_EQ(session->exitStatus(), byDatabase ? 0 : 1);
    EXPECT_EQ(lines(out).back(), byDatabase ? "closed: no agent profile" : "lost connection");
    ASSERT_TRUE(run([&] { return !demuxer(); }));
  }
}

// A database written by hand on a socket pair, for what the real one never sends.
class AgentSessionProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    db = fds[1];
    AgentOptions o;
    o.name = "a";
    o.agentString = "a";
    session = std::make_unique<AgentSession>(loop, fds[0], o, out);
    session->start();
  }
  void TearDown() override {
    session.reset();
    ::close(db);
  }
  void send(std::string const& bytes) {
    ASSERT_EQ(::write(db, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Everything the agent sent, decoded.
  std::vector<Wire::WireMessage> received() {
    char buf[4096];
    for (ssize_t n; (n = ::read(db, buf, sizeof buf)) > 0;)
      decoder.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    Wire::WireMessage m;
    while (decoder.next(m) == Wire::WireDecoder::Result::message)
      got.push_back(m);
    return got;
  }
  void runToEnd() {
    ASSERT_TRUE(loop->runUntil([&] { return session->ended(); }, clock->now() + 60));
  }

  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  int db = -1;
  std::ostringstream out;
  std::unique_ptr<AgentSession> session;
  Wire::WireDecoder decoder;
  std::vector<Wire::WireMessage> got;
};

// Bytes from the database, and the reason the agent closes with (status 1).
struct ProtocolError {
  char const* name;  // the test's name
  std::string bytes;
  std::string reason;
};

void PrintTo(ProtocolError const& e, std::ostream* os) {
  *os << e.name;
}

class AgentSessionProtocolErrorTest : public AgentSessionProtocolTest,
                                      public ::testing::WithParamInterface<ProtocolError> {};

TEST_P(AgentSessionProtocolErrorTest, EndsTheSessionWithTheReason) {
  send(GetParam().bytes);
  runToEnd();
  EXPECT_EQ(session->exitStatus(), 1);
  EXPECT_EQ(lines(out).back(), "protocol error: " + GetParam().reason);
  EXPECT_EQ(received().back(), Wire::WireMessage(Wire::WireClose{GetParam().reason}));
}

INSTANTIATE_TEST_SUITE_P(
    Messages, AgentSessionProtocolErrorTest,
    ::testing::Values(
        ProtocolError{"MalformedFrame", std::string("\0\0\0\x02\x09x", 6),
                      "unknown message kind 9"},
        ProtocolError{"StateOfAnotherRequest",
                      Wire::wireFrame(Wire::WireMountRequest{1, "/a?flags=w", "", true}) +
                          Wire::wireFrame(Wire::WireEntityState{2, "/b", "T", false, {}, {}}),
                      "expected the state of request 1, got EntityState 2 /b type T 0 attributes"},
        ProtocolError{"HelloFromTheDatabase", Wire::wireFrame(Wire::WireHello{5, "db", ""}),
                      "unexpected Hello from the database"}),
    [](testing::TestParamInfo<ProtocolError> const& info) { return std::string(info.param.name); });

TEST_F(AgentSessionProtocolTest, TheHelloComesFirstTheAnswerWaitsForTheAnnouncedState) {
  std::string const bytes =
      Wire::wireFrame(Wire::WireMountRequest{1, "/a?flags=w", "", true}) +
      Wire::wireFrame(Wire::WireEntityState{1, "/a", "T", false, {{"k", "v"}}, {}});
  send(bytes.substr(0, bytes.size() - 1));
  loop->runFor(1);
  EXPECT_EQ(received(), (std::vector<Wire::WireMessage>{Wire::WireHello{5, "a", "a"}}))
      << "the hello comes first, and no answer before the state arrived";
  send(bytes.substr(bytes.size() - 1));
  ASSERT_TRUE(loop->runUntil([&] { return received().size() == 2; }, clock->now() + 60));
  EXPECT_EQ(got[1], Wire::WireMessage(Wire::WireMountAnswer{
                        1, "/a", true, "", Wire::WireMountAnswer::kDefaultPathState, 0}));
  EXPECT_EQ(session->tree().node("/a")->attributes,
            (std::vector<std::pair<std::string, std::string>>{{"k", "v"}}));
}

TEST_F(AgentSessionProtocolTest, ACloseBeforeTheSocketShutIsReportedThoughTheAnswerFailed) {
  received();  // the hello
  send(Wire::wireFrame(Wire::WireMountRequest{1, "/a", "", false}) +
       Wire::wireFrame(Wire::WireClose{"database shutting down"}));
  ::close(db);
  db = -1;
  runToEnd();
  EXPECT_EQ(lines(out).back(), "closed: database shutting down");
  EXPECT_EQ(session->exitStatus(), 0);
}

TEST_F(AgentSessionProtocolTest, AnUnreadableUriIsAnsweredAsAFailure) {
  send(Wire::wireFrame(Wire::WireMountRequest{4, "http://host/x", "", false}) +
       Wire::wireFrame(Wire::WireMountRequest{5, "/y?flags=Q", "", false}));
  ASSERT_TRUE(loop->runUntil([&] { return received().size() == 3; }, clock->now() + 60));
  EXPECT_EQ(got[1], Wire::WireMessage(Wire::WireMountAnswer{
                        4, "http://host/x", false, "not an entity URI: http://host/x", 0, 0}));
  auto const& second = std::get<Wire::WireMountAnswer>(got[2]);
  EXPECT_EQ(second.path, "/y");
  EXPECT_FALSE(second.ok);
  EXPECT_FALSE(second.exceptionText.empty());
  EXPECT_EQ(lines(out), (Strings{"connected as a", "mount 4 http://host/x flags= type=",
                                 "mount 5 /y flags=Q type="}));
}

}  // namespace
