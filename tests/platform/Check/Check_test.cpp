// QEL_CHECK: the printed line, the text taken verbatim, one evaluation, active whatever NDEBUG.
#ifndef NDEBUG
#define NDEBUG  // checks must stay active in builds that turn assert() off
#endif

#include "Check/Check.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/ExactText.h"

namespace {

using Ledra::test::literal;

// Each failing check sits two lines below its line number.
int const kQuotedLine = __LINE__ + 2;
void quoted() {
  QEL_CHECK(false, "false && \"quoted message\"");
}
int const kFormatLine = __LINE__ + 2;
void formatting() {
  QEL_CHECK(false, "%s %d %% {} \\n");
}
int const kOtherTextLine = __LINE__ + 2;
void otherText() {
  QEL_CHECK(1 + 1 == 3, "rv->priority() == prio");
}

// The full line a failed check prints, then the first frame of the backtrace.
std::string expected(std::string const& text, std::string const& function, int line) {
  return literal("Assertion failed: " + text + ", function " + function + ", file " + __FILE__ +
                 ", line " + std::to_string(line) + ".\n") +
         "  #0 ";
}

TEST(CheckDeathTest, PrintsTheTextVerbatimWithFunctionFileAndLine) {
  struct Row {
    void (*fail)();
    std::string text;
    std::string function;
    int line;
  } const rows[] = {
      {quoted, "false && \"quoted message\"", "quoted", kQuotedLine},
      // Formatting directives and backslashes are not interpreted.
      {formatting, "%s %d %% {} \\n", "formatting", kFormatLine},
      // The text need not repeat the condition: it is what the site wrote.
      {otherText, "rv->priority() == prio", "otherText", kOtherTextLine},
  };
  for (Row const& row : rows) {
    EXPECT_DEATH(row.fail(), expected(row.text, row.function, row.line)) << row.text;
  }
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
        quoted();
      },
      "quoted message.*\n(.*\n)*hook ran\nAssertion failed: inside the hook, [^\n]*\n(  "
      "#[^\n]*\n)*$");
  EXPECT_EQ(Check::failureHookIs(nullptr), nullptr) << "named in the dying child only";
}

TEST(CheckTest, AHoldingConditionIsEvaluatedOnceAndChangesNothing) {
  int evaluations = 0;
  QEL_CHECK(++evaluations == 1, "evaluated once");
  EXPECT_EQ(evaluations, 1);
  // A check is an expression: it fits where a statement cannot go.
  int const value = (QEL_CHECK(evaluations == 1, "still once"), 7);
  EXPECT_EQ(value, 7);
}

}  // namespace
