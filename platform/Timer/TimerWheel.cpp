#include "Timer/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <utility>

#include "Check/Check.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Reflection/TypeBuilder.h"

// The helpers of the hot paths (arming, disarming, firing) are inline: they are used only here,
// and an inline definition lets the compiler inline them although the library is built
// position-independent.

namespace Orn {

TimerWheel::Ptr TimerWheel::timerWheelNew(Qel::Clock::Ptr const& clock, Time tick,
                                          std::uint32_t ticks, std::uint32_t bucketSize) {
  QEL_CHECK(clock, "clock && \"a timer wheel needs a clock\"");
  QEL_CHECK(tick > 0 && std::isfinite(tick),
            "tick > 0 && std::isfinite(tick) && \"a timer wheel needs a positive tick\"");
  QEL_CHECK(ticks >= 2, "ticks >= 2 && \"a timer wheel needs at least two ticks\"");
  QEL_CHECK(bucketSize >= 2,
            "bucketSize >= 2 && \"a timer wheel needs buckets of at least two slots\"");
  return Ptr(new TimerWheel(clock, tick, ticks, bucketSize));
}

TimerWheel::Ptr TimerWheel::timerWheelNew() {
  return timerWheelNew(Qel::ActivityManagerConfig::instance()->clock());
}

TimerWheel::TimerWheel(Qel::Clock::Ptr clock, Time tick, std::uint32_t ticks,
                       std::uint32_t bucketSize)
    : clock_(std::move(clock)),
      tick_(tick),
      invTick_(1 / tick),
      origin_(clock_->now()),
      bucketSize_(bucketSize),
      driver_(this) {
  // Level k covers `covered` ticks in all; add levels until every tick up to kMaxTick fits.
  std::uint64_t covered = ticks;
  levels_.emplace_back();
  levels_.back().slots = ticks;
  levels_.back().limit = ticks;
  while (covered <= kMaxTick) {
    Level& l = levels_.emplace_back();
    l.span = covered;
    l.slots = bucketSize;
    covered = covered > kMaxTick / bucketSize ? kNoTick : covered * bucketSize;
    l.limit = covered;
  }
  levels_.back().limit = kNoTick;
  for (Level& l : levels_)
    l.bits.assign((l.slots + 63) / 64, 0);
  driver_.notifierIs(clock_);
}

TimerWheel::~TimerWheel() {
  // Armed notifiees hold a reference, so none can be left.
  QEL_CHECK(count_ == 0, "count_ == 0 && \"timer wheel destroyed with armed timers\"");
}

inline std::uint64_t TimerWheel::tickAtOrAfter(Time t) const {
  Time const x = (t - origin_) * invTick_;
  if (!(x > 0)) return 0;
  if (x >= static_cast<Time>(kMaxTick)) return kMaxTick;
  // x is positive: the conversion truncates, which is floor(); one more for ceil().
  auto k = static_cast<std::uint64_t>(x);
  if (static_cast<Time>(k) < x) ++k;
  // Correct the rounding of the division so that tickTime(k) is the first tick time >= t.
  if (tickTime(k) < t) return k + 1;
  if (k > 0 && tickTime(k - 1) >= t) return k - 1;
  return k;
}

inline std::uint64_t TimerWheel::tickAtOrBefore(Time t) const {
  Time const x = (t - origin_) * invTick_;
  if (!(x > 0)) return 0;
  if (x >= static_cast<Time>(kMaxTick)) return kMaxTick;
  auto k = static_cast<std::uint64_t>(x);
  if (tickTime(k + 1) <= t) return k + 1;
  if (k > 0 && tickTime(k) > t) return k - 1;
  return k;
}

inline TimerWheel::Notifiee* TimerWheel::notifieeOf(Link* l) {
  if (!l) __builtin_unreachable();
  return static_cast<Notifiee*>(l);
}

inline void TimerWheel::append(Link& head, Link* l) {
  l->prev = head.prev;
  l->next = &head;
  head.prev->next = l;
  head.prev = l;
}

inline void TimerWheel::unlink(Link* l) {
  l->prev->next = l->next;
  l->next->prev = l->prev;
  l->prev = l;
  l->next = l;
}

inline void TimerWheel::place(Notifiee* n) {
  std::uint64_t const t = n->tick_;
  std::size_t k = 0;
  while (t >= levels_[k].limit)
    ++k;
  Level& l = levels_[k];
  auto const s = static_cast<std::uint32_t>(k == 0 ? t - l.base : (t - l.base) / l.span);
  if (!l.heads) l.heads.reset(new Link[l.slots]);
  append(l.heads[s], n);
  l.bits[s >> 6] |= std::uint64_t(1) << (s & 63);
  n->level_ = static_cast<std::uint8_t>(k);
  n->slot_ = s;
}

inline void TimerWheel::insert(Notifiee* n) {
  n->tick_ = std::max(tickAtOrAfter(n->time_), next_);
  place(n);
  ++count_;
  if (processing_ || n->tick_ >= armedTick_) return;
  armedTick_ = n->tick_;
  driver_.timeMinIs(tickTime(armedTick_));
}

inline void TimerWheel::cancel(Notifiee* n) {
  unlink(n);
  Level& l = levels_[n->level_];
  if (l.heads[n->slot_].empty()) l.bits[n->slot_ >> 6] &= ~(std::uint64_t(1) << (n->slot_ & 63));
  n->level_ = kUnarmed;
  --count_;
}

inline bool TimerWheel::nextSet(Level const& l, std::uint32_t from, std::uint32_t& slot) {
  // A level never used has no slot lists: no need to scan its empty bitmap.
  if (from >= l.slots || !l.heads) return false;
  std::size_t w = from >> 6;
  std::uint64_t word = l.bits[w] & (~std::uint64_t(0) << (from & 63));
  while (true) {
    if (word) {
      slot = static_cast<std::uint32_t>(w * 64 + static_cast<std::size_t>(__builtin_ctzll(word)));
      return true;
    }
    if (++w >= l.bits.size()) return false;
    word = l.bits[w];
  }
}

inline bool TimerWheel::earliest(std::size_t& level, std::uint32_t& slot) const {
  // Level k holds only ticks beyond the current slot of level k (level 0: from it on) and within
  // the current slot of level k + 1, so the lowest level with a pending slot holds the earliest.
  level = 0;
  if (nextSet(levels_[0], levels_[0].cur, slot)) return true;
  return earliestAbove(level, slot);
}

inline bool TimerWheel::earliestAbove(std::size_t& level, std::uint32_t& slot) const {
  for (std::size_t k = 1; k < levels_.size(); ++k) {
    if (!nextSet(levels_[k], levels_[k].cur + 1, slot)) continue;
    level = k;
    return true;
  }
  return false;
}

inline std::uint64_t TimerWheel::slotStart(std::size_t level, std::uint32_t slot) const {
  Level const& l = levels_[level];
  return l.base + slot * l.span;
}

inline void TimerWheel::openSlot(std::size_t level, std::uint32_t slot) {
  std::uint64_t const start = slotStart(level, slot);
  levels_[level].cur = slot;
  for (std::size_t i = 0; i < level; ++i) {
    levels_[i].base = start;
    levels_[i].cur = 0;
    levels_[i].limit = start + levels_[i + 1].span;
  }
  next_ = std::max(next_, start);
  Level& l = levels_[level];
  l.bits[slot >> 6] &= ~(std::uint64_t(1) << (slot & 63));
}

void TimerWheel::cascade(std::size_t level, std::uint32_t slot) {
  openSlot(level, slot);
  Link& head = levels_[level].heads[slot];
  Link* p = head.next;
  head.next = &head;
  head.prev = &head;
  // Every timer of the slot lies within the span just opened, so it lands on a lower level; each
  // one's links are rewritten by its append, so the next one is read first.
  if (level > 1) {
    while (p != &head) {
      Link* const next = p->next;
      place(notifieeOf(p));
      p = next;
    }
    return;
  }
  // From the second level, every timer lands on the first, in the slot of its tick.
  Level& l0 = levels_[0];
  if (!l0.heads) l0.heads.reset(new Link[l0.slots]);
  Link* const heads = l0.heads.get();
  std::uint64_t* const bits = l0.bits.data();
  std::uint64_t const base = l0.base;
  while (p != &head) {
    Link* const next = p->next;
    Notifiee* const n = notifieeOf(p);
    auto const s = static_cast<std::uint32_t>(n->tick_ - base);
    append(heads[s], n);
    bits[s >> 6] |= std::uint64_t(1) << (s & 63);
    n->level_ = 0;
    n->slot_ = s;
    p = next;
  }
}

inline void TimerWheel::fireSlot(std::uint32_t slot) {
  Level& l = levels_[0];
  Link& head = l.heads[slot];
  // A callback may cancel the timers still waiting here; one it arms is for a later tick.
  while (head.next != &head) {
    Link* const first = head.next;
    head.next = first->next;
    first->next->prev = &head;
    Notifiee* const n = notifieeOf(first);
    n->level_ = kUnarmed;
    --count_;
    n->time_ = kNever;
    if (n->active_) n->onTime();
  }
  l.bits[slot >> 6] &= ~(std::uint64_t(1) << (slot & 63));
}

bool TimerWheel::firstLevelDue(std::uint64_t last, std::uint32_t& slot) {
  // The first level's pending slots in order. Callbacks arm timers only for later ticks, so
  // after each tick the rest of its bitmap word is read again. A slot left over from a tick
  // whose firing was interrupted by an exception is the present one (cur), found first.
  Level& l0 = levels_[0];
  if (!l0.heads) return false;
  std::uint64_t const* const bits = l0.bits.data();
  std::size_t const words = l0.bits.size();
  std::size_t w = l0.cur >> 6;
  std::uint64_t word = bits[w] & (~std::uint64_t(0) << (l0.cur & 63));
  while (true) {
    if (!word) {
      if (++w == words) return false;
      word = bits[w];
      continue;
    }
    slot = static_cast<std::uint32_t>(w * 64 + static_cast<std::size_t>(__builtin_ctzll(word)));
    std::uint64_t const tick = l0.base + slot;
    if (tick > last) return true;
    l0.cur = slot;
    next_ = tick + 1;
    fireSlot(slot);
    word = bits[w] & (~std::uint64_t(1) << (slot & 63));
  }
}

bool TimerWheel::advanceTo(std::uint64_t last, std::size_t& level, std::uint32_t& slot) {
  while (true) {
    if (firstLevelDue(last, slot)) {
      level = 0;
      next_ = std::max(next_, last + 1);
      return true;
    }
    if (!earliestAbove(level, slot)) break;
    if (slotStart(level, slot) > last) {
      next_ = std::max(next_, last + 1);
      return true;
    }
    Link& head = levels_[level].heads[slot];
    if (head.next != head.prev) {
      cascade(level, slot);
      continue;
    }
    // A lone timer fires from where it is, without moving down, once its tick is reached.
    Notifiee* const n = notifieeOf(head.next);
    std::uint64_t const tick = n->tick_;
    if (tick > last) {
      next_ = std::max(next_, last + 1);
      return true;
    }
    openSlot(level, slot);
    next_ = tick + 1;
    head.next = &head;
    head.prev = &head;
    n->level_ = kUnarmed;
    --count_;
    n->time_ = kNever;
    if (n->active_) n->onTime();
  }
  next_ = std::max(next_, last + 1);
  return false;
}

void TimerWheel::onClockTime() {
  if (processing_) return;
  // A notifiee may drop the last reference to this wheel from inside onTime().
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  std::uint64_t const armed = std::exchange(armedTick_, kNoTick);  // the wake-up is consumed
  Time const now = clock_->now();
  if (now < origin_) {
    armDriver();
    return;
  }
  processing_ = true;
  // When a callback throws, the wheel is left consistent and the driver armed from scratch.
  struct Finish {
    TimerWheel* w;
    bool done = false;
    ~Finish() {
      w->processing_ = false;
      if (!done) w->armDriver();
    }
  } finish{this};
  std::size_t level = 0;
  std::uint32_t slot = 0;
  // The clock usually wakes the wheel within the tick it was armed for: two products tell that
  // tick without the division's rounding corrections. advanceTo stops at the earliest pending
  // slot, which is where the driver goes next: no second search for it.
  bool const inArmed = armed < kMaxTick && tickTime(armed) <= now && now < tickTime(armed + 1);
  bool const pending = advanceTo(inArmed ? armed : tickAtOrBefore(now), level, slot);
  processing_ = false;
  finish.done = true;
  armDriverFor(pending, level, slot);
}

void TimerWheel::armDriver() {
  std::size_t level = 0;
  std::uint32_t slot = 0;
  bool const pending = earliest(level, slot);
  armDriverFor(pending, level, slot);
}

inline void TimerWheel::armDriverFor(bool pending, std::size_t level, std::uint32_t slot) {
  std::uint64_t t = kNoTick;
  if (pending && level == 0) {
    t = slotStart(0, slot);
  } else if (pending) {
    // Wake for the slot's earliest timer when the slot holds few; for a crowded slot, wake at
    // its start to move its timers down (cheaper than visiting them twice).
    Link const& head = levels_[level].heads[slot];
    int visited = 0;
    for (Link const* l = head.next; l != &head; l = l->next) {
      if (++visited > kExactWakeScan) {
        t = slotStart(level, slot);
        break;
      }
      t = std::min(t, static_cast<Notifiee const*>(l)->tick_);
    }
  }
  armedTick_ = t;
  driver_.timeMinIs(t == kNoTick ? kNever : tickTime(t));
}

void TimerWheel::Notifiee::qelEnqueue() {
  owner()->insert(this);
}
void TimerWheel::Notifiee::qelDequeue() {
  owner()->cancel(this);
}

// --- reflection

Qel::QelType const* TimerWheel::staticType() {
  using Boxed = Qel::BoxedPtr<TimerWheel>;
  static Qel::QelType const* t =
      Qel::TypeBuilder<Boxed>("Orn::TimerWheel", Qel::QelType::Kind::value)
          .value<Qel::F64>("tick", [](Boxed const& b) { return b.target()->tick(); })
          .value<Qel::U32>("ticks", [](Boxed const& b) { return b.target()->ticks(); })
          .value<Qel::U32>("bucketSize", [](Boxed const& b) { return b.target()->bucketSize(); })
          .value<Qel::U64>("levels", [](Boxed const& b) { return b.target()->levels(); })
          .value<Qel::U64>("timers", [](Boxed const& b) { return b.target()->timers(); })
          .value<Qel::F64>("wakeTime", [](Boxed const& b) { return b.target()->wakeTime(); })
          .done();
  return t;
}

Qel::String TimerWheel::text() const {
  std::ostringstream os;
  os << "Orn::TimerWheel(tick " << tick_ << ", ticks " << ticks() << ", bucketSize " << bucketSize_
     << ")";
  return Qel::String(os.str());
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = TimerWheel::staticType();
}

}  // namespace Orn
