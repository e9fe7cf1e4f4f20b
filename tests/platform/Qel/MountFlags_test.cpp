// Mount flags: the letter table, the range limit with its exact error text, exclusive or, and
// parsing of URI queries.
#include "Qel/MountFlags.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "support/ExactText.h"

namespace {

using Qel::MountFlags;
using Qel::U32;

TEST(MountFlagsTest, EachLetterIsOneBitInTableOrder) {
  std::string const letters = "rwciCSpnfDB";
  for (std::size_t i = 0; i < letters.size(); ++i) {
    U32 const bit = 1u << i;
    MountFlags const f = Qel::parseMountFlags("flags=" + letters.substr(i, 1));
    EXPECT_EQ(f.value(), bit) << letters[i];
    EXPECT_EQ(f.text(), letters.substr(i, 1));
    EXPECT_EQ(MountFlags::bitOf(letters[i]), bit) << letters[i];
  }
}

TEST(MountFlagsTest, RangeBoundaryAndExactErrorText) {
  EXPECT_EQ(MountFlags(0x3ffff).value(), 0x3ffffu);
  EXPECT_THROW_TEXT(MountFlags{0x40000}, Qel::RangeException, "Flags::value > 0x3ffff not allowed");
  EXPECT_THROW(MountFlags(0xffffffffu), Qel::RangeException);
}

TEST(MountFlagsTest, ExclusiveOrAndHas) {
  MountFlags const a = MountFlags::fromLetters("Cnp");
  EXPECT_EQ((a ^ MountFlags::fromLetters("wnp")).value(),
            MountFlags::kConvertible | MountFlags::kWrite);
  EXPECT_TRUE((a ^ a).empty());
  EXPECT_EQ((MountFlags(0x3ffff) ^ MountFlags(0x1)).value(), 0x3fffeu);
  MountFlags const f = MountFlags::fromLetters("wc");
  EXPECT_TRUE(f.has(MountFlags::kWrite | MountFlags::kCreate));
  EXPECT_FALSE(f.has(MountFlags::kWrite | MountFlags::kRead));  // every bit is required
  EXPECT_TRUE(f.has(0));
}

TEST(MountFlagsTest, TextListsTheLettersInTableOrderThenUnlettedBitsInHex) {
  for (char const* letters : {"Cnp", "Cp", "wnp", "wp", "wiSnp", "CiSp", "Snp", "iSp"})
    EXPECT_EQ(MountFlags::fromLetters(letters).text(), letters);
  EXPECT_EQ(MountFlags::fromLetters("pnC").text(), "Cnp");
  EXPECT_EQ(MountFlags::fromLetters("ww").text(), "w");
  EXPECT_EQ(MountFlags::fromLetters("BDfcwr").text(), "rwcfDB");
  EXPECT_EQ(MountFlags().text(), "");
  EXPECT_EQ(MountFlags(0x800 | 0x2).text(), "w+0x800");
  EXPECT_EQ(MountFlags(0x20000).text(), "+0x20000");
}

TEST(ParseMountFlagsTest, FindsFlagsAmongOtherParametersAndRefusesBadOnes) {
  EXPECT_EQ(Qel::parseMountFlags("flags=Cnp").text(), "Cnp");
  EXPECT_EQ(Qel::parseMountFlags("x=1&flags=wp&y=2").text(), "wp");
  for (char const* none : {"a=b&flags=", "", "noflags=w", "xflags=w&other"})
    EXPECT_EQ(Qel::parseMountFlags(none).value(), 0u) << none;
  EXPECT_THROW_TEXT(Qel::parseMountFlags("flags=wXp"), Qel::ParseException,
                    "unknown mount flag 'X' in \"wXp\"");
  EXPECT_THROW(Qel::parseMountFlags("flags=R"), Qel::ParseException);
  EXPECT_THROW(Qel::parseMountFlags("flags= w"), Qel::ParseException);
  EXPECT_THROW_TEXT(Qel::parseMountFlags("flags=w&flags=C"), Qel::ParseException,
                    "mount flags given twice in \"flags=w&flags=C\"");
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
