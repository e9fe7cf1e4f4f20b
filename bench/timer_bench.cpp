// Cost of the timer wheel per timer: arming (insert), disarming (cancel) and expiry, on a
// simulated clock so that only the wheel's own work is measured. "near" timers fall within the
// first 255 ticks, "far" ones within 10 s (one or two moves between levels before they fire).
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "Qel/Loop/SimulatedClock.h"
#include "Timer/TimerWheel.h"

namespace {

using Orn::TimerWheel;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;

class Timer : public TimerWheel::Notifiee {
 public:
  unsigned long fired = 0;
  void onTime() override { ++fired; }
};

constexpr std::size_t kTimers = 8192;

struct Setup {
  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
  TimerWheel::Ptr wheel = TimerWheel::timerWheelNew(clock);
  std::vector<std::unique_ptr<Timer>> timers;
  std::vector<Time> times;

  // `span` seconds ahead of the present: times spread uniformly over it.
  Setup(Time span, std::size_t n = kTimers) {
    std::mt19937_64 rng(42);
    std::uniform_real_distribution<Time> dist(0, span);
    for (std::size_t i = 0; i < n; ++i) {
      timers.push_back(std::make_unique<Timer>());
      timers.back()->notifierIs(wheel);
      times.push_back(dist(rng));
    }
  }
  void armAll(Time from) {
    for (std::size_t i = 0; i < timers.size(); ++i)
      timers[i]->timeMinIs(from + times[i]);
  }
  void cancelAll() {
    for (auto& t : timers)
      t->timeMinIs(kNever);
  }
};

Time spanOf(benchmark::State const& state) {
  return state.range(0) == 0 ? 0.254 : 10.0;
}
char const* labelOf(benchmark::State const& state) {
  return state.range(0) == 0 ? "near" : "far";
}

void BM_WheelInsert(benchmark::State& state) {
  Setup s(spanOf(state));
  std::size_t i = 0;
  for (auto _ : state) {
    s.timers[i]->timeMinIs(s.times[i]);
    if (++i < kTimers) continue;
    state.PauseTiming();
    s.cancelAll();
    i = 0;
    state.ResumeTiming();
  }
  s.cancelAll();
  state.SetLabel(labelOf(state));
}
BENCHMARK(BM_WheelInsert)->Arg(0)->Arg(1);

void BM_WheelCancel(benchmark::State& state) {
  Setup s(spanOf(state));
  s.armAll(0);
  std::size_t i = 0;
  for (auto _ : state) {
    s.timers[i]->timeMinIs(kNever);
    if (++i < kTimers) continue;
    state.PauseTiming();
    s.armAll(0);
    i = 0;
    state.ResumeTiming();
  }
  s.cancelAll();
  state.SetLabel(labelOf(state));
}
BENCHMARK(BM_WheelCancel)->Arg(0)->Arg(1);

// Re-arming an armed timer for another time: a cancel and an insert.
void BM_WheelRearm(benchmark::State& state) {
  Setup s(spanOf(state));
  s.armAll(0);
  std::size_t i = 0;
  for (auto _ : state) {
    s.timers[i]->timeMinIs(s.times[kTimers - 1 - i]);
    if (++i == kTimers) i = 0;
  }
  s.cancelAll();
  state.SetLabel(labelOf(state));
}
BENCHMARK(BM_WheelRearm)->Arg(0)->Arg(1);

// One iteration arms n timers (not timed) and moves the clock past all of them (timed): the time
// per timer covers the wheel's wake-ups, moves between levels and the callbacks.
//   0 "one tick"  8192 timers due in the same tick
//   1 "near"      8192 timers spread over the first 255 ticks (about 32 per tick)
//   2 "far"       8192 timers spread over 10 s (about one per tick, after moving down)
//   3 "sparse"    255 timers spread over the first 255 ticks (about one per tick): the cost of
//                 one wake-up of the wheel by the clock
void BM_WheelExpiry(benchmark::State& state) {
  static constexpr Time kSpan[] = {0, 0.254, 10.0, 0.254};
  static constexpr std::size_t kCount[] = {kTimers, kTimers, kTimers, 255};
  static constexpr char const* kLabel[] = {"one tick", "near", "far", "sparse"};
  auto const variant = static_cast<std::size_t>(state.range(0));
  Time const span = kSpan[variant];
  std::size_t const n = kCount[variant];
  Setup s(span, n);
  for (auto _ : state) {
    state.PauseTiming();
    Time const from = s.clock->now();
    s.armAll(from);
    state.ResumeTiming();
    s.clock->nowIs(from + span + 0.002);
  }
  unsigned long fired = 0;
  for (auto& t : s.timers)
    fired += t->fired;
  if (fired != state.iterations() * n) state.SkipWithError("lost timers");
  state.counters["per_timer"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
  state.SetLabel(kLabel[variant]);
}
BENCHMARK(BM_WheelExpiry)->DenseRange(0, 3);

}  // namespace
