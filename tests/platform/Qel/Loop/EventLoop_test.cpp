#include "Qel/Loop/EventLoop.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

#include <array>
#include <cstring>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Qel/Loop/MonotonicClock.h"
#include "Qel/Loop/SimulatedClock.h"

namespace {

using Ledra::test::LiveInstanceCheck;
using Qel::Clock;
using Qel::EventLoop;
using Qel::kNever;
using Qel::SimulatedClock;
using Qel::Time;
using Strings = std::vector<std::string>;

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

// A non-blocking Unix-domain socket pair, closed at the end: send() writes to fd[1], receive()
// reads what arrived at fd[0].
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
  void send(char const* text) {
    ASSERT_EQ(::write(fd[1], text, std::strlen(text)), static_cast<ssize_t>(std::strlen(text)));
  }
  std::string receive() {
    char buf[256];
    ssize_t const n = ::read(fd[0], buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
  }
};

class EventLoopTest : public ::testing::Test, public LiveInstanceCheck {
 protected:
  // Logs "what@now".
  void note(std::string const& what) {
    std::ostringstream os;
    os << what << "@" << clock->now();
    log.push_back(os.str());
  }
  std::function<void()> noting(std::string const& what) {
    return [this, what] { note(what); };
  }

  SimulatedClock::Ptr clock = SimulatedClock::simulatedClockNew();
  EventLoop::Ptr loop = EventLoop::eventLoopNew(clock);
  Strings log;
};

// Tasks run before the time moves on; at the deadline, timers due then fire and the tasks they
// post still run, later timers do not.
TEST_F(EventLoopTest, RunUntilStopsAtTheDeadlineRunningWhatIsDueAtIt) {
  Timer poster(clock, [&] {
    loop->post([&] {
      note("task");
      loop->post(noting("chained"));
    });
  });
  Timer b(clock, noting("b")), now(clock, noting("now"));
  Timer a(clock, [&] {
    note("a");
    loop->post(noting("after a"));
  });
  poster.timeMinIs(2);
  a.timeMinIs(3);
  b.timeMinIs(3.5);
  EXPECT_FALSE(loop->runUntil([] { return false; }, 3));
  EXPECT_EQ(log, (Strings{"task@2", "chained@2", "a@3", "after a@3"}));
  EXPECT_EQ(clock->now(), 3);
  // Nothing before the deadline: the time jumps there.
  EXPECT_FALSE(loop->runUntil([] { return false; }, 3.25));
  EXPECT_EQ(clock->now(), 3.25);
  EXPECT_EQ(log.size(), 4u);
  // A timer due at the deadline still fires.
  now.timeMinIs(3.25);
  EXPECT_FALSE(loop->runUntil([] { return false; }, 3.25));
  EXPECT_EQ(log.back(), "now@3.25");
}

// Turn-end tasks run after everything else of their turn, whoever queued them; one queued by a
// turn-end task, or between turns, waits for the end of the next turn, and a turn that leaves
// turn-end work behind moves no simulated time before doing it.
TEST_F(EventLoopTest, TurnEndTasksRunLastInTheirTurnBeforeTheTimeMovesOn) {
  SocketPair sp;
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned) {
    note("read " + sp.receive());
    loop->atTurnEnd(noting("end of read"));
  });
  Timer due(clock, [&] {
    note("timer");
    loop->atTurnEnd(noting("end of timer"));
  });
  due.timeMinIs(0);
  loop->post([&] {
    note("task");
    loop->atTurnEnd([&] {
      note("end of task");
      loop->atTurnEnd(noting("end of next turn"));
    });
  });
  sp.send("x");
  loop->runOnce();
  EXPECT_EQ(log, (Strings{"task@0", "read x@0", "timer@0", "end of task@0", "end of read@0",
                          "end of timer@0"}));
  EXPECT_EQ(loop->tasks(), 1u);
  log.clear();
  loop->unwatch(sp.fd[0]);
  Timer later(clock, noting("later"));
  later.timeMinIs(1);
  loop->atTurnEnd(noting("between turns"));
  EXPECT_FALSE(loop->runUntil([] { return false; }, 2));
  EXPECT_EQ(log, (Strings{"end of next turn@0", "between turns@0", "later@1"}));
}

TEST_F(EventLoopTest, ALoopDroppedByItsOwnTaskLivesToTheEndOfTheTurn) {
  EventLoop* raw = loop.ptr();
  raw->post([&] {
    loop = nullptr;
    note("dropped");
  });
  raw->runOnce();
  EXPECT_EQ(log, (Strings{"dropped@0"}));
}

TEST_F(EventLoopTest, WritableAndHangupAreReported) {
  SocketPair sp;
  std::vector<unsigned> seen;
  loop->watch(sp.fd[0], EventLoop::writable, [&](unsigned ready) { seen.push_back(ready); });
  loop->runOnce();
  EXPECT_EQ(seen, (std::vector<unsigned>{EventLoop::writable}));
  seen.clear();
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned ready) { seen.push_back(ready); });
  ::shutdown(sp.fd[1], SHUT_WR);  // the peer's end of stream alone is a hangup
  loop->runOnce();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0] & (EventLoop::readable | EventLoop::hangup),
            EventLoop::readable | EventLoop::hangup);
}

TEST_F(EventLoopTest, AHandlerMayUnwatchItselfOrAnotherReadyDescriptor) {
  SocketPair a, b;
  auto handler = [&](unsigned) {
    note("handler");
    loop->unwatch(a.fd[0]);
    loop->unwatch(b.fd[0]);
  };
  loop->watch(a.fd[0], EventLoop::readable, handler);
  loop->watch(b.fd[0], EventLoop::readable, handler);
  a.send("x");
  b.send("y");
  loop->runOnce();
  loop->runOnce();
  // Both were ready in the same turn, but the first handler unwatched the second descriptor.
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(loop->watches(), 0u);
}

TEST_F(EventLoopTest, ATaskThatThrowsLeavesTheRestQueuedAndTheNextTurnMayStart) {
  std::vector<int> ran;
  loop->post([&] {
    ran.push_back(1);
    throw std::runtime_error("task failed");
  });
  loop->post([&] { ran.push_back(2); });
  EXPECT_THROW(loop->runOnce(), std::runtime_error);
  EXPECT_EQ(ran, std::vector<int>{1});
  loop->post([&] { ran.push_back(3); });
  loop->runOnce();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
}

TEST_F(EventLoopTest, WatchingAClosedDescriptorThrows) {
  int closed = -1;
  {
    SocketPair sp;
    closed = sp.fd[0];
  }
  EXPECT_THROW_TEXT(
      loop->watch(closed, EventLoop::readable, [](unsigned) {}), std::system_error,
      "cannot watch file descriptor " + std::to_string(closed) + ": Bad file descriptor");
  EXPECT_EQ(loop->watches(), 0u);
}

using EventLoopDeathTest = EventLoopTest;

TEST_F(EventLoopDeathTest, ATurnIsNeverStartedInsideATurn) {
  loop->post([&] { loop->runOnce(); });
  EXPECT_DEATH(loop->runOnce(), "\"event loop turn started inside a turn\"");
}

TEST_F(EventLoopDeathTest, ContractViolations) {
  EXPECT_DEATH(EventLoop::eventLoopNew(nullptr), "\"an event loop needs a clock\"");
  EXPECT_DEATH(loop->post({}), "\"posting an empty task\"");
  EXPECT_DEATH(loop->atTurnEnd({}), "\"queueing an empty turn-end task\"");
  EXPECT_DEATH(loop->watch(0, EventLoop::readable, {}),
               "\"watching a file descriptor without a handler\"");
  EXPECT_DEATH(loop->runFor(-1), "\"running an event loop for a negative time\"");
  EXPECT_DEATH(std::thread([&] { loop->runOnce(); }).join(),
               "\"event loop used from another thread\"");
  EXPECT_DEATH(std::thread([&] { loop->watch(0, EventLoop::readable, [](unsigned) {}); }).join(),
               "\"event loop used from another thread\"");
}

// The one test on real time: the loop blocks in epoll_wait and wakes for a socket; a turn-end
// task queued between turns does not wait, though the socket is silent and the timer 5 s away.
TEST(EventLoopRealClockTest, WakesForASocketAndNotForATurnEndTask) {
  LiveInstanceCheck check;
  auto loop = EventLoop::eventLoopNew(Qel::MonotonicClock::monotonicClockNew());
  SocketPair sp;
  std::string received;
  loop->watch(sp.fd[0], EventLoop::readable, [&](unsigned) { received += sp.receive(); });
  Time const start = loop->clock()->now();
  Timer timeout(loop->clock());
  timeout.timeMinIs(start + 5);
  bool ran = false;
  loop->atTurnEnd([&] { ran = true; });
  loop->runOnce();
  EXPECT_TRUE(ran);
  sp.send("ping");
  EXPECT_TRUE(loop->runUntil([&] { return !received.empty(); }, start + 5));
  EXPECT_EQ(received, "ping");
  EXPECT_LT(loop->clock()->now() - start, 5);
  loop->unwatch(sp.fd[0]);
}

}  // namespace
