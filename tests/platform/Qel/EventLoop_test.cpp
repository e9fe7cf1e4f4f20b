#include "Qel/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>
#include "support/LeakCheck.h"

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "Qel/MonotonicClock.h"
#include "Qel/SimulatedClock.h"

namespace {

using Qel::Clock;
using Qel::EventLoop;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;

using Ledra::test::LiveInstanceCheck;

// A clock timer that runs a callback.
class Timer : public Clock::Notifiee {
 public:
  explicit Timer(Clock::Ptr const& c, std::function<void()> f = {}) : fn(std::move(f)) {
    notifierIs(c);
  }
  std::function<void()> fn;
  void onTime() override {
    if (fn) fn();
  }
};

// Both ends of a non-blocking Unix-domain socket pair, closed at the end.
struct SocketPair {
  std::array<int, 2> fd{-1, -1};
  SocketPair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fd.data()), 0);
  }
  ~SocketPair() {
    for (int f : fd) {
      if (f >= 0) ::close(f);
    }
  }
  void send(int end, char const* text) {
    ASSERT_EQ(::write(fd[end], text, std::strlen(text)), static_cast<ssize_t>(std::strlen(text)));
  }
  std::string receive(int end) {
    char buf[256];
    ssize_t const n = ::read(fd[end], buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
  }
};

class EventLoopTest : public ::testing::Test, public LiveInstanceCheck {
 protected:
  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
  EventLoop::Ptr loop = EventLoop::eventLoopNew(clock);
  std::vector<std::string> log;
};

TEST_F(EventLoopTest, APostedTaskRunsOnTheNextTurnAndTasksKeepTheirOrder) {
  loop->post([&] {
    log.push_back("a");
    loop->post([&] { log.push_back("c"); });
  });
  loop->post([&] { log.push_back("b"); });
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(loop->tasks(), 2u);
  loop->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(loop->tasks(), 1u);
  loop->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
  loop->runOnce();
  EXPECT_EQ(log.size(), 3u);
}

TEST_F(EventLoopTest, ATaskPostedByATimerWaitsForTheNextTurn) {
  Timer t(clock, [&] {
    log.push_back("timer");
    loop->post([&] { log.push_back("task"); });
  });
  t.timeMinIs(0);
  loop->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"timer"}));
  loop->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"timer", "task"}));
}

TEST_F(EventLoopTest, RunOnceDoesNotMoveSimulatedTime) {
  Timer t(clock, [&] { log.push_back("timer"); });
  t.timeMinIs(1);
  loop->runOnce();
  EXPECT_EQ(clock->now(), 0);
  EXPECT_TRUE(log.empty());
}

TEST_F(EventLoopTest, RunUntilStopsWhenThePredicateHolds) {
  int fired = 0;
  Timer a(clock, [&] { ++fired; }), b(clock, [&] { ++fired; }), c(clock, [&] { ++fired; });
  a.timeMinIs(1);
  b.timeMinIs(2);
  c.timeMinIs(3);
  EXPECT_TRUE(loop->runUntil([&] { return fired == 2; }, 10));
  EXPECT_EQ(clock->now(), 2);
  EXPECT_EQ(c.timeMin(), 3);
}

TEST_F(EventLoopTest, RunUntilChecksThePredicateBeforeTheFirstTurn) {
  loop->post([&] { log.push_back("task"); });
  EXPECT_TRUE(loop->runUntil([] { return true; }, 10));
  EXPECT_TRUE(log.empty());
}

TEST_F(EventLoopTest, RunUntilStopsAtTheDeadlineFiringTimersDueAtIt) {
  Timer a(clock, [&] { log.push_back("a"); }), b(clock, [&] { log.push_back("b"); });
  a.timeMinIs(3);
  b.timeMinIs(3.5);
  EXPECT_FALSE(loop->runUntil([] { return false; }, 3));
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
  EXPECT_EQ(clock->now(), 3);
  // Nothing before the deadline: the time jumps there.
  EXPECT_FALSE(loop->runUntil([] { return false; }, 3.25));
  EXPECT_EQ(clock->now(), 3.25);
  EXPECT_EQ(log.size(), 1u);
}

TEST_F(EventLoopTest, TasksPostedAtTheDeadlineStillRun) {
  Timer a(clock, [&] { loop->post([&] { log.push_back("task"); }); });
  a.timeMinIs(2);
  EXPECT_FALSE(loop->runUntil([] { return false; }, 2));
  EXPECT_EQ(log, (std::vector<std::string>{"task"}));
  EXPECT_EQ(clock->now(), 2);
}

TEST_F(EventLoopTest, TasksRunBeforeTheTimeMovesOn) {
  // A chain of tasks runs at the present time; the timer fires only once no task waits.
  Timer a(clock, [&] { log.push_back("timer at " + std::to_string(clock->now())); });
  a.timeMinIs(1);
  loop->post([&] {
    log.push_back("first");
    loop->post([&] { log.push_back("second at " + std::to_string(clock->now())); });
  });
  loop->runFor(5);
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second at 0.000000", "timer at 1.000000"}));
  EXPECT_EQ(clock->now(), 5);
}

TEST_F(EventLoopTest, RunReturnsOnStopOrWhenNothingIsLeft) {
  int ticks = 0;
  Timer periodic(clock);
  periodic.fn = [&] {
    ++ticks;
    periodic.timeMinIs(clock->now() + 1);
  };
  periodic.timeMinIs(1);
  Timer stopper(clock, [&] { loop->stop(); });
  stopper.timeMinIs(4.5);
  loop->run();
  EXPECT_EQ(clock->now(), 4.5);
  EXPECT_EQ(ticks, 4);

  periodic.timeMinIs(kNever);
  loop->run();  // idle: returns at once
  EXPECT_EQ(clock->now(), 4.5);
}

TEST_F(EventLoopTest, ALoopDroppedByItsOwnTaskLivesToTheEndOfTheTurn) {
  EventLoop* raw = loop.ptr();
  raw->post([&] {
    loop = nullptr;
    log.push_back("dropped");
  });
  raw->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"dropped"}));
}

TEST_F(EventLoopTest, AReadableSocketWakesTheLoopWithoutMovingTheTime) {
  SocketPair sp;
  std::string received;
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned ready) {
    EXPECT_EQ(ready, EventLoop::readable);
    received += sp.receive(0);
  });
  EXPECT_TRUE(loop->watching(sp.fd[0]));
  sp.send(1, "hello");
  EXPECT_TRUE(loop->runUntil([&] { return !received.empty(); }, 10));
  EXPECT_EQ(received, "hello");
  EXPECT_EQ(clock->now(), 0);

  // Nothing to read: the loop does not wait for real time.
  EXPECT_FALSE(loop->runUntil([&] { return received.size() > 5; }, 10));
  EXPECT_EQ(clock->now(), 10);
  loop->unwatch(sp.fd[0]);
  EXPECT_FALSE(loop->watching(sp.fd[0]));
}

// An exchange over a socket pair takes no simulated time: it completes before the next timer,
// and run() does not return while descriptors are still delivering.
TEST_F(EventLoopTest, DescriptorTrafficTakesNoSimulatedTime) {
  SocketPair sp;
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned) {
    log.push_back(sp.receive(0) + " at " + std::to_string(clock->now()));
    if (log.size() < 3) sp.send(1, "more");  // ready again on the next turn
  });
  Timer t(clock, [&] { log.push_back("timer at " + std::to_string(clock->now())); });
  t.timeMinIs(1);
  sp.send(1, "first");
  loop->run();
  EXPECT_EQ(log, (std::vector<std::string>{"first at 0.000000", "more at 0.000000",
                                           "more at 0.000000", "timer at 1.000000"}));
  // No timer, no task: run() still serves the ready descriptor before it finds the loop idle.
  sp.send(1, "last");
  loop->run();
  EXPECT_EQ(log.back(), "last at 1.000000");
}

TEST_F(EventLoopTest, WritableAndHangupAreReported) {
  SocketPair sp;
  std::vector<unsigned> seen;
  loop->watch(sp.fd[0], EventLoop::writable, [&](unsigned ready) { seen.push_back(ready); });
  loop->runOnce();
  EXPECT_EQ(seen, (std::vector<unsigned>{EventLoop::writable}));

  seen.clear();
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned ready) { seen.push_back(ready); });
  ::close(sp.fd[1]);
  sp.fd[1] = -1;
  loop->runOnce();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0] & (EventLoop::readable | EventLoop::hangup),
            EventLoop::readable | EventLoop::hangup);
}

TEST_F(EventLoopTest, AHandlerMayUnwatchItselfOrAnotherReadyDescriptor) {
  SocketPair a, b;
  int calls = 0;
  auto handler = [&](int mine, int other) {
    return [&, mine, other](unsigned) {
      ++calls;
      loop->unwatch(mine);
      loop->unwatch(other);
    };
  };
  loop->watch(a.fd[0], EventLoop::readable, handler(a.fd[0], b.fd[0]));
  loop->watch(b.fd[0], EventLoop::readable, handler(b.fd[0], a.fd[0]));
  a.send(1, "x");
  b.send(1, "y");
  loop->runOnce();
  // Both were ready in the same turn, but the first handler unwatched the second descriptor.
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(loop->watches(), 0u);
  loop->runOnce();
  EXPECT_EQ(calls, 1);
}

TEST_F(EventLoopTest, AHandlerMayReplaceItsOwnWatch) {
  SocketPair sp;
  sp.send(1, "x");
  std::string const tag(100, 'h');  // a capture that is destroyed with the replaced handler
  loop->watch(sp.fd[0], EventLoop::readable, [&, tag](unsigned) {
    loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned) { log.push_back("second"); });
    log.push_back(tag.substr(0, 5));  // still valid after the replacement
  });
  loop->runOnce();
  loop->runOnce();
  EXPECT_EQ(log, (std::vector<std::string>{"hhhhh", "second"}));
}

TEST_F(EventLoopTest, WatchingAClosedDescriptorThrows) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ::close(fds[0]);
  ::close(fds[1]);
  try {
    loop->watch(fds[0], EventLoop::readable, [](unsigned) {});
    FAIL() << "watching a closed descriptor succeeded";
  } catch (std::system_error const& e) {
    EXPECT_EQ(e.code().value(), EBADF);
    EXPECT_EQ(std::string(e.what()),
              "cannot watch file descriptor " + std::to_string(fds[0]) + ": Bad file descriptor");
  }
  EXPECT_EQ(loop->watches(), 0u);
}

using EventLoopDeathTest = EventLoopTest;

TEST_F(EventLoopDeathTest, ATurnIsNeverStartedInsideATurn) {
  loop->post([&] { loop->runOnce(); });
  EXPECT_DEATH(loop->runOnce(), "\"event loop turn started inside a turn\"");
}

// The one test on real time: the loop blocks in epoll_wait and wakes for a pipe.
TEST(EventLoopRealClockTest, WakesForAPipe) {
  LiveInstanceCheck check;
  auto loop = EventLoop::eventLoopNew(Qel::MonotonicClock::monotonicClockNew());
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  std::string received;
  loop->watch(fds[0], EventLoop::readable, [&](unsigned) {
    char buf[16];
    ssize_t const n = ::read(fds[0], buf, sizeof buf);
    if (n > 0) received.append(buf, static_cast<std::size_t>(n));
  });
  ASSERT_EQ(::write(fds[1], "ping", 4), 4);
  Time const start = loop->clock()->now();
  EXPECT_TRUE(loop->runUntil([&] { return !received.empty(); }, start + 5));
  EXPECT_EQ(received, "ping");
  EXPECT_LT(loop->clock()->now() - start, 5);
  loop->unwatch(fds[0]);
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
