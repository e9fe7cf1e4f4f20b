// What the simulation asks of the library, as plain data: agent profiles with their mount
// groups, attribute conditions and template conditions. The generator draws them; the world
// turns them into library objects (profiles, groups) and knows from them which paths each agent
// is entitled to and how to make each condition true.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Sim {

// The database root every path of the simulation lives under.
inline constexpr char const* kRoot = "/ledra/Ledra";

struct MountPlan {
  std::string path;  // may hold template keys
  std::string type;
  std::string flags;
  bool operator==(MountPlan const&) const = default;
};

// "<constant> <op> [len( ]<sensor path>.<attribute>[)]", constant on the left. The entity is
// sensor `sensor`, or the record `record` beside the sensors when that is set. `spaced` writes the
// text with a leading blank and two blanks between its tokens; `closed` closes "len(" with ")".
struct ConditionPlan {
  int sensor = 0;
  std::string attribute;
  std::string op;
  std::string constant;
  bool len = false;
  std::string record;
  bool spaced = false;
  bool closed = false;

  std::string sensorPath() const;
  std::string text() const;
  bool operator==(ConditionPlan const&) const = default;
};

struct GroupPlan {
  std::string name;
  unsigned priority = 1;
  bool blocking = false;
  std::vector<ConditionPlan> conditions;
  std::vector<std::string> templateConditions;
  std::vector<MountPlan> mounts;
  bool operator==(GroupPlan const&) const = default;
};

struct ProfilePlan {
  std::string name;
  std::string rootFlags;
  bool hybrid = false;
  bool lowPrio = false;
  std::map<unsigned, std::string> templateKeys;
  std::map<std::string, std::string> aliases;
  std::vector<GroupPlan> groups;
  bool operator==(ProfilePlan const&) const = default;
};

}  // namespace Sim
