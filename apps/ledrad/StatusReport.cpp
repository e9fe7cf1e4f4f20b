#include "apps/ledrad/StatusReport.h"

#include <algorithm>
#include <map>
#include <set>

#include "Ledra/Cell.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/Reflection/GenericValue.h"
#include "apps/ledrad/ConditionText.h"

namespace Ledrad {

namespace {

using Engine = Ledra::PassiveEntityManagerSm;

// `path` with its template keys replaced for the agent of `status`, without filling its cache.
std::string substitute(std::string const& path, Ledra::PassiveAgentStatus::Ptr const& status) {
  if (path.find('%') == std::string::npos) return path;
  if (status) {
    if (Qel::InternedText const* cached = status->templateCache(path)) return *cached;
  }
  return Ledra::substituteTemplates(Qel::String(path), [&status](Qel::String const& key) {
    return Ledra::templateValue(key, status);
  });
}

bool templateConditionHolds(std::string const& text, Ledra::PassiveAgentStatus::Ptr const& status) {
  std::string reason;
  auto t = TemplateConditionText::parse(text, reason);
  if (!t) return true;
  std::string const left = substitute(t->templ, status);
  std::string const right = t->value == "NULL" ? std::string() : substitute(t->value, status);
  bool const equal = left == right;
  return t->op == "==" || t->op == "in" ? equal : !equal;
}

void conditionWaits(Engine const& engine, AgentReport& r) {
  for (auto const& [name, record] : engine.conditionalMountGroup()) {
    if (!record) continue;
    ConditionWait w;
    w.group = name;
    auto const& sm = record->conditionalMountGroupSm();
    if (sm) {
      w.condition = sm->currentPendingCondition();
      if (w.condition.empty()) w.condition = sm->retryCondition();
      for (auto const& entry : sm->conditionLocalQueue())
        w.remaining.push_back(entry.value);
    }
    std::string reason;
    if (auto c = ConditionText::parse(w.condition, reason)) {
      w.entity = substitute(c->path, engine.agentStatus());
      w.attribute = c->attribute;
      if (Qel::Entity::Ptr e = Qel::globalDir()->entity(Qel::String(w.entity))) {
        w.entityPresent = true;
        w.currentValue = c->valueIn(*e);
      }
    }
    r.conditions.push_back(std::move(w));
  }
  std::sort(r.conditions.begin(), r.conditions.end(),
            [](ConditionWait const& a, ConditionWait const& b) { return a.group < b.group; });
}

// Fills what the connection shows: unanswered and failed requests.
void connection(Qel::NboAttrLog::Demuxer const& d, AgentReport& r) {
  r.epoch = d.epoch();
  r.outstandingRequests = d.flowOutMountRequests();
  for (auto const& [cd, stat] : d.outMount()->status()) {
    if (stat.status() == Qel::MountTable::inProgress_) r.inProgress.push_back(cd.path());
    if (stat.status() == Qel::MountTable::failed_) {
      r.failed.push_back(FailedMount{cd.path(), stat.exceptionDesc()});
    }
  }
}

std::string groupStatus(Engine const& engine, Ledra::PassiveMountGroup const& g,
                        Qel::NboAttrLog::Demuxer const* d, std::set<std::string> const& queued) {
  auto const& status = engine.agentStatus();
  for (auto const& [text, flag] : g.templateConditionCol()) {
    if (!templateConditionHolds(text, status)) return "skipped";
  }
  if (queued.count(g.name())) return "queued";
  if (engine.conditionalMountGroup(g.name())) return "waiting";
  if (engine.state() == Engine::init) return "not queued";
  bool failed = false;
  for (auto const& [raw, m] : g.mountProfile()) {
    Qel::String const path(substitute(raw, status));
    if (engine.pendingMountProfile(path) || engine.passiveDirMounterCol(path)) return "mounting";
    if (!d) continue;
    auto const st = d->outMount()->status(Qel::ConnectDesc(path));
    if (st == Qel::MountTable::inProgress_) return "mounting";
    failed = failed || st == Qel::MountTable::failed_;
  }
  return failed ? "failed" : "mounted";
}

std::string mountState(Qel::NboAttrLog::Demuxer const* d, std::string const& path,
                       Ledra::PassiveMountReference const* ref) {
  switch (d ? d->outMount()->status(Qel::ConnectDesc(path)) : Qel::MountTable::none_) {
    case Qel::MountTable::complete_:
      return "complete";
    case Qel::MountTable::inProgress_:
      return "in progress";
    case Qel::MountTable::failed_:
      return "failed";
    case Qel::MountTable::none_:
      break;
  }
  return ref && ref->complete() ? "complete" : "requested";
}

AgentReport agentReport(Ledra::PassiveAgentStatus const& status, Engine const* engine,
                        ServedGroupsOf const& served) {
  AgentReport r;
  r.name = status.name();
  r.agentString = status.agentString();
  for (auto const& [k, v] : status.templateValueDict())
    r.templateValues.emplace(k, v);
  Qel::NboAttrLog::Demuxer::Ptr const d = Qel::NboAttrLog::demuxerMgr()->demuxer(status.name());
  if (d) {
    connection(*d, r);
    r.connected = !d->closed();
  }
  for (auto const& [path, ref] : status.mountReference())
    r.mounts.push_back(MountReport{ref->name(), mountState(d.ptr(), ref->name(), ref.ptr())});
  std::sort(r.mounts.begin(), r.mounts.end(),
            [](MountReport const& a, MountReport const& b) { return a.path < b.path; });
  if (!engine) {
    r.state = "no engine";
    return r;
  }
  r.engine = true;
  r.state = Ledra::stringValue(engine->state());
  r.initialized = engine->initialized();
  if (engine->agentProfile()) r.profile = engine->agentProfile()->name();
  for (auto const& [path, m] : engine->pendingMountProfile())
    r.pendingMounts.push_back(path);
  for (auto const& [path, m] : engine->passiveDirMounterCol())
    r.dirMounters.push_back(path);
  std::sort(r.dirMounters.begin(), r.dirMounters.end());
  for (auto const& [cond, v] : engine->blockingConditionals())
    r.blockingConditions.push_back(cond);
  std::sort(r.blockingConditions.begin(), r.blockingConditions.end());
  conditionWaits(*engine, r);

  std::set<std::string> queued;
  for (auto const& entry : engine->readyMountGroup()) {
    if (entry.value) queued.insert(entry.value->name());
  }
  ServedGroups groups;
  if (ServedGroups const* kept = served ? served(*engine) : nullptr) {
    groups = *kept;
  } else if (auto const& profile = engine->agentProfile()) {
    for (auto const& [name, g] : profile->mountGroup())
      groups.push_back(g);
  }
  std::set<std::string> complete;
  for (auto const& m : r.mounts) {
    if (m.complete()) complete.insert(m.path);
  }
  std::map<std::string, bool> planned;  // path: mounted
  for (auto const& g : groups) {
    if (!g) continue;
    std::string status = groupStatus(*engine, *g, d.ptr(), queued);
    if (status != "skipped") {
      for (auto const& [raw, m] : g->mountProfile()) {
        std::string const path = substitute(raw, engine->agentStatus());
        bool& mounted = planned[path];
        mounted = mounted || status == "mounted" || complete.count(path) != 0;
      }
    }
    r.groups.push_back(GroupReport{g->name(), g->priority(), std::move(status)});
  }
  r.pathsPlanned = static_cast<unsigned>(planned.size());
  r.pathsMounted = static_cast<unsigned>(
      std::count_if(planned.begin(), planned.end(), [](auto const& p) { return p.second; }));
  std::sort(r.groups.begin(), r.groups.end(), [](GroupReport const& a, GroupReport const& b) {
    return a.priority != b.priority ? a.priority < b.priority : a.name < b.name;
  });
  return r;
}

}  // namespace

unsigned AgentReport::completeMounts() const {
  return static_cast<unsigned>(std::count_if(mounts.begin(), mounts.end(),
                                             [](MountReport const& m) { return m.complete(); }));
}

bool AgentReport::waiting() const {
  return outstandingRequests > 0 || !inProgress.empty() || !failed.empty() ||
         !pendingMounts.empty() || !dirMounters.empty() || !conditions.empty() ||
         !blockingConditions.empty();
}

StatusReport StatusReport::build(Ledra::PassiveAgentProfileDir const& profileDir,
                                 Ledra::PassiveAgentStatusDir const& statusDir,
                                 Ledra::PassiveEntityManagerRootSm const* root,
                                 std::vector<std::string> const& only,
                                 ServedGroupsOf const& served) {
  StatusReport report;
  report.systemName = Qel::ActivityManagerConfig::instance()->systemName();
  report.cell = Cell::cellId();
  report.root = "/" + report.systemName + "/Ledra";
  for (auto const& [name, p] : profileDir.agentProfile())
    report.profiles.push_back(name);
  std::sort(report.profiles.begin(), report.profiles.end());
  for (auto const& [name, status] : statusDir.agentStatus()) {
    if (!status) continue;
    if (!only.empty() && std::find(only.begin(), only.end(), name) == only.end()) continue;
    Engine::Ptr const engine = root ? root->passiveEntityManagerSm(name) : nullptr;
    report.agents.push_back(agentReport(*status, engine.ptr(), served));
  }
  std::sort(report.agents.begin(), report.agents.end(),
            [](AgentReport const& a, AgentReport const& b) { return a.name < b.name; });
  return report;
}

}  // namespace Ledrad
