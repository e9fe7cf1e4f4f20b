// ledra-ctl watch end to end: a real ledrad pushes each agent's progress to ledra-ctl as real
// agents are served. On a terminal (a pseudo-terminal here) the view is redrawn in place until the
// agent waited for completes or Ctrl-C ends it; into a pipe it is one plain line per change; when
// ledrad stops, the watch ends with its reason. Every wait is for output or an exit, with a
// deadline; nothing sleeps.
#include <signal.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

using test::ChildProcess;
using test::contains;
using test::kWait;

constexpr char const* kState = R"(enum Test::Power off on
type Test::Box
  attribute power Test::Power
entity /%sysname/Ledra/a/box Test::Box
  set power off
)";

constexpr int kBulkPaths = 30;

std::string profiles() {
  std::string text =
      "profile bulk-\n  group base 10\n    mount /%sysname/Ledra/a Qel::Dir\n"
      "  group many 20\n";
  for (int i = 0; i < kBulkPaths; ++i)
    text += "    mount /%sysname/Ledra/a/p" + std::to_string(i) + " Qel::Dir\n";
  return text + R"(profile waiter
  group base 10
    mount /%sysname/Ledra/a Qel::Dir
  group gated 30
    condition on == /%sysname/Ledra/a/box.power
    mount /%sysname/Ledra/a/box Test::Box
)";
}

class LedradWatch : public test::LedradFolder {
 protected:
  LedradWatch() : LedradFolder(kState, "") {}
  void SetUp() override {
    LedradFolder::SetUp();
    write("profiles/test.profile", profiles());
  }

  std::vector<std::string> watch(std::vector<std::string> const& args) const {
    std::vector<std::string> argv = {LEDRA_CTL_PATH, "--control-socket", path("ctl.sock"), "watch"};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }
};

auto holds(std::string const& text) {
  return [text](std::string const& output) { return contains(output, text); };
}

TEST_F(LedradWatch, OnATerminalTheLineIsRedrawnUntilTheAgentCompletesOrCtrlC) {
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

TEST_F(LedradWatch, IntoAPipeEachChangeIsOnePlainLineAndLedradStoppingEndsTheWatch) {
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

}  // namespace
