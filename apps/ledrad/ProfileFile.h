// Ledrad::ProfileFile: agent profiles read from a line-oriented text file (the format is described
// in docs/profile-format.md), staged completely before anything is applied.
//
// parse() reads every line into StagedProfiles and checks everything that can be checked without
// the database: keywords and their arguments, names (by ConfigText's rules: profile and group
// names are words, a profile name holds no '/', mount types are type names, so an empty profile
// name never reaches the profile directory), priorities 1..99, flag letters, template keys,
// condition and template-condition syntax, duplicates, and that every profile has a group and
// that a mount holding other mounts is a directory. checkConditions() then checks the attribute
// conditions against the entities already in the database (an entity that is not there yet is
// accepted: it is waited for at run time). Reading goes on after a bad line, so every problem is
// found: each is "<file>:<line>: <reason>" in a FileError, and a file with any is not applied.
//
// applyTo() makes the profile directory hold the staged profiles: each staged profile is created
// or brought to exactly the staged content; profiles of other names are left alone (a profile is
// never deleted while the process runs). A group whose content is unchanged is kept as it is; a
// changed group is replaced by a new group object, so that an engine still holding the old one is
// not disturbed. applyTo() does not throw for a parsed file.
//
// Single-threaded (the event loop's thread).
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "apps/ledrad/FileError.h"

namespace Ledrad {

struct StagedMount {
  std::string path;
  std::string type;
  std::string flags;
  int line = 0;
};

struct StagedGroup {
  std::string name;
  unsigned priority = 0;
  bool blocking = false;
  std::vector<std::string> conditions;
  std::vector<int> conditionLines;
  std::string entireCondition;  // defaults to the conditions joined with " && "
  std::map<std::string, bool> templateConditions;
  std::vector<StagedMount> mounts;
  int line = 0;
};

struct StagedProfile {
  std::string name;
  std::string rootFlags;
  bool noDefaultMountGroup = false;
  bool hybridMount = false;
  bool lowMountPrio = false;
  std::map<unsigned, std::string> templateKeys;
  std::map<std::string, std::string> aliasKeys;
  std::vector<StagedGroup> groups;
  int line = 0;
};

class ProfileFile {
 public:
  // What applyTo() changed, for the caller's report.
  struct Applied {
    unsigned profilesCreated = 0;
    unsigned profilesUpdated = 0;
    unsigned profilesUnchanged = 0;
  };

  // What `text` stages; its problems are added to `problems` (named after their file).
  static ProfileFile parse(std::string_view text, FileProblems& problems);
  // The same, throwing a FileError with every problem found.
  static ProfileFile parse(std::string_view text, std::string const& file);
  static ProfileFile load(std::string const& file);

  std::string const& file() const { return file_; }
  std::vector<StagedProfile> const& profiles() const { return profiles_; }
  StagedProfile const* profile(std::string const& name) const;

  // Checks each attribute condition whose entity already exists (its path resolved with the
  // process's reserved template values; a path with agent-specific keys is not checked).
  void checkConditions(FileProblems& problems) const;
  // The same, throwing a FileError with every problem found.
  void checkConditions() const;

  // One "<file>:<line>: warning: ..." for each mount whose type no built-in type and no state
  // loaded so far defines (a later state file may still define it, so the file is not refused).
  std::vector<std::string> unknownTypes() const;

  Applied applyTo(Ledra::PassiveAgentProfileDir& dir) const;

 private:
  ProfileFile() = default;

  std::string file_;
  std::vector<StagedProfile> profiles_;
};

}  // namespace Ledrad
