// The registry of trace facilities and their level settings.
//
// Settings are text of the form "Name=level,Other=level", where the name * stands for every
// facility, e.g. "PassiveEntityManager=8,Orn=2" or "*=9,Orn=0". Entries apply in order, so later
// entries win. Blanks around names and levels and empty entries are ignored; an entry that is not
// name=level with a level 0..9 is skipped with an error text, and the other entries still apply.
// Settings are remembered: a facility that registers later (a library loaded later, a facility
// object created by a test) receives the level they give its name.
//
// The environment variable LEDRA_TRACE is read when the registry is first used, which happens while
// the first facility is constructed during static initialisation. At that moment most facilities
// do not exist yet, so problems found in the variable are reported on the standard error stream
// later, by reportStartupProblems(), which the library calls when it writes its first text line or
// allocates a ring. readEnvironment() reads the variable again at any time and reports at once. An
// unknown facility name is reported once per process, however often it is read.
//
// Threading: one thread.
#pragma once

#include <cstdio>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Trace {

class Facility;

struct LevelSettingResult {
  std::vector<std::string> errors;        // one text per malformed entry
  std::vector<std::string> unknownNames;  // names that matched no facility, in order
};

class Facilities {
 public:
  static constexpr char const* kEnvironmentVariable = "LEDRA_TRACE";

  static Facilities& instance();

  std::vector<Facility*> const& all() const { return facilities_; }
  Facility* find(std::string_view name) const;  // the first one registered under name, or null

  // Applies settings to the registered facilities and remembers them for later ones.
  LevelSettingResult levelsAre(std::string_view settings);

  // Switches every facility off and forgets the remembered settings.
  void reset();

  // Reads LEDRA_TRACE (unset: nothing changes) and reports problems to report.
  void readEnvironment(std::FILE* report = stderr);

  // Reports what the read at start-up found, the first time it is called.
  void reportStartupProblems(std::FILE* report = stderr);

  // Called by Facility only.
  void add(Facility& facility);
  void remove(Facility& facility);

 private:
  struct Setting {
    std::string name;  // "*" for every facility
    int level;
  };

  Facilities();
  void apply(Setting const& setting, Facility& facility) const;
  void report(LevelSettingResult const& result, std::FILE* out);

  std::vector<Facility*> facilities_;
  std::vector<Setting> settings_;
  std::set<std::string, std::less<>> reportedUnknown_;
  std::string startupSettings_;
  bool startupReportPending_ = false;
};

}  // namespace Trace
