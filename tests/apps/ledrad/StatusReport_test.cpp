// The status report of the control program, taken from real engines serving loopback agents,
// its two renderings, and the event lines ledrad prints for each agent.
#include "apps/ledrad/StatusReport.h"

#include <gtest/gtest.h>

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
  static std::vector<std::string> groups(AgentReport const& a) {
    std::vector<std::string> out;
    for (auto const& g : a.groups)
      out.push_back(g.name + " " + std::to_string(g.priority) + " " + g.status);
    return out;
  }
  static std::vector<std::string> mounts(AgentReport const& a) {
    std::vector<std::string> out;
    for (auto const& m : a.mounts)
      out.push_back(m.path + " " + m.state);
    return out;
  }
};

TEST_F(StatusReportTest, ServedFamilyMember) {
  agent("node-2")->connect();
  run();
  AgentReport const a = report("node-2");
  EXPECT_EQ(a.profile, "node-");
  EXPECT_EQ(a.agentString, "node-2");
  EXPECT_TRUE(a.engine);
  EXPECT_TRUE(a.connected);
  EXPECT_EQ(a.epoch, 1u);
  EXPECT_EQ(a.state, "mountComplete");
  EXPECT_EQ(a.templateValues,
            (std::map<std::string, std::string>{{"%agentString", "node-2"}, {"%n", "2"}}));
  EXPECT_EQ(groups(a), (std::vector<std::string>{"first 10 mounted", "second 20 mounted",
                                                 "only-one 30 skipped"}));
  EXPECT_EQ(mounts(a),
            (std::vector<std::string>{"/dbTest/Ledra complete", "/dbTest/Ledra/a complete",
                                      "/dbTest/Ledra/a/n2 complete"}));
  EXPECT_FALSE(a.waiting());
  EXPECT_EQ(a.completeMounts(), 3u);
  EXPECT_EQ(waitSummary(a), "-");
}

TEST_F(StatusReportTest, ConditionalGroupShowsTheConditionEntityAndValue) {
  agent("gate")->connect();
  run();
  AgentReport const a = report("gate");
  EXPECT_EQ(a.state, "conditionalMountGroupPending");
  EXPECT_EQ(groups(a), (std::vector<std::string>{"base 10 mounted", "gated 30 waiting"}));
  ASSERT_EQ(a.conditions.size(), 1u);
  ConditionWait const& w = a.conditions[0];
  EXPECT_EQ(w.group, "gated");
  EXPECT_EQ(w.condition, "on == /%sysname/Ledra/box.power");
  EXPECT_EQ(w.entity, "/dbTest/Ledra/box");
  EXPECT_EQ(w.attribute, "power");
  EXPECT_TRUE(w.entityPresent);
  EXPECT_EQ(w.currentValue, "off");
  EXPECT_EQ(waitSummary(a), "condition on == /%sysname/Ledra/box.power of group gated (now off)");
  db->set("/dbTest/Ledra/box", "power", "on");
  run();
  AgentReport const done = report("gate");
  EXPECT_EQ(done.state, "mountComplete");
  EXPECT_EQ(groups(done), (std::vector<std::string>{"base 10 mounted", "gated 30 mounted"}));
  EXPECT_TRUE(done.conditions.empty());
}

TEST_F(StatusReportTest, MissingEntityOfAConditionIsShown) {
  db->ledraRoot()->entryDel("box");
  testing::internal::CaptureStderr();  // the retries report the missing entity there
  agent("gate")->connect();
  run();
  testing::internal::GetCapturedStderr();
  AgentReport const a = report("gate");
  ASSERT_EQ(a.conditions.size(), 1u);
  EXPECT_FALSE(a.conditions[0].entityPresent);
  EXPECT_EQ(waitSummary(a),
            "condition on == /%sysname/Ledra/box.power of group gated (entity "
            "/dbTest/Ledra/box not present)");
}

TEST_F(StatusReportTest, UnansweredRootMountKeepsTheGroupsUnqueued) {
  auto const a = agent("node-1");
  a->holdAnswersIs(true);
  a->connect();
  run();
  AgentReport const r = report("node-1");
  EXPECT_EQ(r.state, "init");
  EXPECT_EQ(groups(r), (std::vector<std::string>{"first 10 not queued", "second 20 not queued",
                                                 "only-one 30 not queued"}));
  EXPECT_EQ(r.outstandingRequests, 1u);
  EXPECT_EQ(r.inProgress, (std::vector<std::string>{"/dbTest/Ledra"}));
  EXPECT_EQ(mounts(r), (std::vector<std::string>{"/dbTest/Ledra in progress"}));
  EXPECT_EQ(waitSummary(r), "1 unanswered mount request(s)");
  a->holdAnswersIs(false);
  a->answersRelease();
  run();
  EXPECT_EQ(report("node-1").state, "mountComplete");
}

TEST_F(StatusReportTest, FailedMountIsShownWithItsReason) {
  auto const a = agent("node-1");
  a->mountFailureIs("/dbTest/Ledra/a", "no room");
  a->connect();
  run();
  AgentReport const r = report("node-1");
  EXPECT_EQ(r.state, "readyMountGroupPending");
  EXPECT_EQ(groups(r), (std::vector<std::string>{"first 10 failed", "second 20 queued",
                                                 "only-one 30 queued"}));
  ASSERT_EQ(r.failed.size(), 1u);
  EXPECT_EQ(r.failed[0].path, "/dbTest/Ledra/a");
  EXPECT_EQ(r.failed[0].reason, "no room");
  EXPECT_EQ(waitSummary(r), "failed mount /dbTest/Ledra/a");
}

TEST_F(StatusReportTest, AgentWithoutProfileHasNoReport) {
  agent("stranger")->connect();
  run();
  EXPECT_TRUE(db->status().agents.empty());
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
  EXPECT_EQ(statusJson(db->status({"gate"})), R"({
  "system": "dbTest",
  "cell": 2,
  "root": "/dbTest/Ledra",
  "profiles": [
    "gate",
    "node-"
  ],
  "agents": [
    {
      "name": "gate",
      "profile": "gate",
      "agentString": "gate",
      "connected": true,
      "epoch": 1,
      "engine": true,
      "state": "conditionalMountGroupPending",
      "initialized": true,
      "templateValues": {
        "%agentString": "gate"
      },
      "groups": [
        {
          "name": "base",
          "priority": 10,
          "status": "mounted"
        },
        {
          "name": "gated",
          "priority": 30,
          "status": "waiting"
        }
      ],
      "mounts": [
        {
          "path": "/dbTest/Ledra",
          "state": "complete"
        },
        {
          "path": "/dbTest/Ledra/a",
          "state": "complete"
        }
      ],
      "waiting": {
        "outstandingRequests": 0,
        "inProgress": [],
        "failed": [],
        "pendingMounts": [],
        "dirMounters": [],
        "conditions": [
          {
            "group": "gated",
            "condition": "on == /%sysname/Ledra/box.power",
            "entity": "/dbTest/Ledra/box",
            "attribute": "power",
            "entityPresent": true,
            "currentValue": "off",
            "remaining": []
          }
        ],
        "blockingConditions": []
      }
    }
  ]
}
)");
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
  agent("stranger")->connect();
  run();
  node->disconnect("bye");
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
                       "agent stranger connected (connection 1)",
                       "agent stranger closed: no agent profile",
                       "agent stranger disconnected",
                       "agent node-1 closed: bye",
                       "agent node-1 disconnected",
                   }));
}

}  // namespace
}  // namespace Ledrad
