// The base of every notifiee (observer) of a GenericIf, and the key of a notification.
//
// A notifiee watches one notifier at a time (notifierIs). By default it holds a counted reference
// to it, so the notifier lives at least as long as it is watched; a notifiee made with
// Reference::weak does not, and is told onNotifierDeleted() when the notifier dies first. A
// notifiee that dies first unregisters itself. While switched off (hasNotificationActiveIs(false))
// or a zombie (qelDoZombieReactorsIs(true)) it receives nothing.
//
// Concrete notifiees implement qelDispatch(): the typed notifiee of an entity type turns the
// attribute id into a call of its onX() callback, the generic notifiee into onAttribute().
#pragma once

#include <utility>

#include "Qel/Core/Api.h"

#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"

namespace Qel {

class GenericIf;

// What changed: the collection key of a keyed change, empty for a plain attribute. `native`
// points at the key in its C++ type (for compiled entity types), `boxed` is the key as a generic
// value (for run-time types); at least one is set for a keyed change.
struct NotifyKey {
  void const* native = nullptr;
  GenericIf const* boxed = nullptr;
  bool empty() const { return !native && !boxed; }
};

class QEL_API NotifieeBase {
 public:
  enum class Reference { strong, weak };

  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;

  GenericIf const* notifierBase() const { return notifier_; }

  bool notificationActive() const { return active_; }
  void hasNotificationActiveIs(bool on) { active_ = on; }
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie) { zombie_ = zombie; }
  bool delivering() const { return notifier_ && active_ && !zombie_; }

  // Delivers one change; called by the notifier only while delivering() holds.
  virtual void qelDispatch(AttributeId aid, NotifyKey const& key) = 0;

 protected:
  explicit NotifieeBase(Reference ref = Reference::strong) : weak_(ref == Reference::weak) {}
  virtual ~NotifieeBase();

  // Stops watching the present notifier and starts watching `n` (may be null).
  void notifierBaseIs(GenericIf const* n);

  // The notifier died while this (weak) notifiee still watched it.
  virtual void onNotifierDeleted() {}

  // Calls each callback in turn, stopping once one has destroyed this notifiee: a collection's
  // change is told three ways (the key, then qelImmediate, then the whole), and the first may
  // end the notifiee's owner. Nests.
  template <class... Calls>
  void dispatchInTurn(Calls&&... calls) {
    bool destroyed = false;
    bool* const outer = std::exchange(destroyed_, &destroyed);
    ((destroyed ? void() : calls()), ...);
    if (!destroyed) {
      destroyed_ = outer;
      return;
    }
    if (outer) *outer = true;
  }

 private:
  friend class GenericIf;
  void notifierGone();

  GenericIf const* notifier_ = nullptr;
  bool weak_;
  bool active_ = true;
  bool zombie_ = false;
  bool* destroyed_ = nullptr;  // set by the destructor while dispatchInTurn runs
};

// A notifiee of a concrete notifier type N (N or N const), with notifier() typed accordingly.
template <class N>
class QEL_API BasicNotifiee : public NotifieeBase {
 public:
  Ptr<N> notifier() const { return Ptr<N>(current_); }
  void notifierIs(Ptr<N> const& n) {
    if (n.ptr() == current_) return;
    current_ = n.ptr();
    notifierBaseIs(n.ptr());
    onNotifierIs();
  }

 protected:
  using NotifieeBase::NotifieeBase;
  // Called after notifierIs bound this notifiee to another notifier (possibly null).
  virtual void onNotifierIs() {}
  void onNotifierDeleted() override { current_ = nullptr; }

 private:
  N* current_ = nullptr;
};

}  // namespace Qel
