// The status report of the control program, taken from real engines serving loopback agents, its
// two renderings, and the event lines told once for a wait that lasts.
#include "apps/ledrad/StatusReport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledrad/AgentEvents.h"
#include "apps/ledrad/StatusFormat.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

constexpr char const* kProfiles = R"(profile node-
  templateKey 1 %n
  group first 10
    mount /dbTest/Ledra/a Qel::Dir
  group second 20
    mount /dbTest/Ledra/a/n%n Qel::Dir
  group only-one 5
    templateCondition %n in 1
    mount /dbTest/Ledra/%n/one Qel::Dir
)";

class StatusReportTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    db->loadState({file("s.state", test::kBoxState)});
    db->loadProfiles({file("p.profile", std::string(kProfiles) + test::kGateProfile)});
  }
  AgentReport report(char const* name) {
    StatusReport const r = db->status({name});
    EXPECT_EQ(r.agents.size(), 1u);
    return r.agents.empty() ? AgentReport{} : r.agents.front();
  }
  // "state; each group's priority and status; each mount's state; what it waits for".
  std::string summary(char const* name) {
    AgentReport const a = report(name);
    std::string groups, mounts;
    for (auto const& g : a.groups)
      groups +=
          (groups.empty() ? "" : ", ") + g.name + " " + std::to_string(g.priority) + " " + g.status;
    for (auto const& m : a.mounts)
      mounts += (mounts.empty() ? "" : ", ") + m.path + " " + m.state;
    return a.state + "; " + groups + "; " + mounts + "; " + waitSummary(a);
  }
};

TEST_F(StatusReportTest, EachAgentShowsItsGroupsMountsAndWhatItWaitsFor) {
  agent("node-2")->connect();
  auto const gate = agent("gate");
  gate->connect();
  auto const held = agent("node-1");
  held->holdAnswersIs(true);
  held->connect();
  auto const failing = agent("node-3");
  failing->mountFailureIs("/dbTest/Ledra/a", "no room");
  failing->connect();
  agent("stranger")->connect();
  run();
  EXPECT_EQ(summary("node-2"),
            "mountComplete; only-one 5 skipped, first 10 mounted, second 20 mounted; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a complete, /dbTest/Ledra/a/n2 complete; -");
  EXPECT_EQ(summary("gate"),
            "conditionalMountGroupPending; base 10 mounted, gated 30 waiting; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a complete; "
            "condition on == /%sysname/Ledra/box.power of group gated (now off)");
  EXPECT_EQ(summary("node-1"),
            "init; only-one 5 not queued, first 10 not queued, second 20 not queued; "
            "/dbTest/Ledra in progress; 1 unanswered mount request(s)");
  EXPECT_EQ(summary("node-3"),
            "readyMountGroupPending; only-one 5 skipped, first 10 failed, second 20 queued; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a failed; failed mount /dbTest/Ledra/a");
  EXPECT_EQ(report("node-3").failed.at(0).reason, "no room");
  EXPECT_EQ(db->status().agents.size(), 4u);  // the stranger has no report
  db->set("/dbTest/Ledra/box", "power", "on");
  held->holdAnswersIs(false);
  held->answersRelease();
  run();
  EXPECT_EQ(summary("gate"),
            "mountComplete; base 10 mounted, gated 30 mounted; /dbTest/Ledra complete, "
            "/dbTest/Ledra/a complete, /dbTest/Ledra/box complete; -");
  EXPECT_EQ(report("node-1").state, "mountComplete");
  // An entity a condition waits for that is gone is named.
  db->ledraRoot()->entryDel("box");
  testing::internal::CaptureStderr();  // the retries report the missing entity there
  gate->disconnect("bye");
  run();
  gate->connect();
  run();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(waitSummary(report("gate")),
            "condition on == /%sysname/Ledra/box.power of group gated (entity "
            "/dbTest/Ledra/box not present)");
}

TEST_F(StatusReportTest, ReloadedProfileLeavesTheGroupsAnEngineTookUntilTheAgentReconnects) {
  auto const gate = agent("gate");
  gate->connect();
  run();
  // The reload drops the waiting group and adds one the engine never took.
  db->loadProfiles({file("reload.profile",
                         "profile gate\n group base 10\n  mount /dbTest/Ledra/a Qel::Dir\n"
                         " group other 60\n  mount /dbTest/Ledra/a Qel::Dir\n")});
  EXPECT_NE(summary("gate").find("gated 30 waiting; "), std::string::npos) << summary("gate");
  // A new connection gets a new engine, which takes the profile as it now stands.
  gate->disconnect("bye");
  run();
  gate->connect();
  run();
  EXPECT_EQ(summary("gate"),
            "mountComplete; base 10 mounted, other 60 mounted; /dbTest/Ledra complete, "
            "/dbTest/Ledra/a complete; -");
}

// Whatever bytes a name holds, each row and detail of the table is one line, and the JSON holds
// only valid UTF-8 without raw control characters.
TEST_F(StatusReportTest, TheTableAndTheJsonShowEveryNameOnItsLine) {
  agent("node-1\n\xff\xc3\xa9")->connect();
  agent("gate")->connect();
  run();
  std::string const table = statusTable(db->status());
  Strings lines;
  std::string line;
  for (std::istringstream in(table); std::getline(in, line);)
    lines.push_back(line);
  ASSERT_GT(lines.size(), 17u) << table;
  EXPECT_EQ(
      lines[0],
      "ledrad: system dbTest, cell 2, root /dbTest/Ledra, 2 profile(s): gate node-, 2 agent(s)");
  // The first column is as wide as the longest name's 15 code points.
  EXPECT_EQ(lines[2].substr(0, 26), "AGENT            PROFILE  ");
  EXPECT_EQ(lines[4].substr(0, 27), "node-1\\x0a\\xff\xc3\xa9  node-    ");
  EXPECT_EQ(lines[3].substr(lines[3].find("1 mounted")),
            "1 mounted, 1 waiting  2/2     condition on == /%sysname/Ledra/box.power of group "
            "gated (now off)");
  EXPECT_EQ(lines[17], "agent node-1\\x0a\\xff\xc3\xa9");
  std::string const json = statusJson(db->status());
  for (std::istringstream in(json); std::getline(in, line);)
    EXPECT_EQ(Qel::NboAttrLog::wireTextFault(line), "") << line;
  EXPECT_NE(json.find("\"name\": \"node-1\\n\\ufffd\\u00e9\""), std::string::npos) << json;
}

TEST_F(StatusReportTest, ABlockingGroupThatWaitsIsToldOnce) {
  db->loadProfiles({file("h.profile",
                         "profile holder\n group held 10\n  blocking true\n"
                         "  condition on == /%sysname/Ledra/box.power\n"
                         "  mount /dbTest/Ledra/box BoxTest::Box\n"
                         " group after 20\n  mount /dbTest/Ledra/a Qel::Dir\n")});
  Strings lines;
  AgentEvents events(db->root(), [&](std::string const& l) { lines.push_back(l); });
  agent("holder")->connect();
  run();
  db->set("/dbTest/Ledra/box", "power", "on");
  run();
  // Connected again while the condition holds: the group does not wait, and nothing is told.
  agents.front()->disconnect("again");
  run();
  agents.front()->connect();
  run();
  EXPECT_EQ(
      lines,
      (Strings{"agent holder connected (connection 1)", "agent holder served by profile holder",
               "agent holder waits for blocking group held: on == /%sysname/Ledra/box.power",
               "All mounts complete for holder", "agent holder closed: again",
               "agent holder disconnected", "agent holder connected (connection 2)",
               "agent holder served by profile holder", "All mounts complete for holder"}));
}

// An entry of a directory mounted entry by entry that is not a directory yet is tried every second;
// after as many tries as ledrad waits, it is told once, and not again while it keeps waiting.
TEST_F(StatusReportTest, ADirectoryEntryThatKeepsWaitingIsToldOnce) {
  db->loadProfiles({file("d.profile",
                         "profile cards\n group cards 10\n"
                         "  mount /dbTest/Ledra/card Qel::Dir D\n")});
  Strings lines;
  AgentEvents events(db->root(), [&](std::string const& l) { lines.push_back(l); });
  agent("cards")->connect();
  run();
  db->loadState({file("c.state", "dir /%sysname/Ledra/card\n")});
  run(0.5);
  db->loadState({file("e.state", "entity /%sysname/Ledra/card/lost BoxTest::Box\n")});
  std::string const told =
      "agent cards: directory mounter of /dbTest/Ledra/card still waits for lost after 5 tries";
  run(AgentEvents::kDirMounterTries - 1.5);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), told), 0) << "not before its last try";
  run(30);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), told), 1);
}

// A departed agent stays in the report with its last state and close reason, for a while and for
// the agents closed last, and gives way to its record when it connects again.
TEST_F(StatusReportTest, ADepartedAgentIsShownWithItsLastStateAndCloseReasonForAWhile) {
  AgentEvents events(db->root(), {}, nullptr,
                     [this](std::string const& a, std::string const& r) { db->agentClosed(a, r); });
  auto const gate = agent("gate");
  gate->connect();
  run();
  gate->disconnect("bye");
  run(60);
  std::string const table = statusTable(db->status());
  EXPECT_NE(table.find("departed (conditionalMountGroupPending)"), std::string::npos) << table;
  EXPECT_NE(table.find("closed 60 s ago: bye"), std::string::npos) << table;
  gate->connect();
  run();
  EXPECT_FALSE(report("gate").departed) << "its record again";
  gate->disconnect("again");
  run(Database::kDepartedKeep + 1);
  EXPECT_TRUE(db->status({"gate"}).agents.empty()) << "kept only for a while";
  // Only the agents closed last are kept.
  std::vector<std::string> names;
  for (std::size_t i = 0; i <= Database::kMaxDeparted; ++i)
    names.push_back("stranger-" + std::to_string(1000 + i));
  for (auto const& name : names) {
    agent(name.c_str())->connect();
    run(0.01);
  }
  StatusReport const all = db->status();
  ASSERT_EQ(all.agents.size(), Database::kMaxDeparted);
  EXPECT_EQ(all.agents.front().name, names[1]);
  EXPECT_EQ(all.agents.front().closeReason, "no agent profile");
}

}  // namespace
}  // namespace Ledrad
