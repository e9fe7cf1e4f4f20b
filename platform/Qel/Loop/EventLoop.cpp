#include "Qel/Loop/EventLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <iterator>
#include <system_error>
#include <utility>

#include "Check/Check.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Loop/SimulatedClock.h"

namespace Qel {

namespace {

constexpr int kMaxEvents = 64;

// Runs the tasks queued in `queued` so far, in order, through `running`; those queued while they
// run wait in `queued` for the next call.
template <class Task>
void runQueued(std::deque<Task>& queued, std::deque<Task>& running) {
  std::move(queued.begin(), queued.end(), std::back_inserter(running));
  queued.clear();
  while (!running.empty()) {
    Task task = std::move(running.front());
    running.pop_front();
    task();
  }
}

std::uint32_t epollInterest(unsigned interest) {
  std::uint32_t ev = 0;
  if (interest & EventLoop::readable) ev |= EPOLLIN | EPOLLRDHUP;
  if (interest & EventLoop::writable) ev |= EPOLLOUT;
  return ev;
}

unsigned readiness(std::uint32_t ev) {
  unsigned r = 0;
  if (ev & EPOLLIN) r |= EventLoop::readable;
  if (ev & EPOLLOUT) r |= EventLoop::writable;
  if (ev & (EPOLLHUP | EPOLLRDHUP)) r |= EventLoop::hangup;
  if (ev & EPOLLERR) r |= EventLoop::error;
  return r;
}

struct FlagGuard {
  bool& flag;
  explicit FlagGuard(bool& f) : flag(f) { flag = true; }
  ~FlagGuard() { flag = false; }
};

}  // namespace

EventLoop::Ptr EventLoop::eventLoopNew(Clock::Ptr const& clock) {
  return Ptr(new EventLoop(clock));
}

EventLoop::Ptr EventLoop::eventLoopNew() {
  return eventLoopNew(ActivityManagerConfig::instance()->clock());
}

EventLoop::EventLoop(Clock::Ptr clock)
    : clock_(std::move(clock)),
      simulated_(dynamic_cast<SimulatedClock*>(clock_.ptr())),
      epollFd_(epoll_create1(EPOLL_CLOEXEC)),
      thread_(std::this_thread::get_id()) {
  QEL_CHECK(clock_, "clock_ && \"an event loop needs a clock\"");
  if (epollFd_ < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

EventLoop::~EventLoop() {
  // Tasks still queued may hold objects that unwatch their descriptors as they go: they go while
  // the loop is whole.
  std::deque<Task>().swap(ready_);
  std::deque<Task>().swap(posted_);
  std::deque<Task>().swap(turnEndReady_);
  std::deque<Task>().swap(turnEnd_);
  ::close(epollFd_);
}

void EventLoop::post(Task task) {
  QEL_CHECK(task, "task && \"posting an empty task\"");
  posted_.push_back(std::move(task));
}

void EventLoop::atTurnEnd(Task task) {
  QEL_CHECK(task, "task && \"queueing an empty turn-end task\"");
  turnEnd_.push_back(std::move(task));
}

void EventLoop::watch(int fd, unsigned interest, FdHandler handler) {
  QEL_CHECK(fd >= 0, "fd >= 0 && \"watching a negative file descriptor\"");
  QEL_CHECK(handler, "handler && \"watching a file descriptor without a handler\"");
  QEL_CHECK(std::this_thread::get_id() == thread_,
            "std::this_thread::get_id() == thread_ && \"event loop used from another thread\"");
  auto w = std::make_unique<Watch>(Watch{fd, std::move(handler)});
  epoll_event ev{};
  ev.events = epollInterest(interest);
  ev.data.ptr = w.get();
  auto it = watches_.find(fd);
  int rc = -1;
  if (it != watches_.end()) {
    rc = epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &ev);
    // The descriptor was closed (and its number reused) without an unwatch: register it anew.
    if (rc != 0 && errno == ENOENT) rc = epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev);
  } else {
    rc = epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev);
  }
  if (rc != 0) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot watch file descriptor " + std::to_string(fd));
  }
  if (it == watches_.end()) {
    watches_.emplace(fd, std::move(w));
    return;
  }
  retire(std::exchange(it->second, std::move(w)));
}

void EventLoop::unwatch(int fd) {
  auto it = watches_.find(fd);
  if (it == watches_.end()) return;
  // Fails harmlessly when the descriptor was closed already: the kernel dropped it then.
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  std::unique_ptr<Watch> w = std::move(it->second);
  watches_.erase(it);
  retire(std::move(w));
}

void EventLoop::retire(std::unique_ptr<Watch> w) {
  w->live = false;
  // A handler being dispatched may be the one retired: it stays alive until the dispatch ends.
  if (dispatching_) retired_.push_back(std::move(w));
}

void EventLoop::runOnce() {
  turn(kNever, nullptr);
}

void EventLoop::run() {
  runUntil([this] { return stopRequested_; }, kNever);
  stopRequested_ = false;
}

void EventLoop::runFor(Time dt) {
  QEL_CHECK(dt >= 0, "dt >= 0 && \"running an event loop for a negative time\"");
  runUntil([] { return false; }, clock_->now() + dt);
}

bool EventLoop::runUntil(std::function<bool()> const& pred, Time deadline) {
  // On a simulated clock, watched descriptors keep the loop going while they deliver events.
  bool descriptorsQuiet = watches_.empty();
  while (!pred()) {
    bool const tasksQueued = tasks() != 0;
    Time const now = clock_->now();
    Time const next = clock_->nextTimerTime();
    if (simulated_) {
      // At the deadline, turns go on only for work that is due now.
      if (now >= deadline && !tasksQueued && next > now) return false;
      if (deadline == kNever && !tasksQueued && next == kNever && descriptorsQuiet) return false;
    } else {
      if (now >= deadline) return false;
      if (deadline == kNever && !tasksQueued && next == kNever && watches_.empty()) return false;
    }
    turn(deadline, &pred);
    descriptorsQuiet = watches_.empty() || dispatched_ == 0;
  }
  return true;
}

int EventLoop::waitMillis(Time limit) const {
  if (simulated_ || tasks() != 0) return 0;
  Time const until = std::min(clock_->nextTimerTime(), limit);
  if (until == kNever) return watches_.empty() ? 0 : -1;
  Time const dt = until - clock_->now();
  if (dt <= 0) return 0;
  double const ms = std::ceil(dt * 1000.0);
  return ms >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<int>(ms);
}

void EventLoop::turn(Time limit, std::function<bool()> const* stopIf) {
  QEL_CHECK(std::this_thread::get_id() == thread_,
            "std::this_thread::get_id() == thread_ && \"event loop used from another thread\"");
  QEL_CHECK(!inTurn_, "!inTurn_ && \"event loop turn started inside a turn\"");
  // A callback may drop the last reference to the loop: it dies after the turn's guard is reset.
  Ptr keepAlive(refCount() > 0 ? this : nullptr);
  FlagGuard inTurn(inTurn_);

  // Tasks posted before this turn; those they post wait for the next one.
  runQueued(posted_, ready_);

  int const timeoutMs = waitMillis(limit);
  dispatched_ = 0;
  if (!watches_.empty() || timeoutMs != 0) dispatch(timeoutMs);

  // Simulated time stands still while tasks wait or descriptors deliver events: I/O between
  // processes on one simulated clock takes no time, and output a turn-end task writes is read
  // before the time moves on.
  if (simulated_ && stopIf && posted_.empty() && turnEnd_.empty() && dispatched_ == 0 &&
      !(*stopIf)()) {
    Time const target = std::min(clock_->nextTimerTime(), limit);
    if (target != kNever && target > simulated_->now()) {
      simulated_->nowIs(target);
      runTurnEnd();
      return;
    }
  }
  clock_->runDueTimers();
  runTurnEnd();
}

void EventLoop::runTurnEnd() {
  // Those queued from here on run at the end of the next turn.
  runQueued(turnEnd_, turnEndReady_);
}

void EventLoop::dispatch(int timeoutMs) {
  epoll_event events[kMaxEvents];
  int const n = epoll_wait(epollFd_, events, kMaxEvents, timeoutMs);
  dispatched_ = n > 0 ? static_cast<std::size_t>(n) : 0;
  if (n < 0) {
    if (errno == EINTR) return;
    throw std::system_error(errno, std::generic_category(), "epoll_wait");
  }
  FlagGuard dispatching(dispatching_);
  struct Cleanup {
    std::vector<std::unique_ptr<Watch>>& retired;
    ~Cleanup() { retired.clear(); }
  } cleanup{retired_};
  for (int i = 0; i < n; ++i) {
    auto* w = static_cast<Watch*>(events[i].data.ptr);
    if (!w->live) continue;
    w->handler(readiness(events[i].events));
  }
}

}  // namespace Qel
