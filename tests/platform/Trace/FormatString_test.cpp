#include "Trace/FormatString.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using Trace::FormatError;

// The parser runs at compile time in the trace macros; this holds there too.
static_assert(Trace::shapeOf("a {} b {:x}").hex[1]);

TEST(TraceFormatShapeTest, ParsesPlaceholdersAndRejectsMalformedFormats) {
  struct Case {
    char const* format;
    FormatError error;
    char const* fields;  // one letter per placeholder: 'x' for {:x}, '-' for {}
  };
  // clang-format off
  for (Case const& c : {
      Case{"a{}b{:x}c{}", FormatError::None, "-x-"},
      Case{"{{{}}}", FormatError::None, "-"},
      Case{"{", FormatError::UnmatchedOpen, ""},
      Case{"{}}", FormatError::UnmatchedClose, ""},
      Case{"{0}", FormatError::BadSpec, ""},
      Case{"{:x }", FormatError::BadSpec, ""},
      Case{"{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::None, "----------------"},
      Case{"{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}", FormatError::TooManyFields, ""}}) {
    // clang-format on
    Trace::FormatShape const shape = Trace::shapeOf(c.format);
    EXPECT_EQ(shape.error, c.error) << c.format;
    std::string fields;
    for (std::size_t i = 0; c.error == FormatError::None && i < shape.fields; ++i)
      fields += shape.hex[i] ? 'x' : '-';
    EXPECT_EQ(fields, c.fields) << c.format;
  }
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
               "\"trace format has fewer placeholders than arguments\"");
  EXPECT_DEATH(Trace::formatMessage(out, "{} {} {}", args),
               "\"trace format has more placeholders than arguments\"");
  EXPECT_DEATH(Trace::formatMessage(out, "{} {", args), "\"malformed trace format\"");
}

}  // namespace
