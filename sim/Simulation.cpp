#include "sim/Simulation.h"

#include <exception>

#include "Qel/Core/Ptr.h"
#include "Qel/Entity/Dir.h"
#include "Trace/Facilities.h"
#include "sim/World.h"

namespace Sim {

FatalContext& fatalContext() {
  static FatalContext c;
  return c;
}

namespace {

std::string lines(std::string const& title, std::vector<std::string> const& v) {
  std::string out = title;
  for (auto const& l : v)
    out += "\n    " + l;
  return out;
}

}  // namespace

Result runSeed(std::uint64_t seed, unsigned steps, Avoid avoid, bool traced, History& history,
               std::string const& levels) {
  Result r;
  history.clear();
  Trace::Facilities::instance().reset();
  if (!levels.empty()) Trace::Facilities::instance().levelsAre(levels);
  Qel::globalDir();  // the process-wide root exists before counting starts
  long const liveBefore = Qel::RefCounted::liveInstances();
  FatalContext& fc = fatalContext();
  fc = FatalContext{seed, 0, traced ? "traced" : "untraced", &history};

  Generator generator(seed, avoid);
  World world(generator, avoid, traced, history);
  auto fail = [&](unsigned step, std::string const& what) {
    r.ok = false;
    r.failure = "step " + std::to_string(step) + ": " + what;
  };
  std::size_t seen = 0;
  for (unsigned step = 1; step <= steps && r.ok; ++step) {
    fc.step = step;
    Event const e = generator.next();
    world.observer().stepIs(step, world.now());
    history.add(step, world.now(), "> " + Generator::describe(e));
    try {
      std::string const what = world.apply(e);
      history.add(step, world.now(), std::string(kindName(e.kind)) + ": " + what);
      // Leftovers are looked for before the loop runs on, as an armed timer may fire, and after.
      world.observer().checkLeftovers();
      world.run(e.dt);
    } catch (std::exception const& ex) {
      fail(step, std::string("exception: ") + ex.what());
      break;
    }
    world.observer().checkLeftovers();
    if (step % 64 == 0) world.observer().prune();
    if (step % 16 == 0) {
      for (auto const& problem : world.browseRecords())
        fail(step, "record read by name: " + problem);
    }
    auto const& v = world.observer().violations();
    if (v.size() > seen) fail(step, lines("invariant violated:", {v.begin() + seen, v.end()}));
    seen = v.size();
  }
  if (r.ok) {
    fc.step = steps + 1;
    world.observer().stepIs(steps + 1, world.now());
    try {
      world.settle();
      auto const& v = world.observer().violations();
      if (v.size() > seen)
        fail(steps + 1, lines("invariant violated while settling:", {v.begin() + seen, v.end()}));
      if (r.ok) {
        auto const unfinished = world.unfinishedAgents();
        if (!unfinished.empty()) {
          fail(steps + 1, lines("agents neither completed nor closed with a reason:", unfinished));
        }
      }
      if (r.ok) {
        auto const left = world.leftoversAfterDisconnect();
        if (!left.empty()) fail(steps + 2, lines("left after every agent went:", left));
      }
    } catch (std::exception const& ex) {
      fail(steps + 1, std::string("exception while settling: ") + ex.what());
    }
  }
  r.log = world.observer().log();
  for (auto const& s : world.requestsSent())
    r.log.push_back("sent " + s);
  std::size_t const timers = world.release();
  if (r.ok && timers != 0) fail(steps + 3, std::to_string(timers) + " clock timers left armed");
  long const liveAfter = Qel::RefCounted::liveInstances();
  if (r.ok && liveAfter != liveBefore) {
    fail(steps + 3, std::to_string(liveAfter - liveBefore) +
                        " more live reference-counted objects than at the start");
  }
  Trace::Facilities::instance().reset();
  fc.history = nullptr;
  return r;
}

}  // namespace Sim
