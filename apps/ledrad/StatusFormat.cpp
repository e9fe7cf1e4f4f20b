#include "apps/ledrad/StatusFormat.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledrad/Json.h"

namespace Ledrad {

namespace {

using Qel::NboAttrLog::printableText;
using Qel::NboAttrLog::textWidth;

std::string conditionText(ConditionWait const& w) {
  std::string out = "condition " + w.condition + " of group " + w.group;
  if (!w.entityPresent) return out + " (entity " + w.entity + " not present)";
  if (!w.currentValue.empty()) out += " (now " + w.currentValue + ")";
  return out;
}

std::string groupsSummary(AgentReport const& a) {
  std::map<std::string, unsigned> counts;
  for (auto const& g : a.groups)
    ++counts[g.status];
  std::string out;
  for (auto const& [status, n] : counts) {
    if (!out.empty()) out += ", ";
    out += std::to_string(n) + " " + status;
  }
  return out.empty() ? "-" : out;
}

// "closed 12 s ago: REASON" for an agent whose connection is gone.
std::string departure(AgentReport const& a) {
  std::string out = "closed " + std::to_string(static_cast<long long>(a.departedFor)) + " s ago";
  return a.closeReason.empty() ? out : out + ": " + a.closeReason;
}

std::string join(std::vector<std::string> const& items, char const* sep) {
  std::string out;
  for (auto const& i : items) {
    if (!out.empty()) out += sep;
    out += i;
  }
  return out;
}

// Cells hold printable texts; a column is as wide as the most code points in it.
void row(std::ostringstream& out, std::vector<std::string> const& cells,
         std::vector<std::size_t> const& widths) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    line += cells[i];
    if (i + 1 < cells.size()) line.append(widths[i] - textWidth(cells[i]) + 2, ' ');
  }
  out << line << '\n';
}

void detail(std::ostringstream& out, char const* label, std::string const& value) {
  std::string l = label;
  l.resize(17, ' ');
  out << "  " << l << printableText(value) << '\n';
}

void details(std::ostringstream& out, AgentReport const& a) {
  out << "\nagent " << printableText(a.name) << '\n';
  detail(out, "profile", a.profile.empty() ? "-" : a.profile);
  detail(out, "agent string", a.agentString);
  detail(out, "connection",
         std::string(a.departed    ? departure(a)
                     : a.connected ? "connected"
                                   : "not connected") +
             ", epoch " + std::to_string(a.epoch));
  detail(out, "state", a.state + (a.engine && !a.initialized ? " (cleaned up)" : ""));
  std::vector<std::string> values;
  for (auto const& [k, v] : a.templateValues)
    values.push_back(k + "=" + v);
  detail(out, "template values", values.empty() ? "-" : join(values, " "));
  std::vector<std::string> groups;
  for (auto const& g : a.groups)
    groups.push_back(g.name + " (" + std::to_string(g.priority) + ") " + g.status);
  detail(out, "groups", groups.empty() ? "-" : join(groups, "; "));
  if (a.mounts.empty()) detail(out, "mounted", "-");
  for (std::size_t i = 0; i < a.mounts.size(); ++i) {
    detail(out, i == 0 ? "mounted" : "",
           a.mounts[i].path + (a.mounts[i].complete() ? "" : " (" + a.mounts[i].state + ")"));
  }
  std::vector<std::string> const waits = waitLines(a);
  char const* const label = a.departed ? "was waiting for" : "waiting for";
  if (waits.empty()) detail(out, label, "nothing");
  for (std::size_t i = 0; i < waits.size(); ++i)
    detail(out, i == 0 ? label : "", waits[i]);
}

}  // namespace

// The JSON form of each record, found by nlohmann::json through argument-dependent lookup.
void to_json(Json& j, ConditionWait const& c) {
  j = {{"group", c.group},
       {"condition", c.condition},
       {"entity", c.entity},
       {"attribute", c.attribute},
       {"entityPresent", c.entityPresent},
       {"currentValue", c.currentValue},
       {"remaining", c.remaining}};
}

void to_json(Json& j, GroupReport const& g) {
  j = {{"name", g.name}, {"priority", g.priority}, {"status", g.status}};
}

void to_json(Json& j, MountReport const& m) {
  j = {{"path", m.path}, {"state", m.state}};
}

void to_json(Json& j, FailedMount const& f) {
  j = {{"path", f.path}, {"reason", f.reason}};
}

void to_json(Json& j, AgentReport const& a) {
  j = {{"name", a.name},
       {"profile", a.profile},
       {"agentString", a.agentString},
       {"connected", a.connected},
       {"departed", a.departed}};
  if (a.departed) {
    j["closeReason"] = a.closeReason;
    j["closedSecondsAgo"] = static_cast<long long>(a.departedFor);
  }
  j["epoch"] = a.epoch;
  j["engine"] = a.engine;
  j["state"] = a.state;
  j["initialized"] = a.initialized;
  j["templateValues"] = a.templateValues;
  j["groups"] = a.groups;
  j["mounts"] = a.mounts;
  j["waiting"] = {{"outstandingRequests", a.outstandingRequests},
                  {"inProgress", a.inProgress},
                  {"failed", a.failed},
                  {"pendingMounts", a.pendingMounts},
                  {"dirMounters", a.dirMounters},
                  {"conditions", a.conditions},
                  {"blockingConditions", a.blockingConditions}};
}

std::vector<std::string> waitLines(AgentReport const& a) {
  std::vector<std::string> waits;
  if (a.outstandingRequests > 0) {
    waits.push_back(std::to_string(a.outstandingRequests) + " unanswered mount request(s)");
  }
  for (auto const& p : a.inProgress)
    waits.push_back("answer for " + p);
  for (auto const& f : a.failed)
    waits.push_back("failed mount " + f.path + ": " + f.reason);
  for (auto const& p : a.pendingMounts)
    waits.push_back("pending mount " + p);
  for (auto const& p : a.dirMounters)
    waits.push_back("directory mounter " + p);
  for (auto const& c : a.conditions) {
    waits.push_back(conditionText(c));
    for (auto const& r : c.remaining)
      waits.push_back("  then " + r);
  }
  for (auto const& b : a.blockingConditions)
    waits.push_back("blocking condition " + b);
  return waits;
}

std::string waitSummary(AgentReport const& a) {
  if (a.departed) return departure(a);
  if (!a.failed.empty()) return "failed mount " + a.failed.front().path;
  if (!a.conditions.empty()) return conditionText(a.conditions.front());
  if (a.outstandingRequests > 0) {
    return std::to_string(a.outstandingRequests) + " unanswered mount request(s)";
  }
  if (!a.pendingMounts.empty()) return "pending mount " + a.pendingMounts.front();
  if (!a.dirMounters.empty()) return "directory mounter " + a.dirMounters.front();
  if (!a.blockingConditions.empty()) return "blocking condition " + a.blockingConditions.front();
  return "-";
}

std::string statusTable(StatusReport const& report) {
  std::ostringstream out;
  out << "ledrad: system " << printableText(report.systemName) << ", cell " << report.cell
      << ", root " << printableText(report.root) << ", " << report.profiles.size()
      << " profile(s): "
      << (report.profiles.empty() ? "-" : printableText(join(report.profiles, " "))) << ", "
      << report.agents.size() << " agent(s)\n";
  if (report.agents.empty()) return out.str();
  std::vector<std::vector<std::string>> rows;
  rows.push_back({"AGENT", "PROFILE", "STATE", "GROUPS", "MOUNTS", "WAITING FOR"});
  for (auto const& a : report.agents) {
    rows.push_back({a.name, a.profile.empty() ? "-" : a.profile,
                    !a.departed      ? a.state
                    : a.state == "-" ? std::string("departed")
                                     : "departed (" + a.state + ")",
                    groupsSummary(a),
                    std::to_string(a.completeMounts()) + "/" + std::to_string(a.mounts.size()),
                    waitSummary(a)});
  }
  std::vector<std::size_t> widths(rows.front().size(), 0);
  for (auto& r : rows) {
    for (std::size_t i = 0; i < r.size(); ++i) {
      r[i] = printableText(r[i]);
      widths[i] = std::max(widths[i], textWidth(r[i]));
    }
  }
  out << '\n';
  for (auto const& r : rows)
    row(out, r, widths);
  for (auto const& a : report.agents)
    details(out, a);
  return out.str();
}

std::string statusJson(StatusReport const& report) {
  return jsonText({{"system", report.systemName},
                   {"cell", report.cell},
                   {"root", report.root},
                   {"profiles", report.profiles},
                   {"agents", report.agents}});
}

}  // namespace Ledrad
