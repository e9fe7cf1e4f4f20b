// Qel::EventLoop: the single-threaded event loop of the process.
//
// The loop runs four kinds of work, all on the thread that created it:
//   - posted tasks: post(task) queues a task for a later turn. A task posted during a turn (by a
//     task, a file-descriptor handler or a timer) runs on the next turn, never re-entrantly; tasks
//     run in the order they were posted.
//   - turn-end tasks: atTurnEnd(task) queues a task for the end of the present turn, after its
//     timers, so that work gathered over a turn (e.g. the output of a connection) is done once
//     per turn with everything the turn added to it. They run in the order queued. One queued
//     between turns, or by a turn-end task, runs at the end of the next turn.
//   - timers of its clock: the loop calls Clock::runDueTimers() on every turn.
//   - file-descriptor readiness (epoll, level-triggered): watch(fd, interest, handler) calls the
//     handler on every turn in which the descriptor is ready; unwatch(fd) stops it. A handler may
//     watch or unwatch any descriptor, its own included (the running handler object stays alive
//     until the turn's dispatch ends, and no handler is called after its descriptor was
//     unwatched). The loop never closes descriptors it watches.
//
// One turn (runOnce): run the tasks posted before the turn began; wait for descriptor readiness
// and dispatch it; fire the clock's due timers; run the turn-end tasks queued so far. The wait
// does not block when tasks of either kind are queued or the clock is simulated; otherwise it
// blocks in epoll_wait until the clock's next
// timer (Clock::nextTimerTime(), rounded up to whole milliseconds, so never early) or a descriptor
// event, whichever comes first. Timers are armed on the loop's own thread, between turns or during
// them, so the next wait always sees the current earliest timer: no wake-up channel is needed.
//
// How the loop and the clock cooperate:
//   - On a real clock (MonotonicClock) time passes by itself: the loop sleeps in epoll_wait until
//     the next timer is due and then fires it.
//   - On a SimulatedClock the loop never sleeps. runUntil() and runFor() advance the simulated
//     time from timer to timer: at the end of a turn in which no task was queued for the next turn
//     or its end and no descriptor delivered an event, the clock moves to the next timer's time
//     (SimulatedClock::nowIs fires it and any timer of the same time), so callbacks see now()
//     equal to the time they were armed for. Descriptor I/O thus takes no simulated time: an
//     exchange over a socket pair completes before the next timer fires. (A handler that leaves
//     its descriptor ready without consuming it therefore stops simulated time.) run() does the
//     same without a deadline. runOnce() does not move simulated time: it fires only what is due.
//
// runUntil(predicate, deadline) runs turns until the predicate holds (checked before the first
// turn and after each, and on a simulated clock also before the time moves on, so that a
// predicate made true by a descriptor handler stops the loop at that time) and returns true, or
// until the deadline passes and returns false. On a simulated clock it stops at the deadline
// exactly: timers due at the deadline fire, later ones do not, and now() reads the deadline
// afterwards; when nothing is left to do before the deadline the time jumps there. On a real
// clock it blocks at most until the deadline.
// run() runs until stop() is called (by a task, handler or timer) or nothing is left that could
// ever wake the loop: no task of either kind queued, no timer armed and, on a real clock, no
// descriptor watched
// (on a simulated clock: no watched descriptor was ready in the last turn).
//
// One loop per process, used from one thread; a turn is never started from inside a turn (a
// contract violation). Exceptions thrown by callbacks propagate out of the running call; tasks not
// yet run stay queued.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Qel/Core/Api.h"
#include "Qel/Core/Ptr.h"
#include "Qel/Loop/Clock.h"

namespace Qel {

class SimulatedClock;

class QEL_API EventLoop : public RefCounted {
 public:
  using Ptr = Qel::Ptr<EventLoop>;
  using Task = std::function<void()>;

  // Interest and readiness of a file descriptor (bit set).
  enum Io : unsigned {
    readable = 1u << 0,
    writable = 1u << 1,
    hangup = 1u << 2,  // reported only, whatever the interest
    error = 1u << 3,   // reported only, whatever the interest
  };
  // Called with the readiness (a set of Io bits) of the watched descriptor.
  using FdHandler = std::function<void(unsigned ready)>;

  // A loop on `clock`; without one, on the process clock (ActivityManagerConfig).
  static Ptr eventLoopNew(Clock::Ptr const& clock);
  static Ptr eventLoopNew();

  Clock::Ptr const& clock() const { return clock_; }

  // Queues `task` for the next turn.
  void post(Task task);
  // Queues `task` for the end of the present turn (between turns or from a turn-end task: of the
  // next turn); see the header comment.
  void atTurnEnd(Task task);
  // Tasks of either kind queued and not yet run.
  std::size_t tasks() const {
    return ready_.size() + posted_.size() + turnEndReady_.size() + turnEnd_.size();
  }

  // Watches `fd` for `interest` (readable and/or writable), replacing an earlier watch of `fd`.
  // Throws std::system_error when the descriptor cannot be watched (e.g. not open).
  void watch(int fd, unsigned interest, FdHandler handler);
  // Stops watching `fd`; nothing when it is not watched.
  void unwatch(int fd);
  bool watching(int fd) const { return watches_.count(fd) != 0; }
  std::size_t watches() const { return watches_.size(); }

  // One turn; see the header comment.
  void runOnce();
  // Whether a turn is running: the caller is one of its tasks, handlers or timers.
  bool inTurn() const { return inTurn_; }
  // Turns until stop() or until nothing is left to do.
  void run();
  // Makes run() return after the present turn.
  void stop() { stopRequested_ = true; }
  // Turns until pred() holds (true) or the clock passes `deadline` (false).
  bool runUntil(std::function<bool()> const& pred, Time deadline);
  // Turns until the clock has advanced by `dt`.
  void runFor(Time dt);

 private:
  struct Watch {
    int fd;
    FdHandler handler;
    bool live = true;
  };

  explicit EventLoop(Clock::Ptr clock);
  ~EventLoop() override;

  // One turn. A real clock waits at most until `limit`. A simulated clock, when `stopIf` is given,
  // no task is queued and stopIf() does not hold yet, moves to its next timer or to `limit`,
  // whichever is earlier.
  void turn(Time limit, std::function<bool()> const* stopIf);
  int waitMillis(Time limit) const;
  void dispatch(int timeoutMs);
  void runTurnEnd();
  void retire(std::unique_ptr<Watch> w);

  Clock::Ptr clock_;
  SimulatedClock* simulated_;  // clock_ when it is a simulated clock
  int epollFd_;
  std::deque<Task> ready_;         // tasks of the present turn
  std::deque<Task> posted_;        // tasks for the next turn
  std::deque<Task> turnEndReady_;  // turn-end tasks being run
  std::deque<Task> turnEnd_;       // turn-end tasks for the end of the present (or next) turn
  std::unordered_map<int, std::unique_ptr<Watch>> watches_;
  std::vector<std::unique_ptr<Watch>> retired_;  // unwatched during a dispatch
  std::size_t dispatched_ = 0;                   // descriptor events of the last turn
  bool dispatching_ = false;
  bool inTurn_ = false;
  bool stopRequested_ = false;
  std::thread::id thread_;
};

}  // namespace Qel
