// JumpClock: a clock moved by hand that fires its due timers only when told, as the event loop
// does after a turn: its time may jump past many ticks of a timer wheel at once, and every timer
// due by then fires with now() at the new time (unlike SimulatedClock, which stops at each one).
#pragma once

#include "Qel/Loop/Clock.h"

namespace Ledra::test {

class JumpClock final : public Qel::Clock {
 public:
  using Ptr = Qel::Ptr<JumpClock>;
  static Ptr jumpClockNew() { return Ptr(new JumpClock); }
  Qel::Time now() const override { return now_; }
  // Moves the time to `t`, then fires every timer due by it.
  void nowIs(Qel::Time t) {
    now_ = t;
    runDueTimers();
  }

 private:
  ~JumpClock() override = default;
  Qel::Time now_ = 0;
};

}  // namespace Ledra::test
