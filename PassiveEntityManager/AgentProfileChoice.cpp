#include "PassiveEntityManager/AgentProfileChoice.h"

#include <string_view>

namespace Ledra {

AgentProfileChoice agentProfileChoice(PassiveAgentProfileDir const& profiles,
                                      Qel::Name const& agentName) {
  if (PassiveAgentProfile::Ptr own = profiles.agentProfile(agentName)) {
    return {own, AgentProfileChoice::Match::own};
  }
  // A family profile is named by a prefix of the agent's name that ends in "-", and the longest
  // one serves: the same profile as looking up each such prefix, shortest cut first. Looking the
  // prefixes up would hash each of them, quadratic in the name's length for a name of many
  // dashes; comparing each family profile's name with the start of the agent's name reads at most
  // the profile's name, so the work grows with the name's length and the profiles, not with both.
  std::string_view const name = agentName;
  PassiveAgentProfile::Ptr family;
  std::size_t familyLength = 0;
  for (auto const& [profileName, profile] : profiles.agentProfile()) {
    if (profileName.empty() || profileName.back() != '-') continue;
    if (profileName.size() <= familyLength || !name.starts_with(profileName)) continue;
    family = profile;
    familyLength = profileName.size();
  }
  if (!family) return {};
  return {family, AgentProfileChoice::Match::family};
}

}  // namespace Ledra
