// Facility levels: switching traces on and off through the API and LEDRA_TRACE.
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TraceTestSupport.h"

namespace {

using Trace::Facilities;
using TraceTesting::MemoryFile;
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

class TraceFacilityLevelTest : public TraceFixture, public testing::WithParamInterface<int> {};

TEST_P(TraceFacilityLevelTest, WritesExactlyTheTracesAtOrBelowTheFacilityLevel) {
  testFacility().levelIs(GetParam());
  traceAtLevels(std::make_integer_sequence<int, 9>());
  std::vector<std::string> expected;
  for (int l = 1; l <= GetParam(); ++l)
    expected.push_back("level " + std::to_string(l));
  EXPECT_EQ(capture_.messages(), expected);
  EXPECT_EQ(ringMessages(), expected);
  for (std::size_t i = 0; i < capture_.lines().size(); ++i) {
    EXPECT_EQ(capture_.lines()[i].level, static_cast<int>(i) + 1);
    EXPECT_EQ(capture_.lines()[i].facility, "TraceTest");
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, TraceFacilityLevelTest, testing::Range(0, 10));

class TraceLevelSettingTest : public TraceFixture {
 protected:
  // Applies settings from TraceTest=1 and TraceOther=4; returns both levels, then " | " before
  // each error and " ? " before each unknown name.
  static std::string apply(std::string const& settings) {
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
};

TEST_F(TraceLevelSettingTest, EntriesApplyInOrderMalformedOnesAreSkippedUnknownNamesListed) {
  EXPECT_EQ(apply("TraceTest=3"), "3 4");
  EXPECT_EQ(apply("TraceTest=8,TraceOther=0"), "8 0");
  EXPECT_EQ(apply("*=9"), "9 9");
  EXPECT_EQ(apply("*=7,TraceTest=0"), "0 7");
  EXPECT_EQ(apply("TraceTest=2,*=5"), "5 5");
  EXPECT_EQ(apply(" TraceTest = 4 ,, \tTraceOther=06 ,"), "4 6");
  EXPECT_EQ(apply(""), "1 4");
  EXPECT_EQ(apply("NoSuchFacility=3,TraceTest=2,NoSuchFacility=4,Other=2"),
            "2 4 ? NoSuchFacility ? Other");
  for (std::string const entry :
       {"TraceTest", "TraceTest=10", "TraceTest=-1", "TraceTest=x", "TraceTest=3x", "TraceTest=+3",
        "=3", "TraceTest=", "TraceTest=3=4", "*", "TraceTest=2 5"}) {
    EXPECT_EQ(apply("TraceOther=2," + entry + ",TraceTest=5"),
              "5 2 | ignoring \"" + entry + "\" (expected <facility>=<level 0..9>)");
  }
}

TEST_F(TraceLevelSettingTest, LaterFacilitiesTakeRememberedSettingsTwinsAreSetTogether) {
  std::size_t const before = Facilities::instance().all().size();
  Facilities::instance().levelsAre("Late=5,*=2,Twin=7");
  {
    Trace::Facility late("Late");
    Trace::Facility first("Twin");
    Trace::Facility second("Twin");
    EXPECT_EQ(late.level(), 2);  // the wildcard came after "Late=5"
    EXPECT_EQ(first.level(), 7);
    EXPECT_EQ(Facilities::instance().all().size(), before + 3);
    Facilities::instance().levelsAre("Twin=3");
    EXPECT_EQ(std::pair(first.level(), second.level()), std::pair(3, 3));
    EXPECT_EQ(Facilities::instance().find("Twin"), &first);
  }
  EXPECT_EQ(Facilities::instance().find("Twin"), nullptr);
  EXPECT_EQ(Facilities::instance().all().size(), before);
  EXPECT_EQ(apply("Twin=3"), "1 4 ? Twin");
  Facilities::instance().reset();  // switches everything off and forgets the settings
  EXPECT_EQ(std::pair(testFacility().level(), otherFacility().level()), std::pair(0, 0));
  EXPECT_EQ(Trace::Facility("Late").level(), 0);
}

class TraceEnvironmentTest : public TraceFixture {
 protected:
  ~TraceEnvironmentTest() override { ::unsetenv(Facilities::kEnvironmentVariable); }
};

TEST_F(TraceEnvironmentTest, ReadAppliesTheVariableAndReportsUnknownNamesOnlyOnce) {
  // Unknown names are reported once per process, so each run of this test needs a new one.
  static int run = 0;
  std::string const unknown = "EnvOnlyName" + std::to_string(++run);
  ::setenv("LEDRA_TRACE", ("TraceTest=6," + unknown + "=1,Broken,TraceOther=3").c_str(), 1);
  std::string const broken =
      "LEDRA_TRACE: ignoring \"Broken\" (expected <facility>=<level 0..9>)\n";
  MemoryFile first;
  Facilities::instance().readEnvironment(first.file());
  EXPECT_EQ(testFacility().level(), 6);
  EXPECT_EQ(otherFacility().level(), 3);
  EXPECT_EQ(first.text(), broken + "LEDRA_TRACE: unknown trace facility \"" + unknown + "\"\n");
  testFacility().levelIs(0);
  MemoryFile second;
  Facilities::instance().readEnvironment(second.file());
  EXPECT_EQ(testFacility().level(), 6);
  EXPECT_EQ(second.text(), broken);
  // An unset variable changes nothing.
  ::unsetenv("LEDRA_TRACE");
  testFacility().levelIs(4);
  MemoryFile third;
  Facilities::instance().readEnvironment(third.file());
  EXPECT_EQ(testFacility().level(), 4);
  EXPECT_EQ(third.text(), "");
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

// Exits with 0 when the levels came from the variable and the problems are reported exactly once.
void checkStartupReport() {
  MemoryFile report;
  Facilities::instance().reportStartupProblems(report.file());
  Facilities::instance().reportStartupProblems(report.file());
  Facilities::instance().readEnvironment(report.file());
  std::string const expected =
      "LEDRA_TRACE: ignoring \"=1\" (expected <facility>=<level 0..9>)\n"
      "LEDRA_TRACE: unknown trace facility \"StartupUnknown\"\n"
      "LEDRA_TRACE: ignoring \"=1\" (expected <facility>=<level 0..9>)\n";
  std::string const text = report.text();
  std::fputs(text.c_str(), stderr);
  bool const ok = text == expected && testFacility().level() == 6 && otherFacility().level() == 3;
  std::exit(ok ? 0 : 1);
}

TEST_F(TraceStartupEnvironmentDeathTest, LevelsComeFromTheVariableAndProblemsAreReportedOnce) {
  EXPECT_EXIT(checkStartupReport(), testing::ExitedWithCode(0), "unknown trace facility");
}

// The first text line written reports the start-up problems on the standard error stream.
void writeFirstLine() {
  TRACE(TraceTest, 6, "first line {}", 1);
  std::exit(0);
}

TEST_F(TraceStartupEnvironmentDeathTest, TheFirstTextLineReportsStartupProblems) {
  EXPECT_EXIT(writeFirstLine(), testing::ExitedWithCode(0),
              "LEDRA_TRACE: unknown trace facility \"StartupUnknown\"\n"
              "[0-9.]+ TraceTest/6 first line 1\n");
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
  EXPECT_DEATH(testFacility().levelIs(10),
               "Assertion failed: level >= 0 && level <= kMaxLevel && \"trace level out of range "
               "0\\.\\.9\"");
  EXPECT_DEATH(testFacility().levelIs(-1), "trace level out of range 0\\.\\.9");
  EXPECT_DEATH(Trace::Facility(""),
               "Assertion failed: !name_.empty\\(\\) && \"trace facility without a name\"");
}

}  // namespace
