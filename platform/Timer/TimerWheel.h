// Orn::TimerWheel: many cheap timers on one clock, at a resolution of one tick.
//
// A TimerWheel::Notifiee bound to a wheel (notifierIs) asks for a wake-up with timeMinIs(t) and
// receives onTime() at the first tick at or after t: never early, at most one tick late (plus the
// delay of the event loop on a real clock). kNever disarms. Ticks are counted from the wheel's
// creation: tick k is the time created + k * tick. Arming and disarming are O(1).
//
// Semantics, the same as for Clock::Notifiee:
//   - Re-arming replaces the previous arming. A wake-up is consumed when it fires: timeMin() reads
//     kNever again before onTime() is called, and onTime() may re-arm. A time at or before the
//     tick being fired (now(), say) fires at the next tick, never again within the same tick.
//   - Timers due at the same tick fire in the order they were armed (latest arming counts),
//     whatever their times within the tick; timers of different ticks fire in tick order.
//   - A notifiee switched off (hasNotificationActiveIs(false)) has its due wake-ups skipped:
//     consumed without a call of onTime().
//   - A notifiee holds a counted reference to its wheel, so the wheel lives while notifiees are
//     bound to it; a notifiee that dies or is bound elsewhere is removed from the wheel. Binding to
//     another wheel carries the armed time over; onNotifierIs() is called after every rebinding.
//
// Structure: a hierarchy of hashed wheels. Level 0 has `ticks` slots of one tick each (255 by
// default) and holds the timers of the current revolution of `ticks` ticks, each in the slot of
// its exact tick. Every further level has `bucketSize` slots (1024 by default), each covering a
// whole revolution of the level below (level 1: 255 ms per slot, 261 s in all; level 2: 261 s per
// slot, about 3 days; and so on, as many levels as needed to cover 2^62 ticks). A timer goes to the
// lowest level whose current span holds its tick. When time reaches a slot of a higher level, the
// slot's timers move to lower levels, keeping their order: a timer moves at most once per level it
// passes, so one armed for 10 s moves once and one armed for an hour at most twice. Because a level
// only ever receives timers of a span after the span above it has been emptied into it, every slot
// list stays in arming order and equal ticks fire in arming order even across levels. A slot of a
// higher level that holds a single timer is not emptied: that timer fires from where it waits once
// its tick is reached. Bitmaps of the non-empty slots find the next pending tick without visiting
// empty ones; when the clock has passed many ticks at once, the first level's slots are fired in
// one sweep over its bitmap.
//
// Driving: the wheel keeps one Clock::Notifiee armed for the tick of its earliest pending timer
// and processes every tick up to the clock's time when it fires. When that timer still waits on a
// higher level in a crowded slot (more than 8 timers), the wake-up is for the slot's start instead,
// where the slot's timers move down; a lone far timer (an hour ahead, say) costs one wake-up only.
// An idle wheel has no clock timer armed; a wheel whose timers were all cancelled may still be
// woken once, finds nothing and stays idle.
//
// Single-threaded, on the thread of the event loop that runs the clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Qel/Core/Api.h"
#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"
#include "Qel/Loop/Clock.h"
#include "Qel/Loop/WakeupNotifiee.h"

namespace Qel {
class QelType;
}

namespace Orn {

using Qel::kNever;
using Qel::Time;

class QEL_API TimerWheel : public Qel::RefCounted {
 public:
  using Ptr = Qel::Ptr<TimerWheel>;
  using PtrConst = Qel::Ptr<TimerWheel const>;
  class Notifiee;

  static constexpr Time kDefaultTick = 0.001;
  static constexpr std::uint32_t kDefaultTicks = 255;
  static constexpr std::uint32_t kDefaultBucketSize = 1024;

  // A wheel on `clock` with ticks of `tick` seconds (> 0), `ticks` (>= 2) one-tick slots on the
  // first level and `bucketSize` (>= 2) slots on every further level.
  static Ptr timerWheelNew(Qel::Clock::Ptr const& clock, Time tick = kDefaultTick,
                           std::uint32_t ticks = kDefaultTicks,
                           std::uint32_t bucketSize = kDefaultBucketSize);
  // A wheel with the default geometry on the process clock (ActivityManagerConfig).
  static Ptr timerWheelNew();

  Qel::Clock::Ptr const& clock() const { return clock_; }
  Time tick() const { return tick_; }
  std::uint32_t ticks() const { return levels_[0].slots; }
  std::uint32_t bucketSize() const { return bucketSize_; }
  std::size_t levels() const { return levels_.size(); }

  // The number of armed timers.
  std::size_t timers() const { return count_; }
  // The time for which the wheel's clock timer is armed; kNever when the wheel is idle.
  Time wakeTime() const { return driver_.timeMin(); }
  // The time of tick `k`.
  Time tickTime(std::uint64_t k) const { return origin_ + static_cast<Time>(k) * tick_; }

  // The wheel in the generic view, reached through pointers to it (Qel::BoxedPtr):
  // "Orn::TimerWheel" with tick, ticks, bucketSize, levels, timers and wakeTime, printed as
  // "Orn::TimerWheel(tick 0.001, ticks 255, bucketSize 1024)".
  static Qel::QelType const* staticType();
  Qel::String text() const;

 private:
  // The links of a timer in the circular list of its slot.
  struct Link {
    Link* prev = this;
    Link* next = this;
    bool empty() const { return next == this; }
  };
  struct Level {
    std::uint64_t span = 1;   // ticks per slot
    std::uint32_t slots = 0;  // number of slots
    std::uint64_t base = 0;   // first tick of the level's current span
    std::uint32_t cur = 0;    // the slot that holds the present tick
    std::uint64_t limit = 0;  // end (exclusive) of the current span; beyond: a higher level
    std::unique_ptr<Link[]> heads;
    std::vector<std::uint64_t> bits;  // the non-empty slots
  };
  class Driver : public Qel::Clock::Notifiee {
   public:
    explicit Driver(TimerWheel* w) : wheel_(w) {}
    void onTime() override { wheel_->onClockTime(); }

   private:
    TimerWheel* wheel_;
  };
  friend class Notifiee;

  static constexpr std::uint64_t kMaxTick = std::uint64_t(1) << 62;
  static constexpr std::uint64_t kNoTick = ~std::uint64_t(0);
  static constexpr std::uint8_t kUnarmed = 0xff;
  // Up to this many timers in a slot of a higher level, the wake-up is for the earliest of them.
  static constexpr int kExactWakeScan = 8;

  TimerWheel(Qel::Clock::Ptr clock, Time tick, std::uint32_t ticks, std::uint32_t bucketSize);
  ~TimerWheel() override;

  // The first tick at or after `t`; the last tick at or before `t`.
  std::uint64_t tickAtOrAfter(Time t) const;
  std::uint64_t tickAtOrBefore(Time t) const;

  void insert(Notifiee* n);
  void cancel(Notifiee* n);
  void place(Notifiee* n);
  // The notifiee of a slot list's link, never null (no check for it on the hot paths).
  static Notifiee* notifieeOf(Link* l);
  static void append(Link& head, Link* l);
  static void unlink(Link* l);
  static bool nextSet(Level const& l, std::uint32_t from, std::uint32_t& slot);
  // The lowest level with a pending slot, and that slot; false when the wheel is empty.
  bool earliest(std::size_t& level, std::uint32_t& slot) const;
  // The same above the first level.
  bool earliestAbove(std::size_t& level, std::uint32_t& slot) const;
  std::uint64_t slotStart(std::size_t level, std::uint32_t slot) const;
  // Moves the present tick to the start of `slot` of `level` (the levels below then cover the
  // slot's span) and clears the slot's bit.
  void openSlot(std::size_t level, std::uint32_t slot);
  // Opens `slot` of `level` and empties it one level down.
  void cascade(std::size_t level, std::uint32_t slot);
  // Fires the timers of a first-level slot (one tick) in order, the slot's bit cleared once it is
  // empty; timers a callback arms are never due in the same tick.
  void fireSlot(std::uint32_t slot);
  // Fires the first level's slots up to `last`; true with the first slot beyond it when there is
  // one, false when the level has no pending slot left.
  [[gnu::noinline]] bool firstLevelDue(std::uint64_t last, std::uint32_t& slot);
  // Processes every tick up to `last`; true with the earliest pending slot when timers remain.
  bool advanceTo(std::uint64_t last, std::size_t& level, std::uint32_t& slot);
  void onClockTime();
  // Arms the driver for the earliest pending timer: armDriverFor when that slot is known.
  void armDriver();
  void armDriverFor(bool pending, std::size_t level, std::uint32_t slot);

  Qel::Clock::Ptr clock_;
  Time const tick_;
  Time const invTick_;
  Time const origin_;
  std::uint32_t const bucketSize_;
  std::vector<Level> levels_;
  std::uint64_t next_ = 0;  // the first tick not yet processed
  std::size_t count_ = 0;
  std::uint64_t armedTick_ = kNoTick;
  bool processing_ = false;
  Driver driver_;
};

class QEL_API TimerWheel::Notifiee : public Qel::WakeupNotifiee<TimerWheel, TimerWheel::Notifiee>,
                                     private TimerWheel::Link {
 public:
  Notifiee() = default;
  ~Notifiee() override { leave(); }

 private:
  friend class TimerWheel;
  friend class Qel::WakeupNotifiee<TimerWheel, TimerWheel::Notifiee>;

  bool qelQueued() const { return level_ != kUnarmed; }
  void qelEnqueue();
  void qelDequeue();

  std::uint64_t tick_ = 0;
  std::uint32_t slot_ = 0;
  std::uint8_t level_ = kUnarmed;
};

}  // namespace Orn
