// Facility levels: switching traces on and off through the API and LEDRA_TRACE.
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TraceTestSupport.h"

namespace {

using Trace::Facilities;
using TraceTesting::TraceFixture;

Trace::Facility& testFacility() {
  return LEDRA_TRACE_FACILITY(TraceTest);
}
Trace::Facility& otherFacility() {
  return LEDRA_TRACE_FACILITY(TraceOther);
}

// One trace at every level 1..9, so the captured messages show which levels are on.
template <int L>
void traceAt() {
  TRACE(TraceTest, L, "level {}", L);
}
template <int... L>
void traceAtLevels(std::integer_sequence<int, L...>) {
  (traceAt<L + 1>(), ...);
}

using TraceLevelTest = TraceFixture;

TEST_F(TraceLevelTest, WritesExactlyTheTracesAtOrBelowTheFacilityLevel) {
  for (int level : {0, 1, 8, 9}) {
    testFacility().levelIs(level);
    capture_.clear();
    Trace::Ringlog::global().clear();
    traceAtLevels(std::make_integer_sequence<int, 9>());
    std::vector<std::string> expected;
    for (int l = 1; l <= level; ++l)
      expected.push_back("level " + std::to_string(l));
    EXPECT_EQ(capture_.messages(), expected) << level;
    EXPECT_EQ(ringMessages(), expected) << level;
  }
}

// Applies settings from TraceTest=1 and TraceOther=4; returns both levels, then " | " before
// each error and " ? " before each unknown name.
std::string apply(std::string const& settings) {
  testFacility().levelIs(1);
  otherFacility().levelIs(4);
  Trace::LevelSettingResult const result = Facilities::instance().levelsAre(settings);
  std::string out =
      std::to_string(testFacility().level()) + " " + std::to_string(otherFacility().level());
  for (std::string const& error : result.errors)
    out += " | " + error;
  for (std::string const& name : result.unknownNames)
    out += " ? " + name;
  return out;
}

TEST_F(TraceLevelTest, LevelEntriesApplyInOrderMalformedOnesAreSkippedUnknownNamesListed) {
  EXPECT_EQ(apply("*=9,TraceTest=0"), "0 9");
  EXPECT_EQ(apply("TraceTest=2,*=5"), "5 5");
  EXPECT_EQ(apply(" TraceTest = 4 ,, \tTraceOther=06 ,"), "4 6");
  EXPECT_EQ(apply("NoSuchFacility=3,TraceTest=2,NoSuchFacility=4,Other=2"),
            "2 4 ? NoSuchFacility ? Other");
  for (std::string const entry : {"TraceTest=10", "TraceTest=-1", "TraceTest=3x", "=3"}) {
    EXPECT_EQ(apply("TraceOther=2," + entry + ",TraceTest=5"),
              "5 2 | ignoring \"" + entry + "\" (expected <facility>=<level 0..9>)");
  }
}

// The start-up read happens while the process initialises, so these tests run in a fresh process
// (the "threadsafe" death-test style re-executes the test program) that inherits the variable.
class TraceStartupEnvironmentDeathTest : public testing::Test {
 protected:
  TraceStartupEnvironmentDeathTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::setenv("LEDRA_TRACE", "TraceTest=6,StartupUnknown=2,=1,TraceOther=3", 1);
    if (char const* text = std::getenv("LEDRA_TRACE_TEXT")) savedText_ = text;
    ::unsetenv("LEDRA_TRACE_TEXT");
  }
  ~TraceStartupEnvironmentDeathTest() override {
    ::unsetenv("LEDRA_TRACE");
    if (savedText_) ::setenv("LEDRA_TRACE_TEXT", savedText_->c_str(), 1);
    if (!savedText_) ::unsetenv("LEDRA_TRACE_TEXT");
    GTEST_FLAG_SET(death_test_style, "fast");
  }

 private:
  std::optional<std::string> savedText_;
};

// The first text line written reports the start-up problems on the standard error stream, once:
// a second report and a later read of the variable (which applies it again) repeat no unknown
// name. Exits with 0 when the levels came from the variable.
void writeFirstLine() {
  TRACE(TraceTest, 6, "first line {}", 1);
  bool const fromStart = testFacility().level() == 6 && otherFacility().level() == 3;
  Facilities::instance().reportStartupProblems(stderr);
  testFacility().levelIs(0);
  Facilities::instance().readEnvironment(stderr);
  std::exit(fromStart && testFacility().level() == 6 ? 0 : 1);
}

TEST_F(TraceStartupEnvironmentDeathTest, TheFirstTextLineReportsStartupProblemsOnce) {
  EXPECT_EXIT(writeFirstLine(), testing::ExitedWithCode(0),
              "LEDRA_TRACE: ignoring \"=1\" \\(expected <facility>=<level 0\\.\\.9>\\)\n"
              "LEDRA_TRACE: unknown trace facility \"StartupUnknown\"\n"
              "[0-9.]+ TraceTest/6 first line 1\n"
              "LEDRA_TRACE: ignoring \"=1\" \\(expected <facility>=<level 0\\.\\.9>\\)\n$");
}

// With LEDRA_TRACE_TEXT=off the process starts without a text sink: the trace reaches the ring,
// only the start-up report reaches the standard error stream.
void writeFirstRecord() {
  TRACE(TraceTest, 6, "first line {}", 1);
  std::exit(Trace::textSink() == nullptr && Trace::Ringlog::global().records() == 1 ? 0 : 1);
}

TEST_F(TraceStartupEnvironmentDeathTest, TextOffLeavesTheRingOnly) {
  ::setenv("LEDRA_TRACE_TEXT", "off", 1);
  EXPECT_EXIT(writeFirstRecord(), testing::ExitedWithCode(0),
              "unknown trace facility \"StartupUnknown\"\n$");
}

TEST(TraceFacilityDeathTest, LevelsOutOfRangeAndNamelessFacilitiesAreContractViolations) {
  EXPECT_DEATH(testFacility().levelIs(10), "\"trace level out of range 0\\.\\.9\"");
  EXPECT_DEATH(Trace::Facility(""), "\"trace facility without a name\"");
}

}  // namespace
