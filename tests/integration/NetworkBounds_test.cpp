// ledrad's network boundary with real processes: agent names that would forge output lines,
// control connections held open by one process, and a control client waiting while ledrad has
// run out of descriptors. Every wait is for a line, a reply or an exit, with a deadline; nothing
// sleeps.
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "apps/ledrad/UnixSocket.h"
#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::kWait;

constexpr char const* kState = R"(enum Test::Power off on
type Test::Box
  attribute power Test::Power
entity /%sysname/Ledra/a/box Test::Box
  set power off
)";

constexpr char const* kProfiles = R"(profile fan-
  group base 10
    mount /%sysname/Ledra/a Qel::Dir
)";

bool contains(std::string const& s, std::string const& part) {
  return s.find(part) != std::string::npos;
}

using Deadline = std::chrono::steady_clock::time_point;

Deadline deadlineIn(double seconds) {
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(seconds));
}

// What the server writes on `fd` until it closes it; "<timeout>" appended when the deadline
// passes first.
std::string readToEnd(int fd, Deadline deadline) {
  std::string out;
  char buf[4096];
  while (true) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return out + "<timeout>";
    ssize_t const n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return out;
    out.append(buf, static_cast<std::size_t>(n));
  }
}

class NetworkBounds : public test::LedradFolder {
 protected:
  NetworkBounds() : LedradFolder(kState, kProfiles) {}

  void TearDown() override {
    for (int fd : sockets_)
      ::close(fd);
    if (HasFailure() && ledrad_) std::cerr << "ledrad:\n" << ledrad_->output();
    LedradFolder::TearDown();
  }

  // ledrad with `extra` options; its standard error (the traces) joins its output.
  void startLedrad(std::vector<std::string> const& extra = {}) {
    ledrad_ = std::make_unique<ChildProcess>(ledradArgs("itest", extra), "", true);
    ASSERT_TRUE(
        ledrad_->waitForLine([](auto const& l) { return l.rfind("ledrad: ready", 0) == 0; }, kWait))
        << ledrad_->output();
  }

  int connectTo(char const* socket) {
    sockets_.push_back(Ledrad::connectUnixSocket(path(socket)));
    return sockets_.back();
  }

  std::vector<int> sockets_;
};

// A name holding a newline would print a line of its own ("All mounts complete for fan-1") in
// ledrad's event output: the agent is refused at its hello, told why, and ledrad goes on.
TEST_F(NetworkBounds, AnAgentNameThatWouldForgeALineIsRefused) {
  startLedrad();
  std::string const forged = "fan-1\nAll mounts complete for fan-1\nagent fan-1";
  auto const refused = run({LEDRA_AGENT_PATH, "--socket", path("agents.sock"), "--name", forged});
  EXPECT_EQ(refused.status, 0) << refused.output;
  EXPECT_TRUE(contains(refused.output,
                       "closed: agent name fan-1\\x0aAll mounts complete for fan-1\\x0aagent "
                       "fan-1 holds control character U+000A at byte 5"))
      << refused.output;
  // A later change is printed after anything the refused agent could have caused.
  EXPECT_EQ(ctl({"set", "/itest/Ledra/a/box", "power", "on"}).status, 0);
  ASSERT_TRUE(ledrad_->waitForLine("ledrad: set /itest/Ledra/a/box power: off -> on", kWait));
  for (auto const& l : ledrad_->lines())
    EXPECT_FALSE(contains(l, "All mounts complete")) << l;
  auto const status = ctl({"status"});
  EXPECT_EQ(status.status, 0) << status.output;
  EXPECT_TRUE(contains(status.output, ", 0 agent(s)")) << status.output;
}

// One process holding 64 idle control connections no longer locks ledra-ctl out: beyond 8 its
// connections are refused with the reason, and ledra-ctl, another process, is served.
TEST_F(NetworkBounds, IdleControlConnectionsOfOneProcessDoNotLockOthersOut) {
  startLedrad();
  std::vector<int> held;
  for (int i = 0; i < 64; ++i)
    held.push_back(connectTo("ctl.sock"));
  std::string const refusal =
      "error\nledrad serves at most 8 control connections of one process at once (process " +
      std::to_string(::getpid()) + ")\n";
  Deadline const deadline = deadlineIn(kWait);
  for (std::size_t i = 8; i < held.size(); ++i)
    EXPECT_EQ(readToEnd(held[i], deadline), refusal) << i;
  auto const status = ctl({"status"});
  EXPECT_EQ(status.status, 0) << status.output;
  EXPECT_TRUE(contains(status.output, "ledrad: system itest")) << status.output;
}

// A ledra-ctl refused at a limit prints ledrad's reason (not "Connection reset by peer"); once
// the idle connections time out it is served again.
TEST_F(NetworkBounds, ARefusedLedraCtlPrintsWhyAndIdleConnectionsTimeOut) {
  startLedrad({"--max-control-clients", "2", "--control-idle-timeout", "0.5"});
  int const a = connectTo("ctl.sock");
  int const b = connectTo("ctl.sock");
  auto const refused = ctl({"status"});
  EXPECT_EQ(refused.status, 1) << refused.output;
  EXPECT_EQ(refused.output,
            "ledrad serves at most 2 control connections at once; try again later\n");
  Deadline const deadline = deadlineIn(kWait);
  for (int fd : {a, b})
    EXPECT_EQ(readToEnd(fd, deadline), "error\nno request within 0.5 seconds\n");
  EXPECT_EQ(ctl({"status"}).status, 0);
}

// With its descriptors used up, ledrad pauses accepting on both sockets (instead of spinning on
// the control socket) and serves the waiting ledra-ctl once agents leave.
TEST_F(NetworkBounds, OutOfDescriptorsAWaitingControlClientIsServedOnceSomeAreFree) {
#ifdef LEDRA_SANITIZE
  // UBSan tests whether memory is readable through a pipe: with no descriptor left it takes every
  // object for unreadable and reports it. The normal build runs this test.
  GTEST_SKIP() << "needs descriptors the sanitizers cannot do without";
#endif
  startLedrad({"--trace", "LedraPlatform=1"});
  std::size_t open = 0;
  for (auto const& e : fs::directory_iterator("/proc/" + std::to_string(ledrad_->pid()) + "/fd")) {
    (void)e;
    ++open;
  }
  rlimit const low{open + 2, open + 2};
  ASSERT_EQ(::prlimit(ledrad_->pid(), RLIMIT_NOFILE, &low, nullptr), 0) << std::strerror(errno);
  std::vector<int> agents;
  for (int i = 0; i < 4; ++i)
    agents.push_back(connectTo("agents.sock"));
  auto paused = [](char const* what) {
    return [what](std::string const& l) {
      return contains(l, what) && contains(l, "cannot accept: Too many open files");
    };
  };
  ASSERT_TRUE(ledrad_->waitForLine(paused("agent listener on "), kWait));
  ChildProcess waiting({LEDRA_CTL_PATH, "--control-socket", path("ctl.sock"), "status"}, "", true);
  ASSERT_TRUE(ledrad_->waitForLine(paused("control socket "), kWait));
  for (int fd : agents)
    ::close(fd);
  sockets_.clear();
  EXPECT_EQ(waiting.waitExit(kWait), std::optional<int>(0)) << waiting.output();
  EXPECT_TRUE(contains(waiting.output(), "ledrad: system itest")) << waiting.output();
}

}  // namespace
