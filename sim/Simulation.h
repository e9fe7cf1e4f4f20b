// Sim::Simulation: one run of one seed: the world, the generator and the observer stepped
// together, with the invariants checked after every step and at the end.
//
// run() draws `steps` events; after each one the loop runs for the event's simulated time and
// the observer's invariants are read. At the end the world is settled (every agent given what it
// waits for), every agent still connected with a profile and without a failed answer must have
// completed, every agent then leaves, nothing of theirs may be left (engines, status records,
// wheel timers), and once the root manager and everything else is released the counts of live
// reference-counted objects (entities and reactors) and of armed clock timers must be back where
// they started. The first failure ends the run; Result says which, with the step and the history.
//
// A traced run changes trace levels when the generator says so (into the ring only); an
// untraced run keeps every facility at level 0. Both must send every agent the same requests.
//
// While a run is in progress, fatalContext() names it, so that a fatal signal (a failed assertion
// of the library) can still report the seed, the step and the history.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/Generator.h"
#include "sim/History.h"

namespace Sim {

struct Result {
  bool ok = true;
  std::string failure;           // what failed, with the step
  std::vector<std::string> log;  // what each agent was sent and answered, in order
};

struct FatalContext {
  std::uint64_t seed = 0;
  unsigned step = 0;
  char const* run = "";
  History const* history = nullptr;
};
FatalContext& fatalContext();

// `levels`, when not empty, are trace levels set at the start (for looking into a failure).
Result runSeed(std::uint64_t seed, unsigned steps, Avoid avoid, bool traced, History& history,
               std::string const& levels = {});

}  // namespace Sim
