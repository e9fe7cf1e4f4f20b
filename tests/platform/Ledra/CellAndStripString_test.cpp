// The cell number (1 or 2, with its exact range error) and stripString.
#include <gtest/gtest.h>

#include "Ledra/Cell.h"
#include "Ledra/StripString.h"
#include "Qel/Exception.h"

namespace {

class CellTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = Cell::cellId(); }
  void TearDown() override { Cell::cellIdIs(saved_); }

 private:
  int saved_ = 1;
};

TEST_F(CellTest, DefaultsToOneAndTakesTwo) {
  Cell::cellIdIs(1);
  EXPECT_EQ(Cell::cellId(), 1);
  Cell::cellIdIs(2);
  EXPECT_EQ(Cell::cellId(), 2);
}

TEST_F(CellTest, OnlyTwoCellsExist) {
  Cell::cellIdIs(2);
  for (int bad : {0, 3, -1}) {
    try {
      Cell::cellIdIs(bad);
      FAIL() << "accepted " << bad;
    } catch (Qel::RangeException const& e) {
      EXPECT_STREQ(e.what(), "Cell::cellId < 1 or > 2 not allowed");
    }
  }
  EXPECT_EQ(Cell::cellId(), 2);
}

struct StripCase {
  char const* text;
  char const* chars;
  char const* result;
};

class StripStringTest : public ::testing::TestWithParam<StripCase> {};

TEST_P(StripStringTest, RemovesEveryOccurrence) {
  StripCase const c = GetParam();
  EXPECT_EQ(Ledra::stripString(c.text, c.chars), c.result);
}

INSTANTIATE_TEST_SUITE_P(Cases, StripStringTest,
                         ::testing::Values(StripCase{"wDB", "DB", "w"},
                                           StripCase{"DwBiD", "DB", "wi"},
                                           StripCase{"BD", "DB", ""}, StripCase{"", "DB", ""},
                                           StripCase{"wi", "", "wi"},
                                           StripCase{"a-b-c", "-", "abc"}));

TEST(StripStringDefaultTest, DefaultsToBlanksAndTabs) {
  EXPECT_EQ(Ledra::stripString(" a\tb  c \t"), "abc");
  EXPECT_EQ(Ledra::stripString("a\nb"), "a\nb");
}

}  // namespace
