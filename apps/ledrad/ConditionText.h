// Ledrad::ConditionText: reading the attribute condition of a conditional mount group and the
// template condition of a mount group, as the passive entity manager will read them, so that a
// file is refused before a condition could stop the process.
//
// An attribute condition reads "CONSTANT OPERATOR [len(] PATH.ATTRIBUTE": a token ends at a blank
// or a dot and the separator is dropped, so neither the constant nor the path may hold a dot.
// Whatever follows the attribute is not read, and the parenthesis closing "len(" may follow the
// attribute directly. The operator is one of == != <= >= < > in notin. The parts are read by the
// engine's own reader (ConditionalMountGroupSm::conditionParts), so file and engine agree.
//
// A template condition reads "TEMPLATE OPERATOR VALUE" (exactly three words, separated by blanks or
// tabs, read by the engine's templateConditionParts); only == != in notin are allowed, and the
// value NULL stands for the empty text.
//
// parse() returns what it read, or an empty result with the reason in `reason`. Pure functions, but
// for valueIn(), which reads the entity it is given.
#pragma once

#include <optional>
#include <string>

#include "Qel/Entity/Entity.h"

namespace Ledrad {

struct ConditionText {
  std::string constant;
  std::string op;
  bool len = false;
  std::string path;
  std::string attribute;

  static std::optional<ConditionText> parse(std::string const& text, std::string& reason);
  // The value the condition's attribute has now in `e`, as text: the element count ("3
  // elements") for len(, whether the constant is a key ("x present", "x absent") of a collection,
  // else the value ("null" for none); "no attribute NAME" when `e` has none such; empty when the
  // value cannot be read.
  std::string valueIn(Qel::Entity const& e) const;
  // Whether `op` is an operator text of an attribute condition.
  static bool isOperator(std::string const& op);
  // Whether `op` compares by order (<=, >=, <, >), as opposed to (in)equality.
  static bool isOrdering(std::string const& op);
};

struct TemplateConditionText {
  std::string templ;
  std::string op;
  std::string value;

  static std::optional<TemplateConditionText> parse(std::string const& text, std::string& reason);
};

}  // namespace Ledrad
