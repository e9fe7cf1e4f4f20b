// What ledrad counts of serving agents: the events that feed the counts, and the OpenMetrics text.
#include "apps/ledrad/Metrics.h"

#include <gtest/gtest.h>

#include "apps/ledrad/AgentEvents.h"
#include "apps/ledrad/ControlCommands.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

// Whether `text` holds the whole line `line`.
bool hasLine(std::string const& text, std::string const& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(MetricsText, CountersHistogramBucketsBoundedReasonsAndEscapes) {
  Metrics m;
  m.connected();
  m.requestSent();
  m.requestAnswered(true);
  m.groupTaken(0.001);  // a bound belongs to its own bucket
  m.groupTaken(400);    // above every bound: only +Inf
  m.closed("say \"bye\"\\\nnow");
  for (int i = 0; i < int(Metrics::kMaxReasons) + 3; ++i)
    m.closed("reason " + std::to_string(i));
  std::string const t = m.text();
  for (char const* line :
       {"ledrad_agent_connections_total 1", "ledrad_mount_answers_total{result=\"failed\"} 1",
        "ledrad_agent_closes_total{reason=\"say \\\"bye\\\"\\\\\\nnow\"} 1",
        "ledrad_agent_closes_total{reason=\"other\"} 4",
        "ledrad_group_seconds_bucket{le=\"0.001\"} 1",
        "ledrad_group_seconds_bucket{le=\"300.0\"} 1", "ledrad_group_seconds_bucket{le=\"+Inf\"} 2",
        "ledrad_group_seconds_count 2", "# TYPE ledrad_agent_serve_seconds histogram"})
    EXPECT_TRUE(hasLine(t, line)) << line << "\n" << t;
  EXPECT_EQ(m.closes().size(), Metrics::kMaxReasons + 1);
}

class AgentMetricsTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    db->loadState({file("m.state", "dir /%sysname/Ledra/a\ndir /%sysname/Ledra/b\n")});
    db->loadProfiles({file("m.profile",
                           "profile node-\n"
                           " group first 10\n  mount /dbTest/Ledra/a Qel::Dir\n"
                           " group second 20\n  mount /dbTest/Ledra/b Qel::Dir\n")});
    events = std::make_unique<AgentEvents>(
        db->root(), [this](std::string const& l) { lines.push_back(l); }, &metrics);
  }
  void TearDown() override {
    events.reset();
    DatabaseFixture::TearDown();
  }

  Metrics metrics;
  std::unique_ptr<AgentEvents> events;
  Strings lines;
};

TEST_F(AgentMetricsTest, ServedFailedOldAndRefusedAgentsAreToldAndCounted) {
  auto const served = agent("node-1");
  served->answerDelayIs(0.5);
  served->connect();
  run(3);
  auto const failing = agent("node-2");
  failing->mountFailureIs("/dbTest/Ledra/a", "no room");
  failing->connect();
  run();
  auto const old = agent("node-3");
  old->currentVersionIs(4);
  old->connect();
  run();
  agent("nobody")->connect();
  run();
  // A close reason that would forge a line of its own.
  served->disconnect("bye\r\nagent node-1 disconnected");
  run();
  EXPECT_EQ(
      lines,
      (Strings{"agent node-1 connected (connection 1)", "agent node-1 served by profile node-",
               "All mounts complete for node-1", "agent node-2 connected (connection 1)",
               "agent node-2 served by profile node-",
               "agent node-2: mount of /dbTest/Ledra/a failed: no room",
               "agent node-3 connected (connection 1)",
               "agent node-3 speaks mount protocol version 4, not 5: it waits in init",
               "agent node-3 served by profile node-", "agent nobody connected (connection 1)",
               "agent nobody closed: no agent profile", "agent nobody disconnected",
               "agent node-1 closed: bye\\x0d\\x0aagent node-1 disconnected",
               "agent node-1 disconnected"}));
  EXPECT_EQ(metrics.connections(), 4u);
  // node-1: the root and two groups; node-2: the root and its failed first group.
  EXPECT_EQ(metrics.requestsSent(), 5u);
  EXPECT_EQ(metrics.requestsComplete(), 4u);
  EXPECT_EQ(metrics.requestsFailed(), 1u);
  EXPECT_EQ(metrics.closes(),
            (std::map<std::string, std::uint64_t>{{"bye\r\nagent node-1 disconnected", 1},
                                                  {"no agent profile", 1}}));
  // Each answer to node-1 took 0.5 s. Its groups were queued when the root mount was answered
  // (0.5 s); the first was answered at 1.0 s, when the second went out and the engine, with
  // nothing left to take, completed.
  ASSERT_EQ(metrics.completions(), 1u);
  EXPECT_DOUBLE_EQ(metrics.serveTime().sum(), 1.0);
  EXPECT_EQ(metrics.groupTime().count(), 2u);
  EXPECT_DOUBLE_EQ(metrics.groupTime().sum(), 0.5);
  EXPECT_TRUE(hasLine(ControlCommands(*db, {}, &metrics).execute({"metrics"}).text,
                      "ledrad_agents_complete_total 1"));
  EXPECT_FALSE(ControlCommands(*db, {}).execute({"metrics"}).ok);
}

}  // namespace
}  // namespace Ledrad
