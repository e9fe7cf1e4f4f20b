// Ledrad::OwnerWatcher: a weak notifiee bound to one notifier from construction on, working for an
// owner that outlives it. It never keeps its notifier alive: when the notifier dies first,
// notifier() reads null and nothing more is told. Destruction unbinds it (the notifiee base does).
//
// Single-threaded: the loop that notifies.
#pragma once

#include "Qel/Entity/Notifiee.h"

namespace Ledrad {

template <class Notifiee, class Owner>
class OwnerWatcher : public Notifiee {
 public:
  template <class NotifierPtr>
  OwnerWatcher(Owner& owner, NotifierPtr const& notifier)
      : Notifiee(Qel::NotifieeBase::Reference::weak), owner_(owner) {
    this->notifierIs(notifier);
  }

 protected:
  Owner& owner_;
};

}  // namespace Ledrad
