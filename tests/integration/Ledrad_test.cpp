// ledrad end to end: the real daemon, real agent processes and the control program over Unix
// sockets in a temporary folder. Every wait is for a line of output, with a deadline; nothing
// sleeps.
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "Qel/NboAttrLog/WireMessage.h"
#include "apps/ledrad/UnixSocket.h"
#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::kWait;
namespace Wire = Qel::NboAttrLog;

constexpr char const* kState = R"(enum Test::Power off on
type Test::Box
  attribute power Test::Power
  attribute level U32
entity /%sysname/Ledra/a/box Test::Box
  set power off
)";

// The groups are written in the reverse of their priorities: the priority decides the order.
constexpr char const* kProfiles = R"(profile node-
  templateKey 1 %n
  group second 20
    mount /%sysname/Ledra/a/node-%n Test::Box w
    mount /%sysname/Ledra/a/box Test::Box
  group first 10
    mount /%sysname/Ledra/a Qel::Dir

profile waiter
  group base 10
    mount /%sysname/Ledra/a Qel::Dir
  group gated 30
    condition on == /%sysname/Ledra/a/box.power
    mount /%sysname/Ledra/a/box Test::Box
)";

std::vector<std::string> expectedNodeMounts(std::string const& n) {
  return {"mount 1 /itest/Ledra flags=Cnp type=", "mount 2 /itest/Ledra/a flags=Cnp type=",
          "mount 3 /itest/Ledra/a/box flags=Cnp type=",
          "mount 4 /itest/Ledra/a/node-" + n + " flags=wnp type="};
}

bool startsWith(std::string const& s, std::string const& prefix) {
  return s.rfind(prefix, 0) == 0;
}

class LedradIntegration : public test::LedradFolder {
 protected:
  LedradIntegration() : LedradFolder(kState, kProfiles) {}

  void TearDown() override {
    if (ledrad_ && ledrad_->running()) {
      ledrad_->signal(SIGTERM);
      auto const status = ledrad_->waitExit(kWait);
      EXPECT_EQ(status, std::optional<int>(0)) << ledrad_->output() << stderrText();
      EXPECT_TRUE(!ledrad_->lines().empty() && ledrad_->lines().back() == "ledrad: stopped")
          << ledrad_->output();
    }
    agents_.clear();
    if (HasFailure()) std::cerr << "standard error of the processes:\n" << stderrText();
    LedradFolder::TearDown();
  }

  std::vector<std::string> ledradArgs() const { return LedradFolder::ledradArgs("itest"); }

  void startLedrad() {
    ledrad_ = std::make_unique<ChildProcess>(ledradArgs(), path("stderr.txt"));
    ASSERT_TRUE(
        ledrad_->waitForLine([](auto const& l) { return startsWith(l, "ledrad: ready"); }, kWait))
        << ledrad_->output() << stderrText();
  }

  ChildProcess& agent(std::string const& name, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {LEDRA_AGENT_PATH, "--socket", path("agents.sock"), "--name",
                                     name};
    argv.insert(argv.end(), extra.begin(), extra.end());
    agents_.push_back(std::make_unique<ChildProcess>(argv, path("stderr.txt")));
    return *agents_.back();
  }

  // Waits for ledrad's line `exact`.
  void expectLedradLine(std::string const& exact) {
    EXPECT_TRUE(ledrad_->printed(exact, kWait)) << "no line \"" << exact << "\" from ledrad:\n"
                                                << ledrad_->output();
  }

  // The agent's mount lines, once it has printed `count` of them.
  std::vector<std::string> mounts(ChildProcess& a, std::size_t count) {
    std::vector<std::string> out;
    while (out.size() < count) {
      auto l = a.waitForLine([](auto const& line) { return startsWith(line, "mount "); }, kWait);
      if (!l) break;
      out.push_back(*l);
    }
    return out;
  }

  std::vector<std::unique_ptr<ChildProcess>> agents_;
};

TEST_F(LedradIntegration, FamilyMembersReceiveTheirMountsInPriorityOrder) {
  startLedrad();
  ChildProcess& one = agent("node-1");
  ChildProcess& two = agent("node-2");
  EXPECT_TRUE(one.waitForLine("connected as node-1", kWait)) << one.output();
  EXPECT_EQ(mounts(one, 4), expectedNodeMounts("1"));
  EXPECT_EQ(mounts(two, 4), expectedNodeMounts("2"));
  expectLedradLine("All mounts complete for node-1");
  expectLedradLine("All mounts complete for node-2");
  auto const status = ctl({"status", "--json", "node-1"});
  EXPECT_EQ(status.status, 0) << status.output;
  EXPECT_NE(status.output.find("\"profile\": \"node-\""), std::string::npos) << status.output;
  EXPECT_NE(status.output.find("\"%n\": \"1\""), std::string::npos) << status.output;
  EXPECT_NE(status.output.find("\"state\": \"mountComplete\""), std::string::npos) << status.output;
  // Nothing beyond the profile's mounts was sent.
  one.signal(SIGTERM);
  EXPECT_EQ(one.waitExit(kWait), std::optional<int>(0));
  EXPECT_EQ(one.lines().back(), "/itest/Ledra/a/node-1");
  EXPECT_EQ(std::count_if(one.lines().begin(), one.lines().end(),
                          [](auto const& l) { return startsWith(l, "mount "); }),
            4);
}

TEST_F(LedradIntegration, ConditionalGroupWaitsUntilTheControlProgramSatisfiesIt) {
  startLedrad();
  ChildProcess& waiter = agent("waiter");
  expectLedradLine("agent waiter waits for group gated: on == /%sysname/Ledra/a/box.power");
  EXPECT_EQ(mounts(waiter, 2),
            (std::vector<std::string>{"mount 1 /itest/Ledra flags=Cnp type=",
                                      "mount 2 /itest/Ledra/a flags=Cnp type="}));
  auto const before = ctl({"status", "--json", "waiter"});
  EXPECT_NE(before.output.find("\"state\": \"conditionalMountGroupPending\""), std::string::npos)
      << before.output;
  EXPECT_NE(before.output.find("\"entity\": \"/itest/Ledra/a/box\""), std::string::npos)
      << before.output;
  EXPECT_NE(before.output.find("\"currentValue\": \"off\""), std::string::npos) << before.output;

  auto const set = ctl({"set", "/itest/Ledra/a/box", "power", "on"});
  EXPECT_EQ(set.status, 0) << set.output;
  EXPECT_EQ(set.output, "/itest/Ledra/a/box power: off -> on\n");
  EXPECT_EQ(mounts(waiter, 1),
            (std::vector<std::string>{"mount 3 /itest/Ledra/a/box flags=Cnp type="}));
  expectLedradLine("All mounts complete for waiter");
  auto const table = ctl({"status"});
  EXPECT_NE(table.output.find("base (10) mounted; gated (30) mounted"), std::string::npos)
      << table.output;
}

TEST_F(LedradIntegration, AgentWithoutProfileIsRefused) {
  startLedrad();
  ChildProcess& stranger = agent("stranger-1");
  EXPECT_TRUE(stranger.waitForLine("closed: no agent profile", kWait)) << stranger.output();
  EXPECT_EQ(stranger.waitExit(kWait), std::optional<int>(0));
  expectLedradLine("agent stranger-1 closed: no agent profile");
  expectLedradLine("agent stranger-1 disconnected");
  auto const status = ctl({"status", "stranger-1"});
  EXPECT_EQ(status.status, 1);
  EXPECT_EQ(status.output, "status: no agent 'stranger-1'\n");
}

TEST_F(LedradIntegration, AgentKilledMidMountIsCleanedUpAndServedAgainOnReconnect) {
  startLedrad();
  // The agent never answers the mount of the first group, so the second one is never sent.
  ChildProcess& first = agent("node-7", {"--hold", "/itest/Ledra/a"});
  EXPECT_EQ(mounts(first, 2), (std::vector<std::string>{"mount 1 /itest/Ledra flags=Cnp type=",
                                                        "mount 2 /itest/Ledra/a flags=Cnp type="}));
  auto const waiting = ctl({"status", "--json", "node-7"});
  EXPECT_NE(waiting.output.find("\"inProgress\": [\n          \"/itest/Ledra/a\"\n        ]"),
            std::string::npos)
      << waiting.output;
  EXPECT_NE(waiting.output.find("\"state\": \"readyMountGroupPending\""), std::string::npos)
      << waiting.output;
  EXPECT_NE(waiting.output.find("\"outstandingRequests\": 1"), std::string::npos);

  first.signal(SIGKILL);
  EXPECT_EQ(first.waitExit(kWait), std::optional<int>(128 + SIGKILL));
  EXPECT_TRUE(ledrad_->waitForLine(
      [](auto const& l) { return startsWith(l, "agent node-7 closed"); }, kWait))
      << ledrad_->output();
  expectLedradLine("agent node-7 disconnected");
  auto const gone = ctl({"status", "node-7"});
  EXPECT_EQ(gone.output, "status: no agent 'node-7'\n");

  ChildProcess& second = agent("node-7");
  EXPECT_EQ(mounts(second, 4), expectedNodeMounts("7"));
  expectLedradLine("All mounts complete for node-7");
  auto const served = ctl({"status", "--json", "node-7"});
  EXPECT_NE(served.output.find("\"epoch\": 2"), std::string::npos) << served.output;
  EXPECT_NE(served.output.find("\"state\": \"mountComplete\""), std::string::npos);
}

// Reads from `fd` until the peer closes, returning the Close reason it sent (if any).
std::optional<std::string> readUntilClosed(int fd) {
  Wire::WireDecoder decoder;
  std::optional<std::string> reason;
  char buf[4096];
  while (true) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(kWait * 1000)) <= 0) return std::string("<no close>");
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n <= 0) return reason;
    decoder.feed(std::string_view(buf, static_cast<std::size_t>(n)));
    Wire::WireMessage m;
    while (decoder.next(m) == Wire::WireDecoder::Result::message) {
      if (auto const* c = std::get_if<Wire::WireClose>(&m)) reason = c->reason;
    }
  }
}

void sendAll(int fd, std::string const& bytes) {
  ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

TEST_F(LedradIntegration, MalformedMessagesCloseOnlyTheirConnection) {
  startLedrad();
  ChildProcess& bystander = agent("node-3");
  EXPECT_EQ(mounts(bystander, 4), expectedNodeMounts("3"));

  // An oversized frame before any hello.
  int const raw = Ledrad::connectUnixSocket(path("agents.sock"));
  sendAll(raw, std::string("\x7f\xff\xff\xff", 4));
  EXPECT_NE(readUntilClosed(raw), std::optional<std::string>("<no close>"));
  ::close(raw);

  // A proper hello, then a frame of an unknown kind.
  int const bad = Ledrad::connectUnixSocket(path("agents.sock"));
  sendAll(bad, Wire::wireFrame(Wire::WireHello{5, "node-4", "node-4"}));
  sendAll(bad, std::string("\0\0\0\2\x09\x00", 6));
  auto const reason = readUntilClosed(bad);
  ::close(bad);
  ASSERT_TRUE(reason);
  EXPECT_FALSE(reason->empty());
  expectLedradLine("agent node-4 connected (connection 1)");
  expectLedradLine("agent node-4 closed: " + *reason);
  expectLedradLine("agent node-4 disconnected");

  // ledrad still serves: the bystander keeps its connection, a newcomer is served.
  ChildProcess& newcomer = agent("node-5");
  EXPECT_EQ(mounts(newcomer, 4), expectedNodeMounts("5"));
  expectLedradLine("All mounts complete for node-5");
  auto const status = ctl({"status", "--json", "node-3"});
  EXPECT_NE(status.output.find("\"connected\": true"), std::string::npos) << status.output;
}

TEST_F(LedradIntegration, RefusedProfileFileChangesNothingAndLedradKeepsServing) {
  startLedrad();
  write("bad.profile",
        "profile late-\n  group g 1\n    mount /itest/Ledra/a Qel::Dir\n"
        "  group h 0\n");
  auto const refused = ctl({"load-profiles", path("bad.profile")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "refused " + path("bad.profile") +
                                ":4: priority must be a whole number from 1 to 99, not '0' "
                                "(nothing of it applied)\n");
  ChildProcess& early = agent("late-1");
  EXPECT_TRUE(early.waitForLine("closed: no agent profile", kWait)) << early.output();

  write("good.profile", "profile late-\n  group g 1\n    mount /itest/Ledra/a Qel::Dir\n");
  auto const loaded = ctl({"load-profiles", path("good.profile")});
  EXPECT_EQ(loaded.status, 0) << loaded.output;
  EXPECT_EQ(loaded.output,
            "loaded " + path("good.profile") + ": 1 profile (1 new, 0 changed, 0 unchanged)\n");
  ChildProcess& late = agent("late-2");
  EXPECT_EQ(mounts(late, 2), (std::vector<std::string>{"mount 1 /itest/Ledra flags=Cnp type=",
                                                       "mount 2 /itest/Ledra/a flags=Cnp type="}));
  expectLedradLine("All mounts complete for late-2");
}

TEST_F(LedradIntegration, BadFileAtStartIsReportedAndLedradDoesNotStart) {
  write("state/zz.state", "entity /%sysname/Ledra/a/box Test::Nothing\n");
  ledrad_ = std::make_unique<ChildProcess>(ledradArgs(), path("stderr.txt"));
  EXPECT_EQ(ledrad_->waitExit(kWait), std::optional<int>(1));
  EXPECT_NE(stderrText().find(path("state/zz.state") + ":1: unknown type 'Test::Nothing'"),
            std::string::npos)
      << stderrText();
  EXPECT_NE(stderrText().find("ledrad: not started"), std::string::npos);
}

}  // namespace
