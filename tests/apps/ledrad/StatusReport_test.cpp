// The status report of the control program, taken from real engines serving loopback agents,
// its two renderings, and the event lines ledrad prints for each agent.
#include "apps/ledrad/StatusReport.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledrad/AgentEvents.h"
#include "apps/ledrad/StatusFormat.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

constexpr char const* kState = R"(enum StatusTest::Power off on
type StatusTest::Box
  attribute power StatusTest::Power
entity /%sysname/Ledra/box StatusTest::Box
  set power off
)";

constexpr char const* kProfiles = R"(profile node-
  templateKey 1 %n
  group first 10
    mount /dbTest/Ledra/a Qel::Dir
  group second 20
    mount /dbTest/Ledra/a/n%n Qel::Dir
  group only-one 30
    templateCondition %n == 1
    mount /dbTest/Ledra/one Qel::Dir
profile gate
  group base 10
    mount /dbTest/Ledra/a Qel::Dir
  group gated 30
    condition on == /%sysname/Ledra/box.power
    mount /dbTest/Ledra/box StatusTest::Box
)";

class StatusReportTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    db->loadState({file("s.state", kState)});
    db->loadProfiles({file("p.profile", kProfiles)});
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

TEST_F(StatusReportTest, ServedFamilyMemberWithASkippedGroup) {
  agent("node-2")->connect();
  run();
  EXPECT_EQ(summary("node-2"),
            "mountComplete; first 10 mounted, second 20 mounted, only-one 30 skipped; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a complete, /dbTest/Ledra/a/n2 complete; -");
  EXPECT_EQ(report("node-2").completeMounts(), 3u);
}

TEST_F(StatusReportTest, ConditionalGroupWaitsForItsEntityAndValue) {
  agent("gate")->connect();
  run();
  EXPECT_EQ(summary("gate"),
            "conditionalMountGroupPending; base 10 mounted, gated 30 waiting; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a complete; "
            "condition on == /%sysname/Ledra/box.power of group gated (now off)");
  db->set("/dbTest/Ledra/box", "power", "on");
  run();
  EXPECT_EQ(summary("gate"),
            "mountComplete; base 10 mounted, gated 30 mounted; /dbTest/Ledra complete, "
            "/dbTest/Ledra/a complete, /dbTest/Ledra/box complete; -");
  EXPECT_TRUE(report("gate").conditions.empty());
}

TEST_F(StatusReportTest, ReloadedProfileLeavesTheGroupsAnEngineTookUntilTheAgentReconnects) {
  auto const gate = agent("gate");
  gate->connect();
  run();
  // The reload drops the waiting group and adds one the engine never took.
  db->loadProfiles({file("reload.profile",
                         "profile gate\n group base 10\n  mount /dbTest/Ledra/a Qel::Dir\n"
                         " group other 60\n  mount /dbTest/Ledra/a Qel::Dir\n")});
  std::string const served =
      "conditionalMountGroupPending; base 10 mounted, gated 30 waiting; "
      "/dbTest/Ledra complete, /dbTest/Ledra/a complete; "
      "condition on == /%sysname/Ledra/box.power of group gated (now off)";
  EXPECT_EQ(summary("gate"), served);
  // A second reload leaves it so: the engine's groups are still the first ones.
  db->loadProfiles({file("again.profile",
                         "profile gate\n group base 10\n"
                         "  mount /dbTest/Ledra/a Qel::Dir\n")});
  EXPECT_EQ(summary("gate"), served);
  // A new connection gets a new engine, which takes the profile as it now stands.
  gate->disconnect("bye");
  run();
  gate->connect();
  run();
  EXPECT_EQ(summary("gate"),
            "mountComplete; base 10 mounted; /dbTest/Ledra complete, /dbTest/Ledra/a complete; -");
}

TEST_F(StatusReportTest, MissingEntityOfAConditionIsShown) {
  db->ledraRoot()->entryDel("box");
  testing::internal::CaptureStderr();  // the retries report the missing entity there
  agent("gate")->connect();
  run();
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(report("gate").conditions.at(0).entityPresent);
  EXPECT_EQ(waitSummary(report("gate")),
            "condition on == /%sysname/Ledra/box.power of group gated (entity "
            "/dbTest/Ledra/box not present)");
}

TEST_F(StatusReportTest, UnansweredRootMountKeepsTheGroupsUnqueued) {
  auto const a = agent("node-1");
  a->holdAnswersIs(true);
  a->connect();
  run();
  EXPECT_EQ(summary("node-1"),
            "init; first 10 not queued, second 20 not queued, only-one 30 not queued; "
            "/dbTest/Ledra in progress; 1 unanswered mount request(s)");
  EXPECT_EQ(report("node-1").inProgress, (std::vector<std::string>{"/dbTest/Ledra"}));
  a->holdAnswersIs(false);
  a->answersRelease();
  run();
  EXPECT_EQ(report("node-1").state, "mountComplete");
}

TEST_F(StatusReportTest, FailedMountIsShownWithItsReasonAndAStrangerHasNoReport) {
  auto const a = agent("node-1");
  a->mountFailureIs("/dbTest/Ledra/a", "no room");
  a->connect();
  agent("stranger")->connect();
  run();
  EXPECT_EQ(summary("node-1"),
            "readyMountGroupPending; first 10 failed, second 20 queued, only-one 30 queued; "
            "/dbTest/Ledra complete, /dbTest/Ledra/a failed; failed mount /dbTest/Ledra/a");
  ASSERT_EQ(report("node-1").failed.size(), 1u);
  EXPECT_EQ(report("node-1").failed[0].reason, "no room");
  EXPECT_EQ(db->status().agents.size(), 1u);
}

TEST_F(StatusReportTest, TableAndJsonRenderTheSameReport) {
  agent("node-1")->connect();
  agent("gate")->connect();
  run();
  StatusReport const r = db->status();
  EXPECT_EQ(
      statusTable(r),
      R"(ledrad: system dbTest, cell 2, root /dbTest/Ledra, 2 profile(s): gate node-, 2 agent(s)

AGENT   PROFILE  STATE                         GROUPS                MOUNTS  WAITING FOR
gate    gate     conditionalMountGroupPending  1 mounted, 1 waiting  2/2     condition on == /%sysname/Ledra/box.power of group gated (now off)
node-1  node-    mountComplete                 3 mounted             4/4     -

agent gate
  profile          gate
  agent string     gate
  connection       connected, epoch 1
  state            conditionalMountGroupPending
  template values  %agentString=gate
  groups           base (10) mounted; gated (30) waiting
  mounted          /dbTest/Ledra
                   /dbTest/Ledra/a
  waiting for      condition on == /%sysname/Ledra/box.power of group gated (now off)

agent node-1
  profile          node-
  agent string     node-1
  connection       connected, epoch 1
  state            mountComplete
  template values  %agentString=node-1 %n=1
  groups           first (10) mounted; second (20) mounted; only-one (30) mounted
  mounted          /dbTest/Ledra
                   /dbTest/Ledra/a
                   /dbTest/Ledra/a/n1
                   /dbTest/Ledra/one
  waiting for      nothing
)");
  // The JSON layout is the writer's (exactly rendered in the control command tests); here its
  // content, every line joined without its indentation.
  std::string json, line;
  for (std::istringstream in(statusJson(db->status({"gate"}))); std::getline(in, line);)
    json += line.substr(line.find_first_not_of(' '));
  EXPECT_EQ(
      json,
      R"({"system": "dbTest","cell": 2,"root": "/dbTest/Ledra","profiles": ["gate","node-"],)"
      R"("agents": [{"name": "gate","profile": "gate","agentString": "gate","connected": true,)"
      R"("epoch": 1,"engine": true,"state": "conditionalMountGroupPending","initialized": true,)"
      R"("templateValues": {"%agentString": "gate"},"groups": [{"name": "base","priority": 10,)"
      R"("status": "mounted"},{"name": "gated","priority": 30,"status": "waiting"}],)"
      R"("mounts": [{"path": "/dbTest/Ledra","state": "complete"},{"path": "/dbTest/Ledra/a",)"
      R"("state": "complete"}],"waiting": {"outstandingRequests": 0,"inProgress": [],)"
      R"("failed": [],"pendingMounts": [],"dirMounters": [],"conditions": [{"group": "gated",)"
      R"("condition": "on == /%sysname/Ledra/box.power","entity": "/dbTest/Ledra/box",)"
      R"("attribute": "power","entityPresent": true,"currentValue": "off","remaining": []}],)"
      R"("blockingConditions": []}}]})");
}

// Whatever bytes a name holds, each row and detail of the table is one line, and the JSON holds
// only valid UTF-8 without raw control characters.
TEST_F(StatusReportTest, NamesWithControlCharactersAndInvalidUtf8StayInTheirLines) {
  agent("node-1\n\xff\xc3\xa9")->connect();
  run();
  std::string const table = statusTable(db->status());
  std::vector<std::string> lines;
  std::string line;
  for (std::istringstream in(table); std::getline(in, line);)
    lines.push_back(line);
  ASSERT_GE(lines.size(), 4u) << table;
  // The first column is as wide as the name's 15 code points.
  EXPECT_EQ(lines[2],
            "AGENT            PROFILE  STATE          GROUPS                MOUNTS  WAITING FOR");
  EXPECT_EQ(lines[3],
            "node-1\\x0a\\xff\xc3\xa9  node-    mountComplete  2 mounted, 1 skipped  3/3     -");
  EXPECT_EQ(lines[5], "agent node-1\\x0a\\xff\xc3\xa9");
  EXPECT_EQ(lines[7], "  agent string     node-1\\x0a\\xff\xc3\xa9");
  for (std::istringstream in(statusJson(db->status())); std::getline(in, line);)
    EXPECT_EQ(Qel::NboAttrLog::wireTextFault(line), "") << line;
  EXPECT_NE(statusJson(db->status()).find("\"name\": \"node-1\\n\\ufffd\xc3\xa9\""),
            std::string::npos);
}

TEST_F(StatusReportTest, EventLinesFollowEachAgent) {
  std::vector<std::string> lines;
  auto events =
      std::make_unique<AgentEvents>(db->root(), [&](std::string const& l) { lines.push_back(l); });
  auto const node = agent("node-1");
  node->connect();
  run();
  agent("gate")->connect();
  run();
  db->set("/dbTest/Ledra/box", "power", "on");
  run();
  // A name that would forge a line of its own.
  agent("stranger\nAll mounts complete for node-2")->connect();
  run();
  node->disconnect("bye\r\nagent gate disconnected");
  run();
  events.reset();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "agent node-1 connected (connection 1)",
                       "agent node-1 served by profile node-",
                       "All mounts complete for node-1",
                       "agent gate connected (connection 1)",
                       "agent gate served by profile gate",
                       "agent gate waits for group gated: on == /%sysname/Ledra/box.power",
                       "All mounts complete for gate",
                       "agent stranger\\x0aAll mounts complete for node-2 connected (connection 1)",
                       "agent stranger\\x0aAll mounts complete for node-2 closed: no agent profile",
                       "agent stranger\\x0aAll mounts complete for node-2 disconnected",
                       "agent node-1 closed: bye\\x0d\\x0aagent gate disconnected",
                       "agent node-1 disconnected",
                   }));
}

}  // namespace
}  // namespace Ledrad
