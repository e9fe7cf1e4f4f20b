#include "PassiveEntityManager/ModelFactories.h"

namespace Ledra {

PassiveAgentProfile::Ptr passiveAgentProfileFactory(Qel::Name const& name) {
  return PassiveAgentProfile::agentProfileNew(name);
}

PassiveAgentProfileDir::Ptr passiveAgentProfileDirFactory(Qel::Name const& name) {
  return PassiveAgentProfileDir::agentProfileDirNew(name);
}

PassiveAgentStatus::Ptr passiveAgentStatusFactory(Qel::Name const& name) {
  return PassiveAgentStatus::agentStatusNew(name);
}

PassiveAgentStatusDir::Ptr passiveAgentStatusDirFactory(Qel::Name const& name) {
  return PassiveAgentStatusDir::agentStatusDirNew(name);
}

ConditionRes::Ptr conditionResFactory(Qel::Name const& name) {
  return ConditionRes::conditionResNew(name);
}

}  // namespace Ledra
