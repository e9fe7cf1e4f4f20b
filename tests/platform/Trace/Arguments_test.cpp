// Every kind of trace argument, checked in both forms: the text line the capture sink receives
// and the line decoded from the ring record.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "TraceTestSupport.h"

namespace {

class TraceArgumentTest : public TraceTesting::TraceFixture {
 protected:
  TraceArgumentTest() { LEDRA_TRACE_FACILITY(TraceTest).levelIs(9); }

  // The last text line and the last ring line both read expected.
  void expectBoth(std::string const& expected) {
    ASSERT_FALSE(capture_.lines().empty());
    EXPECT_EQ(capture_.lines().back().message, expected);
    EXPECT_EQ(ringMessages().back(), expected);
  }
};

template <class T>
class TraceIntegerArgumentTest : public TraceArgumentTest {};

using IntegerTypes = testing::Types<signed char, unsigned char, short, unsigned short, int,
                                    unsigned, long, unsigned long, long long, unsigned long long>;
TYPED_TEST_SUITE(TraceIntegerArgumentTest, IntegerTypes);

// Decimal and two's-complement hex of each value in its own width, computed independently.
TYPED_TEST(TraceIntegerArgumentTest, PrintsDecimalAndHexAtTheLimitsOfTheType) {
  using T = TypeParam;
  for (T const value : {std::numeric_limits<T>::min(), std::numeric_limits<T>::max()}) {
    TRACE(TraceTest, 1, "d={} x={:x}", value, value);
    char hex[32];
    std::snprintf(hex, sizeof hex, "%llx",
                  static_cast<unsigned long long>(static_cast<std::make_unsigned_t<T>>(value)));
    this->expectBoth("d=" + std::to_string(value) + " x=" + hex);
  }
}

TEST_F(TraceArgumentTest, EveryOtherKindPrintsInBothForms) {
  auto* const pointer = reinterpret_cast<void*>(std::uintptr_t{0x7f12ab34});
  int* const nullInt = nullptr;
  TRACE(TraceTest, 1, "{} {} [{}] {:x} {} {}", true, false, '{', static_cast<char>(-1), pointer,
        nullInt);
  expectBoth("true false [{] ff 0x7f12ab34 0x0");
  TRACE(TraceTest, 1, "{} {} {} {} {} {}", 0.1 + 0.2, 1e20, -0.0, 0.1f,
        std::numeric_limits<double>::infinity(), std::nan(""));
  expectBoth("0.30000000000000004 1e+20 -0 0.1 inf nan");
  char buffer[16] = "array";
  char const* const null = nullptr;
  std::string_view const view = std::string_view("a view, not terminated").substr(2, 4);
  TRACE(TraceTest, 1, "{}|{}|{}|{}|[{}]", buffer, std::string("std"), view, null,
        std::string("a\0b", 3));
  expectBoth(std::string("array|std|view|(null)|[a\0b]", 27));
}

}  // namespace
