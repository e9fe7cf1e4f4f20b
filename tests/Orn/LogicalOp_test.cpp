// The comparison operators and their text forms.
#include "Orn/LogicalOp.h"

#include <gtest/gtest.h>

#include "ReactorFixture.h"

namespace {

using OrnTesting::literal;

TEST(LogicalOpTest, EachValueRoundTripsThroughItsText) {
  struct Row {
    Orn::LogicalOp op;
    int value;
    char const* text;
  };
  for (Row const& r : {Row{Orn::EQ, 0, "=="}, Row{Orn::NEQ, 1, "!="}, Row{Orn::LE, 2, "<="},
                       Row{Orn::GE, 3, ">="}, Row{Orn::LT, 4, "<"}, Row{Orn::GT, 5, ">"}}) {
    EXPECT_EQ(static_cast<int>(r.op), r.value) << r.text;
    EXPECT_EQ(Orn::logicalOpToStr(r.op), r.text);
    EXPECT_EQ(Orn::strToLogicalOp(r.text), r.op) << r.text;
    EXPECT_EQ(Orn::strToLogicalOp(Orn::logicalOpToStr(r.op)), r.op);
  }
}

TEST(LogicalOpTest, MembershipSpellingsParseToEqualityAndPrintAsIt) {
  EXPECT_EQ(Orn::strToLogicalOp("in"), Orn::LogicalOp::EQ);
  EXPECT_EQ(Orn::strToLogicalOp("notin"), Orn::LogicalOp::NEQ);
  EXPECT_EQ(Orn::logicalOpToStr(Orn::strToLogicalOp("in")), "==");
  EXPECT_EQ(Orn::logicalOpToStr(Orn::strToLogicalOp("notin")), "!=");
}

TEST(LogicalOpDeathTest, AnythingElseIsUnknown) {
  // Whole texts only: neither a prefix, an extension, another case nor padding is accepted.
  for (char const* text : {"", "=", "<<", "<==", "=<", "IN", "not in", " ==", "notin "}) {
    EXPECT_DEATH(Orn::strToLogicalOp(text), literal("\"Unknown logical op\"")) << '"' << text;
  }
  EXPECT_DEATH(Orn::logicalOpToStr(static_cast<Orn::LogicalOp>(6)),
               literal("\"Unknown logical op\""));
  EXPECT_DEATH(Orn::logicalOpToStr(static_cast<Orn::LogicalOp>(-1)),
               literal("\"Unknown logical op\""));
}

}  // namespace
