// The root state machine and its wrapper: what the simulation does not reach (reserved template
// values, the family choice at its boundaries, refusals of the wrapper and the engine factory,
// the switch to active with a queued "peerReady" group) and lifetimes: the root released with
// armed timers, reactors and directory mounters.
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
#include "Qel/Core/Exception.h"

namespace Ledra::test {
namespace {

using Root = PassiveEntityManagerRootSm;
using Role = EntityManager::Role;
using Strings = std::vector<std::string>;

// How name-in-use messages show an entity: by full name and address.
std::string shown(Qel::Entity const* e) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(e)));
  return e->fullName() + "@" + buf;
}

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
  LoopbackAgent::Ptr agent(char const* name) {
    agents.push_back(LoopbackAgent::loopbackAgentNew(loop, name));
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

TEST_F(RootSmTest, StartUpFillsTheReservedTableOnceAndServesWhoIsConnected) {
  Cell::cellIdIs(2);
  profile("agentA");
  agent("agentA")->connect();
  startRoot();
  EXPECT_EQ(globalReservedTemplateKeyDict(), (ReservedTemplateKeyDict{{"%cellId", "2"},
                                                                      {"%cellPath", "cell/2"},
                                                                      {"%peerCellId", "1"},
                                                                      {"%peerCellPath", "cell/1"},
                                                                      {"%sysname", "ledra"}}));
  Orn::TimerWheel::Ptr const wheel = rootSm->timerWheel();
  ASSERT_TRUE(wheel);
  // A second call changes nothing.
  globalReservedTemplateKeyDict()["%cellId"] = "changed";
  rootSm->handleInitialized();
  EXPECT_EQ(rootSm->timerWheel(), wheel);
  EXPECT_EQ(globalReservedTemplateKeyDict().at("%cellId"), "changed");
  EXPECT_EQ(capture.count("is initialized on"), 1u);
  run();
  EXPECT_EQ(completions("agentA"), 1u);
  // By name, each connection shows its status record (not the reactor that watches it), and
  // the agent its engine.
  ASSERT_FALSE(rootSm->connStatus().empty());
  Qel::Name const connection = rootSm->connStatus().begin()->first;
  auto const byName = [](char const* name) { return Qel::ValueTraits<Qel::Name>::box(name); };
  EXPECT_EQ(rootSm->attribute(Root::kConnStatus, byName(connection.c_str())).ptr(),
            ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus(connection).ptr());
  EXPECT_FALSE(rootSm->attribute(Root::kConnStatus, byName("none")));
  EXPECT_EQ(rootSm->attribute(Root::kPassiveEntityManagerSm, byName("agentA")).ptr(),
            rootSm->passiveEntityManagerSm("agentA").ptr());
}

TEST_F(RootSmTest, NullArgumentsAreRefusedWithTheirExactTexts) {
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(nullptr, statuses, entMgr); }),
            "null _agentProfileDir parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(profiles, statuses, nullptr); }),
            "null _entMgr parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  startRoot();
  EXPECT_EQ(errorOf<Qel::RangeException>([this] { rootSm->connStatusIs(nullptr); }),
            "null _connStatus parameter to mutator for "
            "Ledra::PassiveEntityManagerRootSm::connStatus not allowed\"");
}

TEST_F(RootSmTest, EveryProfileGetsAPassiveConnectionConfigAndMayNotBeDeleted) {
  profiles->agentProfileIs("early");
  startRoot();
  profiles->agentProfileIs("late-");
  auto const& configs = ConnMgrHelper::connectionConfigDir();
  EXPECT_TRUE(configs->passiveConnectionConfig("early"));
  EXPECT_TRUE(configs->passiveConnectionConfig("late-"));
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
      {"a", ""},
      {"x-y-3", "x-y-3"},
      // A profile whose name does not end in "-" serves its own agent only.
      {"x-y-3z", ""},
      {"-", ""},
      {"", ""},
      // Long names of many dashes: the longest family still wins.
      {"a-b" + dashes + "z", "a-b---"},
      {"a-b--z", "a-b-"},
      {"a" + dashes, "a-"}};
  for (auto const& [agentName, served] : cases) {
    auto const p = rootSm->agentProfileFor(agentName);
    EXPECT_EQ(p ? std::string(p->name()) : std::string(), served) << agentName.substr(0, 12);
  }
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

// Asked again for an agent's engine, the root hands out the one it has when every argument is
// the same, and names the first that differs otherwise.
TEST_F(RootSmTest, AnEngineAskedForAgainWithOtherArgumentsIsRefused) {
  profile("agentA");
  startRoot();
  auto const a = agent("agentA");
  a->holdAnswersIs(true);  // the engine keeps its connection while a mount is in flight
  a->connect();
  run();
  auto const e = rootSm->passiveEntityManagerSm("agentA");
  ASSERT_TRUE(e && e->demuxer());
  struct Args {
    PassiveAgentProfile::PtrConst profile;
    PassiveAgentStatus::Ptr status;
    Qel::NboAttrLog::Demuxer::Ptr demuxer;
    Qel::MountTable::Ptr table;
    EntityManager::PtrConst entMgr;
    Orn::TimerWheel::PtrConst wheel;
  };
  Args const same{e->agentProfile(),   e->agentStatus(), e->demuxer(),
                  e->peerMountTable(), e->entMgr(),      e->timerWheel()};
  auto const again = [&](Args const& x) {
    return rootSm->passiveEntityManagerSmIs(x.profile, x.status, x.demuxer, x.table, x.entMgr,
                                            x.wheel);
  };
  EXPECT_EQ(again(same), e);
  std::pair<char const*, std::function<void(Args&)>> const changes[] = {
      {"_agentProfile", [&](Args& x) { x.profile = profiles->agentProfileIs("other"); }},
      {"_agentStatus", [](Args& x) { x.status = PassiveAgentStatus::agentStatusNew("agentA"); }},
      {"_demuxer", [](Args& x) { x.demuxer = nullptr; }},
      {"_peerMountTable", [](Args& x) { x.table = Qel::MountTable::mountTableNew("other"); }},
      {"_entMgr", [](Args& x) { x.entMgr = nullptr; }},
      {"_timerWheel", [&](Args& x) { x.wheel = Orn::TimerWheel::timerWheelNew(clock); }}};
  for (auto const& [attribute, change] : changes) {
    Args x = same;
    change(x);
    std::string const text = errorOf<Qel::NameInUseException>([&] { again(x); });
    EXPECT_EQ(text.substr(0, text.find(" has a different value")),
              std::string("Reinstantiating the pointer interface where constructor parameter "
                          "attribute ") +
                  attribute);
  }
}

TEST_F(RootSmTest, AWhiteListedAgentIsLeftAlone) {
  profile("w");
  startRoot();
  auto const w = agent("w");
  w->whiteListIs(true);
  w->connect();
  run();
  EXPECT_TRUE(w->connected());
  EXPECT_TRUE(w->mountRequests().empty());
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
}

// ---- The switch to active

TEST_F(RootSmTest, EngineHeldByPeerReadyProceedsOnceActive) {
  blockingGroup(profile("agentA"), "peerReady");
  entMgr->localIs(Role::backup);
  startRoot();
  agent("agentA")->connect();
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  EXPECT_TRUE(engine->conditionalMountGroup("peerReady"));
  entMgr->localIs(Role::active);
  EXPECT_FALSE(engine->conditionalMountGroup("peerReady"));
  EXPECT_TRUE(engine->blockingConditionals().empty());
  run();
  EXPECT_EQ(completions("agentA"), 1u);
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
  EXPECT_EQ(engine->readyMountGroups(), 1u);
  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("Found peerReady in readyMountGroup. Deleting."));
  EXPECT_EQ(engine->readyMountGroups(), 0u);
  a->holdAnswersIs(false);
  a->answersRelease();
  run();
  EXPECT_EQ(completions("agentA"), 1u);
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

TEST_F(RootSmTest, WrapperHoldsOneRootAndItsReleaseLetsGoOfEveryConnection) {
  profile("agentA");
  auto const wrapper = passiveEntityManagerSmWrapperFactory("pem");
  auto r = wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  ASSERT_TRUE(r);
  EXPECT_EQ(wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr), r);
  auto const otherDir = PassiveAgentProfileDir::agentProfileDirNew("otherDir");
  EXPECT_EQ(errorOf<Qel::NameInUseException>(
                [&] { wrapper->passiveEntityManagerRootSmIs(otherDir, statuses, entMgr); }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_agentProfileDir has a different value of " +
                shown(otherDir.ptr()) + " than the current value of " + shown(profiles.ptr()) +
                " not allowed");
  auto const a = agent("agentA");
  a->connect();
  EXPECT_EQ(a->connectionStatus()->notifiees(), 1u);
  wrapper->passiveEntityManagerRootSmDel();
  EXPECT_FALSE(wrapper->passiveEntityManagerRootSm());
  r = nullptr;
  EXPECT_EQ(statuses->agentStatuses(), 0u);
  EXPECT_EQ(a->connectionStatus()->notifiees(), 0u);
  EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->notifiees(), 0u);
  EXPECT_TRUE(a->connected());
}

}  // namespace
}  // namespace Ledra::test
