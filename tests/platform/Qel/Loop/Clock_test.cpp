#include "Qel/Loop/Clock.h"

#include <gtest/gtest.h>

#include "tests/support/Firing.h"
#include "tests/support/LeakCheck.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "Qel/Loop/MonotonicClock.h"
#include "Qel/Loop/SimulatedClock.h"

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

TEST_F(SimulatedClockTest, DeadAndSwitchedOffNotifieesAreSkippedEvenWhileFiring) {
  auto a = recorder(1), b = recorder(2), c = recorder(3), d = recorder(4), e = recorder(5);
  for (auto* r : {a.get(), b.get(), c.get(), d.get(), e.get()})
    r->timeMinIs(1);
  c.reset();
  e->hasNotificationActiveIs(false);
  EXPECT_EQ(clock->timers(), 4u);
  // a destroys itself and b, which is due at the same time and not yet fired.
  a->action = [&] {
    b.reset();
    a.reset();
  };
  clock->advance(2);
  EXPECT_EQ(log, (Firings{{1, 1}, {4, 1}}));
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(e->timeMin(), kNever);  // consumed without a call
  EXPECT_EQ(clock->timers(), 0u);
  // A time in the past is due at once, but fires only when the time is moved, at the present.
  d->timeMinIs(1.5);
  EXPECT_EQ(log.size(), 2u);
  clock->advance(0);
  EXPECT_EQ(log.back(), (Firing{4, 2}));
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
  EXPECT_GE(log[0].at, t);
  EXPECT_EQ(clock->nextTimerTime(), t + 3600);
}

}  // namespace
