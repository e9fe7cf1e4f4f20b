// A list of observers that tolerates changes while it is being notified.
//
// forEach() visits the observers registered when it started. An observer removed during the
// visit is not visited afterwards (its slot is cleared, and compacted once the outermost visit
// ends); an observer added during the visit is first visited by the next notification. Visits may
// nest (an observer may trigger another notification of the same list). Single-threaded.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "Check/Check.h"

namespace Qel {

template <class Observer>
class ObserverList {
 public:
  ObserverList() = default;
  ObserverList(ObserverList const&) = delete;
  ObserverList& operator=(ObserverList const&) = delete;
  ~ObserverList() {
    QEL_CHECK(depth_ == 0, "depth_ == 0 && \"observer list destroyed while notifying\"");
  }

  void add(Observer* o) {
    QEL_CHECK(o, "o && \"null observer\"");
    QEL_CHECK(!contains(o), "!contains(o) && \"observer added twice\"");
    observers_.push_back(o);
  }

  void remove(Observer* o) {
    auto it = std::find(observers_.begin(), observers_.end(), o);
    if (it == observers_.end()) return;
    if (depth_ > 0) {
      *it = nullptr;
      needsCompaction_ = true;
      return;
    }
    observers_.erase(it);
  }

  bool contains(Observer const* o) const {
    return std::find(observers_.begin(), observers_.end(), o) != observers_.end();
  }
  // Exact outside a notification; during one, removed slots may still count until it ends.
  bool empty() const { return observers_.empty(); }
  std::size_t size() const {
    return static_cast<std::size_t>(
        std::count_if(observers_.begin(), observers_.end(), [](Observer* o) { return o; }));
  }

  // Calls fn(observer) for each observer registered now; see the class comment.
  template <class Fn>
  void forEach(Fn&& fn) {
    std::size_t const end = observers_.size();
    ++depth_;
    struct Guard {
      ObserverList* list;
      ~Guard() {
        if (--list->depth_ == 0 && list->needsCompaction_) list->compact();
      }
    } guard{this};
    for (std::size_t i = 0; i < end; ++i) {
      if (Observer* o = observers_[i]) fn(o);
    }
  }

  // Visits every observer without the re-entrance bookkeeping; fn must not change the list.
  template <class Fn>
  void forEachStable(Fn&& fn) const {
    for (Observer* o : observers_) {
      if (o) fn(o);
    }
  }

 private:
  void compact() {
    observers_.erase(std::remove(observers_.begin(), observers_.end(), nullptr), observers_.end());
    needsCompaction_ = false;
  }

  std::vector<Observer*> observers_;
  int depth_ = 0;
  bool needsCompaction_ = false;
};

}  // namespace Qel
