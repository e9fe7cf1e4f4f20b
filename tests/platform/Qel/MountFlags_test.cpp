// Mount flags: the range limit with its exact error text, exclusive or, the text form and parsing
// of URI queries.
#include "Qel/MountFlags.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "support/ExactText.h"

namespace {

using Qel::MountFlags;

TEST(MountFlagsTest, RangeExclusiveOrAndHas) {
  EXPECT_EQ(MountFlags(0x3ffff).value(), 0x3ffffu);
  EXPECT_THROW_TEXT(MountFlags{0x40000}, Qel::RangeException, "Flags::value > 0x3ffff not allowed");
  MountFlags const a = MountFlags::fromLetters("Cnp");
  EXPECT_EQ((a ^ MountFlags::fromLetters("wnp")).value(),
            MountFlags::kConvertible | MountFlags::kWrite);
  MountFlags const f = MountFlags::fromLetters("wc");
  EXPECT_TRUE(f.has(MountFlags::kWrite | MountFlags::kCreate));
  EXPECT_FALSE(f.has(MountFlags::kWrite | MountFlags::kRead));  // every bit is required
}

TEST(MountFlagsTest, TextListsTheLettersInTableOrderThenUnlettedBitsInHex) {
  EXPECT_EQ(MountFlags::fromLetters("pnC").text(), "Cnp");
  EXPECT_EQ(MountFlags::fromLetters("BDfcwrSpinC").text(), "rwCciSfDBnp");
  EXPECT_EQ(MountFlags(0x800 | 0x2).text(), "w+0x800");
  EXPECT_EQ(MountFlags(0x20000).text(), "+0x20000");
}

TEST(ParseMountFlagsTest, FindsFlagsAmongOtherParametersAndRefusesBadOnes) {
  EXPECT_EQ(Qel::parseMountFlags("x=1&flags=wp&y=2").text(), "wp");
  for (char const* none : {"a=b&flags=", "", "noflags=w", "xflags=w&other"})
    EXPECT_EQ(Qel::parseMountFlags(none).value(), 0u) << none;
  EXPECT_THROW_TEXT(Qel::parseMountFlags("flags=wXp"), Qel::ParseException,
                    "unknown mount flag 'X' in \"wXp\"");
  EXPECT_THROW_TEXT(Qel::parseMountFlags("flags=w&flags=C"), Qel::ParseException,
                    "mount flags given twice in \"flags=w&flags=C\"");
}

}  // namespace
