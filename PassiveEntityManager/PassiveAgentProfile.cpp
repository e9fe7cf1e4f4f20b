#include "PassiveEntityManager/PassiveAgentProfile.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

PassiveMountGroup::Ptr PassiveAgentProfile::mountGroupIs(Qel::Name const& name, Qel::U32 priority) {
  if (PassiveMountGroup::Ptr existing = mountGroup(name)) {
    if (existing->priority() == priority) return existing;
    throw Qel::NameInUseException(
        "Reinstantiating the entity with name " + name +
        " where constructor parameter attribute _priority has a different value of " +
        std::to_string(priority) + " than the current value of " +
        std::to_string(existing->priority()) + " not allowed");
  }
  PassiveMountGroup::Ptr group = PassiveMountGroup::mountGroupNew(name, priority);
  mountGroup_.insert(*this, group);
  return group;
}

Qel::QelType const* PassiveAgentProfile::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveAgentProfile>("Ledra::PassiveAgentProfile")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentProfileNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentProfile::staticType();
}

}  // namespace Ledra
