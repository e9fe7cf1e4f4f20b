// The cell number: only 1 and 2, refused with its exact range error, the present one kept.
#include <gtest/gtest.h>

#include "Ledra/Cell.h"
#include "Qel/Core/Exception.h"
#include "tests/support/ExactText.h"

namespace {

TEST(CellTest, OnlyCellsOneAndTwoExistAndARefusalKeepsThePresentOne) {
  int const saved = Cell::cellId();
  Cell::cellIdIs(2);
  for (int const bad : {0, 3}) {
    EXPECT_EQ(Ledra::test::errorOf<Qel::RangeException>([bad] { Cell::cellIdIs(bad); }),
              "Cell::cellId < 1 or > 2 not allowed");
  }
  EXPECT_EQ(Cell::cellId(), 2);
  Cell::cellIdIs(1);
  EXPECT_EQ(Cell::cellId(), 1);
  Cell::cellIdIs(saved);
}

}  // namespace
