// Qel::SimulatedClock: a clock whose time moves only when told to, for tests.
//
// now() starts at the time given at creation (0 by default) and changes only through nowIs(t) and
// advance(dt). Moving the time fires every timer due up to the target, in time order (equal times
// in arming order); while a timer fires, now() reads that timer's time (never less than the time
// before the move: a timer armed in the past fires at the present time). Timers armed while
// firing, for a time up to the target, fire in the same call. Afterwards now() is the target.
//
// Time never goes backwards, and it is not moved from inside one of its own timers: both are
// contract violations. nowIs(now()) (or advance(0)) fires what is already due. Single-threaded.
#pragma once

#include "Qel/Loop/Clock.h"

namespace Qel {

class QEL_API SimulatedClock final : public Clock {
 public:
  using Ptr = Qel::Ptr<SimulatedClock>;

  static Ptr simulatedClockNew(Time start = 0) { return Ptr(new SimulatedClock(start)); }

  Time now() const override { return now_; }

  // Moves the time to `t` (finite, not before now()), firing every timer due up to it.
  void nowIs(Time t);
  // nowIs(now() + dt).
  void advance(Time dt) { nowIs(now_ + dt); }

 private:
  explicit SimulatedClock(Time start);
  ~SimulatedClock() override = default;
  void firingTimeIs(Time t) override;

  Time now_;
  bool moving_ = false;
};

}  // namespace Qel
