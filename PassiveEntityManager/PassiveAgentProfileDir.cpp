#include "PassiveEntityManager/PassiveAgentProfileDir.h"

#include "Qel/TypeBuilder.h"

namespace Ledra {

PassiveAgentProfile::Ptr PassiveAgentProfileDir::agentProfileIs(Qel::Name const& name) {
  if (PassiveAgentProfile::Ptr existing = agentProfile(name)) return existing;
  PassiveAgentProfile::Ptr profile = PassiveAgentProfile::agentProfileNew(name);
  agentProfile_.insert(profile);
  notifyKey(kAgentProfile, name);
  return profile;
}

void PassiveAgentProfileDir::agentProfileDel(Qel::Name const& name) {
  if (!agentProfile_.erase(name)) return;
  notifyKey(kAgentProfile, name);
}

void PassiveAgentProfileDir::agentProfileDelAll() {
  while (!agentProfile_.empty())
    agentProfileDel(Qel::Name(agentProfile_.anyName()));
}

Qel::QelType const* PassiveAgentProfileDir::staticType() {
  using D = PassiveAgentProfileDir;
  static Qel::QelType const* t =
      Qel::TypeBuilder<D>("Ledra::PassiveAgentProfileDir")
          .collection<Qel::Name, PassiveAgentProfile::Ptr>(
              "agentProfile", [](D const& d, Qel::Name const& n) { return d.agentProfile(n); },
              [](D const& d) { return d.agentProfiles(); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentProfileDirNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentProfileDir::staticType();
}

}  // namespace Ledra
