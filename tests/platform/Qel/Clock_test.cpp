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

using Qel::Clock;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;

using Ledra::test::LiveInstanceCheck;

using Ledra::test::Firing;

// Records every wake-up (with the clock's time) and then runs an optional action.
class Recorder : public Clock::Notifiee {
 public:
  Recorder(int id, std::vector<Firing>& log) : id_(id), log_(log) {}
  std::function<void()> action;
  int rebinds = 0;

  void onTime() override {
    log_.push_back({id_, notifier()->now()});
    if (action) action();
  }

 protected:
  void onNotifierIs() override { ++rebinds; }

 private:
  int id_;
  std::vector<Firing>& log_;
};

class SimulatedClockTest : public ::testing::Test, public LiveInstanceCheck {
 protected:
  std::unique_ptr<Recorder> recorder(int id) {
    auto r = std::make_unique<Recorder>(id, log);
    r->notifierIs(clock);
    return r;
  }

  std::vector<Firing> log;
  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
};

TEST_F(SimulatedClockTest, TimersFireInTimeOrderWithNowAtTheirTime) {
  auto a = recorder(1), b = recorder(2), c = recorder(3);
  a->timeMinIs(1.5);
  b->timeMinIs(0.5);
  c->timeMinIs(3);
  EXPECT_EQ(clock->nextTimerTime(), 0.5);
  EXPECT_EQ(clock->timers(), 3u);

  clock->nowIs(2);
  EXPECT_EQ(log, (std::vector<Firing>{{2, 0.5}, {1, 1.5}}));
  EXPECT_EQ(clock->now(), 2);
  EXPECT_EQ(a->timeMin(), kNever);
  EXPECT_EQ(c->timeMin(), 3);
  EXPECT_EQ(clock->nextTimerTime(), 3);

  clock->advance(0.999);
  EXPECT_EQ(log.size(), 2u);
  clock->advance(0.001);
  EXPECT_EQ(log.back(), (Firing{3, 3}));
  EXPECT_EQ(clock->timers(), 0u);
  EXPECT_EQ(clock->nextTimerTime(), kNever);
}

TEST_F(SimulatedClockTest, EqualTimesFireInArmingOrderAndRearmingMovesToTheBack) {
  auto a = recorder(1), b = recorder(2), c = recorder(3);
  a->timeMinIs(1);
  b->timeMinIs(1);
  c->timeMinIs(1);
  a->timeMinIs(1);  // armed again: now the latest
  clock->advance(1);
  EXPECT_EQ(log, (std::vector<Firing>{{2, 1}, {3, 1}, {1, 1}}));
}

TEST_F(SimulatedClockTest, RearmingReplacesAndNeverDisarms) {
  auto a = recorder(1), b = recorder(2);
  a->timeMinIs(1);
  a->timeMinIs(2);
  b->timeMinIs(1);
  b->timeMinIs(kNever);
  EXPECT_EQ(clock->timers(), 1u);
  clock->advance(5);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 2}}));
}

TEST_F(SimulatedClockTest, AMoveToThePresentFiresWhatIsDueWithoutGoingBack) {
  clock->nowIs(5);
  auto a = recorder(1);
  a->timeMinIs(2);  // in the past
  EXPECT_TRUE(log.empty());
  clock->advance(0);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 5}}));
  EXPECT_EQ(clock->now(), 5);
}

TEST_F(SimulatedClockTest, RearmingInsideOnTimeFiresAgainWithinTheSameMove) {
  auto periodic = recorder(1);
  periodic->action = [&] { periodic->timeMinIs(clock->now() + 1); };
  periodic->timeMinIs(1);
  clock->nowIs(3.5);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 1}, {1, 2}, {1, 3}}));
  EXPECT_EQ(periodic->timeMin(), 4);

  // Re-armed for the present time: fires again in the same call, at the same time.
  auto once = recorder(2);
  int left = 2;
  once->action = [&] {
    if (--left > 0) once->timeMinIs(clock->now());
  };
  once->timeMinIs(3.75);
  log.clear();
  clock->nowIs(3.8);
  EXPECT_EQ(log, (std::vector<Firing>{{2, 3.75}, {2, 3.75}}));
}

TEST_F(SimulatedClockTest, TimersArmedWhileFiringUpToTheTargetFireInOrder) {
  auto a = recorder(1), b = recorder(2), c = recorder(3), d = recorder(4);
  a->action = [&] {
    c->timeMinIs(1.75);
    b->timeMinIs(1.5);
    d->timeMinIs(5);
  };
  a->timeMinIs(1);
  clock->nowIs(2);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 1}, {2, 1.5}, {3, 1.75}}));
  EXPECT_EQ(clock->nextTimerTime(), 5);
}

TEST_F(SimulatedClockTest, ASwitchedOffNotifieeSkipsItsWakeUp) {
  auto a = recorder(1), b = recorder(2);
  a->timeMinIs(1);
  b->timeMinIs(1);
  a->hasNotificationActiveIs(false);
  clock->advance(2);
  EXPECT_EQ(log, (std::vector<Firing>{{2, 1}}));
  EXPECT_EQ(a->timeMin(), kNever);  // consumed
  a->hasNotificationActiveIs(true);
  clock->advance(2);
  EXPECT_EQ(log.size(), 1u);
}

TEST_F(SimulatedClockTest, ADeadNotifieeIsForgotten) {
  auto a = recorder(1), b = recorder(2), c = recorder(3);
  a->timeMinIs(1);
  b->timeMinIs(1);
  c->timeMinIs(1);
  c.reset();
  EXPECT_EQ(clock->timers(), 2u);
  // a destroys b, which is due at the same time and not yet fired.
  a->action = [&] { b.reset(); };
  clock->advance(1);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 1}}));
  EXPECT_EQ(clock->timers(), 0u);
}

TEST_F(SimulatedClockTest, ANotifieeMayDestroyItselfInOnTime) {
  auto a = recorder(1), b = recorder(2);
  a->timeMinIs(1);
  b->timeMinIs(1);
  a->action = [&] { a.reset(); };
  clock->advance(1);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 1}, {2, 1}}));
  EXPECT_EQ(a, nullptr);
}

TEST_F(SimulatedClockTest, TheClockLivesWhileNotifieesHoldIt) {
  long const base = Qel::RefCounted::liveInstances();
  auto a = recorder(1);
  a->timeMinIs(4);
  SimulatedClock* raw = clock.ptr();
  clock = nullptr;
  EXPECT_EQ(Qel::RefCounted::liveInstances(), base);
  EXPECT_EQ(a->notifier().ptr(), raw);
  raw->advance(4);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 4}}));
  a.reset();
  EXPECT_EQ(Qel::RefCounted::liveInstances(), base - 1);
}

TEST_F(SimulatedClockTest, RebindingCarriesTheArmedTimeToTheNewClock) {
  auto other = SimulatedClock::simulatedClockNew(10);
  auto a = recorder(1);
  EXPECT_EQ(a->rebinds, 1);
  a->timeMinIs(12);
  a->notifierIs(other);
  EXPECT_EQ(a->rebinds, 2);
  EXPECT_EQ(clock->timers(), 0u);
  EXPECT_EQ(other->timers(), 1u);
  clock->nowIs(20);
  EXPECT_TRUE(log.empty());
  other->nowIs(12);
  EXPECT_EQ(log, (std::vector<Firing>{{1, 12}}));

  // Unbound, the time is kept and armed on the next clock.
  a->notifierIs(nullptr);
  a->timeMinIs(25);
  EXPECT_EQ(a->rebinds, 3);
  a->notifierIs(clock);
  EXPECT_EQ(clock->nextTimerTime(), 25);
  clock->nowIs(30);
  EXPECT_EQ(log.back(), (Firing{1, 25}));
}

// Arms, re-arms and disarms many timers at random and compares the order of the wake-ups with a
// plain sort by (time, arming order).
TEST_F(SimulatedClockTest, RandomArmingsFireInTimeThenArmingOrder) {
  std::mt19937 rng(7);
  std::vector<std::unique_ptr<Recorder>> timers;
  for (int i = 0; i < 200; ++i)
    timers.push_back(recorder(i));
  struct Armed {
    Time at;
    long seq;
  };
  std::vector<Armed> model(timers.size(), Armed{kNever, 0});
  long seq = 0;
  for (int round = 0; round < 50; ++round) {
    for (int k = 0; k < 100; ++k) {
      std::size_t const i = rng() % timers.size();
      if (rng() % 5 == 0) {
        timers[i]->timeMinIs(kNever);
        model[i] = {kNever, 0};
        continue;
      }
      // Few distinct times, so that equal times are common.
      Time const at = clock->now() + static_cast<Time>(rng() % 20) * 0.25;
      timers[i]->timeMinIs(at);
      model[i] = {at, seq++};
    }
    Time const target = clock->now() + static_cast<Time>(rng() % 8) * 0.25;
    std::vector<std::size_t> due;
    for (std::size_t i = 0; i < model.size(); ++i) {
      if (model[i].at <= target) due.push_back(i);
    }
    std::sort(due.begin(), due.end(), [&](std::size_t x, std::size_t y) {
      if (model[x].at != model[y].at) return model[x].at < model[y].at;
      return model[x].seq < model[y].seq;
    });
    std::vector<Firing> expected;
    for (std::size_t i : due) {
      expected.push_back({static_cast<int>(i), model[i].at});
      model[i] = {kNever, 0};
    }
    log.clear();
    clock->nowIs(target);
    ASSERT_EQ(log, expected) << "round " << round;
  }
}

using SimulatedClockDeathTest = SimulatedClockTest;

TEST_F(SimulatedClockDeathTest, TimeNeverGoesBackwards) {
  clock->nowIs(3);
  EXPECT_DEATH(clock->nowIs(2), "\"simulated time moved backwards\"");
  EXPECT_DEATH(clock->advance(-1), "\"simulated time moved backwards\"");
  EXPECT_DEATH(clock->nowIs(kNever), "\"simulated time must be finite\"");
}

TEST_F(SimulatedClockDeathTest, TimeIsNotMovedFromInsideItsOwnTimer) {
  auto a = recorder(1);
  a->action = [&] { clock->advance(1); };
  a->timeMinIs(1);
  EXPECT_DEATH(clock->advance(1), "\"simulated time moved from inside one of its timers\"");
}

TEST_F(SimulatedClockDeathTest, ATimerNeedsANumber) {
  auto a = recorder(1);
  EXPECT_DEATH(a->timeMinIs(std::nan("")), "\"timer armed for a time that is not a number\"");
}

TEST(MonotonicClockTest, ReadsClockMonotonicAndRunsDueTimers) {
  LiveInstanceCheck check;
  auto clock = Qel::MonotonicClock::monotonicClockNew();
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  Time const before = static_cast<Time>(ts.tv_sec) + static_cast<Time>(ts.tv_nsec) * 1e-9;
  Time const t1 = clock->now();
  Time const t2 = Qel::MonotonicClock::monotonicClockNew()->now();
  EXPECT_LE(before, t1);
  EXPECT_LE(t1, t2);
  EXPECT_LT(t1 - before, 1.0);

  std::vector<Firing> log;
  Recorder past(1, log), future(2, log);
  past.notifierIs(clock);
  future.notifierIs(clock);
  past.timeMinIs(t1 - 1);
  future.timeMinIs(t1 + 3600);
  clock->runDueTimers();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].id, 1);
  EXPECT_GE(log[0].at, t1);
  EXPECT_EQ(clock->nextTimerTime(), t1 + 3600);
}

}  // namespace
