#include "PassiveEntityManager/PassiveAgentStatusDir.h"

#include "Qel/TypeBuilder.h"

namespace Ledra {

PassiveAgentStatus::Ptr PassiveAgentStatusDir::agentStatusIs(Qel::Name const& name) {
  if (PassiveAgentStatus::Ptr existing = agentStatus(name)) return existing;
  PassiveAgentStatus::Ptr profile = PassiveAgentStatus::agentStatusNew(name);
  agentStatus_.insert(profile);
  notifyKey(kAgentStatus, name);
  return profile;
}

void PassiveAgentStatusDir::agentStatusDel(Qel::Name const& name) {
  if (!agentStatus_.erase(name)) return;
  notifyKey(kAgentStatus, name);
}

void PassiveAgentStatusDir::agentStatusDelAll() {
  while (!agentStatus_.empty())
    agentStatusDel(Qel::Name(agentStatus_.anyName()));
}

Qel::QelType const* PassiveAgentStatusDir::staticType() {
  using D = PassiveAgentStatusDir;
  static Qel::QelType const* t =
      Qel::TypeBuilder<D>("Ledra::PassiveAgentStatusDir")
          .collection<Qel::Name, PassiveAgentStatus::Ptr>(
              "agentStatus", [](D const& d, Qel::Name const& n) { return d.agentStatus(n); },
              [](D const& d) { return d.agentStatuses(); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentStatusDirNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentStatusDir::staticType();
}

}  // namespace Ledra
