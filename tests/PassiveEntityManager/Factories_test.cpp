// Every factory hands out a new entity of its type, named as asked, held once by the caller; the
// types are also created by name through the reflection.
#include <gtest/gtest.h>

#include "PassiveEntityManager/PassiveEntityManager.h"
#include "support/LeakCheck.h"

namespace Ledra::test {
namespace {

class FactoriesTest : public LeakCheckedTest {};

template <class P>
void expectFresh(P const& p, char const* name, char const* typeName) {
  ASSERT_TRUE(p);
  EXPECT_EQ(p->name(), name);
  EXPECT_EQ(p->refCount(), 1u);
  EXPECT_EQ(p->fwkType()->name(), typeName);
}

TEST_F(FactoriesTest, ModelFactoriesMakeFreshEntities) {
  expectFresh(passiveAgentProfileFactory("a"), "a", "Ledra::PassiveAgentProfile");
  expectFresh(passiveAgentProfileDirFactory("d"), "d", "Ledra::PassiveAgentProfileDir");
  expectFresh(passiveAgentStatusFactory("s"), "s", "Ledra::PassiveAgentStatus");
  expectFresh(passiveAgentStatusDirFactory("sd"), "sd", "Ledra::PassiveAgentStatusDir");
  expectFresh(conditionResFactory("c"), "c", "Ledra::ConditionRes");
  expectFresh(passiveEntityManagerSmWrapperFactory("w"), "w",
              "Ledra::PassiveEntityManagerSmWrapper");
}

TEST_F(FactoriesTest, TypesAreCreatedByName) {
  for (char const* name : {"Ledra::PassiveAgentProfile", "Ledra::PassiveAgentStatus",
                           "Ledra::ConditionRes", "Ledra::PassiveEntityManagerSmWrapper"}) {
    Qel::QelType const* type = &Qel::QelType::typeOrThrow(name);
    auto e = type->newEntity("byName");
    ASSERT_TRUE(e) << name;
    EXPECT_EQ(e->fwkType(), type);
    EXPECT_EQ(e->name(), "byName");
  }
}

}  // namespace
}  // namespace Ledra::test
