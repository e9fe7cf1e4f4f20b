// Qel::Clock: time in seconds, and timers on it.
//
// now() gives the clock's time (Qel::Time, seconds as a double). A clock also keeps timers:
// a Clock::Notifiee bound to the clock (notifierIs) asks for a wake-up with timeMinIs(t) and is
// called back with onTime() once the clock has reached t. Every timer of the process runs on the
// clock it is given, so the same code runs on the real MonotonicClock and on the SimulatedClock
// that tests advance by hand.
//
// Timers:
//   - timeMinIs(t) arms the notifiee for time t, replacing any earlier arming; kNever disarms it.
//     A time at or before now() fires at the next opportunity (it is due at once).
//   - A wake-up is consumed when it fires: timeMin() reads kNever again before onTime() is
//     called, so onTime() may re-arm the notifiee, for any time, including now().
//   - Due timers fire in time order; timers of equal time fire in the order they were armed
//     (the latest arming counts).
//   - A notifiee switched off (hasNotificationActiveIs(false)) still holds its time, but when that
//     time comes the wake-up is simply skipped: it is consumed without calling onTime(), and it is
//     not delivered later when the notifiee is switched on again.
//   - A notifiee holds a counted reference to its clock, so a clock never dies while notifiees are
//     bound to it; a notifiee that dies (or is bound elsewhere) is removed from its clock's timers.
//     Binding to another clock carries the armed time over to that clock.
//
// Who fires the timers: the clock itself does not run; runDueTimers() fires every timer due at
// now(). The event loop calls it on every turn and sleeps until nextTimerTime(); a simulated clock
// fires timers itself as tests move its time (SimulatedClock::nowIs).
//
// Single-threaded: a clock, its timers and its notifiees belong to the thread of the event loop.
// Arming and disarming cost O(log n) in the number of armed timers of the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Qel/Core/Api.h"
#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"
#include "Qel/Loop/WakeupNotifiee.h"

namespace Qel {

class QEL_API Clock : public RefCounted {
 public:
  using Ptr = Qel::Ptr<Clock>;
  using PtrConst = Qel::Ptr<Clock const>;
  class Notifiee;

  // The clock's time, in seconds.
  virtual Time now() const = 0;

  // The earliest time for which a timer is armed (including switched-off ones); kNever when none.
  Time nextTimerTime() const;
  // The number of armed timers.
  std::size_t timers() const { return heap_.size(); }

  // Fires, in time order, every timer armed for a time at or before now() (read once); timers
  // armed meanwhile for a time up to that point fire in the same call.
  void runDueTimers() { fireUpTo(now()); }

 protected:
  Clock() = default;
  ~Clock() override;

  // Fires the timers due at or before `target`, in order, one at a time.
  void fireUpTo(Time target);
  // Called just before the timer armed for `t` fires; a simulated clock shows t as now().
  virtual void firingTimeIs(Time /*t*/) {}

 private:
  friend class Notifiee;
  static constexpr std::size_t kNotQueued = static_cast<std::size_t>(-1);

  void timerAdd(Notifiee* n) const;
  void timerDel(Notifiee* n) const;
  static bool before(Notifiee const* a, Notifiee const* b);
  void place(std::size_t i, Notifiee* n) const;
  void siftUp(std::size_t i) const;
  void siftDown(std::size_t i) const;

  // A binary min-heap of the armed notifiees, ordered by (time, arming sequence); each notifiee
  // knows its position, so that disarming is a removal from the middle.
  mutable std::vector<Notifiee*> heap_;
  mutable std::uint64_t nextSeq_ = 0;
};

class QEL_API Clock::Notifiee : public WakeupNotifiee<Clock, Clock::Notifiee> {
 public:
  Notifiee() = default;
  ~Notifiee() override { leave(); }

 private:
  friend class Clock;
  friend class WakeupNotifiee<Clock, Clock::Notifiee>;

  bool qelQueued() const { return heapIndex_ != kNotQueued; }
  void qelEnqueue();
  void qelDequeue();

  std::uint64_t seq_ = 0;
  std::size_t heapIndex_ = kNotQueued;
};

// The process clock's time: ActivityManagerConfig::instance()->clock()->now().
QEL_API Time now();

}  // namespace Qel
