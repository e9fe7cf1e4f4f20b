// Several agents served by one root manager over loopback connections on simulated time, from
// connection to "All mounts complete for ": a family sharing a profile through its trailing "-",
// templates from the agent names, groups of priorities 5, 1, 5, a group skipped by its template
// condition, a mount waiting for its parent, write mounts converted once writing is granted, an
// agent without a profile, an agent lost mid-way and served again, and the switch to active.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "EngineHarness.h"
#include "Ledra/ConnMgrHelper.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManager.h"
#include "Qel/DynamicEntity.h"

namespace Ledra::test {
namespace {

class EndToEndTest : public SimulatedDatabaseTest {
 protected:
  void SetUp() override {
    SimulatedDatabaseTest::SetUp();
    for (char const* d : {"cell/1/shelf/1", "cell/1/shelf/2", "common", "early", "late1", "late2",
                          "skipped", "parent/child", "out"})
      dir(d);
    profiles = passiveAgentProfileDirFactory("profiles");
    statuses = passiveAgentStatusDirFactory("statuses");
    entMgr = EntityManager::entityManagerNew("entityManager", EntityManager::Role::backup);
    wrapper = passiveEntityManagerSmWrapperFactory("passive");
  }
  void TearDown() override {
    wrapper = nullptr;
    agents.clear();
    loop->runFor(0.01);
    ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
    profiles = nullptr;
    statuses = nullptr;
    entMgr = nullptr;
    SimulatedDatabaseTest::TearDown();
  }

  LoopbackAgent::Ptr connect(char const* name) {
    agents.push_back(LoopbackAgent::loopbackAgentNew(loop, name, name));
    agents.back()->connect();
    return agents.back();
  }
  static std::vector<std::string> sent(LoopbackAgent::Ptr const& a) {
    std::vector<std::string> out;
    for (auto const& r : a->mountRequests())
      out.push_back(r.path + "?flags=" + r.flags);
    return out;
  }
  PassiveEntityManagerSm::Ptr engine(char const* name) const {
    return wrapper->passiveEntityManagerRootSm()->passiveEntityManagerSm(name);
  }
  void run(Qel::Time seconds = 0.2) { SimulatedDatabaseTest::run(seconds); }

  // The family profile "shelf-": every shelf agent "shelf-<cell>-<n>" mounts its own shelf
  // directory, the common directory (writable), and a group only shelf 2 may have.
  void familyProfile() {
    auto p = profiles->agentProfileIs("shelf-");
    p->templateKeyIs(1, "%cell");
    p->templateKeyIs(2, "%shelf");
    p->mountGroupIs("own", 1)->addProfile("/ledra/Ledra/cell/%cell/shelf/%shelf", "Qel::Dir", "r");
    p->mountGroupIs("common", 5)->addProfile("/ledra/Ledra/common", "Qel::Dir", "w");
    auto two = p->mountGroupIs("onlyShelf2", 5);
    two->addProfile("/ledra/Ledra/skipped", "Qel::Dir", "r");
    two->templateConditionColIs("%shelf == 2", true);
  }

  PassiveAgentProfileDir::Ptr profiles;
  PassiveAgentStatusDir::Ptr statuses;
  EntityManager::Ptr entMgr;
  PassiveEntityManagerSmWrapper::Ptr wrapper;
  std::vector<LoopbackAgent::Ptr> agents;
};

TEST_F(EndToEndTest, FamilyMembersAreServedWithTheirOwnTemplatesAndConvertedWhenGranted) {
  familyProfile();
  wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  auto one = connect("shelf-1-1");
  auto two = connect("shelf-1-2");
  run();
  // The shelf's parents stand but are not mounted: they are mounted first, top down.
  std::vector<std::string> const shelf1{"/ledra/Ledra?flags=Cnp",
                                        "/ledra/Ledra/cell?flags=Cnp",
                                        "/ledra/Ledra/cell/1?flags=Cnp",
                                        "/ledra/Ledra/cell/1/shelf?flags=Cnp",
                                        "/ledra/Ledra/cell/1/shelf/1?flags=Cnp",
                                        "/ledra/Ledra/common?flags=Cnp"};
  EXPECT_EQ(sent(one), shelf1);
  // Shelf 2 also gets its group; the two of priority 5 leave in the profile's order.
  std::vector<std::string> got = sent(two);
  ASSERT_EQ(got.size(), 7u);
  EXPECT_EQ(got[4], "/ledra/Ledra/cell/1/shelf/2?flags=Cnp");
  std::vector<std::string> fives(got.begin() + 5, got.end());
  std::sort(fives.begin(), fives.end());
  EXPECT_EQ(fives, (std::vector<std::string>{"/ledra/Ledra/common?flags=Cnp",
                                             "/ledra/Ledra/skipped?flags=Cnp"}));
  EXPECT_EQ(*statuses->agentStatus("shelf-1-2")->templateValueDict("%shelf"), "2");
  // The writable mount waits for writes to be granted.
  EXPECT_EQ(engine("shelf-1-1")->state(), PassiveEntityManagerSm::readyMountGroupPending);
  EXPECT_FALSE(capture.contains("All mounts complete for shelf-1-1"));
  entMgr->writeMountsGrantedIs(true);
  run();
  EXPECT_EQ(sent(one).back(), "/ledra/Ledra/common?flags=wnp");
  EXPECT_EQ(capture.count("All mounts complete for shelf-1-1"), 1u);
  EXPECT_EQ(capture.count("All mounts complete for shelf-1-2"), 1u);
}

TEST_F(EndToEndTest, PrioritiesParentsRefusalsReconnectsAndTheSwitchToActive) {
  auto p = profiles->agentProfileIs("ordered");
  p->mountGroupIs("late1", 5)->addProfile("/ledra/Ledra/late1", "Qel::Dir", "r");
  p->mountGroupIs("early", 1)->addProfile("/ledra/Ledra/early", "Qel::Dir", "r");
  p->mountGroupIs("late2", 5)->addProfile("/ledra/Ledra/late2", "Qel::Dir", "r");
  // The child's parent has no profile and no mount: it is mounted first.
  p->mountGroupIs("nested", 7)->addProfile("/ledra/Ledra/parent/child", "Qel::Dir", "r");
  // A group that waits until the process is active.
  auto ready = p->mountGroupIs("peerReady", 9);
  ready->conditionColEnq("true == /ledra/Ledra/never.flag");
  ready->entireConditionIs("true == /ledra/Ledra/never.flag");
  ready->blockingConditionalIs(true);
  ready->addProfile("/ledra/Ledra/out", "Qel::Dir", "r");
  wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);

  auto stranger = connect("stranger");
  auto agent = connect("ordered");
  agent->holdAnswersIs(true);
  run();
  EXPECT_EQ(stranger->closeReasons(), (std::vector<Qel::String>{"no agent profile"}));
  EXPECT_FALSE(statuses->agentStatus("stranger"));
  // Lost before its root mount was answered: cleaned up, then served again from the start.
  agent->disconnect("cable pulled");
  run();
  EXPECT_FALSE(engine("ordered"));
  EXPECT_FALSE(statuses->agentStatus("ordered"));
  agent->holdAnswersIs(false);
  agent->mountRequestsDelAll();
  agent->connect();
  testing::internal::CaptureStderr();
  run(0.5);
  testing::internal::GetCapturedStderr();
  std::vector<std::string> got = sent(agent);
  ASSERT_GE(got.size(), 6u);
  EXPECT_EQ(got[0], "/ledra/Ledra?flags=Cnp");
  EXPECT_EQ(got[1], "/ledra/Ledra/early?flags=Cnp");
  std::vector<std::string> fives{got[2], got[3]};
  std::sort(fives.begin(), fives.end());
  EXPECT_EQ(fives, (std::vector<std::string>{"/ledra/Ledra/late1?flags=Cnp",
                                             "/ledra/Ledra/late2?flags=Cnp"}));
  EXPECT_EQ(got[4], "/ledra/Ledra/parent?flags=Cnp");
  EXPECT_EQ(got[5], "/ledra/Ledra/parent/child?flags=Cnp");
  EXPECT_EQ(got.size(), 6u);
  EXPECT_EQ(engine("ordered")->state(), PassiveEntityManagerSm::conditionalMountGroupPending);
  // The backup becomes active: the peerReady group goes, and the agent completes.
  entMgr->localIs(EntityManager::Role::active);
  run();
  EXPECT_FALSE(profiles->agentProfile("ordered")->mountGroup("peerReady"));
  EXPECT_EQ(capture.count("All mounts complete for ordered"), 1u);
}

TEST_F(EndToEndTest, MixedProfileOfPlainConditionalBlockingAndDirectoryGroupsCompletes) {
  static Qel::QelType const* const sensorType =
      Qel::defineType("endToEnd::Sensor", {{"ready", "bool"}, {"level", "U32"}});
  auto sensor = Qel::DynamicEntity::entityNew(sensorType, "sensor");
  root->entryIs(sensor);
  auto p = profiles->agentProfileIs("mixed");
  p->mountGroupIs("plain", 1)->addProfile("/ledra/Ledra/early", "Qel::Dir", "r");
  // Blocking: nothing behind it leaves the queue until the sensor is ready.
  auto blocking = p->mountGroupIs("blocking", 2);
  blocking->conditionColEnq("true == /ledra/Ledra/sensor.ready");
  blocking->entireConditionIs("true == /ledra/Ledra/sensor.ready");
  blocking->blockingConditionalIs(true);
  blocking->addProfile("/ledra/Ledra/late1", "Qel::Dir", "r");
  // Conditional, not blocking: waits for the level while later groups go on.
  auto conditional = p->mountGroupIs("conditional", 3);
  conditional->conditionColEnq("3 <= /ledra/Ledra/sensor.level");
  conditional->entireConditionIs("3 <= /ledra/Ledra/sensor.level");
  conditional->addProfile("/ledra/Ledra/late2", "Qel::Dir", "r");
  // A blocking directory mount of a directory that does not exist yet.
  p->mountGroupIs("directory", 4)->addProfile("/ledra/Ledra/table", "Qel::Dir", "rDB");
  entMgr->localIs(EntityManager::Role::active);
  wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  auto agent = connect("mixed");
  run();
  EXPECT_EQ(sent(agent),
            (std::vector<std::string>{"/ledra/Ledra?flags=Cnp", "/ledra/Ledra/early?flags=Cnp"}));
  EXPECT_TRUE(engine("mixed")->blockingConditionals("true == /ledra/Ledra/sensor.ready"));
  sensor->attributeIs("ready", Qel::String("true"));
  run();
  EXPECT_EQ(sent(agent).back(), "/ledra/Ledra/late1?flags=Cnp");
  // The directory group went past the waiting conditional group, and waits for its directory.
  EXPECT_TRUE(capture.contains("Starting passive dirMounter for /ledra/Ledra/table"));
  run(2.0);
  auto table = Qel::Dir::dirNew("table");
  table->dirIs("a");
  root->entryIs(table);
  run(0.5);
  table->dirIs("b");
  run(1.5);
  std::vector<std::string> const afterDirectory = sent(agent);
  ASSERT_GE(afterDirectory.size(), 3u);
  EXPECT_EQ(
      std::vector<std::string>(afterDirectory.end() - 3, afterDirectory.end()),
      (std::vector<std::string>{"/ledra/Ledra/table?flags=Cnp", "/ledra/Ledra/table/a?flags=Cnp",
                                "/ledra/Ledra/table/b?flags=Cnp"}));
  EXPECT_FALSE(capture.contains("All mounts complete for mixed"));
  EXPECT_EQ(engine("mixed")->state(), PassiveEntityManagerSm::conditionalMountGroupPending);
  sensor->attributeIs("level", Qel::String("4"));
  run();
  EXPECT_EQ(sent(agent).back(), "/ledra/Ledra/late2?flags=Cnp");
  EXPECT_EQ(capture.count("All mounts complete for mixed"), 1u);
  root->entryDel("sensor");
}

}  // namespace
}  // namespace Ledra::test
