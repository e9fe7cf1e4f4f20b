#include "Qel/Loop/Clock.h"

#include <cmath>
#include <utility>

#include "Check/Check.h"

// The helpers of the timer heap are inline: they are used only here, and an inline definition
// lets the compiler inline them although the library is built position-independent.

namespace Qel {

Clock::~Clock() {
  // Armed notifiees hold a reference, so none can be left.
  QEL_CHECK(heap_.empty(), "heap_.empty() && \"clock destroyed with armed timers\"");
}

Time Clock::nextTimerTime() const {
  return heap_.empty() ? kNever : heap_.front()->time_;
}

void Clock::fireUpTo(Time target) {
  if (heap_.empty()) return;
  // A notifiee may drop the last reference to this clock from inside onTime().
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  while (!heap_.empty() && heap_.front()->time_ <= target) {
    Notifiee* n = heap_.front();
    Time const t = n->time_;
    timerDel(n);
    n->time_ = kNever;
    firingTimeIs(t);
    if (!n->active_) continue;
    n->onTime();
  }
}

inline bool Clock::before(Notifiee const* a, Notifiee const* b) {
  if (a->time_ != b->time_) return a->time_ < b->time_;
  return a->seq_ < b->seq_;
}

inline void Clock::place(std::size_t i, Notifiee* n) const {
  heap_[i] = n;
  n->heapIndex_ = i;
}

inline void Clock::siftUp(std::size_t i) const {
  Notifiee* n = heap_[i];
  while (i > 0) {
    std::size_t const parent = (i - 1) / 2;
    if (!before(n, heap_[parent])) break;
    place(i, heap_[parent]);
    i = parent;
  }
  place(i, n);
}

inline void Clock::siftDown(std::size_t i) const {
  Notifiee* n = heap_[i];
  std::size_t const size = heap_.size();
  while (true) {
    std::size_t child = 2 * i + 1;
    if (child >= size) break;
    if (child + 1 < size && before(heap_[child + 1], heap_[child])) ++child;
    if (!before(heap_[child], n)) break;
    place(i, heap_[child]);
    i = child;
  }
  place(i, n);
}

inline void Clock::timerAdd(Notifiee* n) const {
  n->seq_ = nextSeq_++;
  heap_.push_back(n);
  siftUp(heap_.size() - 1);
}

inline void Clock::timerDel(Notifiee* n) const {
  std::size_t const i = n->heapIndex_;
  QEL_CHECK(i < heap_.size() && heap_[i] == n,
            "i < heap_.size() && heap_[i] == n && \"timer not armed on this clock\"");
  n->heapIndex_ = kNotQueued;
  Notifiee* last = heap_.back();
  heap_.pop_back();
  if (last == n) return;
  place(i, last);
  if (i > 0 && before(last, heap_[(i - 1) / 2])) {
    siftUp(i);
    return;
  }
  siftDown(i);
}

void Clock::Notifiee::qelEnqueue() {
  owner()->timerAdd(this);
}
void Clock::Notifiee::qelDequeue() {
  owner()->timerDel(this);
}

}  // namespace Qel
