// What an operator sees of a running ledrad, end to end on the bundled examples: the database's
// entities and values (get, ls), the counts and times (metrics), the trace ring (trace dump, read
// back with ringlog-decode), and a directory that appears card by card reaching the agent entry
// by entry. Every wait is for a line of output, a reply or an exit, with a deadline.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "integration/ChildProcess.h"
#include "integration/LedradFolder.h"

namespace {

using test::ChildProcess;
using test::contains;
using test::kWait;
using test::startsWith;
namespace fs = std::filesystem;

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
  EXPECT_EQ(sample(metrics.output, "ledrad_agent_connections_total"), "1");
  EXPECT_EQ(sample(metrics.output, "ledrad_agents_complete_total"), "1");
  EXPECT_EQ(sample(metrics.output, "ledrad_agent_serve_seconds_count"), "1");
  EXPECT_EQ(sample(metrics.output, "ledrad_mount_answers_total{result=\"failed\"}"), "0");
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
