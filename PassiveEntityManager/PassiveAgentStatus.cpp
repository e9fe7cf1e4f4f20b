#include "PassiveEntityManager/PassiveAgentStatus.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

PassiveMountReference::Ptr PassiveAgentStatus::mountReferenceIs(std::string_view path) {
  if (PassiveMountReference::Ptr existing = mountReference(path)) return existing;
  PassiveMountReference::Ptr ref = PassiveMountReference::mountReferenceNew(Qel::Name(path));
  mountReference_.insert(*this, ref);
  return ref;
}

Qel::QelType const* PassiveAgentStatus::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveAgentStatus>("Ledra::PassiveAgentStatus")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentStatusNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentStatus::staticType();
}

}  // namespace Ledra
