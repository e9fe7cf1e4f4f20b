// Mount flags: the range limit and the parsing of URI queries, with their exact error texts. (The
// letters' order is read back in every mount request the simulation checks.)
#include "Qel/Mount/MountFlags.h"

#include <gtest/gtest.h>

#include "Qel/Core/Exception.h"
#include "tests/support/ExactText.h"

namespace {

using Qel::MountFlags;

TEST(MountFlagsTest, ValuesAboveTheRangeAreRefused) {
  EXPECT_EQ(MountFlags(0x3ffff).value(), 0x3ffffu);
  EXPECT_THROW_TEXT(MountFlags{0x40000}, Qel::RangeException, "Flags::value > 0x3ffff not allowed");
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
