// The comparison operators and their text forms.
#include "Orn/LogicalOp.h"

#include <gtest/gtest.h>

#include "ReactorFixture.h"

namespace {

TEST(LogicalOpTest, EachValueRoundTripsThroughItsTextMembershipParsesToEquality) {
  char const* const texts[] = {"==", "!=", "<=", ">=", "<", ">"};
  Orn::LogicalOp const ops[] = {Orn::EQ, Orn::NEQ, Orn::LE, Orn::GE, Orn::LT, Orn::GT};
  for (int value = 0; value < 6; ++value) {
    EXPECT_EQ(static_cast<int>(ops[value]), value);
    EXPECT_EQ(Orn::logicalOpToStr(ops[value]), texts[value]);
    EXPECT_EQ(Orn::strToLogicalOp(texts[value]), ops[value]) << texts[value];
  }
  EXPECT_EQ(Orn::strToLogicalOp("in"), Orn::LogicalOp::EQ);
  EXPECT_EQ(Orn::strToLogicalOp("notin"), Orn::LogicalOp::NEQ);
}

TEST(LogicalOpDeathTest, AnythingElseIsUnknown) {
  // Whole texts only: neither a prefix, an extension, another case nor padding is accepted.
  for (char const* text : {"", "=", "<<", "<==", "=<", "IN", "not in", " ==", "notin "}) {
    EXPECT_DEATH(Orn::strToLogicalOp(text), OrnTesting::literal("\"Unknown logical op\""))
        << '"' << text;
  }
  for (int value : {6, -1}) {
    EXPECT_DEATH(Orn::logicalOpToStr(static_cast<Orn::LogicalOp>(value)),
                 OrnTesting::literal("\"Unknown logical op\""));
  }
}

}  // namespace
