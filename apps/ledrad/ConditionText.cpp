#include "apps/ledrad/ConditionText.h"

#include <array>
#include <sstream>
#include <vector>

namespace Ledrad {

namespace {

constexpr std::array<char const*, 8> kOperators = {"==", "!=", "<=", ">=", "<", ">", "in", "notin"};

// Tokens of an attribute condition: a token ends at a blank or a dot; empty tokens are dropped.
std::vector<std::string> conditionTokens(std::string const& text) {
  std::vector<std::string> tokens;
  std::string token;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '.') {
      if (!token.empty()) tokens.push_back(std::move(token));
      token.clear();
      continue;
    }
    token.push_back(c);
  }
  if (!token.empty()) tokens.push_back(std::move(token));
  return tokens;
}

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
  std::vector<std::string> const tokens = conditionTokens(text);
  if (tokens.size() < 2) return refuse(reason, "condition '" + text + "' is incomplete" + usage);
  ConditionText c;
  c.constant = tokens[0];
  c.op = tokens[1];
  if (!isOperator(c.op)) {
    return refuse(reason, "unknown operator '" + c.op + "' (one of == != <= >= < > in notin)");
  }
  std::size_t next = 2;
  if (next < tokens.size() && tokens[next] == "len(") {
    c.len = true;
    ++next;
  }
  if (tokens.size() < next + 2) {
    return refuse(reason, "condition '" + text + "' is incomplete" + usage);
  }
  c.path = tokens[next];
  c.attribute = tokens[next + 1];
  if (c.path.front() != '/') {
    return refuse(reason, "the entity path '" + c.path + "' does not begin with '/'");
  }
  return c;
}

std::optional<TemplateConditionText> TemplateConditionText::parse(std::string const& text,
                                                                  std::string& reason) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string w; in >> w;)
    words.push_back(w);
  if (words.size() != 3) {
    reason = "template condition '" + text + "' needs exactly TEMPLATE OPERATOR VALUE";
    return std::nullopt;
  }
  TemplateConditionText t{words[0], words[1], words[2]};
  if (t.op != "==" && t.op != "!=" && t.op != "in" && t.op != "notin") {
    reason = "template condition operator '" + t.op + "' is not one of == != in notin";
    return std::nullopt;
  }
  return t;
}

}  // namespace Ledrad
