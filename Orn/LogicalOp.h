// Orn::LogicalOp: the comparison operator of an attribute condition, and its text forms.
//
// Exactly six operators, numbered 0..5. logicalOpToStr gives "==", "!=", "<=", ">=", "<", ">";
// strToLogicalOp accepts those texts and also "in" (EQ) and "notin" (NEQ): whether equality or
// membership is meant follows from the watched attribute being a collection, so the two spellings
// parse to the same operator and never come back as text. Any other text, or any value outside
// 0..5, is a programming error and fails the assertion "Unknown logical op".
//
// The enumeration is unscoped so that both Orn::EQ and Orn::LogicalOp::EQ name an operator.
// Pure functions; usable from any thread.
#pragma once

#include "Qel/Core/Types.h"

namespace Orn {

enum LogicalOp : int {
  EQ = 0,
  NEQ = 1,
  LE = 2,
  GE = 3,
  LT = 4,
  GT = 5,
};

Qel::String logicalOpToStr(LogicalOp op);
LogicalOp strToLogicalOp(Qel::String const& text);

namespace detail {
// The operator's text for trace lines: the same as logicalOpToStr for 0..5, "?" otherwise, so that
// tracing an out-of-range operator never ends the process.
char const* logicalOpText(LogicalOp op);
}  // namespace detail

}  // namespace Orn
