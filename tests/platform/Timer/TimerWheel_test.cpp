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

class TimerWheelModelTest : public ::testing::TestWithParam<Geometry>, public LiveInstanceCheck {};

TEST_P(TimerWheelModelTest, MatchesAnOrderedModel) {
  Geometry const g = GetParam();
  auto clock = SimulatedClock::simulatedClockNew();
  auto wheel = TimerWheel::timerWheelNew(clock, g.tick, g.ticks, g.bucketSize);
  std::mt19937_64 rng(1234);
  auto tickAtOrBefore = [&](Time t) {
    auto k = static_cast<std::uint64_t>(std::floor(t / g.tick)) + 1;
    while (wheel->tickTime(k) > t)
      --k;
    return k;
  };
  // A time within the tick before `tick`, so that `tick` is the first one at or after it.
  auto timeFor = [&](std::uint64_t tick) { return wheel->tickTime(tick) - g.tick * 0.25; };
  // The distance in ticks of the n-th re-arming of timer `id` from inside onTime(), the same for
  // the model and the wheel; 0 means "for the present time", which fires at the next tick.
  auto rearmDistance = [&g](int id, int n) -> std::uint64_t {
    std::uint64_t x = static_cast<std::uint64_t>(id) * 1000003u + static_cast<std::uint64_t>(n);
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    x ^= x >> 31;
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
      timers[id]->timeMinIs(d == 0 ? clock->now() : timeFor(tickAtOrBefore(clock->now()) + d));
    };
  }

  // The model: armed timers ordered by (tick, arming sequence).
  using Key = std::pair<std::uint64_t, long>;
  std::map<Key, int> model;
  std::vector<std::optional<Key>> armedAt(kTimers);
  long seq = 0;
  auto modelArm = [&](int id, std::optional<std::uint64_t> tick) {
    if (armedAt[id]) model.erase(*armedAt[id]);
    armedAt[id].reset();
    if (!tick) return;
    armedAt[id] = Key{*tick, seq++};
    model[*armedAt[id]] = id;
  };

  // Distances of arming from the test: mostly near, some across one or several levels.
  std::uint64_t const spans[] = {4, 2ull * g.ticks, 4ull * g.ticks * g.bucketSize,
                                 3ull * g.ticks * g.bucketSize * g.bucketSize};
  std::size_t totalFired = 0;
  for (int round = 0; round < 300; ++round) {
    for (int k = 0; k < 20; ++k) {
      int const id = static_cast<int>(rng() % kTimers);
      if (rng() % 6 == 0) {
        timers[id]->timeMinIs(kNever);
        modelArm(id, std::nullopt);
        continue;
      }
      std::uint64_t const span = spans[rng() % 4];
      std::uint64_t const tick = tickAtOrBefore(clock->now()) + 2 + rng() % span;
      timers[id]->timeMinIs(timeFor(tick));
      modelArm(id, tick);
    }
    ASSERT_EQ(wheel->timers(), model.size()) << "round " << round;

    // Move on, often by a few ticks, sometimes across many revolutions.
    std::uint64_t const step =
        rng() % 3 == 0 ? rng() % (2ull * g.ticks * g.bucketSize) : rng() % (g.ticks + 2);
    Time const target = clock->now() + static_cast<Time>(step) * g.tick;
    Firings expected;
    while (!model.empty() && model.begin()->first.first <= tickAtOrBefore(target)) {
      auto const [key, id] = *model.begin();
      modelArm(id, std::nullopt);
      expected.push_back({id, wheel->tickTime(key.first)});
      if (!rearms(id)) continue;
      std::uint64_t const d = rearmDistance(id, ++modelFired[id]);
      modelArm(id, key.first + (d == 0 ? 1 : d));
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

INSTANTIATE_TEST_SUITE_P(Geometries, TimerWheelModelTest,
                         ::testing::Values(Geometry{0.001, 255, 1024}, Geometry{0.001, 4, 2},
                                           Geometry{0.001, 3, 5}, Geometry{0.25, 8, 3},
                                           Geometry{0.01, 64, 64}));

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
