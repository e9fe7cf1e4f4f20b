#include "apps/ledrad/ConditionText.h"

#include <array>
#include <sstream>
#include <vector>

#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Core/Exception.h"
#include "Qel/Reflection/GenericValue.h"

namespace Ledrad {

namespace {

constexpr std::array<char const*, 8> kOperators = {"==", "!=", "<=", ">=", "<", ">", "in", "notin"};

std::optional<ConditionText> refuse(std::string& reason, std::string text) {
  reason = std::move(text);
  return std::nullopt;
}

}  // namespace

bool ConditionText::isOperator(std::string const& op) {
  for (char const* o : kOperators) {
    if (op == o) return true;
  }
  return false;
}

bool ConditionText::isOrdering(std::string const& op) {
  return op == "<=" || op == ">=" || op == "<" || op == ">";
}

std::optional<ConditionText> ConditionText::parse(std::string const& text, std::string& reason) {
  std::string const usage = " (expected CONSTANT OPERATOR [len(] PATH.ATTRIBUTE)";
  std::istringstream words(text);
  std::string firstWord;
  words >> firstWord;
  if (firstWord.find('.') != std::string::npos) {
    return refuse(reason, "the constant '" + firstWord + "' holds a dot, which ends a token");
  }
  // The engine's own reading of the text, so that the file and the engine never disagree.
  auto const parts = Ledra::ConditionalMountGroupSm::conditionParts(text);
  if (parts.op.empty()) return refuse(reason, "condition '" + text + "' is incomplete" + usage);
  if (!isOperator(parts.op)) {
    return refuse(reason, "unknown operator '" + parts.op + "' (one of == != <= >= < > in notin)");
  }
  if (parts.path.empty() || parts.attribute.empty()) {
    return refuse(reason, "condition '" + text + "' is incomplete" + usage);
  }
  if (parts.path.front() != '/') {
    return refuse(reason, "the entity path '" + parts.path + "' does not begin with '/'");
  }
  return ConditionText{parts.constant, parts.op, parts.len, parts.path, parts.attribute};
}

std::string ConditionText::valueIn(Qel::Entity const& e) const {
  Qel::AttributeId const aid = e.attributeId(Qel::Name(attribute));
  if (aid == Qel::kNoAttribute) return "no attribute " + attribute;
  try {
    Qel::QelAttr const* a = e.qelType()->attribute(aid);
    if (len) return e.colLength(aid)->text() + " elements";
    if (a->isCollection()) {
      auto key = a->keyType()->valueFromText(Qel::String(constant));
      return e.isMember(aid, key)->valueAs<bool>() ? constant + " present" : constant + " absent";
    }
    auto v = e.attribute(aid);
    return v ? std::string(v->text()) : std::string("null");
  } catch (Qel::Exception const&) {
    return {};
  }
}

std::optional<TemplateConditionText> TemplateConditionText::parse(std::string const& text,
                                                                  std::string& reason) {
  // The engine's own reading of the words, as for attribute conditions.
  auto const parts = Ledra::templateConditionParts(text);
  if (parts.value.empty() || !parts.rest.empty()) {
    reason = "template condition '" + text + "' needs exactly TEMPLATE OPERATOR VALUE";
    return std::nullopt;
  }
  TemplateConditionText t{parts.templ, parts.op, parts.value};
  if (t.op != "==" && t.op != "!=" && t.op != "in" && t.op != "notin") {
    reason = "template condition operator '" + t.op + "' is not one of == != in notin";
    return std::nullopt;
  }
  return t;
}

}  // namespace Ledrad
