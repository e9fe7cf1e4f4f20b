// The timer wheel on a simulated clock: times next to a tick are not rounded across it,
// notifiees cancel, switch off, rebind and die (also inside onTime), and a random mix of arming
// matches an ordered model on several geometries.
#include "Timer/TimerWheel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include "Qel/Loop/SimulatedClock.h"
#include "tests/support/Firing.h"
#include "tests/support/JumpClock.h"
#include "tests/support/LeakCheck.h"

namespace {

using Ledra::test::Firing;
using Ledra::test::LiveInstanceCheck;
using Orn::TimerWheel;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;
using Firings = std::vector<Firing>;

// Logs each wake-up; `action` runs inside onTime.
class Recorder : public TimerWheel::Notifiee {
 public:
  Recorder(int id, Firings& log) : id_(id), log_(log) {}
  std::function<void()> action;

  void onTime() override {
    log_.push_back({id_, notifier()->clock()->now()});
    if (action) action();
  }

 private:
  int id_;
  Firings& log_;
};

class TimerWheelTest : public ::testing::Test, public LiveInstanceCheck {
 protected:
  std::unique_ptr<Recorder> recorder(int id) {
    auto r = std::make_unique<Recorder>(id, log);
    r->notifierIs(wheel);
    return r;
  }

  Firings log;
  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
  TimerWheel::Ptr wheel = TimerWheel::timerWheelNew(clock);
};

// Times just after a tick (by one unit in the last place) belong to the next tick, times at or
// just before it to that tick: the conversion of a time to a tick must not round either way.
// Which way the division rounds depends on the tick length, hence several of them.
TEST_F(TimerWheelTest, TimesNextToATickAreNotRoundedAcrossIt) {
  for (Time const tick : {0.001, 0.003, 0.01}) {
    wheel = TimerWheel::timerWheelNew(clock, tick);
    auto after = recorder(1), exact = recorder(2), before = recorder(3), late = recorder(4);
    for (std::uint64_t k : {1ull, 1000ull, 3600000ull, 90000000ull}) {
      for (std::uint64_t j = k + 1; j < k + 300; j += 3) {
        Time const t = wheel->tickTime(j);
        Time const justBefore = std::nextafter(t, 0.0);
        after->timeMinIs(std::nextafter(t, kNever));
        exact->timeMinIs(t);
        before->timeMinIs(justBefore);
        log.clear();
        clock->nowIs(justBefore);
        ASSERT_TRUE(log.empty()) << "tick " << j;
        // A timer due in the previous tick wakes the wheel one unit before tick j: it processes
        // the ticks up to j - 1 only.
        late->timeMinIs(wheel->tickTime(j - 1));
        clock->advance(0);
        clock->nowIs(t);
        clock->nowIs(wheel->tickTime(j + 1));
        ASSERT_EQ(log, (Firings{{4, justBefore}, {2, t}, {3, t}, {1, wheel->tickTime(j + 1)}}))
            << tick << " tick " << j;
      }
    }
  }
}

// Cancelled, switched off and destroyed notifiees (also by another one's onTime, or their own)
// are not woken; a time beyond the last level is kept and cancellable.
TEST_F(TimerWheelTest, CancelledSwitchedOffAndDestroyedNotifieesStaySilent) {
  auto a = recorder(1), b = recorder(2), c = recorder(3), d = recorder(4), e = recorder(5);
  for (auto* r : {a.get(), b.get(), c.get(), d.get(), e.get()})
    r->timeMinIs(0.005);
  d->timeMinIs(kNever);
  e->hasNotificationActiveIs(false);
  a->action = [&] { b.reset(); };  // due in the same tick
  c->action = [&] { c.reset(); };
  clock->nowIs(30);
  EXPECT_EQ(log, (Firings{{1, 0.005}, {3, 0.005}}));
  EXPECT_EQ(e->timeMin(), kNever);
  EXPECT_EQ(wheel->timers(), 0u);
  EXPECT_EQ(clock->timers(), 0u);
  a->timeMinIs(1e30);
  clock->nowIs(1e6);
  EXPECT_EQ(wheel->timers(), 1u);
  a->timeMinIs(kNever);
  EXPECT_EQ(wheel->timers(), 0u);
}

// A callback that throws ends that wake-up only: the wheel stays armed for what is still due.
TEST_F(TimerWheelTest, ACallbackThatThrowsLeavesTheOthersDue) {
  auto a = recorder(1), b = recorder(2), c = recorder(3);
  a->timeMinIs(0.002);
  b->timeMinIs(0.002);
  c->timeMinIs(0.5);
  a->action = [] { throw std::runtime_error("from onTime"); };
  EXPECT_THROW(clock->nowIs(0.1), std::runtime_error);
  clock->nowIs(1);
  EXPECT_EQ(log, (Firings{{1, 0.002}, {2, 0.002}, {3, 0.5}}));
  EXPECT_EQ(wheel->timers(), 0u);
}

// The wheel lives while notifiees hold it; the last one may let it go from inside onTime.
TEST_F(TimerWheelTest, NotifieesHoldTheWheelAndMayDropItInOnTime) {
  long const base = Qel::RefCounted::liveInstances();
  auto a = recorder(1), b = recorder(2);
  a->timeMinIs(0.002);
  b->timeMinIs(0.004);
  wheel = nullptr;
  EXPECT_EQ(Qel::RefCounted::liveInstances(), base);
  a->action = [&] { a->notifierIs(nullptr); };
  b->action = [&] { b->notifierIs(nullptr); };  // the last reference: the wheel dies inside
  clock->nowIs(1);
  EXPECT_EQ(log, (Firings{{1, 0.002}, {2, 0.004}}));
  EXPECT_EQ(Qel::RefCounted::liveInstances(), base - 1);
  EXPECT_EQ(clock->timers(), 0u);
}

using Ledra::test::JumpClock;

class ClockRecorder : public Qel::Clock::Notifiee {
 public:
  ClockRecorder(int id, Firings& log) : id_(id), log_(log) {}
  void onTime() override { log_.push_back({id_, notifier()->now()}); }

 private:
  int id_;
  Firings& log_;
};

// When the clock has jumped past several ticks, the one wake-up of the wheel fires every tick up
// to the clock's time, near and far ones, before a timer of the clock due between those ticks.
TEST(TimerWheelJumpTest, OneWakeUpCatchesUpWithTheClock) {
  LiveInstanceCheck leaks;
  auto clock = JumpClock::jumpClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock);
  Firings log;
  Recorder a(1, log), b(2, log), c(3, log);
  ClockRecorder between(9, log);
  for (Recorder* r : {&a, &b, &c})
    r->notifierIs(wheel);
  between.notifierIs(clock);
  a.timeMinIs(wheel->tickTime(2));
  b.timeMinIs(wheel->tickTime(3));
  c.timeMinIs(wheel->tickTime(300));  // beyond the first revolution
  between.timeMinIs((wheel->tickTime(2) + wheel->tickTime(3)) / 2);
  Time const t = wheel->tickTime(300);
  clock->nowIs(t);
  EXPECT_EQ(log, (Firings{{1, t}, {2, t}, {3, t}, {9, t}}));
  EXPECT_EQ(wheel->timers(), 0u);
  EXPECT_EQ(wheel->wakeTime(), kNever);
}

// A random mix of arming, re-arming (also from inside onTime, also for the present), cancelling
// and moving time, compared with a model that orders wake-ups by (tick, arming order). Small
// geometries make timers move between levels all the time.
struct Geometry {
  Time tick;
  std::uint32_t ticks;
  std::uint32_t bucketSize;
};

// Standard, tiny (timers move between levels all the time), odd-sized and coarse wheels.
constexpr Geometry kGeometries[] = {
    {0.001, 255, 1024}, {0.001, 4, 2}, {0.001, 3, 5}, {0.25, 8, 3}, {0.01, 64, 64}};

// The wheel's ticks as the tests see them: the last tick at or before a time, and a time within
// the tick before `k`, so that `k` is the first tick at or after it.
struct Ticks {
  TimerWheel const& wheel;
  Time tick;
  std::uint64_t atOrBefore(Time t) const {
    auto k = static_cast<std::uint64_t>(std::floor(t / tick)) + 1;
    while (wheel.tickTime(k) > t)
      --k;
    return k;
  }
  Time timeFor(std::uint64_t k) const { return wheel.tickTime(k) - tick * 0.25; }
};

// A well-mixed number for the n-th wake-up of timer `id`, the same for the model and the wheel.
std::uint64_t mixed(int id, int n) {
  std::uint64_t x = static_cast<std::uint64_t>(id) * 1000003u + static_cast<std::uint64_t>(n);
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// Armed timers ordered by (tick, arming sequence): the order in which the wheel fires them.
class OrderedModel {
 public:
  using Key = std::pair<std::uint64_t, long>;
  explicit OrderedModel(int timers) : armedAt_(static_cast<std::size_t>(timers)) {}

  // Arms timer `id` for `tick`, or disarms it.
  void arm(int id, std::optional<std::uint64_t> tick) {
    auto& at = armedAt_[static_cast<std::size_t>(id)];
    if (at) armed_.erase(*at);
    at.reset();
    if (!tick) return;
    at = Key{*tick, seq_++};
    armed_[*at] = id;
  }
  bool empty() const { return armed_.empty(); }
  std::size_t size() const { return armed_.size(); }
  // The first timer to fire: its tick and id.
  std::pair<std::uint64_t, int> first() const {
    return {armed_.begin()->first.first, armed_.begin()->second};
  }

 private:
  std::map<Key, int> armed_;
  std::vector<std::optional<Key>> armedAt_;
  long seq_ = 0;
};

class TimerWheelModelTest : public ::testing::TestWithParam<Geometry>, public LiveInstanceCheck {};

TEST_P(TimerWheelModelTest, MatchesAnOrderedModel) {
  Geometry const g = GetParam();
  auto clock = SimulatedClock::simulatedClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock, g.tick, g.ticks, g.bucketSize);
  std::mt19937_64 rng(1234);
  Ticks const ticks{*wheel, g.tick};
  // The distance in ticks of the n-th re-arming of timer `id` from inside onTime(), the same for
  // the model and the wheel; 0 means "for the present time", which fires at the next tick.
  auto rearmDistance = [&g](int id, int n) -> std::uint64_t {
    std::uint64_t const x = mixed(id, n);
    std::uint64_t const spans[] = {0, 4, 2ull * g.ticks, 2ull * g.ticks * g.bucketSize};
    std::uint64_t const span = spans[x % 4];
    return span == 0 ? 0 : 1 + (x >> 8) % span;
  };

  constexpr int kTimers = 64;
  Firings log;
  std::vector<std::unique_ptr<Recorder>> timers;
  std::vector<int> fired(kTimers, 0), modelFired(kTimers, 0);
  auto rearms = [](int id) { return id % 3 == 0; };
  for (int id = 0; id < kTimers; ++id) {
    timers.push_back(std::make_unique<Recorder>(id, log));
    timers.back()->notifierIs(wheel);
    if (!rearms(id)) continue;
    timers.back()->action = [&, id] {
      std::uint64_t const d = rearmDistance(id, ++fired[id]);
      timers[id]->timeMinIs(d == 0 ? clock->now()
                                   : ticks.timeFor(ticks.atOrBefore(clock->now()) + d));
    };
  }

  OrderedModel model(kTimers);

  // Distances of arming from the test: mostly near, some across one or several levels.
  std::uint64_t const spans[] = {4, 2ull * g.ticks, 4ull * g.ticks * g.bucketSize,
                                 3ull * g.ticks * g.bucketSize * g.bucketSize};
  std::size_t totalFired = 0;
  for (int round = 0; round < 300; ++round) {
    for (int k = 0; k < 20; ++k) {
      int const id = static_cast<int>(rng() % kTimers);
      if (rng() % 6 == 0) {
        timers[id]->timeMinIs(kNever);
        model.arm(id, std::nullopt);
        continue;
      }
      std::uint64_t const span = spans[rng() % 4];
      std::uint64_t const tick = ticks.atOrBefore(clock->now()) + 2 + rng() % span;
      timers[id]->timeMinIs(ticks.timeFor(tick));
      model.arm(id, tick);
    }
    ASSERT_EQ(wheel->timers(), model.size()) << "round " << round;

    // Move on, often by a few ticks, sometimes across many revolutions.
    std::uint64_t const step =
        rng() % 3 == 0 ? rng() % (2ull * g.ticks * g.bucketSize) : rng() % (g.ticks + 2);
    Time const target = clock->now() + static_cast<Time>(step) * g.tick;
    Firings expected;
    while (!model.empty() && model.first().first <= ticks.atOrBefore(target)) {
      auto const [tick, id] = model.first();
      model.arm(id, std::nullopt);
      expected.push_back({id, wheel->tickTime(tick)});
      if (!rearms(id)) continue;
      std::uint64_t const d = rearmDistance(id, ++modelFired[id]);
      model.arm(id, tick + (d == 0 ? 1 : d));
    }
    log.clear();
    clock->nowIs(target);
    ASSERT_EQ(log, expected) << "round " << round;
    totalFired += expected.size();
  }
  EXPECT_GT(totalFired, 2000u);  // the comparison covered real work
  timers.clear();
  EXPECT_EQ(wheel->timers(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Geometries, TimerWheelModelTest, ::testing::ValuesIn(kGeometries));

// The same on a clock that jumps past many ticks at once, as the event loop's clock does after a
// turn: one wake-up of the wheel fires every tick up to the clock's time. Callbacks re-arm for a
// tick counted from their own (often within the same jump, on any level), cancel another timer,
// and some timers are switched off for a while; the model orders each jump by (tick, arming order).
class Callback : public TimerWheel::Notifiee {
 public:
  std::function<void()> action;
  void onTime() override { action(); }
};

class TimerWheelJumpModelTest : public ::testing::TestWithParam<Geometry>,
                                public LiveInstanceCheck {};

TEST_P(TimerWheelJumpModelTest, MatchesAnOrderedModel) {
  Geometry const g = GetParam();
  auto clock = JumpClock::jumpClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock, g.tick, g.ticks, g.bucketSize);
  std::mt19937_64 rng(4321);
  Ticks const ticks{*wheel, g.tick};
  // What the n-th wake-up of timer `id` does, the same for the model and the wheel: re-arm
  // `rearm` ticks after its own tick (0: for the present time, which is the next jump's) and
  // cancel timer `cancel` (none when negative).
  struct Step {
    std::uint64_t rearm;
    int cancel;
  };
  constexpr int kTimers = 64;
  auto stepOf = [&g](int id, int n) {
    std::uint64_t const x = mixed(id, n);
    std::uint64_t const spans[] = {0, 3, g.ticks, 2ull * g.ticks * g.bucketSize};
    std::uint64_t const span = spans[x % 4];
    int const cancel = (x >> 40) % 4 == 0 ? static_cast<int>((x >> 44) % kTimers) : -1;
    return Step{span == 0 ? 0 : 1 + (x >> 8) % span, cancel};
  };
  auto rearms = [](int id) { return id % 3 != 2; };

  Firings log;
  std::vector<std::unique_ptr<Callback>> timers;
  std::vector<std::uint64_t> tickOf(kTimers, 0);  // the tick each timer is armed for
  std::vector<int> fired(kTimers, 0), modelFired(kTimers, 0);
  for (int id = 0; id < kTimers; ++id) {
    timers.push_back(std::make_unique<Callback>());
    timers.back()->notifierIs(wheel);
    timers.back()->action = [&, id] {
      log.push_back({id, wheel->tickTime(tickOf[id])});
      if (!rearms(id)) return;
      Step const step = stepOf(id, ++fired[id]);
      if (step.cancel >= 0) timers[step.cancel]->timeMinIs(kNever);
      if (step.rearm == 0) {
        tickOf[id] = ticks.atOrBefore(clock->now()) + 1;
        timers[id]->timeMinIs(clock->now());
        return;
      }
      tickOf[id] += step.rearm;
      timers[id]->timeMinIs(ticks.timeFor(tickOf[id]));
    };
  }

  OrderedModel model(kTimers);
  std::vector<bool> on(kTimers, true);

  std::uint64_t const spans[] = {4, 2ull * g.ticks, 4ull * g.ticks * g.bucketSize,
                                 3ull * g.ticks * g.bucketSize * g.bucketSize};
  std::size_t totalFired = 0, jumpsOfSeveralTicks = 0;
  for (int round = 0; round < 300; ++round) {
    std::uint64_t const present = ticks.atOrBefore(clock->now());
    for (int k = 0; k < 20; ++k) {
      int const id = static_cast<int>(rng() % kTimers);
      if (rng() % 6 == 0) {
        timers[id]->timeMinIs(kNever);
        model.arm(id, std::nullopt);
        continue;
      }
      if (rng() % 10 == 0) {
        on[id] = !on[id];
        timers[id]->hasNotificationActiveIs(on[id]);
      }
      std::uint64_t const tick = present + 1 + rng() % spans[rng() % 4];
      tickOf[id] = tick;
      timers[id]->timeMinIs(ticks.timeFor(tick));
      model.arm(id, tick);
    }
    ASSERT_EQ(wheel->timers(), model.size()) << "round " << round;

    // Jump half a tick past a tick, by a few ticks or across many revolutions.
    std::uint64_t const step =
        rng() % 3 == 0 ? rng() % (2ull * g.ticks * g.bucketSize) : rng() % (2ull * g.ticks);
    std::uint64_t const last = present + step;
    Time const target = wheel->tickTime(last) + g.tick * 0.5;
    Firings expected;
    std::set<std::uint64_t> firedTicks;
    while (!model.empty() && model.first().first <= last) {
      auto const [tick, id] = model.first();
      model.arm(id, std::nullopt);
      if (!on[id]) continue;
      expected.push_back({id, wheel->tickTime(tick)});
      firedTicks.insert(tick);
      if (!rearms(id)) continue;
      Step const s = stepOf(id, ++modelFired[id]);
      if (s.cancel >= 0) model.arm(s.cancel, std::nullopt);
      model.arm(id, s.rearm == 0 ? last + 1 : tick + s.rearm);
    }
    log.clear();
    clock->nowIs(target);
    ASSERT_EQ(log, expected) << "round " << round;
    ASSERT_EQ(wheel->timers(), model.size()) << "round " << round;
    totalFired += expected.size();
    jumpsOfSeveralTicks += firedTicks.size() > 1;
  }
  // The comparison covered real work, most of it jumps that fired several ticks at once.
  EXPECT_GT(totalFired, 2000u);
  EXPECT_GT(jumpsOfSeveralTicks, 150u);
  timers.clear();
  EXPECT_EQ(wheel->timers(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Geometries, TimerWheelJumpModelTest, ::testing::ValuesIn(kGeometries));

// A callback that throws within a jump ends that wake-up only: the rest of its tick, then a lone
// far timer (which throws too) and the later ticks fire at the next wake-ups, in order.
TEST(TimerWheelJumpTest, ACallbackThatThrowsLeavesTheRestOfTheJumpDue) {
  LiveInstanceCheck leaks;
  auto clock = JumpClock::jumpClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock);
  Firings log;
  Recorder a(1, log), b(2, log), c(3, log), d(4, log), e(5, log);
  for (Recorder* r : {&a, &b, &c, &d, &e})
    r->notifierIs(wheel);
  a.timeMinIs(wheel->tickTime(5));
  b.timeMinIs(wheel->tickTime(5));
  c.timeMinIs(wheel->tickTime(7));
  d.timeMinIs(wheel->tickTime(1000));  // alone in its slot beyond the first revolution
  e.timeMinIs(wheel->tickTime(2000));  // alone in a later one
  a.action = [] { throw std::runtime_error("from onTime"); };
  d.action = [] { throw std::runtime_error("from onTime"); };
  Time const t = wheel->tickTime(3000);
  EXPECT_THROW(clock->nowIs(t), std::runtime_error);
  EXPECT_EQ(log, (Firings{{1, t}}));
  EXPECT_EQ(wheel->timers(), 4u);
  EXPECT_EQ(wheel->wakeTime(), wheel->tickTime(5));
  EXPECT_THROW(clock->nowIs(t), std::runtime_error);
  EXPECT_EQ(log, (Firings{{1, t}, {2, t}, {3, t}, {4, t}}));
  EXPECT_EQ(wheel->wakeTime(), wheel->tickTime(2000));
  clock->nowIs(t);
  EXPECT_EQ(log, (Firings{{1, t}, {2, t}, {3, t}, {4, t}, {5, t}}));
  EXPECT_EQ(wheel->timers(), 0u);
  EXPECT_EQ(wheel->wakeTime(), kNever);
}

// Timers that share far ticks, armed out of tick order, fire in tick order and within a tick in
// arming order after moving down; a lone far timer fires where it waits, and what its callback
// arms for a tick still within the jump fires in the same wake-up, before the later ticks.
TEST(TimerWheelJumpTest, FarTicksFireInOrderAndArmingWithinTheJumpFiresInIt) {
  LiveInstanceCheck leaks;
  auto clock = JumpClock::jumpClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock);
  Firings log;
  Recorder a(1, log), b(2, log), c(3, log), d(4, log), e(5, log), f(6, log), lone(7, log);
  for (Recorder* r : {&a, &b, &c, &d, &e, &f, &lone})
    r->notifierIs(wheel);
  a.timeMinIs(wheel->tickTime(600));
  b.timeMinIs(wheel->tickTime(520));
  c.timeMinIs(wheel->tickTime(600));
  d.timeMinIs(wheel->tickTime(520));
  e.timeMinIs(wheel->tickTime(1400));
  lone.timeMinIs(wheel->tickTime(1200));
  // Arms within the jump on every level: the next tick, the first level's span, the second's.
  lone.action = [&] {
    f.timeMinIs(wheel->tickTime(1201));
    c.timeMinIs(wheel->tickTime(1300));
    b.timeMinIs(wheel->tickTime(300000));
    b.action = [&] { a.timeMinIs(wheel->tickTime(300000)); };
  };
  Time const t = wheel->tickTime(400000);
  clock->nowIs(t);
  EXPECT_EQ(
      log,
      (Firings{{2, t}, {4, t}, {1, t}, {3, t}, {7, t}, {6, t}, {3, t}, {5, t}, {2, t}, {1, t}}));
  EXPECT_EQ(wheel->timers(), 0u);
}

using TimerWheelDeathTest = TimerWheelTest;

TEST_F(TimerWheelDeathTest, ContractViolations) {
  EXPECT_DEATH(TimerWheel::timerWheelNew(nullptr), "\"a timer wheel needs a clock\"");
  EXPECT_DEATH(TimerWheel::timerWheelNew(clock, 0.001, 1),
               "\"a timer wheel needs at least two ticks\"");
  EXPECT_DEATH(TimerWheel::timerWheelNew(clock, 0), "\"a timer wheel needs a positive tick\"");
  EXPECT_DEATH(TimerWheel::timerWheelNew(clock, 0.001, 255, 1),
               "\"a timer wheel needs buckets of at least two slots\"");
  auto r = recorder(1);
  EXPECT_DEATH(r->timeMinIs(std::nan("")), "\"timer armed for a time that is not a number\"");
}

}  // namespace
