// Ledra::AgentProfileChoice: which agent profile serves an agent name, and why.
//
// The profile named exactly as the agent serves it ("own"); else the family profile whose name
// ends in "-" and is the longest prefix of the agent's name ("family": the profile's name is that
// prefix); else none does. The root state machine serves connecting agents by this choice, and
// whatever explains the choice to an operator calls the same function, so the two never differ.
// A pure function of the directory's present content; single-threaded like the directory.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"

namespace Ledra {

struct AgentProfileChoice {
  enum class Match { none, own, family };

  PassiveAgentProfile::Ptr profile;  // null exactly when match is none
  Match match = Match::none;
};

LEDRA_PEM_EXPORT AgentProfileChoice agentProfileChoice(PassiveAgentProfileDir const& profiles,
                                                       Qel::Name const& agentName);

}  // namespace Ledra
