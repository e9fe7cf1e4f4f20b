// The comparison operators' text forms: anything but a whole operator text is unknown.
#include "Orn/LogicalOp.h"

#include <gtest/gtest.h>

#include "ReactorFixture.h"

namespace {

TEST(LogicalOpDeathTest, AnythingElseIsUnknown) {
  // Whole texts only: neither a prefix, an extension, another case nor padding is accepted.
  for (char const* text : {"=", "<==", "IN", "notin "}) {
    EXPECT_DEATH(Orn::strToLogicalOp(text), OrnTesting::literal("\"Unknown logical op\""))
        << '"' << text;
  }
  EXPECT_DEATH(Orn::logicalOpToStr(static_cast<Orn::LogicalOp>(6)),
               OrnTesting::literal("\"Unknown logical op\""));
}

}  // namespace
