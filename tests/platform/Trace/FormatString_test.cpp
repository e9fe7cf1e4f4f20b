#include "Trace/FormatString.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using Trace::FormatError;

// The parser runs at compile time in the trace macros; these hold there too.
static_assert(Trace::shapeOf("a {} b {:x}").fields == 2);
static_assert(Trace::shapeOf("a {} b {:x}").hex[1]);
static_assert(Trace::shapeOf("{:d}").error == FormatError::BadSpec);

struct ShapeCase {
  char const* format;
  FormatError error;
  std::size_t fields;
  std::array<bool, 3> hex;
};

class TraceFormatShapeTest : public testing::TestWithParam<ShapeCase> {};

TEST_P(TraceFormatShapeTest, ParsesPlaceholdersAndRejectsMalformedFormats) {
  ShapeCase const& c = GetParam();
  Trace::FormatShape const shape = Trace::shapeOf(c.format);
  EXPECT_EQ(shape.error, c.error);
  if (c.error != FormatError::None) return;
  EXPECT_EQ(shape.fields, c.fields);
  for (std::size_t i = 0; i < c.hex.size(); ++i)
    EXPECT_EQ(shape.hex[i], c.hex[i]) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Formats, TraceFormatShapeTest,
    testing::Values(ShapeCase{"", FormatError::None, 0, {}},
                    ShapeCase{"no placeholders", FormatError::None, 0, {}},
                    ShapeCase{"{}", FormatError::None, 1, {false}},
                    ShapeCase{"a{}b{:x}c{}", FormatError::None, 3, {false, true, false}},
                    ShapeCase{"{:x}{:x}", FormatError::None, 2, {true, true}},
                    ShapeCase{"{{}}", FormatError::None, 0, {}},
                    ShapeCase{"{{{}}}", FormatError::None, 1, {false}},
                    ShapeCase{"{", FormatError::UnmatchedOpen, 0, {}},
                    ShapeCase{"a {} {", FormatError::UnmatchedOpen, 0, {}},
                    ShapeCase{"}", FormatError::UnmatchedClose, 0, {}},
                    ShapeCase{"{}}", FormatError::UnmatchedClose, 0, {}},
                    ShapeCase{"a } b", FormatError::UnmatchedClose, 0, {}},
                    ShapeCase{"{:d}", FormatError::BadSpec, 0, {}},
                    ShapeCase{"{0}", FormatError::BadSpec, 0, {}},
                    ShapeCase{"{ }", FormatError::BadSpec, 0, {}},
                    ShapeCase{"{:X}", FormatError::BadSpec, 0, {}},
                    ShapeCase{"{:x }", FormatError::BadSpec, 0, {}},
                    ShapeCase{"{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::None, 16, {}},
                    ShapeCase{
                        "{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::TooManyFields, 0, {}}));

TEST(TraceFormatErrorTextTest, NamesEachError) {
  EXPECT_STREQ(Trace::formatErrorText(FormatError::UnmatchedOpen), "unmatched '{'");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::UnmatchedClose), "unmatched '}'");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::BadSpec), "placeholder other than {} or {:x}");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::TooManyFields), "more than 16 placeholders");
}

TEST(TraceFormatMessageTest, SubstitutesInOrderAndReducesDoubledBraces) {
  std::array<Trace::ArgValue, 3> const args{
      Trace::ArgValue::ofSigned(Trace::ArgKind::I32, -7),
      Trace::ArgValue::ofUnsigned(Trace::ArgKind::U32, 255),
      Trace::ArgValue::ofString("end"),
  };
  std::string out = "prefix:";
  Trace::formatMessage(out, "{{{}}} {:x}}} {{{}", args);
  EXPECT_EQ(out, "prefix:{-7} ff} {end");
}

TEST(TraceFormatMessageDeathTest, MoreArgumentsThanPlaceholdersIsAContractViolation) {
  std::array<Trace::ArgValue, 2> const args{Trace::ArgValue::ofString("a"),
                                            Trace::ArgValue::ofString("b")};
  std::string out;
  EXPECT_DEATH(Trace::formatMessage(out, "{}", args),
               "Assertion failed: next == args.size\\(\\) && \"trace format has fewer "
               "placeholders than arguments\"");
}

TEST(TraceFormatMessageDeathTest, MorePlaceholdersThanArgumentsIsAContractViolation) {
  std::array<Trace::ArgValue, 1> const args{Trace::ArgValue::ofString("a")};
  std::string out;
  EXPECT_DEATH(Trace::formatMessage(out, "{} {}", args),
               "Assertion failed: next < args.size\\(\\) && \"trace format has more "
               "placeholders than arguments\"");
}

}  // namespace
