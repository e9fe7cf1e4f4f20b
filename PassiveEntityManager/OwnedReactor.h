// Ledra::OwnedReactor<Self, Owner, Base>: what every reactor that the root manager or an engine
// makes for one watched object shares. It holds a plain back pointer to its owner, which the owner
// clears (ownerIs(nullptr)) before it goes away, and it calls its owner only while it has one, is
// switched on and is not a zombie. Self is the reactor class (it befriends this base, which makes
// it), Base the watched object's typed notifiee. Internal to the library; single-threaded.
#pragma once

#include "Qel/Core/Ptr.h"

namespace Ledra {

template <class Self, class Owner, class Base>
class OwnedReactor : public Qel::RefCounted, public Base {
 public:
  template <class NotifierPtr>
  static Qel::Ptr<Self> reactorNew(Owner* owner, NotifierPtr const& notifier) {
    Qel::Ptr<Self> r(new Self(owner));
    r->notifierIs(notifier);
    return r;
  }

  Owner* owner() const { return owner_; }
  void ownerIs(Owner* o) { owner_ = o; }

 protected:
  explicit OwnedReactor(Owner* owner) : owner_(owner) {}
  ~OwnedReactor() override = default;

  // The owner, when this reactor may call it now; null otherwise.
  Owner* live() const {
    if (!owner_ || !this->notificationActive() || this->qelZombie()) return nullptr;
    return owner_;
  }

 private:
  Owner* owner_;
};

}  // namespace Ledra
