// The root state machine and its wrapper: start-up (reserved template values, the shared timer
// wheel, the role), profiles and their connection configurations, agents connecting through
// loopback peers on a simulated clock (served, refused, white-listed, cleaned up), the switch to
// active and its "peerReady" groups, and the exact error and assertion texts.
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "EngineHarness.h"
#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PassiveEntityManagerSmWrapper.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Exception.h"

namespace Ledra::test {
namespace {

using Root = PassiveEntityManagerRootSm;
using Role = EntityManager::Role;
using Strings = std::vector<std::string>;

// How name-in-use messages show a pointer: an entity by full name and address, else the address.
std::string shown(void const* p, Qel::Entity const* e = nullptr) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  return e ? e->fullName() + "@" + buf : std::string(buf);
}
template <class P>
std::string shownEntity(P const& p) {
  return shown(p.ptr(), p.ptr());
}

std::string inUse(char const* attr, std::string const& requested, std::string const& current) {
  return std::string(
             "Reinstantiating the pointer interface where constructor parameter attribute ") +
         attr + " has a different value of " + requested + " than the current value of " + current +
         " not allowed";
}

class RootWatcher : public Root::NotifieeConst {
 public:
  Strings seen;
  void onInitialized() override { seen.push_back("initialized"); }
  void onConnStatus(Qel::Name const& n) override { seen.push_back("connStatus " + n); }
  void onPassiveEntityManagerSm(Qel::Name const& n) override { seen.push_back("engine " + n); }
};

class RootSmTest : public SimulatedDatabaseTest {
 protected:
  void SetUp() override {
    savedDict_ = globalReservedTemplateKeyDict();
    SimulatedDatabaseTest::SetUp();
    profiles = PassiveAgentProfileDir::agentProfileDirNew("agentProfileDir");
    statuses = PassiveAgentStatusDir::agentStatusDirNew("agentStatusDir");
    entMgr = EntityManager::entityManagerNew("entityManager", Role::active);
    Qel::globalDir()->dirIs("peerTest")->entryIs(ConditionRes::conditionResNew("flag"));
  }
  void TearDown() override {
    rootSm = nullptr;
    agents.clear();
    loop->runFor(0.01);  // connection teardown
    ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
    profiles = nullptr;
    statuses = nullptr;
    entMgr = nullptr;
    Qel::globalDir()->entryDel("peerTest");
    Cell::cellIdIs(1);
    globalReservedTemplateKeyDict() = savedDict_;
    SimulatedDatabaseTest::TearDown();
  }

  Root::Ptr const& startRoot() {
    return rootSm = Root::passiveEntityManagerRootSmNew(profiles, statuses, entMgr);
  }
  LoopbackAgent::Ptr agent(char const* name, char const* agentString = "") {
    agents.push_back(LoopbackAgent::loopbackAgentNew(loop, name, agentString));
    return agents.back();
  }
  // A profile whose one group "main" (priority 2) mounts the directory /ledra/Ledra/data.
  PassiveAgentProfile::Ptr profile(char const* name) {
    dir("data");
    auto p = profiles->agentProfileIs(name);
    p->mountGroupIs("main", 2)->addProfile("/ledra/Ledra/data", "Qel::Dir", "r");
    return p;
  }
  // A blocking conditional group waiting for a flag that never rises.
  void blockingGroup(PassiveAgentProfile::Ptr const& p, char const* name, Qel::U32 priority = 1) {
    char const* const condition = "true == /peerTest/flag.enabled";
    dir("ready");
    auto g = p->mountGroupIs(name, priority);
    g->blockingConditionalIs(true);
    g->entireConditionIs(condition);
    g->conditionColEnq(condition);
    g->addProfile("/ledra/Ledra/ready", "Qel::Dir", "r");
  }
  std::size_t completions(char const* name) const {
    return capture.count(std::string("All mounts complete for ") + name);
  }

  PassiveAgentProfileDir::Ptr profiles;
  PassiveAgentStatusDir::Ptr statuses;
  EntityManager::Ptr entMgr;
  Root::Ptr rootSm;
  std::vector<LoopbackAgent::Ptr> agents;

 private:
  ReservedTemplateKeyDict savedDict_;
};

// ---- Start-up

class RootCellTest : public RootSmTest, public ::testing::WithParamInterface<int> {};

TEST_P(RootCellTest, ReservedTableNamesOwnAndPeerCellAndSystem) {
  int const own = GetParam();
  int const peer = 3 - own;
  Cell::cellIdIs(own);
  Qel::ActivityManagerConfig::instance()->systemNameIs("sysA");
  globalReservedTemplateKeyDict()["%cellId"] = "stale";
  startRoot();
  EXPECT_EQ(globalReservedTemplateKeyDict(),
            (ReservedTemplateKeyDict{{"%cellId", std::to_string(own)},
                                     {"%cellPath", "cell/" + std::to_string(own)},
                                     {"%peerCellId", std::to_string(peer)},
                                     {"%peerCellPath", "cell/" + std::to_string(peer)},
                                     {"%sysname", "sysA"}}));
}

INSTANTIATE_TEST_SUITE_P(Cells, RootCellTest, ::testing::Values(1, 2));

TEST_F(RootSmTest, StartUpBindsTheDirectoriesMakesTheSharedWheelAndServesWhoIsConnected) {
  profile("agentA");
  agent("agentA")->connect();
  startRoot();
  EXPECT_TRUE(rootSm->passiveEntityManagerSm("agentA"));
  EXPECT_TRUE(rootSm->initialized());
  EXPECT_EQ(rootSm->connectionConfigDir(), ConnMgrHelper::connectionConfigDir());
  EXPECT_EQ(rootSm->connectionStatusDir(), ConnMgrHelper::connectionStatusDir());
  Orn::TimerWheel::Ptr const wheel = rootSm->timerWheel();
  ASSERT_TRUE(wheel);
  EXPECT_EQ(wheel->clock(), clock);
  EXPECT_EQ(capture.count("PassiveEntityManagerRootSm is initialized on an active"), 1u);
  // A second call changes nothing and notifies nobody.
  RootWatcher w;
  w.notifierIs(rootSm);
  globalReservedTemplateKeyDict()["%cellId"] = "changed";
  Cell::cellIdIs(2);
  rootSm->handleInitialized();
  EXPECT_EQ(rootSm->timerWheel(), wheel);
  EXPECT_EQ(globalReservedTemplateKeyDict().at("%cellId"), "changed");
  EXPECT_EQ(capture.count("is initialized on"), 1u);
  EXPECT_TRUE(w.seen.empty());
  run();
  EXPECT_EQ(completions("agentA"), 1u);
}

TEST_F(RootSmTest, NullArgumentsAreRefusedWithTheirExactTexts) {
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(nullptr, statuses, entMgr); }),
            "null _agentProfileDir parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(profiles, nullptr, entMgr); }),
            "null _agentStatusDir parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(profiles, statuses, nullptr); }),
            "null _entMgr parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  startRoot();
  EXPECT_EQ(errorOf<Qel::RangeException>([this] { rootSm->connStatusIs(nullptr); }),
            "null _connStatus parameter to mutator for "
            "Ledra::PassiveEntityManagerRootSm::connStatus not allowed\"");
}

// ---- Profiles

TEST_F(RootSmTest, EveryProfileGetsAPassiveConnectionConfigAndMayNotBeDeleted) {
  profiles->agentProfileIs("early");
  startRoot();
  profiles->agentProfileIs("late-");
  auto const& configs = ConnMgrHelper::connectionConfigDir();
  EXPECT_TRUE(configs->passiveConnectionConfig("early"));
  EXPECT_TRUE(configs->passiveConnectionConfig("late-"));
  EXPECT_EQ(configs->passiveConnectionConfigs(), 2u);
  expectTraced({"adding connection config for early", "adding connection config for late-"});
  EXPECT_DEATH(profiles->agentProfileDel("early"),
               literal("Assertion failed: false && \"mount profile being deleted\""));
}

TEST_F(RootSmTest, ProfileIsTheOwnNameThenShorterFamiliesEndingInHyphen) {
  for (char const* name : {"a-", "a-b-", "a-b---", "x-y-3"})
    profiles->agentProfileIs(name);
  startRoot();
  std::string const dashes(100000, '-');
  std::pair<std::string, char const*> const cases[] = {
      {"a-b-c", "a-b-"},
      {"a-b-", "a-b-"},
      {"a-b", "a-"},
      {"a-c-d", "a-"},
      {"a", ""},
      {"b-c", ""},
      {"x-y-3", "x-y-3"},
      {"x-y", ""},
      // A profile whose name does not end in "-" serves its own agent only.
      {"x-y-3z", ""},
      {"-", ""},
      {"", ""},
      // Long names of many dashes: the longest family still wins.
      {"a-b" + dashes + "z", "a-b---"},
      {"a-b--z", "a-b-"},
      {dashes, ""},
      {"a" + dashes, "a-"}};
  for (auto const& [agentName, served] : cases) {
    auto const p = rootSm->agentProfileFor(agentName);
    EXPECT_EQ(p ? std::string(p->name()) : std::string(), served) << agentName.substr(0, 12);
  }
}

// ---- Connections

TEST_F(RootSmTest, AgentIsServedToCompletionAndCleanedUpWhenItLeaves) {
  profile("agentA");
  startRoot();
  RootWatcher w;
  w.notifierIs(rootSm);
  auto const a = agent("agentA", "agentA slot=3");
  a->connect();
  expectTraced({"agent: agentA whiteList: false", "connection succeeded for agentA"});
  ASSERT_TRUE(statuses->agentStatus("agentA"));
  EXPECT_EQ(statuses->agentStatus("agentA")->agentString(), "agentA slot=3");
  EXPECT_EQ(w.seen, (Strings{"connStatus agentA", "engine agentA"}));
  run();
  EXPECT_EQ(completions("agentA"), 1u);
  EXPECT_EQ(requestPathsOf(*a), (Strings{"/ledra/Ledra", "/ledra/Ledra/data"}));

  a->disconnect("bye");
  run();
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  EXPECT_EQ(rootSm->connStatuses(), 0u);
  EXPECT_FALSE(statuses->agentStatus("agentA"));
  EXPECT_TRUE(
      capture.contains("PassiveEntityManagerRootSm::doCleanup(Qel::Name name) agentName: agentA"));
  EXPECT_EQ(w.seen.back(), "engine agentA");
}

TEST_F(RootSmTest, AgentWithoutProfileIsClosedAndAWhiteListedOneIsLeftAlone) {
  profile("a-");
  profile("w");
  startRoot();
  auto const a = agent("a");
  auto const w = agent("w");
  w->whiteListIs(true);
  a->connect();
  w->connect();
  expectTraced(
      {"Closing connection for a as no agent profile could be found", "agent: w whiteList: true"});
  EXPECT_FALSE(capture.contains("connection succeeded"));
  EXPECT_EQ(a->closeReasons(), (std::vector<Qel::String>{"no agent profile"}));
  run();
  EXPECT_FALSE(a->connected());
  EXPECT_FALSE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("a"));
  EXPECT_TRUE(a->mountRequests().empty());
  EXPECT_TRUE(w->connected());
  EXPECT_TRUE(w->closeReasons().empty());
  EXPECT_EQ(rootSm->connStatuses(), 1u) << "the white-listed connection's reactor";
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  EXPECT_EQ(statuses->agentStatuses(), 0u);
}

TEST_F(RootSmTest, AgentRefusingItsRootMountIsClosedAndCleanedUpWhileOthersAreServed) {
  profile("agentA");
  profile("agentB");
  startRoot();
  auto const a = agent("agentA");
  auto const b = agent("agentB");
  a->mountFailureIs("/ledra/Ledra", "no root here");
  a->connect();
  b->connect();
  run();
  EXPECT_EQ(a->closeReasons(), (std::vector<Qel::String>{"root mount failed: no root here"}));
  EXPECT_TRUE(capture.contains("Closing connection for agentA: root mount failed: no root here"));
  EXPECT_FALSE(a->connected());
  EXPECT_EQ(requestPathsOf(*a), Strings{"/ledra/Ledra"});
  EXPECT_FALSE(rootSm->passiveEntityManagerSm("agentA"));
  EXPECT_FALSE(statuses->agentStatus("agentA"));
  EXPECT_EQ(completions("agentB"), 1u);
}

TEST_F(RootSmTest, ConnectedRecordWithoutDemuxerIsFatal) {
  profile("ghost");
  startRoot();
  auto const record = PassiveConnectionStatus::passiveConnectionStatusNew("ghost");
  record->agentNameIs("ghost");
  ConnMgrHelper::connectionStatusDir()->passiveConnectionStatusIs(record);
  record->establishedIs(true);
  record->stateIs(PassiveConnectionStatus::kStateConnected);
  EXPECT_DEATH(record->connectedIs(true), "Assertion failed: dmux");
  ConnMgrHelper::connectionStatusDir()->passiveConnectionStatusDel("ghost");
}

TEST_F(RootSmTest, EngineAskedAgainWithOtherConstructorAttributesIsRefused) {
  auto const p = profile("agentA");
  startRoot();
  auto const a = agent("agentA");
  a->holdAnswersIs(true);  // keeps the engine short of completion, connection in hand
  auto const d = a->connect();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  auto const status = statuses->agentStatus("agentA");
  auto const table = d->peer();
  Orn::TimerWheel::PtrConst const wheel = rootSm->timerWheel();
  EXPECT_EQ(rootSm->passiveEntityManagerSmIs(p, status, d, table, entMgr, wheel), engine);

  auto const p2 = profiles->agentProfileIs("other");
  auto const status2 = PassiveAgentStatus::agentStatusNew("agentA");
  auto const d2 = Qel::NboAttrLog::Demuxer::demuxerNew("agentA", nullptr, nullptr);
  auto const table2 = Qel::MountTable::mountTableNew("agentA");
  EntityManager::PtrConst const entMgr2 = EntityManager::entityManagerNew("other");
  Orn::TimerWheel::PtrConst const wheel2 = Orn::TimerWheel::timerWheelNew(clock);
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { rootSm->passiveEntityManagerSmIs(p2, status, d, table, entMgr, wheel); },
       inUse("_agentProfile", shownEntity(p2), shownEntity(p))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status2, d, table, entMgr, wheel); },
       inUse("_agentStatus", shownEntity(status2), shownEntity(status))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d2, table, entMgr, wheel); },
       inUse("_demuxer", shownEntity(d2), shownEntity(d))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, table2, entMgr, wheel); },
       inUse("_peerMountTable", shownEntity(table2), shownEntity(table))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, table, entMgr2, wheel); },
       inUse("_entMgr", shownEntity(entMgr2), shownEntity(entMgr))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, table, entMgr, wheel2); },
       inUse("_timerWheel", shown(wheel2.ptr()), shown(wheel.ptr()))},
  };
  for (auto const& [call, text] : cases)
    EXPECT_EQ(errorOf<Qel::NameInUseException>(call), text);
  EXPECT_EQ(rootSm->passiveEntityManagerSm("agentA"), engine);
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 1u);
}

class RootSwitchTest : public RootSmTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RootSwitchTest, SilencedRootServesNobodyUntilSwitchedBack) {
  bool const zombie = GetParam();
  auto const off = [&](bool o) {
    zombie ? rootSm->qelDoZombieReactorsIs(o) : rootSm->hasNotificationActiveIs(!o);
  };
  profile("agentA");
  profile("agentB");
  startRoot();
  off(true);
  agent("agentA")->connect();
  EXPECT_EQ(rootSm->connStatuses(), 0u);
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  off(false);
  agent("agentB")->connect();
  EXPECT_TRUE(rootSm->passiveEntityManagerSm("agentB"));
  EXPECT_FALSE(rootSm->passiveEntityManagerSm("agentA"));
}

INSTANTIATE_TEST_SUITE_P(Switches, RootSwitchTest, ::testing::Bool(), [](auto const& info) {
  return info.param ? "Zombie" : "NotificationOff";
});

// ---- The switch to active

TEST_F(RootSmTest, EngineHeldByPeerReadyProceedsOnceActive) {
  auto const p = profile("agentA");
  blockingGroup(p, "peerReady");
  auto const other = profiles->agentProfileIs("other");
  blockingGroup(other, "peerReady");
  blockingGroup(profile("agentB"), "gate");  // blocking, but no "peerReady"
  entMgr->localIs(Role::backup);
  startRoot();
  EXPECT_EQ(capture.count("PassiveEntityManagerRootSm is initialized on a backup"), 1u);
  auto const a = agent("agentA");
  a->connect();
  agent("agentB")->connect();
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  ASSERT_TRUE(engine);
  EXPECT_TRUE(engine->conditionalMountGroup("peerReady"));
  EXPECT_FALSE(engine->blockingConditionals().empty());
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::readyMountGroupPending);
  EXPECT_EQ(requestPathsOf(*a), Strings{"/ledra/Ledra"});

  entMgr->localIs(Role::active);
  expectTraced({"an active supervisor", "Found blocking Conditionals for: agentA",
                "Found peerReady in conditionalMountGroup. Deleting.",
                "Finished SA conversion for agentA"});
  EXPECT_TRUE(engine->blockingConditionals().empty());
  EXPECT_FALSE(engine->conditionalMountGroup("peerReady"));
  EXPECT_FALSE(p->mountGroup("peerReady"));
  EXPECT_FALSE(other->mountGroup("peerReady"));
  EXPECT_TRUE(p->mountGroup("main"));
  run();
  EXPECT_EQ(completions("agentA"), 1u);
  EXPECT_EQ(requestPathsOf(*a), (Strings{"/ledra/Ledra", "/ledra/Ledra/data"}));
  // Other blocking groups keep holding.
  auto const held = rootSm->passiveEntityManagerSm("agentB");
  EXPECT_TRUE(capture.contains("Found blocking Conditionals for: agentB"));
  EXPECT_EQ(capture.count("Deleting."), 1u);
  EXPECT_EQ(held->blockingConditionals().size(), 1u);
  EXPECT_TRUE(held->conditionalMountGroup("gate"));
  EXPECT_EQ(completions("agentB"), 0u);

  // Back to backup: nothing is removed.
  blockingGroup(other, "peerReady");
  entMgr->localIs(Role::backup);
  EXPECT_TRUE(capture.contains("a backup supervisor"));
  EXPECT_TRUE(other->mountGroup("peerReady"));
}

TEST_F(RootSmTest, QueuedPeerReadyGroupIsDroppedBeforeItIsReached) {
  auto const p = profile("agentA");  // "main", priority 2
  blockingGroup(p, "peerReady", 5);
  entMgr->localIs(Role::backup);
  startRoot();
  auto const a = agent("agentA");
  a->holdAnswersIs(true);
  a->connect();
  ASSERT_TRUE(a->answerRelease("/ledra/Ledra"));
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  EXPECT_EQ(requestPathsOf(*a).back(), "/ledra/Ledra/data");
  EXPECT_EQ(engine->readyMountGroups(), 1u);

  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("Found peerReady in readyMountGroup. Deleting."));
  EXPECT_EQ(engine->readyMountGroups(), 0u);
  a->holdAnswersIs(false);
  a->answersRelease();
  run();
  EXPECT_EQ(completions("agentA"), 1u);
  EXPECT_FALSE(capture.contains("Creating a conditional mount group"));
  EXPECT_EQ(requestPathsOf(*a), (Strings{"/ledra/Ledra", "/ledra/Ledra/data"}));
}

// ---- The wrapper

// Released while its engines wait on every kind of armed work: a retry timer for a missing
// entity, a conditional reactor, a directory mounter. Time going on afterwards reaches none of it.
TEST_F(RootSmTest, ReleasedWithArmedTimersReactorsAndMountersLeavesNothingToFire) {
  auto const p = profile("agentA");
  auto late = p->mountGroupIs("late", 1);
  late->conditionColEnq("true == /peerTest/missing.enabled");
  late->addProfile("/ledra/Ledra/data", "Qel::Dir", "r");
  auto flagged = p->mountGroupIs("flagged", 1);
  flagged->conditionColEnq("true == /peerTest/flag.enabled");
  flagged->addProfile("/ledra/Ledra/data", "Qel::Dir", "r");
  p->mountGroupIs("entries", 2)->addProfile("/ledra/Ledra/data/absent", "Qel::Dir", "rDB");
  startRoot();
  auto const a = agent("agentA");
  a->connect();
  testing::internal::CaptureStderr();  // the retry's "must be present" lines
  run(1);
  {
    auto const engine = rootSm->passiveEntityManagerSm("agentA");
    ASSERT_TRUE(engine);
    EXPECT_EQ(engine->passiveDirMounterCol().size(), 1u);
    ASSERT_EQ(engine->conditionalMountGroup().size(), 2u);
    auto const flaggedSm = engine->conditionalMountGroup("flagged")->conditionalMountGroupSm();
    EXPECT_TRUE(flaggedSm && flaggedSm->conditionalReactor());
    EXPECT_GT(clock->timers(), 0u);
  }
  std::size_t const requests = a->mountRequests().size();
  rootSm = nullptr;
  EXPECT_EQ(clock->timers(), 0u);
  run(60);
  dir("data/absent");
  Qel::globalDir()->dirIs("peerTest")->entryIs(ConditionRes::conditionResNew("missing"));
  Qel::globalDir()->dirIs("peerTest")->entry("flag");
  run(10);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(a->mountRequests().size(), requests);
}

TEST_F(RootSmTest, WrapperHoldsOneRootBuiltFromItsThreeArguments) {
  profile("agentA");
  auto const wrapper = passiveEntityManagerSmWrapperFactory("pem");
  EXPECT_FALSE(wrapper->passiveEntityManagerRootSm());
  struct Watch : PassiveEntityManagerSmWrapper::NotifieeConst {
    int n = 0;
    void onPassiveEntityManagerRootSm() override { ++n; }
  } watch;
  watch.notifierIs(wrapper);

  auto r = wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->initialized());
  EXPECT_EQ(r->agentProfileDir(), profiles);
  EXPECT_EQ(r->fullName(), "pem/passiveEntityManagerRootSm");
  EXPECT_EQ(wrapper->entity("passiveEntityManagerRootSm"), r);
  EXPECT_EQ(wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr), r);
  EXPECT_EQ(watch.n, 1);
  auto const otherDir = PassiveAgentProfileDir::agentProfileDirNew("otherDir");
  EXPECT_EQ(errorOf<Qel::NameInUseException>(
                [&] { wrapper->passiveEntityManagerRootSmIs(otherDir, statuses, entMgr); }),
            inUse("_agentProfileDir", shownEntity(otherDir), shownEntity(profiles)));
  EXPECT_EQ(wrapper->passiveEntityManagerRootSm(), r);

  auto const a = agent("agentA");
  a->connect();
  EXPECT_EQ(statuses->agentStatuses(), 1u);
  EXPECT_EQ(a->connectionStatus()->notifiees(), 1u);
  wrapper->passiveEntityManagerRootSmDel();
  EXPECT_FALSE(wrapper->passiveEntityManagerRootSm());
  EXPECT_EQ(r->parent(), nullptr);
  EXPECT_EQ(watch.n, 2);
  // The root, once gone, has let go of its engines, reactors and status records.
  r = nullptr;
  EXPECT_EQ(statuses->agentStatuses(), 0u);
  EXPECT_EQ(a->connectionStatus()->notifiees(), 0u);
  EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->notifiees(), 0u);
  EXPECT_TRUE(a->connected());
}

}  // namespace
}  // namespace Ledra::test
