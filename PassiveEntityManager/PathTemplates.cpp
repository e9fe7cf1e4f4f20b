#include "PassiveEntityManager/PathTemplates.h"

#include <vector>

#include "Check/Check.h"
#include "Ledra/StripString.h"
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

Qel::String substituteTemplates(Qel::String const& path, TemplateValueLookup const& valueOf) {
  // A key runs from its "%" up to the next "%" (which starts another key), "-" or "/" (which
  // follows the key's value), or the end; everything else is copied as it stands.
  std::string_view const text(path);
  Qel::String out;
  out.reserve(text.size() + 16);
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t const start = text.find('%', pos);
    out.append(text.substr(pos, start == std::string_view::npos ? start : start - pos));
    if (start == std::string_view::npos) break;
    std::size_t const end = text.find_first_of("%-/", start + 1);
    out +=
        valueOf(Qel::String(text.substr(start, end == std::string_view::npos ? end : end - start)));
    if (end == std::string_view::npos) break;
    pos = end;
    if (text[end] == '%') continue;
    out += text[end];
    ++pos;
  }
  return out;
}

Qel::String canonicalizePath(Qel::String const& path, PassiveAgentStatus::Ptr const& status) {
  if (path.find('%') == std::string::npos) return path;
  return canonicalizePath(Qel::InternedText(path), status);
}

Qel::InternedText canonicalizePath(Qel::InternedText const& path,
                                   PassiveAgentStatus::Ptr const& status) {
  Qel::String const& text = path.str();
  if (text.find('%') == std::string::npos) return path;
  if (status) {
    if (Qel::InternedText const* cached = status->templateCache(path)) {
      TRACE(PassiveEntityManager, kTraceDecision, "template path exists {} in cache {}", text,
            cached->str());
      return *cached;
    }
  }
  Qel::InternedText const out(substituteTemplates(
      text, [&status](Qel::String const& key) { return templateValue(key, status); }));
  TRACE(PassiveEntityManager, kTraceDecision, "incoming path {} real path {}", text, out.str());
  if (status) status->templateCacheIs(path, out);
  return out;
}

namespace {

// The fields of an agent string: the texts between its "-" (empty ones kept).
std::vector<Qel::String> fieldsOf(Qel::String const& text) {
  std::vector<Qel::String> fields;
  std::size_t pos = 0;
  for (;;) {
    std::size_t const dash = text.find('-', pos);
    fields.emplace_back(
        text.substr(pos, dash == std::string::npos ? std::string::npos : dash - pos));
    if (dash == std::string::npos) return fields;
    pos = dash + 1;
  }
}

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

Qel::String agentTemplateValues(Qel::String const& agentString, PassiveAgentProfile const& profile,
                                TemplateValueLookup const& valueOf, TemplateValueSink const& sink) {
  using Source = TemplateValueSetting::Source;
  auto const& keys = profile.templateKey();
  // Alias keys name template keys: without template keys there is nothing to alias either.
  if (keys.empty()) return Qel::String();
  std::vector<Qel::String> const fields = fieldsOf(agentString);
  std::size_t field = 1;
  for (auto const& [position, keyText] : keys) {
    TemplateValueSetting s;
    s.key = keyText;
    s.tillEnd = !s.key.empty() && s.key.back() == '$';
    if (s.tillEnd) s.key.pop_back();
    s.field = field;
    if (fields.size() <= 1) {
      s.source = Source::missing;
      sink(s);
      return "No template value found for " + s.key;
    }
    if (field < fields.size()) {
      s.value = fields[field];
      for (std::size_t i = field + 1; s.tillEnd && i < fields.size(); ++i)
        s.value += "-" + fields[i];
    }
    ++field;
    s.source = s.value.empty() ? Source::empty : Source::field;
    sink(s);
  }
  for (auto const& [aliasText, targetText] : profile.aliasKey()) {
    TemplateValueSetting s;
    s.source = Source::alias;
    s.key = stripString(aliasText);
    s.aliasOf = stripString(targetText);
    s.value = valueOf(s.aliasOf);
    sink(s);
  }
  return Qel::String();
}

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
