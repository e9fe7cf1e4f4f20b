// ledrad refuses hostile input from its files and its control clients with a reason, and goes on
// serving (or, at start-up, stops with exit status 1): the real daemon and control program on
// sockets in a temporary folder. Every wait has a deadline; nothing sleeps.
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::kWait;

constexpr char const* kState = R"(type Refusal::Box
type Refusal::Fan
  attribute box Refusal::Box
entity /%sysname/Ledra/box Refusal::Box
entity /%sysname/Ledra/fan Refusal::Fan
  set box /%sysname/Ledra/box
)";

constexpr char const* kProfiles = R"(profile node-
  group base 10
    mount /%sysname/Ledra Qel::Dir
)";

constexpr char const* kNameless =
    "profile \"\"\n  group base 10\n    mount /%sysname/Ledra Qel::Dir\n";

class InputRefusal : public test::LedradFolder {
 protected:
  InputRefusal() : LedradFolder(kState, "") {}

  // Not waited for: some tests expect it to stop at start-up.
  void startLedrad() {
    ledrad_ = std::make_unique<ChildProcess>(ledradArgs("rtest"), path("stderr.txt"));
  }
};

TEST_F(InputRefusal, StartUpStopsOnAProfileWithoutANameWithItsReason) {
  write("profiles/nameless.profile", kNameless);
  startLedrad();
  EXPECT_EQ(ledrad_->waitExit(kWait), std::optional<int>(1)) << stderrText();
  EXPECT_NE(
      stderrText().find(path("profiles") + "/nameless.profile:1: profile name must not be empty\n"
                                           "ledrad: not started"),
      std::string::npos)
      << stderrText();
}

TEST_F(InputRefusal, ControlClientsAreRefusedAndLedradKeepsServing) {
  write("profiles/test.profile", kProfiles);
  write("nameless.profile", kNameless);
  startLedrad();
  ASSERT_TRUE(
      ledrad_->waitForLine([](auto const& l) { return l.rfind("ledrad: ready", 0) == 0; }, kWait))
      << ledrad_->output() << stderrText();

  // A leading empty word is sent as it is: no command runs.
  auto const empty = ctl({"", "status"});
  EXPECT_EQ(empty.status, 1) << empty.output;
  EXPECT_EQ(empty.output.find("ledrad: system"), std::string::npos) << empty.output;

  auto const mistyped = ctl({"set", "/rtest/Ledra/fan", "box", "/rtest/Ledra/fan"});
  EXPECT_EQ(mistyped.status, 1);
  EXPECT_EQ(mistyped.output,
            "/rtest/Ledra/fan box: the entity at /rtest/Ledra/fan is a Refusal::Fan, not a "
            "Refusal::Box\n");
  auto const null = ctl({"set", "/rtest/Ledra/fan", "box", "null"});
  EXPECT_EQ(null.status, 0);
  EXPECT_EQ(null.output, "/rtest/Ledra/fan box: /rtest/Ledra/box -> (none)\n");

  auto const nameless = ctl({"load-profiles", path("nameless.profile")});
  EXPECT_EQ(nameless.status, 1);
  EXPECT_EQ(nameless.output, "refused " + path("nameless.profile") +
                                 ":1: profile name must not be empty (nothing of it applied)\n");
  auto const status = ctl({"status"});
  EXPECT_EQ(status.status, 0) << status.output << stderrText();
  EXPECT_EQ(status.output.rfind("ledrad: system rtest, cell 1, root /rtest/Ledra, 1 profile(s): "
                                "node-, 0 agent(s)",
                                0),
            0u)
      << status.output;
}

// ledra-ctl's own errors stay on one line whatever the command line holds.
TEST_F(InputRefusal, ControlProgramErrorsQuoteArgumentsOnOneLine) {
  std::string const socket = path("no\nsuch.sock");
  auto const unreachable = ctl({"--control-socket", socket, "status"});
  EXPECT_EQ(unreachable.status, 3);
  EXPECT_EQ(unreachable.output, "ledra-ctl: cannot connect to " + path("no\\x0asuch.sock") +
                                    ": No such file or directory\n");
}

}  // namespace
