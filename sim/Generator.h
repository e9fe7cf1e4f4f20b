// Sim::Generator: every random choice of one simulated run, drawn from one seeded generator.
//
// next() draws one Event: its kind from the weighted table of kinds, then its parameters. The
// numbers drawn depend only on the seed and on how many events were drawn before, never on what
// the library did with them: the world interprets an event against its present state (a
// "disconnect" of an agent that is not connected does nothing). So two runs of one seed see the
// same events whatever happens in between, which is what lets a seed replay exactly and lets a
// traced run be compared with an untraced one.
//
// Choices added later come from two further generators derived from the same seed (extra(),
// then aside()), so that the first one, and with it the events of every seed, stays as it was:
// the second one draws the attributes of other number types, the third one the control actions
// of idle steps, the attribute kinds and records added with them, and the condition forms.
//
// Switches (Avoid) keep the generator away from fault classes that are known and being fixed,
// so that a regression run can stay green meanwhile; by default everything is exercised.
//
// Single-threaded.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "sim/Plans.h"

namespace Sim {

// Fault classes the generator can be told to stay away from.
struct Avoid {
  bool sharedCreate = false;  // one path with 'c' in several groups of a profile
  bool inPlaceEdit = false;   // groups an engine may hold changed in place
  bool allSkipped = false;    // profiles whose every group may be skipped by template conditions
  bool rootRefusal = false;   // failed answers to the root mount
  bool oldProtocol = false;   // agents speaking a protocol version other than 5
  // Not a fault class: the control actions of idle steps and the attribute kinds, condition
  // forms and records added with them, which the regression seeds found before they existed
  // avoid, so that those seeds still run as they did.
  bool controls = false;
};

// What a control client or the database process does on an idle step (third generator): the
// world carries it out with the generic, by-name view of the entities where there is one.
enum class Control {
  none,
  trimGroup,      // one condition, mount profile or template condition of a group removed
  extendGroup,    // a mount profile, template condition or blocking flag of a group changed
  profileByName,  // a switch, the root flags, a template key or an alias key written by name
  refused,        // a request the library refuses (priority, type name, another root)
  records,        // the records beside the sensors created, written or deleted
  graft,          // a directory created with what it holds, in one piece
  placeholder,    // a non-directory entity where a directory may stand
  engineByName,   // an engine asked by name how a template condition reads
  sensorWrite,    // an attribute of the kinds added last written
  boundary,       // the attribute of an awaited numeric condition set to its constant
};
inline constexpr unsigned kControls = 11;

enum class Kind {
  connect,
  disconnect,
  releaseAnswers,
  holdAnswers,
  answerDelay,
  failMount,
  unsyncPath,
  createDir,
  deleteDir,
  createSensor,
  deleteSensor,
  writeAttribute,
  reloadProfile,
  addGroup,
  removeGroup,
  editGroup,
  grantWrites,
  switchRole,
  protocolVersion,
  traceLevels,
  idle,
};

char const* kindName(Kind k);
char const* controlName(Control c);

struct Event {
  Kind kind = Kind::idle;
  unsigned agent = 0;               // index into the agent table
  unsigned profile = 0;             // index into the profile table
  unsigned index = 0;               // a path, sensor, group, ... chosen by the kind
  unsigned value = 0;               // a value chosen by the kind
  ProfilePlan newProfile;           // reloadProfile
  GroupPlan newGroup;               // addGroup
  ConditionPlan newCondition;       // editGroup
  std::string traceLevels;          // traceLevels
  double dt = 0;                    // simulated time run after the event
  Control control = Control::none;  // idle: what is done instead of nothing (third generator)
  unsigned detail = 0;              // idle: the control's choices (third generator)
};

class Generator {
 public:
  Generator(std::uint64_t seed, Avoid avoid);

  Event next();
  // The event as drawn, before the world interprets it.
  static std::string describe(Event const& e);
  // A number below n, for the world's initial state.
  unsigned number(unsigned n) { return below(n); }
  // A number below n from the second generator: for choices added after the first generator's
  // sequence was fixed, so that every seed still draws the events it drew before.
  unsigned extra(unsigned n) { return static_cast<unsigned>(extra_() % n); }
  // A number below n from the third generator: for the control actions and the attribute kinds
  // added after the second generator's sequence was fixed.
  unsigned aside(unsigned n) { return static_cast<unsigned>(aside_() % n); }
  ProfilePlan profile(std::string const& name);

  // The fixed tables the events index into.
  static std::vector<std::string> const& agentNames();
  static std::vector<std::string> const& profileNames();
  // Directories below the root that may exist ("d0", "d0/s1", ...).
  static std::vector<std::string> const& directories();
  static constexpr unsigned kSensors = 3;
  // The sensors' numeric attributes beside "level", one per builtin number type, and the
  // name-typed one; conditions on them are drawn by the second generator.
  static std::vector<std::string> const& numericAttributes();
  static constexpr char const* kNameAttribute = "site";
  // The records of library types that stand beside the sensors, made by type name.
  static constexpr char const* kGate = "gate";      // a Ledra::ConditionRes
  static constexpr char const* kLedger = "ledger";  // a Ledra::PassiveAgentStatus
  // An entity path that never exists: a pointer condition naming it is never evaluated.
  static constexpr char const* kNowhere = "/ledra/Ledra/sensors/nowhere";

 private:
  unsigned below(unsigned n);
  bool chance(unsigned percent) { return below(100) < percent; }
  template <class T>
  T const& pick(std::vector<T> const& v) {
    return v[below(static_cast<unsigned>(v.size()))];
  }
  GroupPlan group(std::string const& name, bool withTemplateConditions);
  MountPlan mount();
  ConditionPlan condition();
  void asideCondition(ConditionPlan& c);
  std::string traceLevelText();
  double runTime();

  std::mt19937_64 rng_;
  std::mt19937_64 extra_;
  std::mt19937_64 aside_;
  Avoid avoid_;
  unsigned groupSerial_ = 0;
};

}  // namespace Sim
