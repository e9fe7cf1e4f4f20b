// The worlds engines run in, for tests: a database process on simulated time, and one engine's
// world within it. Everything a test made must be gone at the end (leak check). Beside them, the
// small helpers the tests share: what went to standard error, and the paths an agent was asked to
// mount (exact exception texts and death-test patterns come from support/ExactText.h).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "Ledra/EntityManager.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "Qel/Containers/Path.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Timer/TimerWheel.h"
#include "Trace/CaptureSink.h"
#include "Trace/Facilities.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

namespace Ledra::test {

// The paths an agent was asked to mount, in order.
inline std::vector<std::string> requestPathsOf(LoopbackAgent const& a) {
  std::vector<std::string> out;
  for (auto const& r : a.mountRequests())
    out.push_back(r.path);
  return out;
}

// What `f` writes to standard error.
template <class F>
std::string stderrOf(F&& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

// A database process on simulated time: its own process configuration on a simulated clock, an
// event loop, the database root "/ledra/Ledra" and a trace capture at every level. A derived
// fixture releases what it made in its TearDown before calling this one.
class SimulatedDatabaseTest : public LeakCheckedTest {
 protected:
  void SetUp() override {
    // The test runs under a process configuration of its own, forgotten at the end.
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    LeakCheckedTest::SetUp();
    Trace::Facilities::instance().levelsAre("*=9");
    clock = Qel::SimulatedClock::simulatedClockNew();
    Qel::ActivityManagerConfig::instance()->clockIs(clock);
    loop = Qel::EventLoop::eventLoopNew(clock);
    root = Qel::globalDir()->dirIs("ledra")->dirIs("Ledra");
  }
  void TearDown() override {
    loop->runFor(0.01);  // connection teardown
    root = nullptr;
    Qel::globalDir()->entryDel("ledra");
    loop = nullptr;
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    clock = nullptr;
    Trace::Facilities::instance().reset();
    LeakCheckedTest::TearDown();
  }

  // Runs the loop for `seconds` of simulated time.
  void run(Qel::Time seconds = 0.1) { loop->runFor(seconds); }

  // A directory below the database root ("a/b" -> /ledra/Ledra/a/b), created as needed.
  Qel::Dir::Ptr dir(std::string const& relative) {
    Qel::Dir::Ptr d = root;
    for (std::string_view const component :
         Qel::pathComponents(relative, Qel::EmptyComponents::keep))
      d = d->dirIs(Qel::Name(component));
    return d;
  }

  Trace::CaptureSink capture;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  Qel::Dir::Ptr root;
};

// One engine's world: a timer wheel, an entity manager, one agent profile and status record, and
// a loopback agent to connect.
class EngineHarness : public SimulatedDatabaseTest {
 protected:
  void SetUp() override {
    SimulatedDatabaseTest::SetUp();
    wheel = Orn::TimerWheel::timerWheelNew(clock);
    entMgr = EntityManager::entityManagerNew("entityManager");
    profile = PassiveAgentProfile::agentProfileNew("agentA");
    status = PassiveAgentStatus::agentStatusNew("agentA");
    agent = LoopbackAgent::loopbackAgentNew(loop, "agentA", "agentA");
  }
  void TearDown() override {
    engine = nullptr;
    agent = nullptr;
    loop->runFor(0.01);  // connection teardown
    status = nullptr;
    profile = nullptr;
    entMgr = nullptr;
    wheel = nullptr;
    SimulatedDatabaseTest::TearDown();
  }

  // Connects the agent and starts its engine.
  PassiveEntityManagerSm::Ptr const& startEngine() {
    auto const d = agent->connect();
    engine = passiveEntityManagerSmFactory(profile, status, d, d->peer(), entMgr, wheel);
    return engine;
  }

  // The requests the agent received, as "path?flags=letters type".
  std::vector<std::string> requests() const {
    std::vector<std::string> out;
    for (auto const& r : agent->mountRequests())
      out.push_back(r.path + "?flags=" + r.flags + (r.type.empty() ? "" : " " + r.type));
    return out;
  }
  std::vector<std::string> requestPaths() const { return requestPathsOf(*agent); }

  Orn::TimerWheel::Ptr wheel;
  EntityManager::Ptr entMgr;
  PassiveAgentProfile::Ptr profile;
  PassiveAgentStatus::Ptr status;
  LoopbackAgent::Ptr agent;
  PassiveEntityManagerSm::Ptr engine;
};

}  // namespace Ledra::test
