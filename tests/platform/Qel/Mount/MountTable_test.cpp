// The mount table's own contract; its notifications and states are checked by the simulation
// against its model of every mount.
#include "Qel/Mount/MountTable.h"

#include <gtest/gtest.h>

#include "tests/support/ExactText.h"

namespace {

TEST(MountTableDeathTest, ConfWithoutPathIsAContractViolation) {
  auto const table = Qel::MountTable::mountTableNew("peer");
  EXPECT_DEATH(table->confIs(Qel::MountTable::Conf()),
               Ledra::test::literal("\"mount configuration without a path\""));
}

}  // namespace
