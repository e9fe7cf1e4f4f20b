// The agent's template dictionary: the values of the profile's template keys, cut from the agent
// string, and the alias keys.
//
// The agent string is "<name>-<field 1>-<field 2>...": the field after the first "-" belongs to
// the template key at the lowest position, the next field to the next position, and so on. A key
// ending in "$" takes the rest of the string from its field on, "-" included. A key whose field is
// missing or empty gets the empty text; an agent string without any field at all cannot serve a
// profile with template keys, and the agent is closed. Alias keys, which give a template key's
// value a second name, are set only for a profile with template keys.
#include "Ledra/StripString.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

namespace {

constexpr char const* kAgentStringKey = "%agentString";

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

}  // namespace

void PassiveEntityManagerSm::doInitTemplateDict() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::doInitTemplateDict():  agentName: {}", agentName());
  if (!agentStatus_ || !agentProfile_) return;
  if (!agentStatus_->agentString().empty())
    agentStatus_->templateValueDictIs(kAgentStringKey, agentStatus_->agentString());
  Qel::String const agentString = templateValue(kAgentStringKey, agentStatus_);
  TRACE(PassiveEntityManager, kTraceDecision, "agentTmpString : {}", agentString);
  auto const& keys = agentProfile_->templateKey();
  // Alias keys name template keys: without template keys there is nothing to alias either.
  if (keys.empty()) {
    TRACE(PassiveEntityManager, kTraceDecision, "agent has no template keys");
    return;
  }
  std::vector<Qel::String> const fields = fieldsOf(agentString);
  std::size_t field = 1;
  for (auto const& [position, keyText] : keys) {
    Qel::String key = keyText;
    bool const tillEol = !key.empty() && key.back() == '$';
    if (tillEol) {
      key.pop_back();
      TRACE(PassiveEntityManager, kTraceDecision, "Matching till EOL {}", key);
    }
    if (fields.size() <= 1) {
      TRACE(PassiveEntityManager, kTraceDecision, "No template value found for {}", key);
      return handleClose("No template value found for " + key);
    }
    Qel::String templateVal;
    if (field < fields.size()) {
      templateVal = fields[field];
      for (std::size_t i = field + 1; tillEol && i < fields.size(); ++i)
        templateVal += "-" + fields[i];
    }
    ++field;
    if (templateVal.empty()) {
      TRACE(PassiveEntityManager, kTraceDecision, "setting template key {} to empty string", key);
      agentStatus_->templateValueDictIs(key, Qel::String());
      continue;
    }
    TRACE(PassiveEntityManager, kTraceDecision, "template val {} val - {}", key, templateVal);
    QEL_CHECK(templateVal != "", "templateVal != \"\"");
    agentStatus_->templateValueDictIs(key, templateVal);
  }
  for (auto const& [aliasText, targetText] : agentProfile_->aliasKey()) {
    Qel::String const alias = stripString(aliasText);
    Qel::String const value = templateValue(stripString(targetText), agentStatus_);
    TRACE(PassiveEntityManager, kTraceDecision, "setting alias key {} to {}", alias, value);
    agentStatus_->templateValueDictIs(alias, value);
  }
}

}  // namespace Ledra
