// QEL_CHECK: the printed line, the text taken verbatim, one evaluation, active whatever NDEBUG.
#ifndef NDEBUG
#define NDEBUG  // checks must stay active in builds that turn assert() off
#endif

#include "Check/Check.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/ExactText.h"

namespace {

// The failing check sits two lines below; its text holds quotes, formatting directives and a
// backslash, none of them interpreted, and need not repeat the condition.
int const kFailLine = __LINE__ + 2;
void fail() {
  QEL_CHECK(1 + 1 == 3, "false && \"quoted\" %s %d %% {} \\n");
}

TEST(CheckDeathTest, PrintsTheTextVerbatimWithFunctionFileAndLineThenABacktrace) {
  EXPECT_DEATH(fail(), Ledra::test::literal("Assertion failed: false && \"quoted\" %s %d %% {} "
                                            "\\n, function fail, file " __FILE__ ", line " +
                                            std::to_string(kFailLine) + ".\n") +
                           "  #0 ");
}

// The hook runs once, after the message; a check failing inside it aborts without a second run.
TEST(CheckDeathTest, TheFailureHookRunsOnceAfterTheMessage) {
  static auto const hook = [] {
    std::fputs("hook ran\n", stderr);
    QEL_CHECK(false, "inside the hook");
  };
  EXPECT_DEATH(
      {
        Check::failureHookIs(hook);
        fail();
      },
      "quoted.*\n(.*\n)*hook ran\nAssertion failed: inside the hook, [^\n]*\n(  #[^\n]*\n)*$");
}

TEST(CheckTest, AHoldingConditionIsEvaluatedOnceAndTheCheckIsAnExpression) {
  int evaluations = 0;
  int const value = (QEL_CHECK(++evaluations == 1, "evaluated once"), 7);
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(value, 7);
}

}  // namespace
