// One comparison at a time: operand order, the value read from enums and pointers, the enum
// conversion of constants and the element count.
#include "Orn/AttrCompare.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "Qel/ValueTraits.h"
#include "ReactorFixture.h"

namespace {

using OrnTesting::tagged;

class AttrCompareTest : public OrnTesting::ReactorTest {
 protected:
  Qel::QelType const* colour() const { return Qel::QelType::type("ornTest::Colour"); }
};
using AttrCompareDeathTest = AttrCompareTest;

TEST_F(AttrCompareTest, ConstantIsTheLeftOperandAndTheTraceShowsTheExpression) {
  auto six = Qel::ValueTraits<int>::box(6);
  EXPECT_TRUE(Orn::attrCompare(5, six, nullptr, Orn::LT));
  EXPECT_FALSE(Orn::attrCompare(5, six, nullptr, Orn::GT));
  // An operator outside the six is false, even while traced.
  for (int op : {-1, 6, 42})
    EXPECT_FALSE(Orn::attrCompare(6, six, nullptr, static_cast<Orn::LogicalOp>(op))) << op;
  EXPECT_EQ(messages(), (std::vector<std::string>{tagged("attrCompare evaluating \"5 < 6\""),
                                                  tagged("attrCompare evaluating \"5 > 6\""),
                                                  tagged("attrCompare evaluating \"6 ? 6\""),
                                                  tagged("attrCompare evaluating \"6 ? 6\""),
                                                  tagged("attrCompare evaluating \"6 ? 6\"")}));
}

TEST_F(AttrCompareTest, EnumValueIsReadAsItsUnderlyingInteger) {
  auto blue = colour()->valueFromText("blue");
  EXPECT_TRUE(Orn::attrCompare(7u, blue, nullptr, Orn::EQ));
  EXPECT_TRUE(Orn::attrCompare(5, blue, nullptr, Orn::LT));
  EXPECT_FALSE(Orn::attrCompare(8LL, blue, nullptr, Orn::LE));
  EXPECT_EQ(messages()[1], tagged("attrCompare evaluating \"5 < 7\""));
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

TEST_F(AttrCompareTest, ColLengthCountsAndRefusesPlainAttributes) {
  put("tags", "a", "true");
  put("tags", "b", "false");
  EXPECT_EQ(Orn::getColLength(entity_, aid("tags"))->valueAs<Qel::U32>(), 2u);
  EXPECT_EQ(Orn::getColLength(entity_, aid("tags"))->qelType()->name(), "U32");
  EXPECT_THROW(Orn::getColLength(entity_, aid("a_U32")), Qel::TypeException);
}

TEST_F(AttrCompareDeathTest, EnumsRefuseNonIntegralConstants) {
  Qel::GenericIf::PtrConst out;
  auto const message = OrnTesting::literal("\"enums cannot be used with non integral types\"");
  EXPECT_DEATH(Orn::enumToGif(out, colour(), 1.0), message);
  EXPECT_DEATH(Orn::enumToGif(out, colour(), Qel::String("green")), message);
  EXPECT_DEATH(Orn::enumToGif(out, colour(), static_cast<char const*>("green")), message);
}

}  // namespace
