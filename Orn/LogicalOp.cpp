#include "Orn/LogicalOp.h"

#include <array>
#include <utility>

#include "Check/Check.h"

namespace Orn {

namespace {

// The texts strToLogicalOp accepts, in the order they are tried.
constexpr std::array<std::pair<char const*, LogicalOp>, 8> kParsed{{
    {"==", EQ},
    {"!=", NEQ},
    {"<=", LE},
    {">=", GE},
    {"<", LT},
    {">", GT},
    {"in", EQ},
    {"notin", NEQ},
}};

// The text of each operator, indexed by its value.
constexpr std::array<char const*, 6> kText{"==", "!=", "<=", ">=", "<", ">"};

bool inRange(LogicalOp op) {
  return static_cast<int>(op) >= 0 && static_cast<std::size_t>(op) < kText.size();
}

}  // namespace

char const* detail::logicalOpText(LogicalOp op) {
  if (!inRange(op)) return "?";
  return kText[static_cast<std::size_t>(op)];
}

Qel::String logicalOpToStr(LogicalOp op) {
  QEL_CHECK(inRange(op), "inRange(op) && \"Unknown logical op\"");
  return Qel::String(kText[static_cast<std::size_t>(op)]);
}

LogicalOp strToLogicalOp(Qel::String const& text) {
  for (auto const& [spelling, op] : kParsed) {
    if (text == spelling) return op;
  }
  QEL_CHECK(false, "false && \"Unknown logical op\"");
  return EQ;  // not reached: the assertion ends the process
}

}  // namespace Orn
