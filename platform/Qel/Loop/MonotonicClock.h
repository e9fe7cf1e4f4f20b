// Qel::MonotonicClock: the real clock of the process.
//
// now() reads CLOCK_MONOTONIC: seconds since an arbitrary fixed point (the system's boot), never
// going backwards and unaffected by changes of the wall-clock time. All monotonic clocks of the
// process read the same time. Its timers fire when the event loop runs them (Clock::runDueTimers
// on every turn, sleeping in between until Clock::nextTimerTime()). Single-threaded like every
// clock.
#pragma once

#include "Qel/Loop/Clock.h"

namespace Qel {

class QEL_API MonotonicClock final : public Clock {
 public:
  using Ptr = Qel::Ptr<MonotonicClock>;

  static Ptr monotonicClockNew() { return Ptr(new MonotonicClock()); }

  Time now() const override;

 private:
  MonotonicClock() = default;
  ~MonotonicClock() override = default;
};

}  // namespace Qel
