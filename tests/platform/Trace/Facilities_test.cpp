// Facility levels: switching traces on and off through the API and LEDRA_TRACE.
#include <cstdlib>
#include <string>
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
void traceAtEveryLevel() {
  TRACE(TraceTest, 1, "level {}", 1);
  TRACE(TraceTest, 2, "level {}", 2);
  TRACE(TraceTest, 3, "level {}", 3);
  TRACE(TraceTest, 4, "level {}", 4);
  TRACE(TraceTest, 5, "level {}", 5);
  TRACE(TraceTest, 6, "level {}", 6);
  TRACE(TraceTest, 7, "level {}", 7);
  TRACE(TraceTest, 8, "level {}", 8);
  TRACE(TraceTest, 9, "level {}", 9);
}

class TraceFacilityLevelTest : public TraceFixture, public testing::WithParamInterface<int> {};

TEST_P(TraceFacilityLevelTest, WritesExactlyTheTracesAtOrBelowTheFacilityLevel) {
  int const level = GetParam();
  testFacility().levelIs(level);
  traceAtEveryLevel();
  std::vector<std::string> expected;
  for (int l = 1; l <= level; ++l)
    expected.push_back("level " + std::to_string(l));
  EXPECT_EQ(capture_.messages(), expected);
  EXPECT_EQ(TraceTesting::messagesOf(ring()), expected);
  for (std::size_t i = 0; i < capture_.lines().size(); ++i) {
    EXPECT_EQ(capture_.lines()[i].level, static_cast<int>(i) + 1);
    EXPECT_EQ(capture_.lines()[i].facility, "TraceTest");
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, TraceFacilityLevelTest, testing::Range(0, 10));

class TraceLevelSettingTest : public TraceFixture {};

TEST_F(TraceLevelSettingTest, NamedEntriesSetOnlyTheirFacilities) {
  otherFacility().levelIs(4);
  Trace::LevelSettingResult const result = Facilities::instance().levelsAre("TraceTest=3");
  EXPECT_TRUE(result.errors.empty());
  EXPECT_TRUE(result.unknownNames.empty());
  EXPECT_EQ(testFacility().level(), 3);
  EXPECT_EQ(otherFacility().level(), 4);
  Facilities::instance().levelsAre("TraceTest=8,TraceOther=0");
  EXPECT_EQ(testFacility().level(), 8);
  EXPECT_EQ(otherFacility().level(), 0);
}

TEST_F(TraceLevelSettingTest, WildcardAndLaterEntriesWin) {
  Facilities::instance().levelsAre("*=9");
  EXPECT_EQ(testFacility().level(), 9);
  EXPECT_EQ(otherFacility().level(), 9);
  Facilities::instance().levelsAre("*=7,TraceTest=0");
  EXPECT_EQ(testFacility().level(), 0);
  EXPECT_EQ(otherFacility().level(), 7);
  Facilities::instance().levelsAre("TraceTest=2,*=5");
  EXPECT_EQ(testFacility().level(), 5);
  EXPECT_EQ(otherFacility().level(), 5);
}

TEST_F(TraceLevelSettingTest, BlanksAndEmptyEntriesAreIgnored) {
  Trace::LevelSettingResult const result =
      Facilities::instance().levelsAre(" TraceTest = 4 ,, \tTraceOther=06 ,");
  EXPECT_TRUE(result.errors.empty());
  EXPECT_EQ(testFacility().level(), 4);
  EXPECT_EQ(otherFacility().level(), 6);
  EXPECT_TRUE(Facilities::instance().levelsAre("").errors.empty());
  EXPECT_EQ(testFacility().level(), 4);
}

class TraceMalformedEntryTest : public TraceFixture,
                                public testing::WithParamInterface<char const*> {};

TEST_P(TraceMalformedEntryTest, IsSkippedWithAnErrorWhileTheOtherEntriesApply) {
  std::string const entry = GetParam();
  Trace::LevelSettingResult const result =
      Facilities::instance().levelsAre("TraceOther=2," + entry + ",TraceTest=5");
  ASSERT_EQ(result.errors.size(), 1u);
  EXPECT_EQ(result.errors[0], "ignoring \"" + entry + "\" (expected <facility>=<level 0..9>)");
  EXPECT_TRUE(result.unknownNames.empty());
  EXPECT_EQ(otherFacility().level(), 2);
  EXPECT_EQ(testFacility().level(), 5);
}

INSTANTIATE_TEST_SUITE_P(Entries, TraceMalformedEntryTest,
                         testing::Values("TraceTest", "TraceTest=10", "TraceTest=-1", "TraceTest=x",
                                         "TraceTest=3x", "TraceTest=+3", "=3",
                                         "TraceTest=", "TraceTest=3=4", "*", "TraceTest=2 5"));

TEST_F(TraceLevelSettingTest, UnknownNamesAreListedOncePerCall) {
  Trace::LevelSettingResult const result =
      Facilities::instance().levelsAre("NoSuchFacility=3,TraceTest=1,NoSuchFacility=4,Other=2");
  EXPECT_EQ(result.unknownNames, (std::vector<std::string>{"NoSuchFacility", "Other"}));
  EXPECT_EQ(testFacility().level(), 1);
}

TEST_F(TraceLevelSettingTest, SettingsAreRememberedForFacilitiesThatRegisterLater) {
  Facilities::instance().levelsAre("Late=5,*=2,Later=7");
  Trace::Facility late("Late");
  Trace::Facility later("Later");
  EXPECT_EQ(late.level(), 2);  // the wildcard came after "Late=5"
  EXPECT_EQ(later.level(), 7);
  EXPECT_EQ(Facilities::instance().find("Later"), &later);
}

TEST_F(TraceLevelSettingTest, ResetSwitchesEverythingOffAndForgetsSettings) {
  Facilities::instance().levelsAre("*=6");
  Facilities::instance().reset();
  EXPECT_EQ(testFacility().level(), 0);
  EXPECT_EQ(otherFacility().level(), 0);
  Trace::Facility late("Late");
  EXPECT_EQ(late.level(), 0);
}

TEST_F(TraceLevelSettingTest, ADestroyedFacilityLeavesTheRegistry) {
  std::size_t const before = Facilities::instance().all().size();
  {
    Trace::Facility temporary("Temporary");
    EXPECT_EQ(Facilities::instance().find("Temporary"), &temporary);
    EXPECT_EQ(Facilities::instance().all().size(), before + 1);
  }
  EXPECT_EQ(Facilities::instance().find("Temporary"), nullptr);
  EXPECT_EQ(Facilities::instance().all().size(), before);
  EXPECT_EQ(Facilities::instance().levelsAre("Temporary=3").unknownNames,
            std::vector<std::string>{"Temporary"});
}

TEST_F(TraceLevelSettingTest, FacilitiesSharingANameAreSetTogether) {
  Trace::Facility first("Twin");
  Trace::Facility second("Twin");
  Facilities::instance().levelsAre("Twin=3");
  EXPECT_EQ(first.level(), 3);
  EXPECT_EQ(second.level(), 3);
  EXPECT_EQ(Facilities::instance().find("Twin"), &first);
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
  MemoryFile first;
  Facilities::instance().readEnvironment(first.file());
  EXPECT_EQ(testFacility().level(), 6);
  EXPECT_EQ(otherFacility().level(), 3);
  EXPECT_EQ(first.text(),
            "LEDRA_TRACE: ignoring \"Broken\" (expected <facility>=<level 0..9>)\n"
            "LEDRA_TRACE: unknown trace facility \"" +
                unknown + "\"\n");

  testFacility().levelIs(0);
  MemoryFile second;
  Facilities::instance().readEnvironment(second.file());
  EXPECT_EQ(testFacility().level(), 6);
  EXPECT_EQ(second.text(), "LEDRA_TRACE: ignoring \"Broken\" (expected <facility>=<level 0..9>)\n");
}

TEST_F(TraceEnvironmentTest, AnUnsetVariableChangesNothing) {
  ::unsetenv("LEDRA_TRACE");
  testFacility().levelIs(4);
  MemoryFile report;
  Facilities::instance().readEnvironment(report.file());
  EXPECT_EQ(testFacility().level(), 4);
  EXPECT_EQ(report.text(), "");
}

// The start-up read happens while the process initialises, so these tests run in a fresh process
// (the "threadsafe" death-test style re-executes the test program) that inherits the variable.
class TraceStartupEnvironmentDeathTest : public testing::Test {
 protected:
  TraceStartupEnvironmentDeathTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::setenv("LEDRA_TRACE", "TraceTest=6,StartupUnknown=2,=1,TraceOther=3", 1);
  }
  ~TraceStartupEnvironmentDeathTest() override {
    ::unsetenv("LEDRA_TRACE");
    GTEST_FLAG_SET(death_test_style, "fast");
  }
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

class TraceFacilityDeathTest : public TraceFixture {};

TEST_F(TraceFacilityDeathTest, LevelsOutsideZeroToNineAreContractViolations) {
  EXPECT_DEATH(testFacility().levelIs(10),
               "Assertion failed: level >= 0 && level <= kMaxLevel && \"trace level out of range "
               "0\\.\\.9\"");
  EXPECT_DEATH(testFacility().levelIs(-1), "trace level out of range 0\\.\\.9");
}

TEST_F(TraceFacilityDeathTest, AFacilityNeedsAName) {
  EXPECT_DEATH(Trace::Facility(""),
               "Assertion failed: !name_.empty\\(\\) && \"trace facility without a name\"");
}

}  // namespace
