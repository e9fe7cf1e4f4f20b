// ledra-host: a minimal database process built on the installed Ledra package. It makes a small
// tree, holds one family profile for the fan agents, creates the passive entity manager's root,
// serves three loopback agents on a simulated clock and prints each "All mounts complete for "
// trace line of the library on standard output, then the paths every agent was sent.
//
// Exits 0 when every agent's engine completed within a minute of simulated time, 1 otherwise.
// Single-threaded.
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Ledra/ConnMgrHelper.h"
#include "Ledra/EntityManager.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManager.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Trace/Clock.h"
#include "Trace/Facilities.h"
#include "Trace/TextSink.h"

namespace {

constexpr std::string_view kComplete = "All mounts complete for ";
constexpr int kAgents = 3;

// Writes the library's completion lines to standard output and counts them.
class CompletionSink : public Trace::TextSink {
 public:
  void lineIs(double seconds, std::string_view facility, int level,
              std::string_view message) override {
    if (!message.starts_with(kComplete)) return;
    std::printf("%.3f %.*s/%d %.*s\n", seconds, static_cast<int>(facility.size()), facility.data(),
                level, static_cast<int>(message.size()), message.data());
    ++lines;
  }
  int lines = 0;
};

// Trace lines carry the simulated time.
Qel::SimulatedClock* gClock = nullptr;
double simulatedSeconds() {
  return gClock->now();
}

}  // namespace

int main() {
  CompletionSink sink;
  Trace::TextSink* const previous = Trace::textSinkIs(&sink);
  Trace::Facilities::instance().levelsAre("PassiveEntityManager=6");

  auto const clock = Qel::SimulatedClock::simulatedClockNew();
  Qel::ActivityManagerConfig::instance()->clockIs(clock);
  gClock = clock.ptr();
  Trace::timeSourceIs(&simulatedSeconds);
  auto loop = Qel::EventLoop::eventLoopNew(clock);

  // The tree: a hardware directory with one entry per fan slot.
  auto const fans =
      Qel::globalDir()->dirIs("ledra")->dirIs("Ledra")->dirIs("hardware")->dirIs("fan");
  for (int slot = 1; slot <= kAgents; ++slot)
    fans->dirIs(Qel::Name(std::to_string(slot)));

  // One family profile: "fan-<slot>" receives the hardware directory, then its own slot.
  auto profiles = Ledra::passiveAgentProfileDirFactory("agentProfile");
  auto statuses = Ledra::passiveAgentStatusDirFactory("agentStatus");
  auto const profile = profiles->agentProfileIs("fan-");
  profile->templateKeyIs(1, "%slot");
  profile->mountGroupIs("hardware", 10)->addProfile("/%sysname/Ledra/hardware", "Qel::Dir", "r");
  profile->mountGroupIs("fan", 20)->addProfile("/%sysname/Ledra/hardware/fan/%slot", "Qel::Dir",
                                               "r");

  auto entMgr = Ledra::EntityManager::entityManagerNew("entityManager");
  auto wrapper = Ledra::passiveEntityManagerSmWrapperFactory("passiveEntityManagerSmWrapper");
  wrapper->passiveEntityManagerRootSmIs(profiles, statuses, entMgr);

  std::vector<Ledra::LoopbackAgent::Ptr> agents;
  for (int slot = 1; slot <= kAgents; ++slot) {
    std::string const name = "fan-" + std::to_string(slot);
    agents.push_back(Ledra::LoopbackAgent::loopbackAgentNew(loop, Qel::Name(name), name));
    agents.back()->connect();
  }
  auto allComplete = [&] {
    for (auto const& a : agents) {
      auto const engine =
          wrapper->passiveEntityManagerRootSm()->passiveEntityManagerSm(a->agentName());
      if (!engine || engine->state() != Ledra::PassiveEntityManagerSm::mountComplete) return false;
    }
    return true;
  };
  bool const done = loop->runUntil(allComplete, clock->now() + 60);

  for (auto const& a : agents) {
    std::printf("%s:", a->agentName().c_str());
    for (auto const& request : a->mountRequests())
      std::printf(" %s", request.path.c_str());
    std::printf("\n");
  }

  // Release the root (and with it every engine) and the connections before the framework's own
  // state goes.
  wrapper->passiveEntityManagerRootSmDel();
  wrapper = nullptr;
  agents.clear();
  loop->runFor(0.01);
  Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
  Qel::globalDir()->entryDel("ledra");
  Trace::textSinkIs(previous);
  Trace::timeSourceIs(nullptr);
  Qel::ActivityManagerConfig::instanceIs(nullptr);

  if (!done || sink.lines != kAgents) {
    std::fprintf(stderr, "ledra-host: %d of %d agents completed\n", sink.lines, kAgents);
    return 1;
  }
  return 0;
}
