// One comparison at a time: operand order and operators outside the six, the enum conversion of
// constants, the element count refused for a plain attribute, and the operators' text forms.
#include "Orn/AttrCompare.h"
#include "Orn/LogicalOp.h"

#include <gtest/gtest.h>

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/ValueTraits.h"
#include "ReactorFixture.h"

namespace {

using OrnTesting::tagged;

class AttrCompareTest : public OrnTesting::ReactorTest {
 protected:
  Qel::QelType const* colour() const { return Qel::QelType::type("ornTest::Colour"); }
};

TEST_F(AttrCompareTest, ConstantIsTheLeftOperandAndTheTraceShowsTheExpression) {
  auto six = Qel::ValueTraits<int>::box(6);
  EXPECT_TRUE(Orn::attrCompare(5, six, nullptr, Orn::LT));
  EXPECT_FALSE(Orn::attrCompare(5, six, nullptr, Orn::GT));
  // An operator outside the six is false, even while traced.
  for (int op : {-1, 6, 42})
    EXPECT_FALSE(Orn::attrCompare(6, six, nullptr, static_cast<Orn::LogicalOp>(op))) << op;
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"6 ? 6\""));
}

TEST_F(AttrCompareTest, EnumToGifMakesAValueOfTheEnumType) {
  Qel::GenericIf::PtrConst out;
  Orn::enumToGif(out, colour(), 7u);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->qelType(), colour());
  EXPECT_EQ(out->text(), "blue");
  Orn::enumToGif(out, colour(), true);
  EXPECT_EQ(out->text(), "green");
  Orn::enumToGif(out, colour(), static_cast<signed char>(-2));
  EXPECT_EQ(out->valueAs<int>(), -2);
}

TEST_F(AttrCompareTest, ColLengthRefusesPlainAttributes) {
  EXPECT_THROW(Orn::getColLength(entity_, aid("a_U32")), Qel::TypeException);
}

// Whole texts only: neither a prefix, an extension, another case nor padding is accepted.
TEST(LogicalOpDeathTest, AnythingElseIsUnknown) {
  for (char const* text : {"=", "<==", "IN", "notin "}) {
    EXPECT_DEATH(Orn::strToLogicalOp(text), OrnTesting::literal("\"Unknown logical op\""))
        << '"' << text;
  }
  EXPECT_DEATH(Orn::logicalOpToStr(static_cast<Orn::LogicalOp>(6)),
               OrnTesting::literal("\"Unknown logical op\""));
}

}  // namespace
