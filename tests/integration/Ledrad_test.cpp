// ledrad end to end: the real daemon, real agent processes and the control program over Unix
// sockets in a temporary folder. Agents are served, wait for conditions or are refused; hostile
// input from files, agents and control clients is refused with a reason while ledrad goes on
// serving (or, at start-up, stops with exit status 1); idle control connections and a lack of
// descriptors cost it a bounded amount; explain, watch and the operator's commands show what it
// does. Every wait is for a line of output, a reply or an exit, with a deadline; nothing sleeps.
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "apps/ledrad/UnixSocket.h"
#include "tests/integration/ChildProcess.h"
#include "tests/integration/LedradFolder.h"

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

// A profile of 31 mounts, for watch's progress.
constexpr int kBulkPaths = 30;
std::string bulkProfile() {
  std::string text =
      "profile bulk-\n  group base 10\n    mount /%sysname/Ledra/a Qel::Dir\n  group many 20\n";
  for (int i = 0; i < kBulkPaths; ++i)
    text += "    mount /%sysname/Ledra/a/p" + std::to_string(i) + " Qel::Dir\n";
  return text;
}

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

  // ledra-ctl watch with `args`.
  std::vector<std::string> watch(std::vector<std::string> const& args) const {
    std::vector<std::string> argv = {LEDRA_CTL_PATH, "--control-socket", path("ctl.sock"), "watch"};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  std::vector<int> sockets_;
};

auto holds(std::string const& text) {
  return [text](std::string const& output) { return contains(output, text); };
}

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
        bad + "1: profile name must not be empty\n",
        bad + "7: condition: the Test::Box at /itest/Ledra/a/box has no attribute 'w'\n",
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
    EXPECT_EQ(test::readToEnd(fd), "error\nno request within 0.5 seconds\n");
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

  // The JSON rendering of the same model: a few cells from each part.
  auto const connected = nlohmann::json::parse(ctl({"explain", "--json", "probe-3-x-y"}).output);
  EXPECT_TRUE(connected.at("connected"));
  EXPECT_EQ(connected.at("match"), "family");
  auto const& gated = connected.at("groups").at(1);
  EXPECT_EQ(gated.at("mounts").at(0).at("request"), "wnp");
  auto const& condition = gated.at("conditions").at(0);
  EXPECT_TRUE(condition.at("waitedFor"));
  EXPECT_EQ(condition.at("entity").get<std::string>() + " " +
                condition.at("currentValue").get<std::string>(),
            "/itest/Ledra/a/box off");
  EXPECT_EQ(connected.at("skippedGroups").at(0).at("templateConditions").at(0).at("templateValue"),
            "3");
  ASSERT_EQ(connected.at("waitingFor").size(), 1u);

  // Once the box is powered on the group is mounted and nothing is waited for.
  EXPECT_EQ(ctl({"set", "/itest/Ledra/a/box", "power", "on"}).status, 0);
  expectLedradLine("All mounts complete for probe-3-x-y");
  auto const done = nlohmann::json::parse(ctl({"explain", "--json", "probe-3-x-y"}).output);
  EXPECT_EQ(done.at("groups").at(1).at("status"), "mounted");
  EXPECT_EQ(done.at("waitingFor").size(), 0u);

  // A name not connected: its values are cut from the name, and the left-out group is taken.
  auto const later = nlohmann::json::parse(ctl({"explain", "--json", "probe-9"}).output);
  EXPECT_FALSE(later.at("connected"));
  EXPECT_EQ(later.at("templateValues").at(2).at("origin"), "no field 2");
  Words order;
  for (auto const& g : later.at("groups"))
    order.push_back(g.at("name").get<std::string>());
  EXPECT_EQ(order, (Words{"base", "other", "gated"}));
  EXPECT_EQ(later.at("groups").at(1).at("mounts").at(0).at("expanded"), "/itest/Ledra/a/node-9");
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

// ledra-ctl watch: ledrad pushes each agent's progress as agents are served. On a terminal (a
// pseudo-terminal here) the view is redrawn in place until the agent waited for completes or
// Ctrl-C ends it; into a pipe it is one plain line per change; when ledrad stops, the watch ends
// with its reason.
TEST_F(LedradIntegration, WatchOnATerminalTheLineIsRedrawnUntilTheAgentCompletesOrCtrlC) {
  write("profiles/bulk.profile", bulkProfile());
  startLedrad("itest");
  ChildProcess until(watch({"--until-complete", "bulk-1"}), ChildProcess::Terminal{100, 30});
  ASSERT_TRUE(until.waitForOutput(
      holds("bulk-1 [--------------------] 0/0 not known to ledrad yet"), kWait))
      << until.output();
  agent("bulk-1");
  std::string const n = std::to_string(kBulkPaths + 1);
  EXPECT_EQ(until.waitExit(kWait), std::optional<int>(0)) << until.output();
  std::string const out = until.output();
  EXPECT_TRUE(contains(out, "bulk-1 [####################] " + n + "/" + n + " mountComplete"))
      << out;
  // Drawn in place: the cursor hidden, moved back up over the line for each redraw, shown again
  // at the end.
  EXPECT_TRUE(contains(out, "\x1b[?25l")) << out;
  EXPECT_TRUE(contains(out, "\x1b[1A\r")) << out;
  EXPECT_EQ(out.substr(out.size() - 6), "\x1b[?25h") << out;

  ChildProcess live(watch({}), ChildProcess::Terminal{100, 30});
  ASSERT_TRUE(live.waitForOutput(holds(n + "/" + n + " mountComplete"), kWait)) << live.output();
  live.type("\x03");
  EXPECT_EQ(live.waitExit(kWait), std::optional<int>(130)) << live.output();
  std::string const after = live.output();
  EXPECT_EQ(after.substr(after.size() - 8), "\r\n\x1b[?25h") << after;
}

TEST_F(LedradIntegration, WatchIntoAPipeEachChangeIsOnePlainLineAndLedradStoppingEndsTheWatch) {
  write("profiles/bulk.profile", bulkProfile());
  startLedrad("itest");
  ChildProcess waiting(watch({"--until-complete", "waiter"}), "", true);
  ChildProcess everything(watch({}), "", true);
  agent("bulk-2");
  agent("waiter");
  std::string const waits =
      "waiter [##########----------] 1/2 conditionalMountGroupPending waits for: condition on == "
      "/%sysname/Ledra/a/box.power of group gated";
  ASSERT_TRUE(waiting.waitForLine(waits, kWait)) << waiting.output();
  ASSERT_TRUE(everything.waitForLine(waits, kWait)) << everything.output();
  auto const set = ctl({"set", "/itest/Ledra/a/box", "power", "on"});
  EXPECT_EQ(set.status, 0) << set.output;
  EXPECT_EQ(waiting.waitExit(kWait), std::optional<int>(0)) << waiting.output();
  EXPECT_EQ(waiting.lines().back(), "waiter [####################] 2/2 mountComplete");
  // Only the agent waited for is shown.
  for (auto const& l : waiting.lines())
    EXPECT_TRUE(l.starts_with("waiter [")) << l;

  ledrad_->signal(SIGTERM);
  EXPECT_EQ(ledrad_->waitExit(kWait), std::optional<int>(0));
  EXPECT_EQ(everything.waitExit(kWait), std::optional<int>(3)) << everything.output();
  EXPECT_EQ(everything.lines().back(),
            "ledra-ctl: ledrad at " + path("ctl.sock") + " closed the watch");
}

// What an operator sees of a running ledrad on the bundled examples: the database's entities and
// values (get, ls), the counts (metrics), the trace ring (trace dump, read back with
// ringlog-decode), and a directory that appears card by card reaching the agent entry by entry.
class OperatorIntegration : public test::LedradFolder {
 protected:
  OperatorIntegration() : LedradFolder("", "") {}

  void SetUp() override {
    LedradFolder::SetUp();
    fs::path const examples = LEDRA_EXAMPLES_DIR;
    fs::copy(examples / "profiles", dir_ / "profiles");
    fs::copy(examples / "state", dir_ / "state");
  }

  // The value of the sample `name` (with its labels) in OpenMetrics `text`; "" when absent.
  static std::string sample(std::string const& text, std::string const& name) {
    std::string const head = "\n" + name + " ";
    auto const at = text.find(head);
    if (at == std::string::npos) return "";
    auto const from = at + head.size();
    return text.substr(from, text.find('\n', from) - from);
  }

  // The agent's lines for mounts of `path` and below, once it has printed `count` of them.
  static std::vector<std::string> mountsBelow(ChildProcess& a, std::string const& path,
                                              std::size_t count) {
    std::vector<std::string> out;
    while (out.size() < count) {
      auto l = a.waitForLine(
          [&](auto const& line) { return startsWith(line, "mount ") && contains(line, path); },
          kWait);
      if (!l) break;
      out.push_back(l->substr(l->find(' ', 6) + 1));
    }
    return out;
  }
};

TEST_F(OperatorIntegration, TheOperatorSeesDataMetricsAndTraceAndCardsArriveEntryByEntry) {
  startLedrad("ops", {"--trace", "PassiveEntityManager=6"});
  ChildProcess& supervisor = agent("supervisor");
  EXPECT_TRUE(ledrad_->printed(
      "agent supervisor waits for group powered: on == /%sysname/Ledra/hardware/chassis.powerState",
      kWait))
      << ledrad_->output();

  // The database's entities and values.
  auto const chassis = ctl({"get", "/ops/Ledra/hardware/chassis"});
  EXPECT_EQ(chassis.status, 0);
  EXPECT_TRUE(startsWith(chassis.output, "/ops/Ledra/hardware/chassis Demo::Chassis\n"))
      << chassis.output;
  EXPECT_TRUE(contains(chassis.output, "\n  powerState = standby\n")) << chassis.output;
  EXPECT_EQ(ctl({"get", "/ops/Ledra/hardware/chassis", "ready[fan-1]"}).output, "true\n");
  EXPECT_EQ(ctl({"ls", "/ops/Ledra/hardware"}).output, "chassis Demo::Chassis\nfan Qel::Dir\n");
  auto const missing = ctl({"get", "/ops/Ledra/hardware/card"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.output, "no entity at /ops/Ledra/hardware/card\n");
  EXPECT_EQ(ctl({"ls", "/ops/Ledra/hardware/chassis"}).output,
            "/ops/Ledra/hardware/chassis is a Demo::Chassis, not a directory\n");
  EXPECT_EQ(ctl({"get", "/ops/Ledra/hardware/chassis", "powerState[x]"}).output,
            "'powerState' is no collection\n");

  // Powered on, the supervisor still waits for its line cards: the card directory does not
  // stand yet. Two cards plugged in one after the other reach it as they come.
  EXPECT_EQ(ctl({"set", "/ops/Ledra/hardware/chassis", "powerState", "on"}).status, 0);
  EXPECT_EQ(mountsBelow(supervisor, "/ops/Ledra/status", 1).size(), 1u) << supervisor.output();
  fs::path const hotplug = fs::path(LEDRA_EXAMPLES_DIR) / "hotplug";
  EXPECT_EQ(ctl({"load-state", (hotplug / "card-1.state").string()}).status, 0);
  EXPECT_EQ(ctl({"load-state", (hotplug / "card-2.state").string()}).status, 0);
  EXPECT_EQ(mountsBelow(supervisor, "/ops/Ledra/hardware/card", 3),
            (std::vector<std::string>{"/ops/Ledra/hardware/card flags=Cnp type=",
                                      "/ops/Ledra/hardware/card/1 flags=Cnp type=",
                                      "/ops/Ledra/hardware/card/2 flags=Cnp type="}))
      << supervisor.output();
  EXPECT_TRUE(ledrad_->printed("All mounts complete for supervisor", kWait));

  // The counts and times, as a textfile collector reads them.
  auto const metrics = ctl({"metrics"});
  EXPECT_EQ(metrics.status, 0);
  EXPECT_TRUE(metrics.output.ends_with("# EOF\n")) << metrics.output;
  EXPECT_EQ(sample(metrics.output, "ledrad_agents_complete_total"), "1");
  EXPECT_EQ(sample(metrics.output, "ledrad_mount_requests_total"),
            sample(metrics.output, "ledrad_mount_answers_total{result=\"complete\"}"));

  // The trace ring of the running ledrad, read back.
  std::string const ring = path("ring.bin");
  auto const dumped = ctl({"trace", "dump", ring});
  EXPECT_EQ(dumped.output, "trace ring dumped to " + ring + " (read it with ringlog-decode)\n");
  auto const decoded = run({RINGLOG_DECODE_PATH, ring});
  EXPECT_EQ(decoded.status, 0);
  EXPECT_TRUE(contains(decoded.output, "All mounts complete for supervisor")) << decoded.output;
}

}  // namespace
