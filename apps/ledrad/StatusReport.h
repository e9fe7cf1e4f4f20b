// Ledrad::StatusReport: a snapshot of what the passive entity manager does for each agent, taken
// from the agents' status records, their engines and their connections, for the control
// program's status command (rendered by StatusFormat).
//
// Per agent: the profile that serves it, its agent string and connection (epoch, whether it is
// still connected), the engine's state, the template values in use, each group the engine was
// given (not those of a profile reloaded since) with what became of it, every path mounted for it,
// and what it still waits for: unanswered and failed mount requests, mounts deferred until their
// parent is ready, directory mounters, conditional groups with the condition and the entity they
// wait on (and the value the entity holds now), and blocking conditions.
//
// Group status, in the order the checks are made: "skipped" (a template condition is false),
// "queued" (in the ready queue), "waiting" (a conditional group whose conditions do not all hold
// yet), "not queued" (the engine has not queued the profile's groups yet), then, for a group the
// engine has taken: "mounting" (a mount of it is unanswered, deferred or directory-mounting),
// "failed" (the agent refused a mount of it) or "mounted".
//
// Paths planned: the paths of the groups the engine was given that are not skipped, templates
// substituted, each counted once however many groups list it (a directory mounted entry by entry
// counts as one path). Of those, mounted: a path whose own mount is complete, or any path of a
// group that is "mounted". So mounted never exceeds planned, and both reach the same number when
// every group is mounted.
//
// Taking the snapshot reads and never writes: template paths are substituted without touching the
// agents' caches. Single-threaded (the event loop's thread).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"

namespace Ledrad {

struct GroupReport {
  std::string name;
  unsigned priority = 0;
  std::string status;
};

// A path mounted for the agent: its state as the connection last reported it ("complete",
// "in progress", "failed"), or, without a connection, "complete" or "requested" from the agent's
// mount reference.
struct MountReport {
  std::string path;
  std::string state;
  bool complete() const { return state == "complete"; }
};

struct ConditionWait {
  std::string group;
  std::string condition;  // as written in the profile
  std::string entity;     // the entity path, templates substituted
  std::string attribute;
  bool entityPresent = false;
  std::string currentValue;            // the attribute's value (or element count for len() now
  std::vector<std::string> remaining;  // conditions of the group still to check after this one
};

struct FailedMount {
  std::string path;
  std::string reason;
};

struct AgentReport {
  std::string name;
  std::string profile;
  std::string agentString;
  bool engine = false;  // an engine serves the agent
  bool connected = false;
  unsigned epoch = 0;
  std::string state;
  bool initialized = false;
  std::map<std::string, std::string> templateValues;
  std::vector<GroupReport> groups;
  std::vector<MountReport> mounts;
  unsigned pathsPlanned = 0;
  unsigned pathsMounted = 0;
  unsigned outstandingRequests = 0;
  std::vector<std::string> inProgress;
  std::vector<FailedMount> failed;
  std::vector<std::string> pendingMounts;
  std::vector<std::string> dirMounters;
  std::vector<ConditionWait> conditions;
  std::vector<std::string> blockingConditions;
  // An agent whose connection is gone: the report is the last one taken before it went.
  bool departed = false;
  std::string closeReason;
  double departedFor = 0;  // seconds since the connection was closed

  unsigned completeMounts() const;
  bool waiting() const;
};

// The mount groups an engine took from its profile when it queued them. A profile reloaded after
// that no longer shows them: its groups are those agents connecting from then on receive.
using ServedGroups = std::vector<Ledra::PassiveMountGroup::PtrConst>;
// The groups an engine was served, or null when they are still its profile's present groups.
using ServedGroupsOf = std::function<ServedGroups const*(Ledra::PassiveEntityManagerSm const&)>;

struct StatusReport {
  std::string systemName;
  int cell = 0;
  std::string root;
  std::vector<std::string> profiles;
  std::vector<AgentReport> agents;

  // The agents of `statusDir`, served by `root` (may be null), sorted by name; `only` (when not
  // empty) restricts the report to these agent names. An agent's groups are those `served` gives
  // for its engine, else those of the profile its engine holds.
  static StatusReport build(Ledra::PassiveAgentProfileDir const& profileDir,
                            Ledra::PassiveAgentStatusDir const& statusDir,
                            Ledra::PassiveEntityManagerRootSm const* root,
                            std::vector<std::string> const& only = {},
                            ServedGroupsOf const& served = {});
};

}  // namespace Ledrad
