// Mount flags: the letter table, the range limit with its exact error text, exclusive or, and
// parsing of URI queries.
#include "Qel/MountFlags.h"

#include <gtest/gtest.h>

#include <cctype>

#include "Qel/Exception.h"
#include "Qel/GenericValue.h"

namespace {

using Qel::MountFlags;
using Qel::U32;

struct LetterBit {
  char letter;
  U32 bit;
};

class MountFlagLetterTest : public ::testing::TestWithParam<LetterBit> {};

TEST_P(MountFlagLetterTest, LetterParsesToItsBitAndPrintsBack) {
  LetterBit const lb = GetParam();
  MountFlags const f = Qel::parseMountFlags(Qel::String("flags=") + lb.letter);
  EXPECT_EQ(f.value(), lb.bit);
  EXPECT_TRUE(f.has(lb.bit));
  EXPECT_EQ(f.text(), Qel::String(1, lb.letter));
  EXPECT_EQ(MountFlags::bitOf(lb.letter), lb.bit);
}

INSTANTIATE_TEST_SUITE_P(AllLetters, MountFlagLetterTest,
                         ::testing::Values(LetterBit{'r', 0x1}, LetterBit{'w', 0x2},
                                           LetterBit{'c', 0x4}, LetterBit{'i', 0x8},
                                           LetterBit{'C', 0x10}, LetterBit{'S', 0x20},
                                           LetterBit{'p', 0x40}, LetterBit{'n', 0x80},
                                           LetterBit{'f', 0x100}, LetterBit{'D', 0x200},
                                           LetterBit{'B', 0x400}),
                         [](auto const& info) {
                           // Test names must be unique and alphanumeric: 'c' and 'C' differ in
                           // case.
                           char const l = info.param.letter;
                           return std::string(std::isupper(l) ? "upper_" : "lower_") + l;
                         });

TEST(MountFlagsTest, RangeBoundaryAndExactErrorText) {
  EXPECT_EQ(MountFlags(0x3ffff).value(), 0x3ffffu);
  try {
    MountFlags f(0x40000);
    FAIL() << "accepted " << f.value();
  } catch (Qel::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Flags::value > 0x3ffff not allowed");
  }
  EXPECT_THROW(MountFlags(0xffffffffu), Qel::RangeException);
}

TEST(MountFlagsTest, ExclusiveOrGivesTheDifferingBitsAndIsRangeChecked) {
  MountFlags const a = MountFlags::fromLetters("Cnp");
  MountFlags const b = MountFlags::fromLetters("wnp");
  EXPECT_EQ((a ^ b).value(), MountFlags::kConvertible | MountFlags::kWrite);
  EXPECT_EQ((a ^ a).value(), 0u);
  EXPECT_TRUE((a ^ a).empty());
  // Both operands are in range, so is their exclusive or: the check holds on every path.
  EXPECT_EQ((MountFlags(0x3ffff) ^ MountFlags(0x1)).value(), 0x3fffeu);
}

TEST(MountFlagsTest, HasRequiresEveryBit) {
  MountFlags const f = MountFlags::fromLetters("wc");
  EXPECT_TRUE(f.has(MountFlags::kWrite | MountFlags::kCreate));
  EXPECT_FALSE(f.has(MountFlags::kWrite | MountFlags::kRead));
  EXPECT_TRUE(f.has(0));
}

TEST(MountFlagsTest, TextReproducesTheComposedRequestLetters) {
  for (char const* letters : {"Cnp", "Cp", "wnp", "wp", "wiSnp", "CiSp", "Snp", "iSp"}) {
    EXPECT_EQ(MountFlags::fromLetters(letters).text(), letters);
  }
  // Order of input does not matter, duplicates collapse.
  EXPECT_EQ(MountFlags::fromLetters("pnC").text(), "Cnp");
  EXPECT_EQ(MountFlags::fromLetters("ww").text(), "w");
  EXPECT_EQ(MountFlags::fromLetters("BDfcwr").text(), "rwcfDB");
  EXPECT_EQ(MountFlags().text(), "");
}

TEST(MountFlagsTest, BitsWithoutALetterPrintInHex) {
  EXPECT_EQ(MountFlags(0x800 | 0x2).text(), "w+0x800");
  EXPECT_EQ(MountFlags(0x20000).text(), "+0x20000");
}

TEST(MountFlagsTest, EqualityIsByValue) {
  EXPECT_EQ(MountFlags::fromLetters("np"), MountFlags(0xc0));
  EXPECT_NE(MountFlags::fromLetters("np"), MountFlags::fromLetters("p"));
}

TEST(ParseMountFlagsTest, FindsFlagsAmongOtherParameters) {
  EXPECT_EQ(Qel::parseMountFlags("flags=Cnp").text(), "Cnp");
  EXPECT_EQ(Qel::parseMountFlags("x=1&flags=wp&y=2").text(), "wp");
  EXPECT_EQ(Qel::parseMountFlags("a=b&flags=").value(), 0u);
  EXPECT_EQ(Qel::parseMountFlags("").value(), 0u);
  EXPECT_EQ(Qel::parseMountFlags("noflags=w").value(), 0u);
  EXPECT_EQ(Qel::parseMountFlags("xflags=w&other").value(), 0u);
}

TEST(ParseMountFlagsTest, UnknownLetterIsAClearParseError) {
  try {
    Qel::parseMountFlags("flags=wXp");
    FAIL() << "accepted an unknown letter";
  } catch (Qel::ParseException const& e) {
    EXPECT_STREQ(e.what(), "unknown mount flag 'X' in \"wXp\"");
  }
  EXPECT_THROW(Qel::parseMountFlags("flags=R"), Qel::ParseException);
  EXPECT_THROW(Qel::parseMountFlags("flags= w"), Qel::ParseException);
}

TEST(ParseMountFlagsTest, SecondFlagsParameterIsRefused) {
  try {
    Qel::parseMountFlags("flags=w&flags=C");
    FAIL();
  } catch (Qel::ParseException const& e) {
    EXPECT_STREQ(e.what(), "mount flags given twice in \"flags=w&flags=C\"");
  }
}

TEST(MountFlagsTest, ReflectionBoxesValueAndText) {
  Qel::GenericIf::PtrConst boxed = Qel::ValueTraits<MountFlags>::box(MountFlags(0x12));
  ASSERT_TRUE(boxed);
  EXPECT_EQ(boxed->qelType()->name(), "Qel::MountFlags");
  EXPECT_EQ(boxed->text(), "wC");
  EXPECT_EQ(boxed->attribute(boxed->attributeId("value"))->valueAs<U32>(), 0x12u);
  EXPECT_EQ(Qel::ValueTraits<MountFlags>::unbox(boxed), MountFlags(0x12));
}

}  // namespace
