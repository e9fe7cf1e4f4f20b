// The factory functions of the model types, by which a database process creates them by name.
// Each returns a new entity with one reference (the caller's).
#pragma once

#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"

namespace Ledra {

LEDRA_PEM_EXPORT PassiveAgentProfile::Ptr passiveAgentProfileFactory(Qel::Name const& name);
LEDRA_PEM_EXPORT PassiveAgentProfileDir::Ptr passiveAgentProfileDirFactory(Qel::Name const& name);
LEDRA_PEM_EXPORT PassiveAgentStatus::Ptr passiveAgentStatusFactory(Qel::Name const& name);
LEDRA_PEM_EXPORT PassiveAgentStatusDir::Ptr passiveAgentStatusDirFactory(Qel::Name const& name);
LEDRA_PEM_EXPORT ConditionRes::Ptr conditionResFactory(Qel::Name const& name);

}  // namespace Ledra
