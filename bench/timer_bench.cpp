// Cost of the timer wheel per timer: arming (insert), disarming (cancel) and expiry, on a
// simulated clock so that only the wheel's own work is measured. "near" timers fall within the
// first 255 ticks, "far" ones within 10 s (one or two moves between levels before they fire),
// "hour" ones within an hour (the third level).
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "Qel/Loop/SimulatedClock.h"
#include "Timer/TimerWheel.h"
#include "tests/support/JumpClock.h"

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
  TimerWheel::Ptr wheel;
  std::vector<std::unique_ptr<Timer>> timers;
  std::vector<Time> times;

  // `span` seconds ahead of the present: times spread uniformly over it.
  explicit Setup(Time span, std::size_t n = kTimers,
                 Qel::Clock::Ptr const& clock = SimulatedClock::simulatedClockNew())
      : wheel(TimerWheel::timerWheelNew(clock)) {
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
  static constexpr Time kSpan[] = {0.254, 10.0, 3600.0};
  return kSpan[state.range(0)];
}
char const* labelOf(benchmark::State const& state) {
  static constexpr char const* kLabel[] = {"near", "far", "hour"};
  return kLabel[state.range(0)];
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
BENCHMARK(BM_WheelInsert)->DenseRange(0, 2);

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
BENCHMARK(BM_WheelCancel)->DenseRange(0, 2);

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

using Ledra::test::JumpClock;

// One iteration arms n timers (not timed) and moves the clock past all of them (timed): the time
// per timer covers the wheel's wake-ups, moves between levels and the callbacks.
//   0 "one tick"     8192 timers due in the same tick
//   1 "near"         8192 timers spread over the first 255 ticks (about 32 per tick)
//   2 "far"          8192 timers spread over 10 s (about one per tick, after moving down)
//   3 "sparse"       255 timers spread over the first 255 ticks (about one per tick): the cost of
//                    one wake-up of the wheel by the clock
//   4 "far, jump"    as "far", 5 "sparse, jump" as "sparse", on a clock that jumps past all of
//                    them at once: one wake-up of the wheel, which skips the empty ticks between
//   6 "hour, jump"   8192 timers spread over an hour, one jump
template <class C>
void wheelExpiry(benchmark::State& state, typename C::Ptr const& clock) {
  static constexpr Time kSpan[] = {0, 0.254, 10.0, 0.254, 10.0, 0.254, 3600.0};
  static constexpr std::size_t kCount[] = {kTimers, kTimers, kTimers, 255, kTimers, 255, kTimers};
  static constexpr char const* kLabel[] = {"one tick",  "near",         "far",       "sparse",
                                           "far, jump", "sparse, jump", "hour, jump"};
  auto const variant = static_cast<std::size_t>(state.range(0));
  Time const span = kSpan[variant];
  std::size_t const n = kCount[variant];
  Setup s(span, n, clock);
  for (auto _ : state) {
    state.PauseTiming();
    Time const from = clock->now();
    s.armAll(from);
    state.ResumeTiming();
    clock->nowIs(from + span + 0.002);
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

void BM_WheelExpiry(benchmark::State& state) {
  if (state.range(0) < 4) {
    wheelExpiry<SimulatedClock>(state, SimulatedClock::simulatedClockNew());
    return;
  }
  wheelExpiry<JumpClock>(state, JumpClock::jumpClockNew());
}
BENCHMARK(BM_WheelExpiry)->DenseRange(0, 6);

// One timer re-armed from inside onTime() for the next tick, kTicks ticks per iteration: the
// cost of one tick of a periodic timer, wake-up of the wheel by the clock included. The same with
// a timer of the clock alone is the clock's share of it.
constexpr int kTicks = 1000;

class ClockPeriodic : public Qel::Clock::Notifiee {
 public:
  void onTime() override { timeMinIs(notifier()->now() + 0.001); }
};

class WheelPeriodic : public TimerWheel::Notifiee {
 public:
  void onTime() override { timeMinIs(notifier()->clock()->now() + 0.001); }
};

template <class Periodic>
void rearmEachTick(benchmark::State& state) {
  auto clock = SimulatedClock::simulatedClockNew();
  Periodic p;
  if constexpr (std::is_same_v<Periodic, WheelPeriodic>) {
    p.notifierIs(TimerWheel::timerWheelNew(clock));
  } else {
    p.notifierIs(clock);
  }
  p.timeMinIs(0.001);
  for (auto _ : state)
    clock->advance(kTicks * 0.001);
  p.timeMinIs(kNever);
  state.counters["per_tick"] = benchmark::Counter(
      static_cast<double>(kTicks),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
void BM_WheelRearmEachTick(benchmark::State& state) {
  rearmEachTick<WheelPeriodic>(state);
}
void BM_ClockRearmEachTick(benchmark::State& state) {
  rearmEachTick<ClockPeriodic>(state);
}
BENCHMARK(BM_WheelRearmEachTick);
BENCHMARK(BM_ClockRearmEachTick);

}  // namespace
