// The records of watch subscriptions, taken from real engines serving loopback agents: progress
// counted over the paths planned (a conditional group's paths included while it waits), waits,
// departure, one record per agent per loop turn however many paths it mounts, and nothing built
// while nobody listens.
#include "apps/ledrad/WatchFeed.h"

#include <gtest/gtest.h>

#include "apps/ledrad/AgentEvents.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

class WatchFeedTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    db->loadState({file("s.state", test::kBoxState)});
    std::string bulk = "profile bulk\n  group many 20\n    mount /dbTest/Ledra/a Qel::Dir\n";
    for (int i = 0; i < 500; ++i)
      bulk += "    mount /dbTest/Ledra/a/p" + std::to_string(i) + " Qel::Dir\n";
    db->loadProfiles({file("p.profile", bulk + test::kGateProfile)});
    // Departed agents are noted as ledrad notes them.
    events = std::make_unique<AgentEvents>(
        db->root(), nullptr, nullptr, [this](std::string const& agent, std::string const& reason) {
          db->agentClosed(agent, reason);
        });
    feed = std::make_unique<WatchFeed>(
        loop, *db,
        [this](std::string const& agent, std::string const& line) {
          published.push_back(agent + ": " + line);
        },
        [this] { return listening; });
  }
  void TearDown() override {
    feed.reset();
    events.reset();
    DatabaseFixture::TearDown();
  }

  std::unique_ptr<AgentEvents> events;
  std::unique_ptr<WatchFeed> feed;
  bool listening = true;
  Strings published;
};

TEST_F(WatchFeedTest, OneRecordPerTurnNotPerMount) {
  EXPECT_EQ(feed->subscribe({}).text, "synced\n");
  agent("bulk")->connect();
  run(1.0);
  EXPECT_EQ(published.back(), "bulk: agent\tbulk\t501\t501\tmountComplete\t0\tconnected\t-\n");
  EXPECT_LT(published.size(), 12u);
}

TEST_F(WatchFeedTest, NothingIsBuiltWhileNobodyListensAndASubscriberGetsTheStateNow) {
  listening = false;
  auto const gate = agent("gate");
  gate->connect();
  run();
  EXPECT_EQ(published, Strings{});
  listening = true;
  // Only the agents named; one not known yet has no record.
  auto const reply = feed->subscribe({"nobody", "gate"});
  EXPECT_EQ(reply.text,
            "agent\tgate\t1\t2\tconditionalMountGroupPending\t0\tconnected\tcondition on == "
            "/%sysname/Ledra/box.power of group gated\nsynced\n");
  db->set("/dbTest/Ledra/box", "power", "on");
  run();
  EXPECT_EQ(published,
            (Strings{"gate: agent\tgate\t1\t2\treadyMountGroupPending\t1\tconnected\t1 unanswered "
                     "mount request(s)\n",
                     "gate: agent\tgate\t2\t2\tmountComplete\t0\tconnected\t-\n"}));
  // The departure is a record of its own, and a subscriber then gets it as the agent's state.
  gate->disconnect("agent stops");
  run();
  std::string const gone = "agent\tgate\t2\t2\tmountComplete\t0\tclosed: agent stops\t-\n";
  EXPECT_EQ(published.back(), "gate: " + gone);
  EXPECT_EQ(feed->subscribe({"gate"}).text, gone + "synced\n");
  EXPECT_EQ(feed->subscribe({"--all"}).text, "watch: unknown option '--all'\n");
}

}  // namespace
}  // namespace Ledrad
