// The library's types are created by name through the reflection, as a control client creates
// them.
#include <gtest/gtest.h>

#include "PassiveEntityManager/PassiveEntityManager.h"
#include "support/LeakCheck.h"

namespace Ledra::test {
namespace {

class FactoriesTest : public LeakCheckedTest {};

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
