#include "Qel/Loop/ActivityManagerConfig.h"

#include "Check/Check.h"
#include "Qel/Loop/MonotonicClock.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

namespace {

ActivityManagerConfig::Ptr& processInstance() {
  static ActivityManagerConfig::Ptr instance;
  return instance;
}

// Registers the type at start-up, so that it can be found by name before first use.
[[maybe_unused]] QelType const* const registeredType = ActivityManagerConfig::staticType();

}  // namespace

ActivityManagerConfig::ActivityManagerConfig(Name name)
    : Entity(std::move(name)),
      systemName_(kDefaultSystemName),
      clock_(MonotonicClock::monotonicClockNew()) {}

ActivityManagerConfig::Ptr ActivityManagerConfig::activityManagerConfigNew(Name const& name) {
  return Ptr(new ActivityManagerConfig(name));
}

ActivityManagerConfig::Ptr ActivityManagerConfig::instance() {
  Ptr& p = processInstance();
  if (!p) p = activityManagerConfigNew(kDefaultName);
  return p;
}

void ActivityManagerConfig::instanceIs(Ptr const& c) {
  processInstance() = c;
}

void ActivityManagerConfig::clockIs(Clock::Ptr const& c) {
  QEL_CHECK(c, "c && \"the activity manager needs a clock\"");
  clock_ = c;
}

QelType const* ActivityManagerConfig::staticType() {
  static QelType const* t =
      TypeBuilder<ActivityManagerConfig>("Qel::ActivityManagerConfig")
          QEL_ATTR_REFLECTION(QEL_ACTIVITY_MANAGER_CONFIG_ATTRIBUTES)
              .factory([](Name const& n) { return Entity::Ptr(activityManagerConfigNew(n)); })
              .done();
  return t;
}

Time now() {
  return ActivityManagerConfig::instance()->clock()->now();
}

}  // namespace Qel
