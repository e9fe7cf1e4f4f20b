// ledrad end to end: the real daemon, real agent processes and the control program over Unix
// sockets in a temporary folder. Agents are served, wait for conditions or are refused; hostile
// input from files, agents and control clients is refused with a reason while ledrad goes on
// serving (or, at start-up, stops with exit status 1); idle control connections and a lack of
// descriptors cost it a bounded amount. Every wait is for a line of output, a reply or an exit,
// with a deadline; nothing sleeps.
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "apps/ledrad/UnixSocket.h"
#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

using test::ChildProcess;
using test::contains;
using test::kWait;
namespace fs = std::filesystem;
using test::startsWith;

constexpr char const* kState = R"(enum Test::Power off on
type Test::Box
  attribute power Test::Power
type Test::Fan
  attribute box Test::Box
entity /%sysname/Ledra/a/box Test::Box
  set power off
entity /%sysname/Ledra/fan Test::Fan
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

// A family profile whose groups are written out of order: one left out by a template condition
// for most members, one waiting for the box to be powered on.
constexpr char const* kProbeProfiles = R"(profile probe-
  templateKey 1 %slot
  templateKey 2 %rest$
  aliasKey %s %slot
  group gated 20
    condition on == /%sysname/Ledra/a/box.power
    mount /%sysname/Ledra/a/box Test::Box w
  group other 15
    templateCondition %slot == 9
    mount /%sysname/Ledra/a/node-%s Test::Box
  group base 10
    mount /%sysname/Ledra/a Qel::Dir

profile solo
  templateKey 1 %k
  group g 1
    mount /%sysname/Ledra/a Qel::Dir
)";

// The words of the table row of group `group` in explain's output; empty when there is none.
std::vector<std::string> explainRow(std::string const& output, std::string const& group) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;)
      words.push_back(w);
    if (words.size() > 2 && words[1] == group && words[0] != "group") return words;
  }
  return {};
}

// What ledrad writes on `fd` until it closes it; "<timeout>" appended when kWait passes first.
std::string readToEnd(int fd) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
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

class LedradIntegration : public test::LedradFolder {
 protected:
  LedradIntegration() : LedradFolder(kState, kProfiles) {}

  void TearDown() override {
    for (int fd : sockets_)
      ::close(fd);
    LedradFolder::TearDown();
  }

  int connectTo(char const* socket) {
    sockets_.push_back(Ledrad::connectUnixSocket(path(socket)));
    return sockets_.back();
  }

  // Waits for ledrad's line `exact`.
  void expectLedradLine(std::string const& exact) {
    EXPECT_TRUE(ledrad_->printed(exact, kWait)) << "no line \"" << exact << "\" from ledrad";
  }

  // The agent's mount lines, once it has printed `count` of them.
  static std::vector<std::string> mounts(ChildProcess& a, std::size_t count) {
    std::vector<std::string> out;
    while (out.size() < count) {
      auto l = a.waitForLine([](auto const& line) { return startsWith(line, "mount "); }, kWait);
      if (!l) break;
      out.push_back(*l);
    }
    return out;
  }

  std::vector<int> sockets_;
};

TEST_F(LedradIntegration, AgentsAreServedInPriorityOrderWaitForConditionsOrAreRefused) {
  startLedrad("itest");
  ChildProcess& node = agent("node-1");
  ChildProcess& waiter = agent("waiter");
  ChildProcess& stranger = agent("stranger-1");
  EXPECT_EQ(mounts(node, 4),
            (std::vector<std::string>{
                "mount 1 /itest/Ledra flags=Cnp type=", "mount 2 /itest/Ledra/a flags=Cnp type=",
                "mount 3 /itest/Ledra/a/box flags=Cnp type=",
                "mount 4 /itest/Ledra/a/node-1 flags=wnp type="}));
  expectLedradLine("All mounts complete for node-1");
  auto const status = ctl({"status", "--json", "node-1"});
  EXPECT_EQ(status.status, 0) << status.output;
  EXPECT_TRUE(contains(status.output, "\"%n\": \"1\"")) << status.output;
  EXPECT_TRUE(contains(status.output, "\"state\": \"mountComplete\"")) << status.output;

  // The stranger has no profile: it is told so and leaves with status 0.
  EXPECT_TRUE(stranger.waitForLine("closed: no agent profile", kWait)) << stranger.output();
  EXPECT_EQ(stranger.waitExit(kWait), std::optional<int>(0));
  expectLedradLine("agent stranger-1 closed: no agent profile");
  expectLedradLine("agent stranger-1 disconnected");
  // Status goes on showing it, and why it left.
  auto const gone = ctl({"status", "stranger-1"});
  EXPECT_EQ(gone.status, 0);
  EXPECT_TRUE(contains(gone.output, "stranger-1  -        departed")) << gone.output;
  EXPECT_TRUE(contains(gone.output, "ago: no agent profile\n")) << gone.output;
  EXPECT_EQ(ctl({"status", "stranger-2"}).output, "status: no agent 'stranger-2'\n");

  // The waiter's last group waits until the control program satisfies its condition.
  expectLedradLine("agent waiter waits for group gated: on == /%sysname/Ledra/a/box.power");
  EXPECT_EQ(mounts(waiter, 2).size(), 2u);
  auto const set = ctl({"set", "/itest/Ledra/a/box", "power", "on"});
  EXPECT_EQ(set.status, 0) << set.output;
  EXPECT_EQ(set.output, "/itest/Ledra/a/box power: off -> on\n");
  EXPECT_EQ(mounts(waiter, 1),
            (std::vector<std::string>{"mount 3 /itest/Ledra/a/box flags=Cnp type="}));
  expectLedradLine("All mounts complete for waiter");

  // A profile loaded while ledrad runs serves the agents that come later.
  write("late.profile", "profile late-\n  group g 1\n    mount /itest/Ledra/a Qel::Dir\n");
  auto const loaded = ctl({"load-profiles", path("late.profile")});
  EXPECT_EQ(loaded.output,
            "loaded " + path("late.profile") + ": 1 profile (1 new, 0 changed, 0 unchanged)\n");
  agent("late-2");
  expectLedradLine("All mounts complete for late-2");

  // On SIGTERM an agent prints what it holds and leaves with status 0.
  node.signal(SIGTERM);
  EXPECT_EQ(node.waitExit(kWait), std::optional<int>(0));
  EXPECT_EQ(node.lines().back(), "/itest/Ledra/a/node-1");
}

// --check reads the folders as a start does and tells every problem of every file, a condition
// checked against the state that loaded; a start on the same folders stops with exit status 1.
TEST_F(LedradIntegration, CheckTellsEveryProblemAndAStartStopsWithItsReason) {
  write("state/b.state", "entity /x/y Check::None\n  set v 1\nbogus\n");
  write(
      "profiles/bad.profile",
      "profile \"\"\n  group g 1\n    mount /a Qel::Dir\n"
      "profile b\n  group g 1\n    mount /b Qel::Dir\n    condition 1 == /%sysname/Ledra/a/box.w\n"
      "profile c\n  group g 0\n");
  auto const check = run(ledradArgs("itest", {"--check"}));
  EXPECT_EQ(check.status, 1);
  std::string const bad = path("profiles") + "/bad.profile:";
  for (auto const& line :
       {path("state") + "/b.state:1: unknown type 'Check::None'\n",
        path("state") + "/b.state:3: unknown keyword 'bogus'\n",
        bad + "1: profile name must not be empty\n",
        bad + "7: condition: the Test::Box at /itest/Ledra/a/box has no attribute 'w'\n",
        bad + "9: priority must be a whole number from 1 to 99, not '0'\n",
        std::string("ledrad: check failed: 5 problems in 2 of 4 files\n")})
    EXPECT_TRUE(contains(check.output, line)) << line << check.output;
  EXPECT_FALSE(contains(check.output, "ready")) << check.output;
  fs::remove(path("state/b.state"));
  ledrad_ = std::make_unique<ChildProcess>(ledradArgs("itest"), path("stderr.txt"));
  EXPECT_EQ(ledrad_->waitExit(kWait), std::optional<int>(1)) << stderrText();
  std::string const err = stderrText();
  EXPECT_TRUE(contains(err, bad + "1: profile name must not be empty\n")) << err;
  EXPECT_TRUE(err.ends_with("\nledrad: not started\n")) << err;
}

TEST_F(LedradIntegration, AgentsAndControlClientsAreRefusedWithTheReasonAndLedradKeepsServing) {
  startLedrad("itest", {}, true);
  // A name holding a newline would print a line of its own in ledrad's event output: the agent
  // is refused at its hello and told why.
  std::string const forged = "fan-1\nAll mounts complete for fan-1\nagent fan-1";
  auto const refused = run({LEDRA_AGENT_PATH, "--socket", path("agents.sock"), "--name", forged});
  EXPECT_EQ(refused.status, 0) << refused.output;
  EXPECT_TRUE(contains(refused.output,
                       "closed: agent name fan-1\\x0aAll mounts complete for fan-1\\x0aagent "
                       "fan-1 holds control character U+000A at byte 5"))
      << refused.output;
  auto const mistyped = ctl({"set", "/itest/Ledra/fan", "box", "/itest/Ledra/fan"});
  EXPECT_EQ(mistyped.status, 1);
  EXPECT_EQ(mistyped.output,
            "/itest/Ledra/fan box: the entity at /itest/Ledra/fan is a Test::Fan, not a "
            "Test::Box\n");
  // A later change is printed after anything the refused agent could have caused.
  EXPECT_EQ(ctl({"set", "/itest/Ledra/fan", "box", "/itest/Ledra/a/box"}).status, 0);
  ASSERT_TRUE(ledrad_->waitForLine("ledrad: set /itest/Ledra/fan box: (none) -> /itest/Ledra/a/box",
                                   kWait));
  for (auto const& l : ledrad_->lines())
    EXPECT_FALSE(contains(l, "All mounts complete")) << l;
  // ledra-ctl's own errors stay on one line whatever the command line holds.
  auto const unreachable = ctl({"--control-socket", path("no\nsuch.sock"), "status"});
  EXPECT_EQ(unreachable.status, 3);
  EXPECT_EQ(unreachable.output, "ledra-ctl: cannot connect to " + path("no\\x0asuch.sock") +
                                    ": No such file or directory\n");
}

// A ledra-ctl refused at a limit prints ledrad's reason (not "Connection reset by peer"); once
// the idle connections time out it is served again.
TEST_F(LedradIntegration, ARefusedLedraCtlPrintsWhyAndIdleConnectionsTimeOut) {
  startLedrad("itest", {"--max-control-clients", "2", "--control-idle-timeout", "0.5"}, true);
  int const a = connectTo("ctl.sock");
  int const b = connectTo("ctl.sock");
  auto const refused = ctl({"status"});
  EXPECT_EQ(refused.status, 1) << refused.output;
  EXPECT_EQ(refused.output,
            "ledrad serves at most 2 control connections at once; try again later\n");
  for (int fd : {a, b})
    EXPECT_EQ(readToEnd(fd), "error\nno request within 0.5 seconds\n");
  EXPECT_EQ(ctl({"status"}).status, 0);
}

// With its descriptors used up, ledrad pauses accepting on both sockets (instead of spinning on
// the control socket) and serves the waiting ledra-ctl once agents leave.
TEST_F(LedradIntegration, OutOfDescriptorsAWaitingControlClientIsServedOnceSomeAreFree) {
#ifdef LEDRA_SANITIZE
  // UBSan tests whether memory is readable through a pipe: with no descriptor left it takes every
  // object for unreadable and reports it. The normal build runs this test.
  GTEST_SKIP() << "needs descriptors the sanitizers cannot do without";
#endif
  startLedrad("itest", {"--trace", "LedraPlatform=1"}, true);
  std::size_t open = 0;
  for (auto const& e : fs::directory_iterator("/proc/" + std::to_string(ledrad_->pid()) + "/fd")) {
    (void)e;
    ++open;
  }
  rlimit const low{open + 2, open + 2};
  ASSERT_EQ(::prlimit(ledrad_->pid(), RLIMIT_NOFILE, &low, nullptr), 0) << std::strerror(errno);
  for (int i = 0; i < 4; ++i)
    connectTo("agents.sock");
  auto paused = [](char const* what) {
    return [what](std::string const& l) {
      return contains(l, what) && contains(l, "cannot accept: Too many open files");
    };
  };
  ASSERT_TRUE(ledrad_->waitForLine(paused("agent listener on "), kWait));
  ChildProcess waiting({LEDRA_CTL_PATH, "--control-socket", path("ctl.sock"), "status"}, "", true);
  ASSERT_TRUE(ledrad_->waitForLine(paused("control socket "), kWait));
  for (int fd : sockets_)
    ::close(fd);
  sockets_.clear();
  EXPECT_EQ(waiting.waitExit(kWait), std::optional<int>(0)) << waiting.output();
  EXPECT_TRUE(contains(waiting.output(), "ledrad: system itest")) << waiting.output();
}

// explain says what an agent gets and why: from its engine while it is connected, and as a
// connection made now would be served for a name that is not. A name no profile serves is no
// error; a request without exactly one name is.
TEST_F(LedradIntegration, ExplainTellsWhatAnAgentGetsAndWhyConnectedOrNot) {
  write("profiles/probe.profile", kProbeProfiles);
  startLedrad("itest");
  agent("probe-3-x-y");
  expectLedradLine("agent probe-3-x-y waits for group gated: on == /%sysname/Ledra/a/box.power");

  auto const table = ctl({"explain", "probe-3-x-y"});
  ASSERT_EQ(table.status, 0) << table.output;
  auto const& out = table.output;
  EXPECT_TRUE(startsWith(out,
                         "agent probe-3-x-y: connected (engine state "
                         "conditionalMountGroupPending)\n"))
      << out;
  EXPECT_TRUE(contains(out,
                       "%slot=3 (field 1); %rest=x-y (fields 2 to the end); %s=3 (alias of "
                       "%slot)\n"))
      << out;
  // The groups in the order the engine takes them, then the one a template condition leaves out.
  using Words = std::vector<std::string>;
  EXPECT_EQ(explainRow(out, "base"), (Words{"1", "base", "10", "mounted", "-"})) << out;
  EXPECT_EQ(explainRow(out, "gated"), (Words{"2", "gated", "20", "waiting", "waits", "for", "on",
                                             "==", "/%sysname/Ledra/a/box.power", "(now", "off)"}))
      << out;
  EXPECT_EQ(explainRow(out, "other"), (Words{"-", "other", "15", "skipped", "templateCondition",
                                             "%slot", "==", "9", "is", "false"}))
      << out;
  EXPECT_TRUE(contains(out,
                       "  condition          on == /%sysname/Ledra/a/box.power: "
                       "/itest/Ledra/a/box.power is off (waited for now)\n"))
      << out;
  EXPECT_TRUE(contains(out,
                       "  mount              /itest/Ledra/a/box Test::Box: w: the agent "
                       "writes it; request wnp (w: writable; np: "))
      << out;

  auto const connected = nlohmann::json::parse(ctl({"explain", "--json", "probe-3-x-y"}).output);
  EXPECT_TRUE(connected.at("connected"));
  EXPECT_EQ(connected.at("match"), "family");
  auto const& gated = connected.at("groups").at(1);
  EXPECT_EQ(gated.at("status"), "waiting");
  EXPECT_EQ(gated.at("conditions").at(0).at("entity"), "/itest/Ledra/a/box");
  EXPECT_EQ(gated.at("conditions").at(0).at("currentValue"), "off");
  EXPECT_TRUE(gated.at("conditions").at(0).at("waitedFor"));
  EXPECT_EQ(gated.at("mounts").at(0).at("request"), "wnp");
  EXPECT_EQ(connected.at("skippedGroups").at(0).at("templateConditions").at(0).at("templateValue"),
            "3");
  ASSERT_EQ(connected.at("waitingFor").size(), 1u);
  EXPECT_TRUE(
      contains(connected.at("waitingFor").at(0).get<std::string>(), "of group gated (now off)"));

  // Once the box is powered on the group is mounted and nothing is waited for.
  EXPECT_EQ(ctl({"set", "/itest/Ledra/a/box", "power", "on"}).status, 0);
  expectLedradLine("All mounts complete for probe-3-x-y");
  auto const done = nlohmann::json::parse(ctl({"explain", "--json", "probe-3-x-y"}).output);
  EXPECT_EQ(done.at("groups").at(1).at("status"), "mounted");
  EXPECT_FALSE(done.at("groups").at(1).at("conditions").at(0).at("waitedFor"));
  EXPECT_EQ(done.at("waitingFor").size(), 0u);

  // A name not connected: its values are cut from the name, and the left-out group is taken.
  auto const later = nlohmann::json::parse(ctl({"explain", "--json", "probe-9"}).output);
  EXPECT_FALSE(later.at("connected"));
  EXPECT_EQ(later.at("templateValues").at(1).at("value"), "9");
  EXPECT_EQ(later.at("templateValues").at(2).at("value"), "");
  EXPECT_EQ(later.at("templateValues").at(2).at("origin"), "no field 2");
  Words order;
  for (auto const& g : later.at("groups"))
    order.push_back(g.at("name").get<std::string>());
  EXPECT_EQ(order, (Words{"base", "other", "gated"}));
  EXPECT_EQ(later.at("groups").at(1).at("mounts").at(0).at("expanded"), "/itest/Ledra/a/node-9");
  EXPECT_EQ(later.at("skippedGroups").size(), 0u);
  auto const notYet = ctl({"explain", "probe-9"});
  EXPECT_TRUE(contains(notYet.output, "\n  waiting for        not connected\n")) << notYet.output;

  // A profile whose key no name without "-" can fill, and a name no profile serves.
  auto const solo = nlohmann::json::parse(ctl({"explain", "--json", "solo"}).output);
  EXPECT_EQ(solo.at("match"), "own");
  EXPECT_EQ(solo.at("templateFailure"), "No template value found for %k");
  auto const stranger = ctl({"explain", "stranger-1"});
  EXPECT_EQ(stranger.status, 0);
  EXPECT_TRUE(contains(stranger.output,
                       "  profile            none: no profile is named "
                       "stranger-1 or by a prefix of it ending in \"-\"\n"))
      << stranger.output;
  auto const noName = ctl({"explain", "--json"});
  EXPECT_EQ(noName.status, 1);
  EXPECT_EQ(noName.output,
            "explain: one agent name expected, 0 given\nusage: explain [--json] AGENT\n");
}

}  // namespace
