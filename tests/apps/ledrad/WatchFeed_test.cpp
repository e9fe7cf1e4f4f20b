// The records of watch subscriptions, taken from real engines serving loopback agents: one record
// per agent per loop turn however many paths it mounts, progress counted over the paths planned
// (a conditional group's paths included while it waits), waits, departure, and nothing built
// while nobody listens.
#include "apps/ledrad/WatchFeed.h"

#include <gtest/gtest.h>

#include "apps/ledrad/AgentEvents.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

constexpr char const* kState = R"(enum WatchTest::Power off on
type WatchTest::Box
  attribute power WatchTest::Power
entity /%sysname/Ledra/box WatchTest::Box
  set power off
)";

constexpr char const* kGate = R"(profile gate
  group base 10
    mount /dbTest/Ledra/a Qel::Dir
  group gated 30
    condition on == /%sysname/Ledra/box.power
    mount /dbTest/Ledra/box WatchTest::Box
)";

constexpr int kPaths = 500;

class WatchFeedTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    std::string bulk =
        "profile bulk\n  group first 10\n    mount /dbTest/Ledra/a Qel::Dir\n"
        "  group many 20\n";
    for (int i = 0; i < kPaths; ++i)
      bulk += "    mount /dbTest/Ledra/a/p" + std::to_string(i) + " Qel::Dir\n";
    db->loadState({file("s.state", kState)});
    db->loadProfiles({file("p.profile", bulk + kGate)});
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

TEST_F(WatchFeedTest, OneRecordPerTurnNotPerMountThenTheDeparture) {
  EXPECT_EQ(feed->subscribe({}).text, "synced\n");
  auto const bulk = agent("bulk");
  bulk->connect();
  run(1.0);
  ASSERT_FALSE(published.empty());
  std::string const done = "bulk: agent\tbulk\t" + std::to_string(kPaths + 1) + "\t" +
                           std::to_string(kPaths + 1) + "\tmountComplete\t0\tconnected\t-\n";
  EXPECT_EQ(published.back(), done);
  EXPECT_LT(published.size(), 12u) << "one record per mount answer, not per turn";
  // The records before completion show the progress, each a change.
  for (std::size_t i = 1; i < published.size(); ++i)
    EXPECT_NE(published[i - 1], published[i]);

  published.clear();
  bulk->disconnect("agent stops");
  run();
  EXPECT_EQ(published.back(), "bulk: agent\tbulk\t" + std::to_string(kPaths + 1) + "\t" +
                                  std::to_string(kPaths + 1) +
                                  "\tmountComplete\t0\tclosed: agent stops\t-\n");
  auto const again = feed->subscribe({"bulk"});
  EXPECT_TRUE(again.ok);
  EXPECT_EQ(again.subscription, Strings{"bulk"});
  EXPECT_EQ(again.text, published.back().substr(6) + "synced\n");
}

TEST_F(WatchFeedTest, NothingIsBuiltWhileNobodyListensAndASubscriberGetsTheStateNow) {
  listening = false;
  agent("gate")->connect();
  agent("bulk")->connect();
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
  EXPECT_EQ(feed->subscribe({"--all"}).text, "watch: unknown option '--all'\n");
}

}  // namespace
}  // namespace Ledrad
