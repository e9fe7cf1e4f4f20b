// The agent program's session in process, against a database written by hand on a socket pair
// (on an event loop with a simulated clock): the printed lines exactly, the frames the database
// receives, the local tree, and how each kind of end sets the exit status.
#include "apps/agent/AgentSession.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Qel/Loop/SimulatedClock.h"

namespace {

using LedraAgent::AgentOptions;
using LedraAgent::AgentSession;
namespace Wire = Qel::NboAttrLog;
using Strings = std::vector<std::string>;
using Messages = std::vector<Wire::WireMessage>;

class AgentSessionTest : public ::testing::Test {
 protected:
  void SetUp() override { open(); }
  void TearDown() override {
    session.reset();
    if (db >= 0) ::close(db);
  }
  // A new session on a new socket pair.
  void open() {
    TearDown();
    out.str("");
    decoder = Wire::WireDecoder();
    got.clear();
    clock = Qel::SimulatedClock::simulatedClockNew();
    loop = Qel::EventLoop::eventLoopNew(clock);
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    db = fds[1];
    AgentOptions o;
    o.name = "a";
    o.agentString = "a-7-x";
    o.version = 4;
    o.failures["/f"] = "no such entity: /f";
    o.holds.insert("/h");
    o.show = true;
    session = std::make_unique<AgentSession>(loop, fds[0], o, out);
  }
  void send(std::string const& bytes) {
    ASSERT_EQ(::write(db, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Everything the agent sent so far, decoded.
  Messages const& received() {
    char buf[4096];
    for (ssize_t n; (n = ::read(db, buf, sizeof buf)) > 0;)
      decoder.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    Wire::WireMessage m;
    while (decoder.next(m) == Wire::WireDecoder::Result::message)
      got.push_back(m);
    return got;
  }
  bool runUntil(std::function<bool()> const& pred) {
    return loop->runUntil(pred, clock->now() + 60);
  }
  Strings lines() const {
    Strings v;
    std::istringstream in(out.str());
    for (std::string l; std::getline(in, l);)
      v.push_back(l);
    return v;
  }

  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  int db = -1;
  std::ostringstream out;
  std::unique_ptr<AgentSession> session;
  Wire::WireDecoder decoder;
  Messages got;
};

Wire::WireMountAnswer failed(Qel::U32 seqno, std::string const& path, std::string const& why) {
  return Wire::WireMountAnswer{seqno, path, false, why, 0, 0};
}

TEST_F(AgentSessionTest, AnswersMountsFailsHoldsAndStops) {
  session->start();
  std::string const first =
      Wire::wireFrame(Wire::WireMountRequest{1, "/d/e?flags=Cnp", "Qel::Dir", true}) +
      Wire::wireFrame(Wire::WireEntityState{1, "/d/e", "T", true, {{"k", "v"}}, {"inner"}});
  send(first.substr(0, first.size() - 1));
  loop->runFor(1);
  EXPECT_EQ(received(), (Messages{Wire::WireHello{4, "a", "a-7-x"}}))
      << "the hello comes first, and no answer before the announced state has arrived";
  send(first.substr(first.size() - 1) +
       Wire::wireFrame(Wire::WireMountRequest{2, "/h?flags=w", "", false}) +
       Wire::wireFrame(Wire::WireMountRequest{3, "/f", "", false}) +
       Wire::wireFrame(Wire::WireMountRequest{4, "http://host/x", "", false}) +
       Wire::wireFrame(Wire::WireMountRequest{5, "/y?flags=Q", "", false}) +
       Wire::wireFrame(Wire::WireMountRequest{6, "/b", "", false}));
  ASSERT_TRUE(runUntil([&] { return received().size() == 6; })) << out.str();
  EXPECT_EQ(got[1], Wire::WireMessage(Wire::WireMountAnswer{
                        1, "/d/e", true, "", Wire::WireMountAnswer::kDefaultPathState, 0}));
  EXPECT_EQ(got[2], Wire::WireMessage(failed(3, "/f", "no such entity: /f")));
  EXPECT_EQ(got[3],
            Wire::WireMessage(failed(4, "http://host/x", "not an entity URI: http://host/x")));
  auto const& badFlag = std::get<Wire::WireMountAnswer>(got[4]);
  EXPECT_EQ(badFlag.path, "/y");
  EXPECT_FALSE(badFlag.ok || badFlag.exceptionText.empty());
  EXPECT_EQ(std::get<Wire::WireMountAnswer>(got[5]).seqno, 6u);
  EXPECT_EQ(session->unanswered(), (std::map<Qel::U32, std::string>{{2, "/h"}}));
  auto const* e = session->tree().node("/d/e");
  ASSERT_TRUE(e);
  EXPECT_EQ(e->typeName, "Qel::Dir");
  EXPECT_EQ(e->entries, (std::set<std::string>{"inner"}));
  // Stopping prints the held paths sorted, then what it received, and tells the database, once.
  session->stop();
  session->stop();
  EXPECT_EQ(session->exitStatus(), 0);
  EXPECT_EQ(lines(), (Strings{"connected as a", "mount 1 /d/e flags=Cnp type=Qel::Dir",
                              "mount 2 /h flags=w type=", "mount 3 /f flags= type=",
                              "mount 4 http://host/x flags= type=", "mount 5 /y flags=Q type=",
                              "mount 6 /b flags= type=", "holds:", "/b", "/d/e",
                              "received:", "/b - flags= (none)",
                              "/d/e Qel::Dir flags=Cnp (C: read-only now, made writable once "
                              "writing is granted; np: the suffix of a profile whose root flags "
                              "lack N)",
                              "  k = v"}));
  EXPECT_EQ(received().back(), Wire::WireMessage(Wire::WireClose{"agent stopped"}));
}

// How the database ends the session in error: the line printed last and exit status 1; a protocol
// error is also told to the database. (A Close is read end to end, against a real ledrad.)
TEST_F(AgentSessionTest, AnErrorEndPrintsWhyAndSetsTheExitStatus) {
  std::pair<std::string, std::string> const ends[] = {
      {"", "lost connection"},  // the database hangs up at once
      {std::string("\0\0\0\x02\x09x", 6), "protocol error: unknown message kind 9"},
      {Wire::wireFrame(Wire::WireMountRequest{1, "/a?flags=w", "", true}) +
           Wire::wireFrame(Wire::WireEntityState{2, "/b", "T", false, {}, {}}),
       "protocol error: expected the state of request 1, got EntityState 2 /b type T 0 "
       "attributes"},
      {Wire::wireFrame(Wire::WireHello{5, "db", ""}),
       "protocol error: unexpected Hello from the database"}};
  for (auto const& [bytes, line] : ends) {
    open();
    send(bytes);
    if (bytes.empty()) {
      ::close(db);
      db = -1;
    }
    session->start();
    ASSERT_TRUE(runUntil([&] { return session->ended(); })) << line;
    EXPECT_EQ(lines().back(), line);
    EXPECT_EQ(session->exitStatus(), 1) << line;
    if (db < 0) continue;
    EXPECT_EQ(received().back(), Wire::WireMessage(Wire::WireClose{line.substr(16)}));
  }
}

}  // namespace
