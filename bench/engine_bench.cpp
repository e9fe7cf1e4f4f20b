// Cost of serving agents in one process: from the connection of N loopback agents to the last
// "All mounts complete for ", on a simulated clock, through the real root manager, engines, peer
// mount tables and demuxers.
//
// The profile is one family profile "agent-" of 10 groups x 10 paths: groups 0..4 mount paths
// every agent shares, groups 5..9 paths of the agent's own (templated by "%id", the second word
// of the agent's name). Every path exists before the agents connect.
//
// BM_ServeAgents/<agents>/<paths per agent>, counters:
//   ns_per_mount     CPU time of the whole run divided by the mount requests the agents received
//                    (the automatic parent mounts and the root mount included);
//   bytes_per_mount  heap growth (glibc mallinfo2) from before the first connect to after the
//                    last completion, per mount request. The agents record nothing, so what
//                    remains is the database's: engines, status records, peer tables, demuxers.
// BM_IdleEngines/<agents>: one group of one path per agent; bytes_per_idle_engine is the heap
// each completed agent keeps (its engine, status record and connection).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Ledra/ConnMgrHelper.h"
#include "Ledra/EntityManager.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManager.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/Loop/SimulatedClock.h"

namespace {

using Ledra::LoopbackAgent;
using Ledra::PassiveEntityManagerSm;

constexpr unsigned kGroups = 10;

std::size_t heapInUse() {
  return mallinfo2().uordblks;
}

double cpuNanoseconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// One database process: the tree, the profile, the root manager and N agents not yet connected.
class Database {
 public:
  // `groups` groups of `pathsPerGroup` paths; the upper half of the groups is templated.
  Database(unsigned agents, unsigned groups, unsigned pathsPerGroup) {
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    clock_ = Qel::SimulatedClock::simulatedClockNew();
    Qel::ActivityManagerConfig::instance()->clockIs(clock_);
    loop_ = Qel::EventLoop::eventLoopNew(clock_);
    auto const root = Qel::globalDir()->dirIs("ledra")->dirIs("Ledra");
    auto const shared = root->dirIs("shared");
    auto const own = root->dirIs("agent");
    for (unsigned a = 0; a < agents; ++a) {
      auto const mine = own->dirIs(Qel::Name(std::to_string(a)));
      for (unsigned g = groups / 2; g < groups; ++g) {
        for (unsigned p = 0; p < pathsPerGroup; ++p)
          mine->dirIs(Qel::Name(leaf(g, p)));
      }
    }
    for (unsigned g = 0; g < groups / 2; ++g) {
      for (unsigned p = 0; p < pathsPerGroup; ++p)
        shared->dirIs(Qel::Name(leaf(g, p)));
    }

    profiles_ = Ledra::passiveAgentProfileDirFactory("profiles");
    statuses_ = Ledra::passiveAgentStatusDirFactory("statuses");
    auto const profile = profiles_->agentProfileIs("agent-");
    profile->templateKeyIs(1, "%id");
    for (unsigned g = 0; g < groups; ++g) {
      auto const group =
          profile->mountGroupIs(Qel::Name("g" + std::to_string(g)), static_cast<Qel::U32>(g + 1));
      std::string const parent =
          g < groups / 2 ? "/ledra/Ledra/shared/" : "/ledra/Ledra/agent/%id/";
      for (unsigned p = 0; p < pathsPerGroup; ++p)
        group->addProfile(parent + leaf(g, p), "Qel::Dir", "r");
    }
    entMgr_ =
        Ledra::EntityManager::entityManagerNew("entityManager", Ledra::EntityManager::Role::backup);
    wrapper_ = Ledra::passiveEntityManagerSmWrapperFactory("passive");
    wrapper_->passiveEntityManagerRootSmIs(profiles_, statuses_, entMgr_);
    for (unsigned a = 0; a < agents; ++a) {
      auto const name = "agent-" + std::to_string(a);
      agents_.push_back(LoopbackAgent::loopbackAgentNew(loop_, Qel::Name(name), name));
      agents_.back()->recordingIs(false);
    }
  }

  ~Database() {
    wrapper_ = nullptr;
    agents_.clear();
    loop_->runFor(0.01);  // connection teardown
    Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
    profiles_ = nullptr;
    statuses_ = nullptr;
    entMgr_ = nullptr;
    Qel::globalDir()->entryDel("ledra");
    loop_ = nullptr;
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    clock_ = nullptr;
  }

  // Connects every agent and runs the loop until each one's engine has completed.
  void serve() {
    for (auto const& a : agents_)
      a->connect();
    auto const root = wrapper_->passiveEntityManagerRootSm();
    std::size_t complete = 0;
    bool const done = loop_->runUntil(
        [&] {
          while (complete < agents_.size()) {
            auto const e = root->passiveEntityManagerSm(agents_[complete]->agentName());
            if (!e || e->state() != PassiveEntityManagerSm::mountComplete) return false;
            ++complete;
          }
          return true;
        },
        clock_->now() + 60);
    if (!done) std::abort();  // the benchmark measures nothing sensible if an agent is stuck
  }

  std::size_t mountRequests() const {
    std::size_t n = 0;
    for (auto const& a : agents_)
      n += a->mountRequestCount();
    return n;
  }

 private:
  static std::string leaf(unsigned group, unsigned path) {
    return "p" + std::to_string(group) + "_" + std::to_string(path);
  }

  Qel::SimulatedClock::Ptr clock_;
  Qel::EventLoop::Ptr loop_;
  Ledra::PassiveAgentProfileDir::Ptr profiles_;
  Ledra::PassiveAgentStatusDir::Ptr statuses_;
  Ledra::EntityManager::Ptr entMgr_;
  Ledra::PassiveEntityManagerSmWrapper::Ptr wrapper_;
  std::vector<LoopbackAgent::Ptr> agents_;
};

// Runs `db` once per iteration, timing only serve(), and reports CPU and heap per unit.
template <class Make>
void serveAndReport(benchmark::State& state, Make make, char const* bytesCounter, bool perMount) {
  double bytes = 0;
  double units = 0;
  double cpu = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      auto db = make();
      std::size_t const before = heapInUse();
      double const start = cpuNanoseconds();
      state.ResumeTiming();
      db->serve();
      state.PauseTiming();
      cpu += cpuNanoseconds() - start;
      bytes += static_cast<double>(heapInUse()) - static_cast<double>(before);
      units +=
          perMount ? static_cast<double>(db->mountRequests()) : static_cast<double>(state.range(0));
    }
    state.ResumeTiming();
  }
  state.counters[bytesCounter] = bytes / units;
  if (perMount) {
    state.counters["ns_per_mount"] = cpu / units;
    state.counters["mounts"] = units / static_cast<double>(state.iterations());
  }
}

void BM_ServeAgents(benchmark::State& state) {
  auto const agents = static_cast<unsigned>(state.range(0));
  auto const paths = static_cast<unsigned>(state.range(1));
  serveAndReport(
      state, [&] { return std::make_unique<Database>(agents, kGroups, paths / kGroups); },
      "bytes_per_mount", true);
}
BENCHMARK(BM_ServeAgents)
    ->Args({10, 100})
    ->Args({100, 100})
    ->Args({1000, 100})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_IdleEngines(benchmark::State& state) {
  auto const agents = static_cast<unsigned>(state.range(0));
  serveAndReport(
      state, [&] { return std::make_unique<Database>(agents, 1, 1); }, "bytes_per_idle_engine",
      false);
}
BENCHMARK(BM_IdleEngines)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace
