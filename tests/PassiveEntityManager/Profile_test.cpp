// Agent profiles and mount groups: the priority range and its exact text, a group asked for again
// with another priority, and whether the own or a family profile serves a name.
#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/AgentProfileChoice.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "Qel/Core/Exception.h"

namespace Ledra {
namespace {

using ProfileTest = test::LeakCheckedTest;

TEST_F(ProfileTest, GroupPrioritiesRunFromOneToNinetyNineAndAreFixed) {
  auto const profile = PassiveAgentProfile::agentProfileNew("agent");
  for (Qel::U32 priority : {0u, 1u, 99u, 100u}) {
    std::string const name = "p" + std::to_string(priority);
    if (priority >= 1 && priority <= 99) {
      EXPECT_EQ(profile->mountGroupIs(name, priority)->priority(), priority);
      continue;
    }
    EXPECT_EQ(test::errorOf<Qel::RangeException>([&] { profile->mountGroupIs(name, priority); }),
              "PassiveMountGroup::priority < 1 or > 99 not allowed");
    EXPECT_FALSE(profile->mountGroup(name));
  }
  EXPECT_EQ(test::errorOf<Qel::NameInUseException>([&] { profile->mountGroupIs("p1", 20); }),
            "Reinstantiating the entity with name p1 where constructor parameter attribute "
            "_priority has a different value of 20 than the current value of 1 not allowed");
}

// The serving profile for every kind of name is the root's agentProfileFor test.
TEST_F(ProfileTest, TheChoiceSaysWhetherTheOwnOrAFamilyProfileServes) {
  auto const dir = PassiveAgentProfileDir::agentProfileDirNew("profiles");
  for (char const* name : {"a-", "a-b-"})
    dir->agentProfileIs(name);
  using Match = AgentProfileChoice::Match;
  std::pair<char const*, Match> const cases[] = {
      {"a-b-c", Match::family}, {"a-b-", Match::own}, {"a", Match::none}};
  for (auto const& [name, match] : cases)
    EXPECT_EQ(agentProfileChoice(*dir, name).match, match) << name;
}

}  // namespace
}  // namespace Ledra
