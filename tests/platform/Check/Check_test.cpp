// QEL_CHECK: the printed line, the text taken verbatim, one evaluation, active whatever NDEBUG.
#ifndef NDEBUG
#define NDEBUG  // checks must stay active in builds that turn assert() off
#endif

#include "Check/Check.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/ExactText.h"

namespace {

using Ledra::test::literal;

int const kNamedLine = __LINE__ + 1;
void failInNamedFunction() {
  QEL_CHECK(kNamedLine < 0, "kNamedLine < 0");
}

// The full line a failed check prints, then the first frame of the backtrace.
std::string expected(std::string const& text, std::string const& function, int line) {
  return literal("Assertion failed: " + text + ", function " + function + ", file " + __FILE__ +
                 ", line " + std::to_string(line) + ".\n") +
         "  #0 ";
}

TEST(CheckDeathTest, PrintsTheTextVerbatimWithFunctionFileAndLine) {
  struct Row {
    std::function<void()> fail;
    std::string text;
    std::string function;
    int line;
  } const rows[] = {
      {[] { QEL_CHECK(false, "false && \"quoted message\""); }, "false && \"quoted message\"",
       "operator()", __LINE__},
      // Formatting directives and backslashes are not interpreted.
      {[] { QEL_CHECK(false, "%s %d %% {} \\n"); }, "%s %d %% {} \\n", "operator()", __LINE__},
      // The text need not repeat the condition: it is what the site wrote.
      {[] { QEL_CHECK(1 + 1 == 3, "rv->priority() == prio"); }, "rv->priority() == prio",
       "operator()", __LINE__},
      {failInNamedFunction, "kNamedLine < 0", "failInNamedFunction", kNamedLine},
  };
  for (Row const& row : rows) {
    EXPECT_DEATH(row.fail(), expected(row.text, row.function, row.line)) << row.text;
  }
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
