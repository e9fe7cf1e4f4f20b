#include "Qel/Clock.h"

#include <gtest/gtest.h>

#include "support/Firing.h"
#include "support/LeakCheck.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "Qel/MonotonicClock.h"
#include "Qel/SimulatedClock.h"

namespace {

using Ledra::test::Firing;
using Ledra::test::LiveInstanceCheck;
using Qel::Clock;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;
using Firings = std::vector<Firing>;

// Records every wake-up (with the clock's time) and then runs an optional action.
class Recorder : public Clock::Notifiee {
 public:
  Recorder(int id, Firings& log) : id_(id), log_(log) {}
  std::function<void()> action;

  void onTime() override {
    log_.push_back({id_, notifier()->now()});
    if (action) action();
  }

 private:
  int id_;
  Firings& log_;
};

class SimulatedClockTest : public ::testing::Test, public LiveInstanceCheck {
 protected:
  std::unique_ptr<Recorder> recorder(int id) {
    auto r = std::make_unique<Recorder>(id, log);
    r->notifierIs(clock);
    return r;
  }

  Firings log;
  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
};

TEST_F(SimulatedClockTest, TimersArmedWhileFiringUpToTheTargetFireInTheSameMove) {
  auto periodic = recorder(1);
  periodic->action = [&] { periodic->timeMinIs(clock->now() + 1); };
  periodic->timeMinIs(1);
  clock->nowIs(3.5);
  EXPECT_EQ(log, (Firings{{1, 1}, {1, 2}, {1, 3}}));

  // Re-armed for the present time: fires again in the same call, at the same time.
  int left = 2;
  auto once = recorder(2);
  once->action = [&] {
    if (--left > 0) once->timeMinIs(clock->now());
  };
  once->timeMinIs(3.75);
  log.clear();
  clock->nowIs(3.8);
  EXPECT_EQ(log, (Firings{{2, 3.75}, {2, 3.75}}));

  // Others armed out of order while firing come out in time order.
  auto a = recorder(3), b = recorder(4), c = recorder(5), d = recorder(6);
  a->action = [&] {
    c->timeMinIs(4.75);
    b->timeMinIs(4.5);
    d->timeMinIs(9);
  };
  a->timeMinIs(3.9);
  log.clear();
  clock->nowIs(4.8);
  EXPECT_EQ(log, (Firings{{3, 3.9}, {1, 4}, {4, 4.5}, {5, 4.75}}));
  EXPECT_EQ(clock->nextTimerTime(), 5);
}

TEST_F(SimulatedClockTest, ASwitchedOffNotifieeSkipsItsWakeUpAndAPastTimeFiresAtThePresent) {
  auto a = recorder(1), b = recorder(2);
  a->timeMinIs(1);
  b->timeMinIs(1);
  a->hasNotificationActiveIs(false);
  clock->advance(2);
  EXPECT_EQ(log, (Firings{{2, 1}}));
  EXPECT_EQ(a->timeMin(), kNever);  // consumed
  a->hasNotificationActiveIs(true);
  a->timeMinIs(1.5);  // in the past: due at once, but only when the time is moved
  EXPECT_EQ(log.size(), 1u);
  clock->advance(0);
  EXPECT_EQ(log, (Firings{{2, 1}, {1, 2}}));
  EXPECT_EQ(clock->now(), 2);
}

TEST_F(SimulatedClockTest, DeadNotifieesAreForgottenEvenWhileFiring) {
  auto a = recorder(1), b = recorder(2), c = recorder(3), d = recorder(4);
  for (auto* r : {a.get(), b.get(), c.get(), d.get()})
    r->timeMinIs(1);
  c.reset();
  EXPECT_EQ(clock->timers(), 3u);
  // a destroys itself and b, which is due at the same time and not yet fired.
  a->action = [&] {
    b.reset();
    a.reset();
  };
  clock->advance(1);
  EXPECT_EQ(log, (Firings{{1, 1}, {4, 1}}));
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(clock->timers(), 0u);
}

// Arms, re-arms and disarms many timers at random and compares the wake-ups (each at its own time)
// with a plain sort by (time, arming order): equal times fire in arming order, re-arming replaces
// the earlier time and moves to the back, kNever disarms, a timer due exactly at the target fires.
TEST_F(SimulatedClockTest, RandomArmingsFireInTimeThenArmingOrder) {
  std::mt19937 rng(7);
  std::vector<std::unique_ptr<Recorder>> timers;
  for (int i = 0; i < 200; ++i)
    timers.push_back(recorder(i));
  struct Armed {
    Time at = kNever;
    long seq = 0;
  };
  std::vector<Armed> model(timers.size());
  long seq = 0;
  for (int round = 0; round < 50; ++round) {
    for (int k = 0; k < 100; ++k) {
      std::size_t const i = rng() % timers.size();
      // Few distinct times, so that equal times are common.
      Time const at = rng() % 5 == 0 ? kNever : clock->now() + (rng() % 20) * 0.25;
      timers[i]->timeMinIs(at);
      model[i] = {at, seq++};
    }
    Time const target = clock->now() + (rng() % 8) * 0.25;
    std::vector<std::size_t> due;
    Time next = kNever;
    for (std::size_t i = 0; i < model.size(); ++i) {
      next = std::min(next, model[i].at);
      if (model[i].at <= target) due.push_back(i);
    }
    ASSERT_EQ(clock->nextTimerTime(), next);
    std::sort(due.begin(), due.end(), [&](std::size_t x, std::size_t y) {
      return std::pair(model[x].at, model[x].seq) < std::pair(model[y].at, model[y].seq);
    });
    Firings expected;
    for (std::size_t i : due) {
      expected.push_back({static_cast<int>(i), model[i].at});
      model[i].at = kNever;
    }
    log.clear();
    clock->nowIs(target);
    ASSERT_EQ(log, expected) << "round " << round;
    auto const armed =
        std::count_if(model.begin(), model.end(), [](Armed a) { return a.at != kNever; });
    ASSERT_EQ(clock->timers(), static_cast<std::size_t>(armed));
    for (std::size_t i : due)
      ASSERT_EQ(timers[i]->timeMin(), kNever);
  }
}

using SimulatedClockDeathTest = SimulatedClockTest;

TEST_F(SimulatedClockDeathTest, TimeNeverGoesBackwardsAndTimersNeedANumber) {
  clock->nowIs(3);
  EXPECT_DEATH(clock->nowIs(2), "\"simulated time moved backwards\"");
  EXPECT_DEATH(clock->nowIs(kNever), "\"simulated time must be finite\"");
  auto a = recorder(1);
  EXPECT_DEATH(a->timeMinIs(std::nan("")), "\"timer armed for a time that is not a number\"");
}

TEST_F(SimulatedClockDeathTest, TimeIsNotMovedFromInsideItsOwnTimer) {
  auto a = recorder(1);
  a->action = [&] { clock->advance(1); };
  a->timeMinIs(1);
  EXPECT_DEATH(clock->advance(1), "\"simulated time moved from inside one of its timers\"");
}

TEST(MonotonicClockTest, ReadsClockMonotonicAndRunsDueTimers) {
  LiveInstanceCheck check;
  auto clock = Qel::MonotonicClock::monotonicClockNew();
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  Time const t = clock->now();
  EXPECT_NEAR(t, static_cast<Time>(ts.tv_sec) + static_cast<Time>(ts.tv_nsec) * 1e-9, 1.0);
  Firings log;
  Recorder past(1, log), future(2, log);
  past.notifierIs(clock);
  future.notifierIs(clock);
  past.timeMinIs(t - 1);
  future.timeMinIs(t + 3600);
  clock->runDueTimers();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].id, 1);
  EXPECT_GE(log[0].at, t);
  EXPECT_EQ(clock->nextTimerTime(), t + 3600);
}

}  // namespace
