#include "apps/ledrad/Explain.h"

#include <algorithm>
#include <functional>

#include "PassiveEntityManager/AgentProfileChoice.h"
#include "PassiveEntityManager/Mount.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Entity/Dir.h"
#include "apps/common/MountLetters.h"
#include "apps/ledrad/ConditionText.h"
#include "apps/ledrad/StatusFormat.h"

namespace Ledrad {

namespace {

using Groups = std::vector<Ledra::PassiveMountGroup::PtrConst>;
using Values = std::map<std::string, std::string>;

constexpr char const* kAgentStringKey = "%agentString";

// What the engine reads for a template key: the agent's own values, else the reserved ones.
std::string valueOf(Values const& values, std::string const& key) {
  if (auto it = values.find(key); it != values.end()) return it->second;
  auto const& reserved = Ledra::globalReservedTemplateKeyDict();
  auto const it = reserved.find(Qel::String(key));
  return it == reserved.end() ? std::string() : std::string(it->second);
}

// The substitution of an agent's paths, reading only: a connected agent's cached substitution
// (what its engine used) first.
class Substitution {
 public:
  Substitution(Values const& values, Ledra::PassiveAgentStatus::Ptr status)
      : values_(values), status_(std::move(status)) {}

  std::string operator()(std::string const& path) const {
    if (path.find('%') == std::string::npos) return path;
    if (status_) {
      if (Qel::InternedText const* cached = status_->templateCache(path)) return *cached;
    }
    return Ledra::substituteTemplates(Qel::String(path), [this](Qel::String const& key) {
      return Qel::String(valueOf(values_, key));
    });
  }

 private:
  Values const& values_;
  Ledra::PassiveAgentStatus::Ptr status_;
};

std::string origin(Ledra::TemplateValueSetting const& s) {
  using Source = Ledra::TemplateValueSetting::Source;
  std::string const field = std::to_string(s.field);
  switch (s.source) {
    case Source::alias:
      return "alias of " + s.aliasOf;
    case Source::missing:
    case Source::empty:
      if (s.value.empty()) return "no field " + field;
      break;
    case Source::field:
      break;
  }
  return s.tillEnd ? "fields " + field + " to the end" : "field " + field;
}

// The values the engine cuts from `agentString` for `profile`, in the order it sets them, with
// "%agentString" first; `failure` is set when the agent cannot be served its keys.
std::vector<ExplainedValue> cutTemplateValues(std::string const& agentString,
                                              Ledra::PassiveAgentProfile const& profile,
                                              Values& values, std::string& failure) {
  std::vector<ExplainedValue> out;
  if (!agentString.empty()) {
    values[kAgentStringKey] = agentString;
    out.push_back({kAgentStringKey, agentString, "agent string"});
  }
  auto const lookup = [&values](Qel::String const& key) {
    return Qel::String(valueOf(values, key));
  };
  auto const sink = [&](Ledra::TemplateValueSetting const& s) {
    if (s.source == Ledra::TemplateValueSetting::Source::missing) return;
    values[s.key] = s.value;
    out.push_back({s.key, s.value, origin(s)});
  };
  failure = Ledra::agentTemplateValues(Qel::String(agentString), profile, lookup, sink);
  return out;
}

// The profile's letters of a mount, as the profile's reader knows them.
std::string flagsMeaning(std::string const& flags) {
  static constexpr std::pair<char, char const*> kMeanings[] = {
      {'w', "w: the agent writes it"},
      {'f', "f: writable even before writing is granted"},
      {'c', "c: the agent creates it when it is missing"},
      {'i', "i: passed on with the mount"},
      {'S', "S: passed on with the mount"},
      {'D', "D: a directory mounted entry by entry"},
      {'B', "B: the group waits until the directory is mounted"},
  };
  std::string out;
  for (auto const& [letter, meaning] : kMeanings) {
    if (flags.find(letter) == std::string::npos) continue;
    out += (out.empty() ? "" : "; ") + std::string(meaning);
  }
  return out.empty() ? "read-only" : out;
}

ExplainedTemplateCondition templateCondition(std::string const& text, Substitution const& sub) {
  ExplainedTemplateCondition t;
  t.condition = text;
  // The engine's own reading of the words; what follows the value is not read.
  auto const words = Ledra::templateConditionParts(Qel::String(text));
  t.templ = words.templ;
  t.value = words.value;
  bool const equality = words.op == "==" || words.op == "in";
  t.readable = equality || words.op == "!=" || words.op == "notin";
  if (!t.readable) return t;
  t.templValue = sub(t.templ);
  t.valueValue = t.value == "NULL" ? std::string() : sub(t.value);
  t.holds = (t.templValue == t.valueValue) == equality;
  return t;
}

ExplainedCondition condition(std::string const& text, Substitution const& sub) {
  ExplainedCondition c;
  c.condition = text;
  auto const parsed = ConditionText::parse(text, c.unreadable);
  if (!parsed) return c;
  c.entity = sub(parsed->path);
  c.attribute = parsed->attribute;
  if (Qel::Entity::Ptr e = Qel::globalDir()->entity(Qel::String(c.entity))) {
    c.entityPresent = true;
    c.currentValue = parsed->valueIn(*e);
  }
  return c;
}

struct Context {
  Substitution const& sub;
  std::string rootFlags;
  bool writeMountsGranted = false;
  AgentReport const* report = nullptr;  // a connected agent's
};

ExplainedGroup group(Ledra::PassiveMountGroup const& g, Context const& cx) {
  ExplainedGroup out;
  out.name = g.name();
  out.priority = g.priority();
  out.blocking = g.blockingConditional();
  out.entireCondition = g.entireCondition();
  for (auto const& [text, flag] : g.templateConditionCol())
    out.templateConditions.push_back(templateCondition(text, cx.sub));
  std::sort(out.templateConditions.begin(), out.templateConditions.end(),
            [](auto const& a, auto const& b) { return a.condition < b.condition; });
  for (auto const& entry : g.conditionCol())
    out.conditions.push_back(condition(entry.value, cx.sub));
  for (auto const& [path, m] : g.mountProfile()) {
    std::string const flags = m.flags();
    std::string const request = Ledra::mountRequestLetters(
        m.userFlags(), Ledra::UserFlags(Qel::String(cx.rootFlags)), cx.writeMountsGranted);
    out.mounts.push_back(ExplainedMount{path, cx.sub(path), m.type(), flags, flagsMeaning(flags),
                                        request, LedraApps::explainedMountLetters(request)});
  }
  if (!cx.report) return out;
  for (auto const& r : cx.report->groups) {
    if (r.name == out.name) out.status = r.status;
  }
  for (auto const& w : cx.report->conditions) {
    if (w.group != out.name) continue;
    for (auto& c : out.conditions)
      c.waitedFor = c.waitedFor || c.condition == w.condition;
  }
  return out;
}

// The groups in the order the engine queues them: by priority, and in the order it reads them
// from the profile within one priority (its queue keeps the arrival order).
void orderGroups(Groups groups, Context const& cx, Explanation& e) {
  std::stable_sort(groups.begin(), groups.end(),
                   [](auto const& a, auto const& b) { return a->priority() < b->priority(); });
  for (auto const& g : groups) {
    if (!g) continue;
    ExplainedGroup x = group(*g, cx);
    bool const taken = std::all_of(x.templateConditions.begin(), x.templateConditions.end(),
                                   [](auto const& t) { return !t.readable || t.holds; });
    if (!taken) {
      e.skipped.push_back(std::move(x));
      continue;
    }
    x.order = static_cast<unsigned>(e.groups.size() + 1);
    e.groups.push_back(std::move(x));
  }
}

}  // namespace

Explanation Explanation::build(Database const& db, std::string const& agent) {
  Explanation e;
  e.agent = agent;
  for (auto const& [k, v] : Ledra::globalReservedTemplateKeyDict())
    e.reservedValues.emplace(k, v);
  Ledra::AgentProfileChoice const choice = Ledra::agentProfileChoice(*db.profileDir(), agent);
  Ledra::PassiveAgentStatus::Ptr const status = db.statusDir()->agentStatus(Qel::Name(agent));
  auto const root = db.root();
  Ledra::PassiveEntityManagerSm::Ptr const engine =
      status && root ? root->passiveEntityManagerSm(Qel::Name(agent)) : nullptr;
  Ledra::PassiveAgentProfile::PtrConst profile = choice.profile;
  if (engine) profile = engine->agentProfile();
  if (profile) {
    e.profile = profile->name();
    e.match = e.profile == agent ? Match::own : Match::family;
  }
  if (engine && profile != Ledra::PassiveAgentProfile::PtrConst(choice.profile)) {
    e.profileNow = choice.profile ? std::string(choice.profile->name()) : std::string("-");
  }

  Values values;
  AgentReport report;
  Groups groups;
  e.agentString = agent;
  if (status) {
    e.connected = true;
    e.agentString = status->agentString();
    StatusReport const r = db.status({agent});
    auto const it = std::find_if(r.agents.begin(), r.agents.end(),
                                 [&](AgentReport const& a) { return a.name == agent; });
    if (it != r.agents.end()) report = *it;
    e.state = report.state;
    e.waitingFor = waitLines(report);
  }
  if (profile) {
    e.templateValues = cutTemplateValues(e.agentString, *profile, values, e.templateFailure);
    for (auto const& [name, g] : profile->mountGroup())
      groups.push_back(g);
  }
  if (status) {
    // The record's values are those the engine uses; the profile tells where each came from.
    values.clear();
    for (auto const& [k, v] : status->templateValueDict())
      values.emplace(k, v);
    std::vector<ExplainedValue> stored;
    for (auto const& v : e.templateValues) {
      auto const it = values.find(v.key);
      if (it != values.end()) stored.push_back({v.key, it->second, v.origin});
    }
    for (auto const& entry : values) {
      // A named variable rather than a structured binding: clang 14 cannot capture the latter.
      std::string const& key = entry.first;
      bool const known = std::any_of(stored.begin(), stored.end(),
                                     [&key](ExplainedValue const& s) { return s.key == key; });
      if (!known) stored.push_back({key, entry.second, ""});
    }
    e.templateValues = std::move(stored);
  }
  if (engine) {
    if (Groups const* served = db.servedGroups(*engine)) groups = *served;
  }
  Substitution const sub(values, status);
  Context const cx{sub, profile ? std::string(profile->rootFlags()) : std::string(),
                   db.entityManager() && db.entityManager()->writeMountsGranted(),
                   status ? &report : nullptr};
  orderGroups(std::move(groups), cx, e);
  return e;
}

}  // namespace Ledrad
