#include "Trace/FormatString.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using Trace::FormatError;

// The parser runs at compile time in the trace macros; these hold there too.
static_assert(Trace::shapeOf("a {} b {:x}").hex[1]);

struct ShapeCase {
  char const* format;
  FormatError error;
  char const* fields;  // one letter per placeholder: 'x' for {:x}, '-' for {}
};

class TraceFormatShapeTest : public testing::TestWithParam<ShapeCase> {};

TEST_P(TraceFormatShapeTest, ParsesPlaceholdersAndRejectsMalformedFormats) {
  ShapeCase const& c = GetParam();
  Trace::FormatShape const shape = Trace::shapeOf(c.format);
  EXPECT_EQ(shape.error, c.error);
  if (c.error != FormatError::None) return;
  std::string fields;
  for (std::size_t i = 0; i < shape.fields; ++i)
    fields += shape.hex[i] ? 'x' : '-';
  EXPECT_EQ(fields, c.fields);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Formats, TraceFormatShapeTest, testing::Values(
    ShapeCase{"no placeholders", FormatError::None, ""},
    ShapeCase{"a{}b{:x}c{}", FormatError::None, "-x-"},
    ShapeCase{"{{}}", FormatError::None, ""},
    ShapeCase{"{{{}}}", FormatError::None, "-"},
    ShapeCase{"{", FormatError::UnmatchedOpen, ""},
    ShapeCase{"}", FormatError::UnmatchedClose, ""},
    ShapeCase{"{}}", FormatError::UnmatchedClose, ""},
    ShapeCase{"{:d}", FormatError::BadSpec, ""},
    ShapeCase{"{0}", FormatError::BadSpec, ""},
    ShapeCase{"{:x }", FormatError::BadSpec, ""},
    ShapeCase{"{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::None, "----------------"},
    ShapeCase{"{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::TooManyFields, ""}));
// clang-format on

TEST(TraceFormatErrorTextTest, NamesEachError) {
  EXPECT_STREQ(Trace::formatErrorText(FormatError::UnmatchedOpen), "unmatched '{'");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::UnmatchedClose), "unmatched '}'");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::BadSpec), "placeholder other than {} or {:x}");
  EXPECT_STREQ(Trace::formatErrorText(FormatError::TooManyFields), "more than 16 placeholders");
}

TEST(TraceFormatMessageTest, SubstitutesInOrderAndReducesDoubledBraces) {
  std::array<Trace::ArgValue, 3> const args{Trace::ArgValue::ofSigned(Trace::ArgKind::I32, -7),
                                            Trace::ArgValue::ofUnsigned(Trace::ArgKind::U32, 255),
                                            Trace::ArgValue::ofString("end")};
  std::string out = "prefix:";
  Trace::formatMessage(out, "{{{}}} {:x}}} {{{}", args);
  EXPECT_EQ(out, "prefix:{-7} ff} {end");
}

TEST(TraceFormatMessageDeathTest, ArgumentsMustMatchThePlaceholders) {
  std::array<Trace::ArgValue, 2> const args{Trace::ArgValue::ofString("a"),
                                            Trace::ArgValue::ofString("b")};
  std::string out;
  EXPECT_DEATH(Trace::formatMessage(out, "{}", args),
               "Assertion failed: next == args.size\\(\\) && \"trace format has fewer "
               "placeholders than arguments\"");
  EXPECT_DEATH(Trace::formatMessage(out, "{} {} {}", args),
               "Assertion failed: next < args.size\\(\\) && \"trace format has more "
               "placeholders than arguments\"");
}

}  // namespace
