#include "apps/ledrad/ExplainFormat.h"

#include <algorithm>
#include <sstream>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledrad/Json.h"

namespace Ledrad {

namespace {

using Qel::NboAttrLog::printableText;
using Qel::NboAttrLog::textWidth;

char const* matchText(Explanation::Match m) {
  switch (m) {
    case Explanation::Match::own:
      return "own";
    case Explanation::Match::family:
      return "family";
    case Explanation::Match::none:
      break;
  }
  return "none";
}

std::string profileText(Explanation const& e) {
  std::string out;
  switch (e.match) {
    case Explanation::Match::none:
      out = "none: no profile is named " + e.agent + " or by a prefix of it ending in \"-\"";
      break;
    case Explanation::Match::own:
      out = e.profile + " (named as the agent)";
      break;
    case Explanation::Match::family:
      out = e.profile + " (the longest prefix of " + e.agent +
            " ending in \"-\" that names a profile)";
      break;
  }
  if (!e.profileNow.empty()) out += "; a connection made now would get " + e.profileNow;
  return out;
}

std::string quoted(std::string const& text) {
  return "\"" + text + "\"";
}

std::string templateConditionText(ExplainedTemplateCondition const& t) {
  if (!t.readable) return t.condition + ": unreadable (the engine stops on its operator)";
  return t.condition + ": " + (t.holds ? "true" : "false") + " (" + t.templ + " is " +
         quoted(t.templValue) + ", " + t.value + " is " + quoted(t.valueValue) + ")";
}

std::string conditionText(ExplainedCondition const& c) {
  std::string out = c.condition + ": ";
  if (!c.unreadable.empty()) return out + "unreadable: " + c.unreadable;
  if (!c.entityPresent) {
    out += "entity " + c.entity + " not present";
  } else {
    out += c.entity + "." + c.attribute + " is " +
           (c.currentValue.empty() ? "unreadable" : c.currentValue);
  }
  return c.waitedFor ? out + " (waited for now)" : out;
}

// What holds a group back, or what left it out, on one line.
std::string note(ExplainedGroup const& g) {
  for (auto const& t : g.templateConditions) {
    if (t.readable && !t.holds) return "templateCondition " + t.condition + " is false";
  }
  for (auto const& c : g.conditions) {
    if (!c.waitedFor) continue;
    std::string const now = !c.entityPresent ? "entity not present" : "now " + c.currentValue;
    return "waits for " + c.condition + " (" + now + ")";
  }
  if (!g.conditional()) return "-";
  return g.blocking ? "conditional, blocking" : "conditional";
}

void detail(std::ostringstream& out, char const* label, std::string const& value) {
  std::string l = label;
  l.resize(19, ' ');
  out << "  " << l << printableText(value) << '\n';
}

void rows(std::ostringstream& out, std::vector<std::vector<std::string>> table) {
  std::vector<std::size_t> widths(table.front().size(), 0);
  for (auto& r : table) {
    for (std::size_t i = 0; i < r.size(); ++i) {
      r[i] = printableText(r[i]);
      widths[i] = std::max(widths[i], textWidth(r[i]));
    }
  }
  for (auto const& r : table) {
    std::string line;
    for (std::size_t i = 0; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line.append(widths[i] - textWidth(r[i]) + 2, ' ');
    }
    out << line << '\n';
  }
}

void groupBlock(std::ostringstream& out, ExplainedGroup const& g) {
  out << "\ngroup " << printableText(g.name) << " (priority " << g.priority << ", "
      << (g.order ? "taken as " + std::to_string(g.order) : std::string("left out")) << ")"
      << (g.conditional() ? (g.blocking ? ": conditional, blocking" : ": conditional") : "")
      << '\n';
  for (auto const& t : g.templateConditions)
    detail(out, "templateCondition", templateConditionText(t));
  if (!g.entireCondition.empty()) detail(out, "entireCondition", g.entireCondition);
  for (auto const& c : g.conditions)
    detail(out, "condition", conditionText(c));
  for (auto const& m : g.mounts) {
    detail(out, "mount",
           m.expanded + " " + m.type + ": " + m.flagsMeaning + "; request " + m.request + " (" +
               m.requestMeaning + ")");
  }
}

}  // namespace

std::string explainTable(Explanation const& e) {
  std::ostringstream out;
  out << "agent " << printableText(e.agent) << ": "
      << (e.connected ? "connected (engine state " + printableText(e.state) + ")"
                      : std::string("not connected"))
      << '\n';
  detail(out, "profile", profileText(e));
  detail(out, "agent string", e.agentString);
  std::string values;
  for (auto const& v : e.templateValues) {
    values += (values.empty() ? "" : "; ") + v.key + "=" + v.value;
    if (!v.origin.empty()) values += " (" + v.origin + ")";
  }
  detail(out, "template values", values.empty() ? "-" : values);
  if (!e.templateFailure.empty()) {
    detail(out, "", "cannot be served: " + e.templateFailure + " (the agent is closed)");
  }
  std::string reserved;
  for (auto const& [k, v] : e.reservedValues)
    reserved += (reserved.empty() ? "" : " ") + k + "=" + v;
  detail(out, "reserved values", reserved.empty() ? "-" : reserved);
  if (!e.connected) detail(out, "waiting for", "not connected");
  if (e.connected && e.waitingFor.empty()) detail(out, "waiting for", "nothing");
  for (std::size_t i = 0; i < e.waitingFor.size(); ++i)
    detail(out, i == 0 ? "waiting for" : "", e.waitingFor[i]);
  if (e.groups.empty() && e.skipped.empty()) return out.str();

  std::vector<std::vector<std::string>> table;
  table.push_back({"ORDER", "GROUP", "PRIORITY", "STATUS", "NOTE"});
  for (auto const& g : e.groups) {
    table.push_back({std::to_string(g.order), g.name, std::to_string(g.priority),
                     g.status.empty() ? "-" : g.status, note(g)});
  }
  for (auto const& g : e.skipped)
    table.push_back({"-", g.name, std::to_string(g.priority), "skipped", note(g)});
  out << '\n';
  rows(out, std::move(table));
  for (auto const& g : e.groups)
    groupBlock(out, g);
  for (auto const& g : e.skipped)
    groupBlock(out, g);
  return out.str();
}

// The JSON form of each record, found by nlohmann::json through argument-dependent lookup.
void to_json(Json& j, ExplainedTemplateCondition const& t) {
  j = {{"condition", t.condition},  {"readable", t.readable},        {"holds", t.holds},
       {"template", t.templ},       {"templateValue", t.templValue}, {"value", t.value},
       {"valueValue", t.valueValue}};
}

void to_json(Json& j, ExplainedCondition const& c) {
  j = {{"condition", c.condition},
       {"unreadable", c.unreadable},
       {"entity", c.entity},
       {"attribute", c.attribute},
       {"entityPresent", c.entityPresent},
       {"currentValue", c.currentValue},
       {"waitedFor", c.waitedFor}};
}

void to_json(Json& j, ExplainedMount const& m) {
  j = {{"path", m.path},
       {"expanded", m.expanded},
       {"type", m.type},
       {"flags", m.flags},
       {"flagsMeaning", m.flagsMeaning},
       {"request", m.request},
       {"requestMeaning", m.requestMeaning}};
}

void to_json(Json& j, ExplainedGroup const& g) {
  j = {{"name", g.name},
       {"priority", g.priority},
       {"order", g.order},
       {"status", g.status},
       {"blocking", g.blocking},
       {"entireCondition", g.entireCondition},
       {"templateConditions", g.templateConditions},
       {"conditions", g.conditions},
       {"mounts", g.mounts}};
}

std::string explainJson(Explanation const& e) {
  Json values = Json::array();
  for (auto const& v : e.templateValues)
    values.push_back({{"key", v.key}, {"value", v.value}, {"origin", v.origin}});
  return jsonText({{"agent", e.agent},
                   {"connected", e.connected},
                   {"state", e.state},
                   {"profile", e.profile},
                   {"match", matchText(e.match)},
                   {"profileNow", e.profileNow},
                   {"agentString", e.agentString},
                   {"templateValues", values},
                   {"templateFailure", e.templateFailure},
                   {"reservedValues", e.reservedValues},
                   {"groups", e.groups},
                   {"skippedGroups", e.skipped},
                   {"waitingFor", e.waitingFor}});
}

}  // namespace Ledrad
