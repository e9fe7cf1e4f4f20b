#include "PassiveEntityManager/PathTemplates.h"

#include "Check/Check.h"
#include "Orn/LogicalOp.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

ReservedTemplateKeyDict& globalReservedTemplateKeyDict() {
  static ReservedTemplateKeyDict dict;
  return dict;
}

Qel::String templateValue(Qel::String const& key, PassiveAgentStatus::Ptr const& status) {
  TRACE(PassiveEntityManager, kTraceDecision, "template key is {}", key);
  if (status) {
    if (Qel::String const* v = status->templateValueDict(key)) return *v;
  }
  auto const& reserved = globalReservedTemplateKeyDict();
  auto it = reserved.find(key);
  return it == reserved.end() ? Qel::String() : it->second;
}

Qel::String canonicalizePath(Qel::String const& path, PassiveAgentStatus::Ptr const& status) {
  if (path.find('%') == std::string::npos) return path;
  if (status) {
    if (Qel::String const* cached = status->templateCache(path)) {
      TRACE(PassiveEntityManager, kTraceDecision, "template path exists {} in cache {}", path,
            *cached);
      return *cached;
    }
  }
  Qel::String out;
  Qel::String key;
  bool inKey = false;
  for (char c : path) {
    if (c == '%') {
      if (inKey) out += templateValue(key, status);
      key.assign(1, c);
      inKey = true;
      continue;
    }
    if (inKey && (c == '-' || c == '/')) {
      out += templateValue(key, status);
      out += c;
      inKey = false;
      continue;
    }
    if (inKey) {
      key += c;
      continue;
    }
    out += c;
  }
  if (inKey) out += templateValue(key, status);
  TRACE(PassiveEntityManager, kTraceDecision, "incoming path {} real path {}", path, out);
  if (status) status->templateCacheIs(path, out);
  return out;
}

namespace {

// Splits off the next blank-separated word of `text` from `pos` on.
Qel::String nextWord(Qel::String const& text, std::size_t& pos) {
  std::size_t start = text.find_first_not_of(" \t", pos);
  if (start == std::string::npos) {
    pos = text.size();
    return Qel::String();
  }
  std::size_t end = text.find_first_of(" \t", start);
  if (end == std::string::npos) end = text.size();
  pos = end;
  return Qel::String(text.substr(start, end - start));
}

}  // namespace

TemplateConditionParts templateConditionParts(Qel::String const& condition) {
  TemplateConditionParts parts;
  std::size_t pos = 0;
  parts.templ = nextWord(condition, pos);
  parts.op = nextWord(condition, pos);
  parts.value = nextWord(condition, pos);
  std::size_t const rest = condition.find_first_not_of(" \t", pos);
  if (rest != std::string::npos) parts.rest = condition.substr(rest);
  return parts;
}

bool evaluateTemplateCondition(Qel::String const& condition,
                               PassiveAgentStatus::Ptr const& status) {
  TRACE(PassiveEntityManager, kTraceDecision, "evaluateTemplateCondition: {}", condition);
  auto const [templ, opText, written, rest] = templateConditionParts(condition);
  Qel::String value = written;
  Qel::String const result = canonicalizePath(templ, status);
  TRACE(PassiveEntityManager, kTraceDecision, "template {} value is {}", templ, result);
  Orn::LogicalOp const logicalOp = Orn::strToLogicalOp(opText);
  QEL_CHECK(logicalOp == Orn::EQ || logicalOp == Orn::NEQ,
            "( logicalOp == Orn::EQ ) || ( logicalOp == Orn::NEQ )");
  value = value == "NULL" ? Qel::String() : canonicalizePath(value, status);
  bool const equal = result == value;
  return logicalOp == Orn::EQ ? equal : !equal;
}

}  // namespace Ledra
