// Ledrad::Explanation: what the passive entity manager gives one agent and why, for the control
// program's explain command (rendered by ExplainFormat).
//
// An agent that is connected now (it has a status record) is explained from what its engine works
// with: the profile the engine holds, the template values in its status record, the groups the
// engine was served, each group's status and what the agent waits for, as the StatusReport tells
// them. A name that is not connected is explained as a connection made now would be served: the
// profile agentProfileChoice picks, the template values agentTemplateValues cuts from the name
// (the agent string of an agent that gives none) and the profile's present groups. Both use the
// engine's own functions, so the explanation and the engine cannot disagree.
//
// Groups: those the engine takes, in the order it takes them (ascending priority; groups of one
// priority in the order the engine reads them from the profile), then those a template condition
// leaves out. Each shows its mounts (the path with its template keys substituted, the profile's
// flag letters and the letters of the mount request, both explained), its template conditions
// with their results, and its attribute conditions with the value each entity holds now.
// Substitution only reads: a cached substitution of a connected agent is used, none is written.
// A template condition whose operator is not equality or inequality is marked unreadable (the
// engine stops on it).
//
// Single-threaded (the event loop's thread).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/ledrad/Database.h"

namespace Ledrad {

struct ExplainedValue {
  std::string key;
  std::string value;
  // "agent string", "field 2", "fields 2 to the end", "no field 3", "alias of %slot", or empty
  // for a value of the status record the profile does not account for.
  std::string origin;
};

struct ExplainedMount {
  std::string path;  // as written in the profile
  std::string expanded;
  std::string type;
  std::string flags;  // the profile's letters
  std::string flagsMeaning;
  std::string request;  // the letters of the mount request
  std::string requestMeaning;
};

struct ExplainedTemplateCondition {
  std::string condition;
  std::string templ;
  std::string templValue;  // the template substituted
  std::string value;
  std::string valueValue;  // the value substituted ("NULL": empty)
  bool readable = true;
  bool holds = false;
};

struct ExplainedCondition {
  std::string condition;
  std::string unreadable;  // why the text does not read as a condition; empty when it does
  std::string entity;      // the entity path, templates substituted
  std::string attribute;
  bool entityPresent = false;
  std::string currentValue;
  bool waitedFor = false;  // the engine waits on this condition now
};

struct ExplainedGroup {
  std::string name;
  unsigned priority = 0;
  unsigned order = 0;  // 1 for the group taken first; 0 for a group left out
  std::string status;  // a connected agent's group: as the StatusReport tells it
  bool blocking = false;
  std::string entireCondition;
  std::vector<ExplainedTemplateCondition> templateConditions;
  std::vector<ExplainedCondition> conditions;
  std::vector<ExplainedMount> mounts;

  bool conditional() const { return !conditions.empty(); }
};

struct Explanation {
  enum class Match { none, own, family };

  std::string agent;
  bool connected = false;
  std::string state;  // a connected agent's engine state
  std::string profile;
  Match match = Match::none;
  // A connected agent whose engine holds another profile than a connection made now would get:
  // that profile ("-" for none); else empty.
  std::string profileNow;
  std::string agentString;
  std::vector<ExplainedValue> templateValues;
  std::string templateFailure;  // the reason the agent cannot be served its template keys
  std::map<std::string, std::string> reservedValues;
  std::vector<ExplainedGroup> groups;
  std::vector<ExplainedGroup> skipped;
  std::vector<std::string> waitingFor;  // a connected agent's waits (StatusFormat's lines)

  static Explanation build(Database const& db, std::string const& agent);
};

}  // namespace Ledrad
