// The control socket on the event loop: one request line, one reply, then the connection closes;
// partial reads, oversized and empty requests, clients that leave, the limits on connections and
// time, and the socket file's life. Watchers: the records they subscribed to, and the bound on
// one that does not read.
#include "apps/ledrad/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "Qel/Loop/SimulatedClock.h"
#include "apps/ledrad/UnixSocket.h"
#include "tests/support/LeakCheck.h"

namespace Ledrad {
namespace {

using Words = std::vector<std::string>;
using Requests = std::vector<Words>;

class ControlServerTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    char tmpl[] = "/tmp/ledrad-ctl-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/ctl.sock";
    loop_ = Qel::EventLoop::eventLoopNew(Qel::SimulatedClock::simulatedClockNew());
  }
  void TearDown() override {
    server_.reset();
    loop_ = nullptr;
    std::filesystem::remove_all(dir_);
    LeakCheckedTest::TearDown();
  }

  // A server answering `reply`, an error for the request "bad"; "watch KEY..." subscribes to the
  // keys after the reply "watching\n".
  void start(std::string const& reply = "done\n", ControlServer::Limits limits = {}) {
    server_ = std::make_unique<ControlServer>(
        loop_, path_,
        [this, reply](auto const& request) {
          requests_.push_back(request);
          if (request.front() == "watch")
            return ControlReply{true, "watching\n", Words(request.begin() + 1, request.end())};
          return ControlReply{request.front() != "bad", reply};
        },
        limits);
  }

  // What the server has written on `fd` so far (the loop run until the socket holds no more).
  std::string take(int fd) {
    std::string out;
    char buf[65536];
    for (int quiet = 0; quiet < 3;) {
      loop_->runOnce();
      ssize_t const n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
      quiet = n > 0 ? 0 : quiet + 1;
      if (n > 0) out.append(buf, static_cast<std::size_t>(n));
    }
    return out;
  }

  // Connects (unless given `fd`) and sends `bytes`, running the loop whenever the socket is full.
  int send(std::string const& bytes, int fd = -1) {
    if (fd < 0) fd = connectUnixSocket(path_);
    for (std::size_t sent = 0; sent < bytes.size(); loop_->runOnce()) {
      ssize_t const n =
          ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) sent += static_cast<std::size_t>(n);
      if (n < 0 && errno != EAGAIN) break;
    }
    return fd;
  }

  // Runs the loop until the server closes `fd` (at most 60 simulated seconds); returns what it
  // wrote.
  std::string reply(int fd) {
    std::string out;
    bool closed = false;
    loop_->runUntil(
        [&] {
          char buf[4096];
          ssize_t n;
          while ((n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0)
            out.append(buf, static_cast<std::size_t>(n));
          closed = n == 0;
          return closed;
        },
        loop_->clock()->now() + 60.0);
    ::close(fd);
    EXPECT_TRUE(closed) << "the server did not close the connection";
    return out;
  }

  std::string dir_;
  std::string path_;
  Qel::EventLoop::Ptr loop_;
  std::unique_ptr<ControlServer> server_;
  Requests requests_;
};

TEST_F(ControlServerTest, AnswersEachWholeRequestOnceAndRunsNothingElse) {
  start();
  int const a = send("sta");
  int const b = send("set\t/a b\tx\t\n");
  loop_->runOnce();
  loop_->runOnce();
  EXPECT_EQ(requests_, (Requests{{"set", "/a b", "x", ""}}));
  send("tus\n", a);
  EXPECT_EQ(reply(a), "ok\ndone\n");
  EXPECT_EQ(reply(b), "ok\ndone\n");
  EXPECT_EQ(reply(send("bad\n")), "error\ndone\n");
  EXPECT_EQ(reply(send("\n")), "error\nempty request\n");
  EXPECT_EQ(reply(send(std::string(kMaxRequest + 10, 'x'))),
            "error\nrequest longer than 65536 bytes\n");
  ::close(send("status"));  // the client leaves before its line ends
  loop_->runUntil([&] { return server_->clients() == 0 && loop_->tasks() == 0; },
                  loop_->clock()->now() + 1.0);
  EXPECT_EQ(server_->clients(), 0u);
  EXPECT_EQ(requests_, (Requests{{"set", "/a b", "x", ""}, {"status"}, {"bad"}}));
}

TEST_F(ControlServerTest, SocketFileLifetime) {
  // A socket file left by a process that is gone is replaced.
  int const stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, path_.c_str());
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(stale);
  start();
  auto const refusal = [&] {
    try {
      ControlServer(loop_, path_, [](auto const&) { return ControlReply{}; });
    } catch (std::runtime_error const& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(refusal(), "cannot listen on " + path_ + ": another process listens there");
  server_.reset();
  struct stat st {};
  EXPECT_NE(::stat(path_.c_str(), &st), 0) << "the socket file stays after the server";
  std::ofstream(path_) << "not a socket";
  EXPECT_EQ(refusal(), "cannot listen on " + path_ + ": a file that is not a socket is in the way");
}

// Beyond the limit of one process a client is told why at once; an idle one, even with part of
// a request sent, is told when its time is up. (The limit of all clients is met end to end.)
TEST_F(ControlServerTest, RefusesBeyondTheLimitOfOneProcessAndTimesTheIdleOut) {
  start("done\n", {5, 2, 2.5});
  int const idle = send("sta");
  int const other = send("");
  loop_->runOnce();
  Qel::Time const start = loop_->clock()->now();
  EXPECT_EQ(reply(send("status\n")),
            "error\nledrad serves at most 2 control connections of one process at once (process " +
                std::to_string(::getpid()) + ")\n");
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(reply(idle), "error\nno request within 2.5 seconds\n");
  EXPECT_DOUBLE_EQ(loop_->clock()->now(), start + 2.5);
  ::close(other);
  EXPECT_EQ(reply(send("status\n")), "ok\ndone\n");
}

// A client that does not take its reply is dropped once its time is up; a watcher takes the
// records of its keys only, for as long as it likes: the idle timeout does not apply to it.
TEST_F(ControlServerTest, AReplyNotTakenInTimeIsDroppedAWatcherIsNot) {
  start(std::string(4 << 20, 'x'), {4, 4, 1.0});
  int const fd = send("status\n");
  int const watcher = send("watch\tb\n");
  loop_->runFor(0.5);
  EXPECT_EQ(server_->clients(), 2u);
  loop_->runFor(0.6);
  EXPECT_EQ(server_->clients(), 1u);
  EXPECT_EQ(take(watcher), "ok\nwatching\n");
  loop_->runFor(5.0);
  server_->publish("a", "a 1\n");
  server_->publish("b", "b 1\n");
  EXPECT_EQ(take(watcher), "b 1\n");
  EXPECT_EQ(server_->timedOut(), 1u);
  ::close(watcher);
  ::close(fd);
}

// A watcher that does not read holds no more than the latest record of each key, and once its
// socket has taken nothing for the idle timeout it is dropped; a watcher that reads, late, gets
// each key's records in order and the latest last; other clients are served all along.
TEST_F(ControlServerTest, AWatcherThatDoesNotReadIsCoalescedThenDropped) {
  start("done\n", {4, 4, 1.0});
  int const stuck = send("watch\n");
  int const late = send("watch\n");
  loop_->runUntil([&] { return server_->watchers() == 2; }, loop_->clock()->now() + 1.0);
  int constexpr kRounds = 2000;
  std::string const padding(4000, '.');
  for (int i = 0; i < kRounds; ++i) {
    for (char const* key : {"k0", "k1", "k2"})
      server_->publish(key, std::string(key) + " " + std::to_string(i) + " " + padding + "\n");
  }
  loop_->runFor(0.5);
  EXPECT_EQ(reply(send("status\n")), "ok\ndone\n");

  std::string const got = take(late);
  ASSERT_EQ(got.rfind("ok\nwatching\n", 0), 0u);
  std::map<std::string, int> last;
  std::size_t records = 0;
  std::istringstream lines(got.substr(std::strlen("ok\nwatching\n")));
  for (std::string key, seq, rest; lines >> key >> seq >> rest; ++records) {
    int const n = std::stoi(seq);
    EXPECT_TRUE(!last.count(key) || last[key] < n) << key << " " << n << " after " << last[key];
    last[key] = n;
  }
  EXPECT_EQ(last, (std::map<std::string, int>{
                      {"k0", kRounds - 1}, {"k1", kRounds - 1}, {"k2", kRounds - 1}}));
  EXPECT_LT(records, std::size_t{kRounds} * 3 / 10) << "the records were not coalesced";

  // The late one has taken everything, the stuck one nothing since the flood, 0.5 s ago.
  loop_->runFor(0.4);
  EXPECT_EQ(server_->watchers(), 2u);
  loop_->runFor(0.2);
  EXPECT_EQ(server_->watchers(), 1u);
  EXPECT_EQ(server_->timedOut(), 1u);
  EXPECT_EQ(reply(stuck).rfind("ok\nwatching\nk0 0 ", 0), 0u);
  server_->publish("k1", "k1 end\n");
  EXPECT_EQ(take(late), "k1 end\n");
  ::close(late);
}

}  // namespace
}  // namespace Ledrad
