// Qel::ActivityManagerConfig: the process-wide configuration of the activity manager (the event
// loop and its timers): the system's name and the process clock.
//
// instance() is the configuration of this process. It is created on first use, named
// "activityManagerConfig", with the system name "ledra" and a MonotonicClock; instanceIs()
// installs another one (tests install one on a SimulatedClock) and instanceIs(nullptr) forgets the
// present one, so that the next instance() creates a fresh default. Qel::now() reads the clock of
// instance().
//
// Reflection: the type "Qel::ActivityManagerConfig" is registered when the program starts (in
// every program that links this file, i.e. that uses the configuration or Qel::now()). Its
// attributes are "name" (constructor) and "systemName" (a string, readable and writable by name).
// The type's factory creates a new configuration with the defaults above; it is not installed as
// the process's instance until instanceIs() says so.
//
// The clock is not a reflected attribute and changing it notifies nobody: timers stay on the clock
// they were armed on, so the process clock should be chosen before timers are armed. Storing the
// present system name again changes nothing and notifies nobody. Single-threaded.
#pragma once

#include "Qel/Core/Api.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Loop/Clock.h"

namespace Qel {

// The attributes, in id order (see Qel/Entity/AttrList.h); the clock is not one of them.
#define QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES(X) X(value, plain, String, systemName, SystemName)

class QEL_API ActivityManagerConfig : public Entity {
 public:
  using Ptr = Qel::Ptr<ActivityManagerConfig>;
  using PtrConst = Qel::Ptr<ActivityManagerConfig const>;
  QEL_ATTR_IDS(QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<ActivityManagerConfig>;
  using NotifieeConst = NotifieeT<ActivityManagerConfig const>;

  static constexpr char const* kDefaultName = "activityManagerConfig";
  static constexpr char const* kDefaultSystemName = "ledra";

  // A configuration with the default system name and a new MonotonicClock.
  static Ptr activityManagerConfigNew(Name const& name);

  // The process's configuration, created with the defaults when there is none.
  static Ptr instance();
  // Installs `c` as the process's configuration; null forgets the present one.
  static void instanceIs(Ptr const& c);

  QEL_ATTR_ACCESSORS(QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES)

  Clock::Ptr const& clock() const { return clock_; }
  // Replaces the clock; it must not be null.
  void clockIs(Clock::Ptr const& c);

  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();

 private:
  explicit ActivityManagerConfig(Name name);
  ~ActivityManagerConfig() override = default;

  QEL_ATTR_STORAGE(QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES)
  Clock::Ptr clock_;
};

template <class N>
class QEL_API ActivityManagerConfig::NotifieeT : public BasicNotifiee<N> {
 public:
  using BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES)
};

}  // namespace Qel
