// The library's chief header: everything a database process needs to host the passive entity
// manager. Create a PassiveEntityManagerSmWrapper with passiveEntityManagerSmWrapperFactory and
// give it the agent profile directory, the agent status directory and the entity manager
// (passiveEntityManagerRootSmIs); the root manager it makes serves every agent that connects.
#pragma once

#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/ModelFactories.h"
#include "PassiveEntityManager/Mount.h"
#include "PassiveEntityManager/MountGroupReactor.h"
#include "PassiveEntityManager/MountsInProgressAnchor.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "PassiveEntityManager/PassiveEntityManagerSmWrapper.h"
#include "PassiveEntityManager/PassiveMountGroup.h"
#include "PassiveEntityManager/PassiveMountReference.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/UserFlags.h"
