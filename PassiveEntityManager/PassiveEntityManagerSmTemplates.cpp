// The agent's template dictionary: the values agentTemplateValues cuts from the agent string for
// the profile's template keys, and the alias keys, stored in the agent's status record as each is
// decided (an alias may name a key set just before). An agent string without any field cannot
// serve a profile with template keys, and the agent is closed.
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

namespace {

constexpr char const* kAgentStringKey = "%agentString";

}  // namespace

void PassiveEntityManagerSm::doInitTemplateDict() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::doInitTemplateDict():  agentName: {}", agentName());
  if (!agentStatus_ || !agentProfile_) return;
  if (!agentStatus_->agentString().empty())
    agentStatus_->templateValueDictIs(kAgentStringKey, agentStatus_->agentString());
  Qel::String const agentString = templateValue(kAgentStringKey, agentStatus_);
  TRACE(PassiveEntityManager, kTraceDecision, "agentTmpString : {}", agentString);
  if (agentProfile_->templateKey().empty()) {
    TRACE(PassiveEntityManager, kTraceDecision, "agent has no template keys");
    return;
  }
  PassiveAgentStatus::Ptr const status = agentStatus_;
  auto const valueOf = [&status](Qel::String const& key) { return templateValue(key, status); };
  auto const store = [&status](TemplateValueSetting const& s) {
    using Source = TemplateValueSetting::Source;
    if (s.tillEnd) TRACE(PassiveEntityManager, kTraceDecision, "Matching till EOL {}", s.key);
    switch (s.source) {
      case Source::missing:
        TRACE(PassiveEntityManager, kTraceDecision, "No template value found for {}", s.key);
        return;
      case Source::empty:
        TRACE(PassiveEntityManager, kTraceDecision, "setting template key {} to empty string",
              s.key);
        break;
      case Source::field:
        TRACE(PassiveEntityManager, kTraceDecision, "template val {} val - {}", s.key, s.value);
        QEL_CHECK(s.value != "", "templateVal != \"\"");
        break;
      case Source::alias:
        TRACE(PassiveEntityManager, kTraceDecision, "setting alias key {} to {}", s.key, s.value);
        break;
    }
    status->templateValueDictIs(s.key, s.value);
  };
  Qel::String const failure = agentTemplateValues(agentString, *agentProfile_, valueOf, store);
  if (!failure.empty()) handleClose(failure);
}

}  // namespace Ledra
