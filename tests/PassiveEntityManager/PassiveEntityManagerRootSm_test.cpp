// The root state machine and its wrapper: start-up (reserved template values, the shared timer
// wheel, the role), profiles and their connection configurations, agents connecting through
// loopback peers on a simulated clock (served to completion, refused, white-listed, cleaned up),
// the switch to active and its "peerReady" groups, and the exact error and assertion texts.
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/PassiveEntityManagerSmWrapper.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/ActivityManagerConfig.h"
#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "Qel/SimulatedClock.h"
#include "Trace/CaptureSink.h"
#include "Trace/Facilities.h"
#include "support/LeakCheck.h"

namespace Ledra {
namespace {

using Root = PassiveEntityManagerRootSm;
using Role = EntityManager::Role;

template <class E, class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no exception thrown";
  return {};
}

// An exact text as a death-test pattern.
std::string literal(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

// How name-in-use messages show a pointer: an entity by full name and address, else the address.
std::string shown(void const* p, Qel::Entity const* e = nullptr) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  return e ? e->fullName() + "@" + buf : std::string(buf);
}

class RootWatcher : public Root::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onInitialized() override { seen.push_back("initialized"); }
  void onConnStatus(Qel::Name const& n) override { seen.push_back("connStatus " + n); }
  void onPassiveEntityManagerSm(Qel::Name const& n) override { seen.push_back("engine " + n); }
};

class RootSmTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    // The test runs under a process configuration of its own, on a simulated clock; it is
    // forgotten at the end, so that no test finds one left by another.
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    savedDict_ = globalReservedTemplateKeyDict();
    LeakCheckedTest::SetUp();
    Trace::Facilities::instance().levelsAre("*=9");
    clock = Qel::SimulatedClock::simulatedClockNew();
    Qel::ActivityManagerConfig::instance()->clockIs(clock);
    loop = Qel::EventLoop::eventLoopNew(clock);
    database = Qel::globalDir()->dirIs("ledra")->dirIs("Ledra");
    profiles = PassiveAgentProfileDir::agentProfileDirNew("agentProfileDir");
    statuses = PassiveAgentStatusDir::agentStatusDirNew("agentStatusDir");
    entMgr = EntityManager::entityManagerNew("entityManager", role_);
  }
  void TearDown() override {
    rootSm = nullptr;
    agents.clear();
    loop->runFor(0.01);  // connection teardown
    ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
    profiles = nullptr;
    statuses = nullptr;
    entMgr = nullptr;
    database = nullptr;
    Qel::globalDir()->entryDel("ledra");
    Qel::globalDir()->entryDel("peerTest");
    loop = nullptr;
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    clock = nullptr;
    Cell::cellIdIs(1);
    globalReservedTemplateKeyDict() = savedDict_;
    Trace::Facilities::instance().reset();
    LeakCheckedTest::TearDown();
  }

  Root::Ptr const& startRoot() {
    rootSm = Root::passiveEntityManagerRootSmNew(profiles, statuses, entMgr);
    return rootSm;
  }
  LoopbackAgent::Ptr agent(char const* name, char const* agentString = "") {
    agents.push_back(LoopbackAgent::loopbackAgentNew(loop, name, agentString));
    return agents.back();
  }
  // A profile whose one group mounts the directory /ledra/Ledra/<sub>.
  PassiveAgentProfile::Ptr profile(char const* name, char const* sub = "data") {
    database->dirIs(sub);
    auto p = profiles->agentProfileIs(name);
    p->mountGroupIs("main", 2)->addProfile(Qel::String("/ledra/Ledra/") + sub, "Qel::Dir", "r");
    return p;
  }
  void run(Qel::Time seconds = 0.1) { loop->runFor(seconds); }
  std::vector<std::string> requestPaths(LoopbackAgent::Ptr const& a) const {
    std::vector<std::string> out;
    for (auto const& r : a->mountRequests())
      out.push_back(r.path);
    return out;
  }

  Role role_ = Role::active;
  Trace::CaptureSink capture;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  Qel::Dir::Ptr database;
  PassiveAgentProfileDir::Ptr profiles;
  PassiveAgentStatusDir::Ptr statuses;
  EntityManager::Ptr entMgr;
  Root::Ptr rootSm;
  std::vector<LoopbackAgent::Ptr> agents;

 private:
  ReservedTemplateKeyDict savedDict_;
};

// ---- Start-up ----

struct CellCase {
  int cell;
  std::map<Qel::String, Qel::String> reserved;
};

class RootCellTest : public RootSmTest, public ::testing::WithParamInterface<CellCase> {};

TEST_P(RootCellTest, ReservedTableNamesOwnAndPeerCellAndSystem) {
  Cell::cellIdIs(GetParam().cell);
  Qel::ActivityManagerConfig::instance()->systemNameIs("sysA");
  globalReservedTemplateKeyDict()["%cellId"] = "stale";
  startRoot();
  for (auto const& [key, value] : GetParam().reserved)
    EXPECT_EQ(globalReservedTemplateKeyDict().at(key), value) << key;
}

INSTANTIATE_TEST_SUITE_P(Cells, RootCellTest,
                         ::testing::Values(CellCase{1,
                                                    {{"%cellId", "1"},
                                                     {"%cellPath", "cell/1"},
                                                     {"%peerCellId", "2"},
                                                     {"%peerCellPath", "cell/2"},
                                                     {"%sysname", "sysA"}}},
                                           CellCase{2,
                                                    {{"%cellId", "2"},
                                                     {"%cellPath", "cell/2"},
                                                     {"%peerCellId", "1"},
                                                     {"%peerCellPath", "cell/1"},
                                                     {"%sysname", "sysA"}}}));

TEST_F(RootSmTest, StartUpBindsTheDirectoriesAndMakesTheSharedWheel) {
  startRoot();
  EXPECT_TRUE(rootSm->initialized());
  EXPECT_EQ(rootSm->connectionConfigDir(), ConnMgrHelper::connectionConfigDir());
  EXPECT_EQ(rootSm->connectionStatusDir(), ConnMgrHelper::connectionStatusDir());
  auto const& wheel = rootSm->timerWheel();
  ASSERT_TRUE(wheel);
  EXPECT_EQ(wheel->clock(), clock);
  EXPECT_EQ(wheel->tick(), 0.001);
  EXPECT_EQ(wheel->ticks(), 255u);
  EXPECT_EQ(wheel->bucketSize(), 1024u);
  EXPECT_EQ(capture.count("PassiveEntityManagerRootSm is initialized on an active"), 1u);
}

TEST_F(RootSmTest, StartUpOnABackupSaysSo) {
  entMgr->localIs(Role::backup);
  startRoot();
  EXPECT_EQ(capture.count("PassiveEntityManagerRootSm is initialized on a backup"), 1u);
  EXPECT_FALSE(capture.contains("initialized on an active"));
}

TEST_F(RootSmTest, SecondHandleInitializedChangesNothing) {
  startRoot();
  RootWatcher w;
  w.notifierIs(rootSm);
  Orn::TimerWheel::Ptr const wheel = rootSm->timerWheel();
  globalReservedTemplateKeyDict()["%cellId"] = "changed";
  Cell::cellIdIs(2);
  rootSm->handleInitialized();
  EXPECT_EQ(rootSm->timerWheel(), wheel);
  EXPECT_EQ(globalReservedTemplateKeyDict().at("%cellId"), "changed");
  EXPECT_EQ(capture.count("is initialized on"), 1u);
  EXPECT_TRUE(w.seen.empty());
}

TEST_F(RootSmTest, NullConstructorArgumentsAreRefused) {
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(nullptr, statuses, entMgr); }),
            "null _agentProfileDir parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  EXPECT_EQ(errorOf<Qel::RangeException>(
                [this] { Root::passiveEntityManagerRootSmNew(profiles, statuses, nullptr); }),
            "null _entMgr parameter to Ledra::PassiveEntityManagerRootSm not allowed");
}

// ---- Profiles ----

TEST_F(RootSmTest, EveryProfileGetsAPassiveConnectionConfig) {
  profiles->agentProfileIs("early");
  startRoot();
  profiles->agentProfileIs("late-");
  auto const& configs = ConnMgrHelper::connectionConfigDir();
  EXPECT_TRUE(configs->passiveConnectionConfig("early"));
  EXPECT_TRUE(configs->passiveConnectionConfig("late-"));
  EXPECT_EQ(configs->passiveConnectionConfigs(), 2u);
  EXPECT_TRUE(capture.contains("adding connection config for early"));
  EXPECT_TRUE(capture.contains("adding connection config for late-"));
}

TEST_F(RootSmTest, DeletingAProfileWhileRunningIsFatal) {
  profiles->agentProfileIs("agentA");
  startRoot();
  EXPECT_DEATH(profiles->agentProfileDel("agentA"),
               literal("Assertion failed: false && \"mount profile being deleted\""));
}

struct PrefixCase {
  char const* agent;
  char const* served;  // "" for none
};

class RootPrefixTest : public RootSmTest, public ::testing::WithParamInterface<PrefixCase> {};

TEST_P(RootPrefixTest, OwnNameThenShorterFamiliesEndingInHyphen) {
  profiles->agentProfileIs("a-");
  profiles->agentProfileIs("a-b-");
  profiles->agentProfileIs("x-y-3");
  startRoot();
  auto const p = rootSm->agentProfileFor(GetParam().agent);
  EXPECT_EQ(p ? std::string(p->name()) : std::string(), GetParam().served);
}

INSTANTIATE_TEST_SUITE_P(Names, RootPrefixTest,
                         ::testing::Values(PrefixCase{"a-b-c", "a-b-"}, PrefixCase{"a-b-", "a-b-"},
                                           PrefixCase{"a-b", "a-"}, PrefixCase{"a-c-d", "a-"},
                                           PrefixCase{"a", ""}, PrefixCase{"b-c", ""},
                                           PrefixCase{"x-y-3", "x-y-3"}, PrefixCase{"x-y", ""},
                                           PrefixCase{"-", ""}, PrefixCase{"", ""}));

// ---- Connections ----

TEST_F(RootSmTest, AgentIsServedToCompletionAndCleanedUpWhenItLeaves) {
  auto const p = profile("agentA");
  startRoot();
  RootWatcher w;
  w.notifierIs(rootSm);
  auto const a = agent("agentA", "agentA slot=3");
  auto const d = a->connect();
  EXPECT_TRUE(capture.contains("agent: agentA whiteList: false"));
  EXPECT_TRUE(capture.contains("connection succeeded for agentA"));
  auto const status = statuses->agentStatus("agentA");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->agentString(), "agentA slot=3");
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  ASSERT_TRUE(engine);
  EXPECT_EQ(engine->agentProfile(), p);
  EXPECT_EQ(engine->agentStatus(), status);
  EXPECT_EQ(engine->demuxer(), d);
  EXPECT_EQ(engine->peerMountTable(), d->peer());
  EXPECT_EQ(engine->entMgr(), entMgr);
  EXPECT_EQ(engine->timerWheel(), rootSm->timerWheel());
  EXPECT_EQ(w.seen, (std::vector<std::string>{"connStatus agentA", "engine agentA"}));

  run();
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 1u);
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
  EXPECT_EQ(requestPaths(a), (std::vector<std::string>{"/ledra/Ledra", "/ledra/Ledra/data"}));

  a->disconnect("bye");
  run();
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  EXPECT_EQ(rootSm->connStatuses(), 0u);
  EXPECT_FALSE(statuses->agentStatus("agentA"));
  EXPECT_TRUE(
      capture.contains("PassiveEntityManagerRootSm::doCleanup(Qel::Name name) agentName: "
                       "agentA"));
  EXPECT_EQ(w.seen.back(), "engine agentA");
}

TEST_F(RootSmTest, AgentIsServedByItsLongestFamilyProfile) {
  profile("a-", "x");
  auto const family = profile("a-b-", "y");
  startRoot();
  auto const a = agent("a-b-c");
  a->connect();
  auto const engine = rootSm->passiveEntityManagerSm("a-b-c");
  ASSERT_TRUE(engine);
  EXPECT_EQ(engine->agentProfile(), family);
  run();
  EXPECT_EQ(requestPaths(a), (std::vector<std::string>{"/ledra/Ledra", "/ledra/Ledra/y"}));
  EXPECT_TRUE(capture.contains("All mounts complete for a-b-c"));
}

TEST_F(RootSmTest, AgentWithoutProfileIsClosedAndGetsNoStatus) {
  profile("a-");
  startRoot();
  auto const a = agent("a");
  a->connect();
  EXPECT_TRUE(capture.contains("Closing connection for a as no agent profile could be found"));
  EXPECT_FALSE(capture.contains("connection succeeded"));
  EXPECT_EQ(a->closeReasons(), (std::vector<Qel::String>{"no agent profile"}));
  EXPECT_EQ(statuses->agentStatuses(), 0u);
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  run();
  EXPECT_FALSE(a->connected());
  EXPECT_FALSE(ConnMgrHelper::connectionStatusDir()->passiveConnectionStatus("a"));
  EXPECT_EQ(rootSm->connStatuses(), 0u);
  EXPECT_TRUE(a->mountRequests().empty());
}

TEST_F(RootSmTest, WhiteListedConnectionIsLeftAlone) {
  profile("w");
  startRoot();
  auto const a = agent("w");
  a->whiteListIs(true);
  a->connect();
  run();
  EXPECT_TRUE(capture.contains("agent: w whiteList: true"));
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  EXPECT_EQ(statuses->agentStatuses(), 0u);
  EXPECT_TRUE(a->connected());
  EXPECT_TRUE(a->closeReasons().empty());
  EXPECT_EQ(rootSm->connStatuses(), 1u);
}

TEST_F(RootSmTest, ReconnectingAgentGetsAFreshEngine) {
  profile("agentA");
  startRoot();
  auto const a = agent("agentA");
  a->connect();
  run();
  PassiveEntityManagerSm::Ptr const first = rootSm->passiveEntityManagerSm("agentA");
  a->disconnect("restart");
  run();
  EXPECT_FALSE(rootSm->passiveEntityManagerSm("agentA"));
  a->connect();
  auto const second = rootSm->passiveEntityManagerSm("agentA");
  ASSERT_TRUE(second);
  EXPECT_NE(second, first);
  EXPECT_EQ(second->demuxer()->epoch(), 2u);
  run();
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 2u);
}

TEST_F(RootSmTest, ConnectionMadeBeforeTheRootIsServedAtStartUp) {
  profile("agentA");
  auto const a = agent("agentA");
  a->connect();
  startRoot();
  EXPECT_TRUE(rootSm->passiveEntityManagerSm("agentA"));
  run();
  EXPECT_TRUE(capture.contains("All mounts complete for agentA"));
}

TEST_F(RootSmTest, NullStatusRecordIsRefusedWithItsExactText) {
  startRoot();
  EXPECT_EQ(errorOf<Qel::RangeException>([this] { rootSm->connStatusIs(nullptr); }),
            "null _connStatus parameter to mutator for "
            "Ledra::PassiveEntityManagerRootSm::connStatus not allowed\"");
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

  auto const otherProfile = profiles->agentProfileIs("other");
  auto const otherStatus = PassiveAgentStatus::agentStatusNew("agentA");
  auto const otherDemuxer = Qel::NboAttrLog::Demuxer::demuxerNew("agentA", nullptr, nullptr);
  auto const otherTable = Qel::MountTable::mountTableNew("agentA");
  EntityManager::PtrConst const otherEntMgr = EntityManager::entityManagerNew("other");
  Orn::TimerWheel::PtrConst const otherWheel = Orn::TimerWheel::timerWheelNew(clock);
  auto message = [](char const* attr, std::string const& requested, std::string const& current) {
    return std::string(
               "Reinstantiating the pointer interface where constructor parameter "
               "attribute ") +
           attr + " has a different value of " + requested + " than the current value of " +
           current + " not allowed";
  };
  struct Case {
    std::function<void()> call;
    std::string text;
  };
  Case const cases[] = {
      {[&] { rootSm->passiveEntityManagerSmIs(otherProfile, status, d, table, entMgr, wheel); },
       message("_agentProfile", shown(otherProfile.ptr(), otherProfile.ptr()),
               shown(p.ptr(), p.ptr()))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, otherStatus, d, table, entMgr, wheel); },
       message("_agentStatus", shown(otherStatus.ptr(), otherStatus.ptr()),
               shown(status.ptr(), status.ptr()))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, otherDemuxer, table, entMgr, wheel); },
       message("_demuxer", shown(otherDemuxer.ptr(), otherDemuxer.ptr()), shown(d.ptr(), d.ptr()))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, otherTable, entMgr, wheel); },
       message("_peerMountTable", shown(otherTable.ptr(), otherTable.ptr()),
               shown(table.ptr(), table.ptr()))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, table, otherEntMgr, wheel); },
       message("_entMgr", shown(otherEntMgr.ptr(), otherEntMgr.ptr()),
               shown(entMgr.ptr(), entMgr.ptr()))},
      {[&] { rootSm->passiveEntityManagerSmIs(p, status, d, table, entMgr, otherWheel); },
       message("_timerWheel", shown(otherWheel.ptr()), shown(wheel.ptr()))},
  };
  for (Case const& c : cases)
    EXPECT_EQ(errorOf<Qel::NameInUseException>(c.call), c.text);
  EXPECT_EQ(rootSm->passiveEntityManagerSm("agentA"), engine);
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 1u);
}

struct SwitchCase {
  char const* name;
  std::function<void(Root&, bool)> off;
};

class RootSwitchTest : public RootSmTest, public ::testing::WithParamInterface<SwitchCase> {};

TEST_P(RootSwitchTest, SilencedRootServesNobodyUntilSwitchedBack) {
  profile("agentA");
  profile("agentB");
  startRoot();
  GetParam().off(*rootSm, true);
  agent("agentA")->connect();
  EXPECT_EQ(rootSm->connStatuses(), 0u);
  EXPECT_EQ(rootSm->passiveEntityManagerSms(), 0u);
  GetParam().off(*rootSm, false);
  agent("agentB")->connect();
  EXPECT_TRUE(rootSm->passiveEntityManagerSm("agentB"));
  EXPECT_FALSE(rootSm->passiveEntityManagerSm("agentA"));
}

INSTANTIATE_TEST_SUITE_P(
    Switches, RootSwitchTest,
    ::testing::Values(
        SwitchCase{"NotificationOff", [](Root& r, bool off) { r.hasNotificationActiveIs(!off); }},
        SwitchCase{"Zombie", [](Root& r, bool off) { r.qelDoZombieReactorsIs(off); }}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(RootSmTest, DestroyingTheRootDeletesEnginesReactorsAndStatusRecords) {
  profile("agentA");
  profile("agentB");
  startRoot();
  auto const a = agent("agentA");
  auto const b = agent("agentB");
  a->connect();
  b->connect();
  EXPECT_EQ(statuses->agentStatuses(), 2u);
  EXPECT_EQ(a->connectionStatus()->notifiees(), 1u);
  rootSm = nullptr;
  EXPECT_EQ(statuses->agentStatuses(), 0u);
  EXPECT_EQ(a->connectionStatus()->notifiees(), 0u);
  EXPECT_EQ(ConnMgrHelper::connectionStatusDir()->notifiees(), 0u);
  EXPECT_TRUE(a->connected());
}

TEST_F(RootSmTest, GenericViewNamesTheAttributes) {
  profile("agentA");
  startRoot();
  agent("agentA")->connect();
  EXPECT_EQ(rootSm->attributeName(Root::kConnStatus), "connStatus");
  EXPECT_EQ(rootSm->attributeName(Root::kPassiveEntityManagerSm), "passiveEntityManagerSm");
  EXPECT_EQ(rootSm->attributeName(99), "unknown");
  EXPECT_TRUE(rootSm->attribute(Root::kInitialized)->valueAs<bool>());
  EXPECT_EQ(rootSm->colLength(Root::kPassiveEntityManagerSm)->valueAs<Qel::U32>(), 1u);
  EXPECT_EQ(rootSm->attribute(Root::kEntMgr).ptr(), entMgr.ptr());
}

// ---- The switch to active ----

class RootLocalTest : public RootSmTest {
 protected:
  static constexpr char const* kCondition = "true == /peerTest/flag.enabled";

  void SetUp() override {
    role_ = Role::backup;
    RootSmTest::SetUp();
    Qel::globalDir()->dirIs("peerTest")->entryIs(ConditionRes::conditionResNew("flag"));
  }
  // A blocking conditional group waiting for a flag that never rises.
  void blockingGroup(PassiveAgentProfile::Ptr const& p, char const* name, Qel::U32 priority = 1) {
    database->dirIs("ready");
    auto g = p->mountGroupIs(name, priority);
    g->blockingConditionalIs(true);
    g->entireConditionIs(kCondition);
    g->conditionColEnq(kCondition);
    g->addProfile("/ledra/Ledra/ready", "Qel::Dir", "r");
  }
};

TEST_F(RootLocalTest, BecomingActiveRemovesPeerReadyGroupsFromEveryProfile) {
  auto const p1 = profile("p1");
  blockingGroup(p1, "peerReady");
  auto const p2 = profile("p2");
  startRoot();
  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("an active supervisor"));
  EXPECT_FALSE(p1->mountGroup("peerReady"));
  EXPECT_TRUE(p1->mountGroup("main"));
  EXPECT_EQ(p2->mountGroups(), 1u);

  blockingGroup(p1, "peerReady");
  entMgr->localIs(Role::backup);
  EXPECT_TRUE(capture.contains("a backup supervisor"));
  EXPECT_TRUE(p1->mountGroup("peerReady"));
}

class RootPeerReadyTest : public RootLocalTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RootPeerReadyTest, EngineHeldByPeerReadyProceedsOnceActive) {
  bool const laterGroup = GetParam();
  auto const p = laterGroup ? profile("agentA") : profiles->agentProfileIs("agentA");
  blockingGroup(p, "peerReady");
  startRoot();
  auto const a = agent("agentA");
  a->connect();
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  ASSERT_TRUE(engine);
  EXPECT_TRUE(engine->conditionalMountGroup("peerReady"));
  EXPECT_FALSE(engine->blockingConditionals().empty());
  EXPECT_EQ(engine->state(), laterGroup ? PassiveEntityManagerSm::readyMountGroupPending
                                        : PassiveEntityManagerSm::conditionalMountGroupPending);
  EXPECT_EQ(requestPaths(a), (std::vector<std::string>{"/ledra/Ledra"}));

  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("Found blocking Conditionals for: agentA"));
  EXPECT_TRUE(capture.contains("Found peerReady in conditionalMountGroup. Deleting."));
  EXPECT_TRUE(capture.contains("Finished SA conversion for agentA"));
  EXPECT_TRUE(engine->blockingConditionals().empty());
  EXPECT_FALSE(engine->conditionalMountGroup("peerReady"));
  run();
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 1u);
  std::vector<std::string> expected{"/ledra/Ledra"};
  if (laterGroup) expected.push_back("/ledra/Ledra/data");
  EXPECT_EQ(requestPaths(a), expected);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutALaterGroup, RootPeerReadyTest, ::testing::Bool());

TEST_F(RootLocalTest, QueuedPeerReadyGroupIsDroppedBeforeItIsReached) {
  auto const p = profile("agentA");  // "main", priority 2
  blockingGroup(p, "peerReady", 5);
  startRoot();
  auto const a = agent("agentA");
  a->holdAnswersIs(true);
  a->connect();
  ASSERT_TRUE(a->answerRelease("/ledra/Ledra"));
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  EXPECT_EQ(requestPaths(a).back(), "/ledra/Ledra/data");
  EXPECT_EQ(engine->readyMountGroups(), 1u);

  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("Found peerReady in readyMountGroup. Deleting."));
  EXPECT_EQ(engine->readyMountGroups(), 0u);
  a->holdAnswersIs(false);
  a->answersRelease();
  run();
  EXPECT_EQ(capture.count("All mounts complete for agentA"), 1u);
  EXPECT_FALSE(capture.contains("Creating a conditional mount group"));
  EXPECT_EQ(requestPaths(a), (std::vector<std::string>{"/ledra/Ledra", "/ledra/Ledra/data"}));
}

TEST_F(RootLocalTest, OtherBlockingGroupsKeepHolding) {
  auto const p = profile("agentA");
  blockingGroup(p, "gate");
  startRoot();
  agent("agentA")->connect();
  run();
  auto const engine = rootSm->passiveEntityManagerSm("agentA");
  entMgr->localIs(Role::active);
  EXPECT_TRUE(capture.contains("Found blocking Conditionals for: agentA"));
  EXPECT_FALSE(capture.contains("Deleting."));
  EXPECT_EQ(engine->blockingConditionals().size(), 1u);
  EXPECT_TRUE(engine->conditionalMountGroup("gate"));
  run();
  EXPECT_FALSE(capture.contains("All mounts complete"));
}

// ---- The wrapper ----

class WrapperTest : public RootSmTest {};

TEST_F(WrapperTest, HoldsOneRootBuiltFromItsThreeArguments) {
  auto const wrapper = passiveEntityManagerSmWrapperFactory("pem");
  EXPECT_EQ(wrapper->name(), "pem");
  EXPECT_FALSE(wrapper->passiveEntityManagerRootSm());
  int notified = 0;
  struct Watch : PassiveEntityManagerSmWrapper::NotifieeConst {
    int* n;
    void onPassiveEntityManagerRootSm() override { ++*n; }
  } watch;
  watch.n = &notified;
  watch.notifierIs(wrapper);

  auto const r = wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->initialized());
  EXPECT_EQ(r->agentProfileDir(), profiles);
  EXPECT_EQ(r->fullName(), "pem/passiveEntityManagerRootSm");
  EXPECT_EQ(wrapper->entity("passiveEntityManagerRootSm"), r);
  EXPECT_EQ(wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr), r);
  EXPECT_EQ(notified, 1);

  auto const otherDir = PassiveAgentProfileDir::agentProfileDirNew("otherDir");
  EXPECT_EQ(errorOf<Qel::NameInUseException>(
                [&] { wrapper->passiveEntityManagerRootSmIs(otherDir, statuses, entMgr); }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_agentProfileDir has a different value of " +
                shown(otherDir.ptr(), otherDir.ptr()) + " than the current value of " +
                shown(profiles.ptr(), profiles.ptr()) + " not allowed");
  EXPECT_EQ(wrapper->passiveEntityManagerRootSm(), r);

  wrapper->passiveEntityManagerRootSmDel();
  EXPECT_FALSE(wrapper->passiveEntityManagerRootSm());
  EXPECT_EQ(r->parent(), nullptr);
  EXPECT_EQ(notified, 2);
}

TEST_F(WrapperTest, ReleasingTheRootLetsGoOfItsAgents) {
  profile("agentA");
  auto const wrapper = passiveEntityManagerSmWrapperFactory("pem");
  wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);
  agent("agentA")->connect();
  EXPECT_EQ(statuses->agentStatuses(), 1u);
  wrapper->passiveEntityManagerRootSmDel();
  EXPECT_EQ(statuses->agentStatuses(), 0u);
}

TEST_F(WrapperTest, TypeIsCreatableByName) {
  auto const type = Qel::QelType::type("Ledra::PassiveEntityManagerSmWrapper");
  ASSERT_TRUE(type);
  auto const e = type->newEntity("byName");
  ASSERT_TRUE(dynamic_cast<PassiveEntityManagerSmWrapper*>(e.ptr()));
  EXPECT_EQ(e->name(), "byName");
  EXPECT_EQ(e->attributeName(PassiveEntityManagerSmWrapper::kPassiveEntityManagerRootSm),
            "passiveEntityManagerRootSm");
}

}  // namespace
}  // namespace Ledra
