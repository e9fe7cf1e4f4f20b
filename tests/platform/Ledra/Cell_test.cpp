// The cell number (1 or 2, with its exact range error) and stripString.
#include <gtest/gtest.h>

#include "Ledra/Cell.h"
#include "Ledra/StripString.h"
#include "Qel/Exception.h"

namespace {

TEST(CellTest, OnlyCellsOneAndTwoExistAndARefusalKeepsThePresentOne) {
  int const saved = Cell::cellId();
  for (int const cell : {1, 2}) {
    Cell::cellIdIs(cell);
    EXPECT_EQ(Cell::cellId(), cell);
  }
  for (int const bad : {0, 3, -1}) {
    try {
      Cell::cellIdIs(bad);
      ADD_FAILURE() << "accepted " << bad;
    } catch (Qel::RangeException const& e) {
      EXPECT_STREQ(e.what(), "Cell::cellId < 1 or > 2 not allowed");
    }
  }
  EXPECT_EQ(Cell::cellId(), 2);
  Cell::cellIdIs(saved);
}

TEST(StripStringTest, RemovesEveryOccurrenceOfTheGivenCharacters) {
  struct Case {
    char const* text;
    char const* chars;
    char const* result;
  };
  for (Case const c : {Case{"DwBiD", "DB", "wi"}, Case{"BD", "DB", ""}, Case{"wi", "", "wi"}}) {
    EXPECT_EQ(Ledra::stripString(c.text, c.chars), c.result) << c.text << " less " << c.chars;
  }
  // By default blanks and tabs, nothing else.
  EXPECT_EQ(Ledra::stripString(" a\tb  c \t"), "abc");
  EXPECT_EQ(Ledra::stripString("a\nb"), "a\nb");
}

}  // namespace
