// WakeupNotifiee<Owner, Self>: what every timer notifiee shares, whoever keeps its timers (a
// Clock, a TimerWheel). A notifiee is bound to its owner with notifierIs (it holds a counted
// reference), asks for a wake-up with timeMinIs(t) (kNever disarms; re-arming replaces the
// previous time, also from inside onTime()), and receives onTime() when the owner reaches t. An
// armed time moves with the notifiee to a new owner. While switched off, due wake-ups are skipped
// (consumed without a call of onTime()). Single-threaded.
//
// Self (the concrete notifiee) tells whether it is queued (qelQueued()) and queues and dequeues
// itself at its owner (qelEnqueue(), qelDequeue()); Self's destructor must dequeue itself, since
// Self's queue position is gone by the time this base is destroyed.
#pragma once

#include <cmath>
#include <utility>

#include "Check/Check.h"
#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"

namespace Qel {

template <class Owner, class Self>
class WakeupNotifiee {
 public:
  using OwnerPtr = Ptr<Owner const>;

  WakeupNotifiee(WakeupNotifiee const&) = delete;
  WakeupNotifiee& operator=(WakeupNotifiee const&) = delete;

  OwnerPtr const& notifier() const { return owner_; }
  // Binds this notifiee to `o` (may be null); an armed time moves to the new owner.
  void notifierIs(OwnerPtr const& o) {
    if (o == owner_) return;
    leave();
    // Keep the old owner alive until this notifiee has left it.
    OwnerPtr old = std::exchange(owner_, o);
    join();
    old = nullptr;
    onNotifierIs();
  }

  // The armed time, kNever when disarmed.
  Time timeMin() const { return time_; }
  // Arms the wake-up for `t` (kNever disarms). Without an owner the time is kept and armed when
  // the notifiee is bound to one. `t` must not be NaN.
  void timeMinIs(Time t) {
    QEL_CHECK(!std::isnan(t), "!std::isnan(t) && \"timer armed for a time that is not a number\"");
    leave();
    time_ = t;
    join();
  }

  bool notificationActive() const { return active_; }
  void hasNotificationActiveIs(bool on) { active_ = on; }

  // The owner reached the armed time.
  virtual void onTime() {}

 protected:
  WakeupNotifiee() = default;
  virtual ~WakeupNotifiee() = default;

  // Called after notifierIs bound this notifiee to another owner (possibly null).
  virtual void onNotifierIs() {}

  // The owner's timers are not part of its read-only view: a Ptr<Owner const> arms them.
  Owner* owner() const { return const_cast<Owner*>(owner_.ptr()); }
  void leave() {
    if (self().qelQueued()) self().qelDequeue();
  }

  OwnerPtr owner_;
  Time time_ = kNever;
  bool active_ = true;

 private:
  Self& self() { return static_cast<Self&>(*this); }
  void join() {
    if (owner_ && time_ != kNever) self().qelEnqueue();
  }
};

}  // namespace Qel
