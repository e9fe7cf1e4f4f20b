#include "sim/Generator.h"

#include <array>
#include <set>
#include <utility>

namespace Sim {

namespace {

// The kinds of event in the order of Kind, their names and how often each is drawn.
struct Weighted {
  Kind kind;
  char const* name;
  unsigned weight;
};
constexpr std::array kKinds{
    Weighted{Kind::connect, "connect", 10},
    Weighted{Kind::disconnect, "disconnect", 4},
    Weighted{Kind::releaseAnswers, "releaseAnswers", 8},
    Weighted{Kind::holdAnswers, "holdAnswers", 3},
    Weighted{Kind::answerDelay, "answerDelay", 3},
    Weighted{Kind::failMount, "failMount", 2},
    Weighted{Kind::unsyncPath, "unsyncPath", 2},
    Weighted{Kind::createDir, "createDir", 6},
    Weighted{Kind::deleteDir, "deleteDir", 3},
    Weighted{Kind::createSensor, "createSensor", 3},
    Weighted{Kind::deleteSensor, "deleteSensor", 1},
    Weighted{Kind::writeAttribute, "writeAttribute", 10},
    Weighted{Kind::reloadProfile, "reloadProfile", 2},
    Weighted{Kind::addGroup, "addGroup", 2},
    Weighted{Kind::removeGroup, "removeGroup", 2},
    Weighted{Kind::editGroup, "editGroup", 1},
    Weighted{Kind::grantWrites, "grantWrites", 3},
    Weighted{Kind::switchRole, "switchRole", 2},
    Weighted{Kind::protocolVersion, "protocolVersion", 1},
    Weighted{Kind::traceLevels, "traceLevels", 3},
    Weighted{Kind::idle, "idle", 10},
};
static_assert([] {
  for (std::size_t i = 0; i < kKinds.size(); ++i) {
    if (static_cast<std::size_t>(kKinds[i].kind) != i) return false;
  }
  return true;
}());
constexpr unsigned totalWeight() {
  unsigned t = 0;
  for (auto const& k : kKinds)
    t += k.weight;
  return t;
}

// Simulated seconds run after an event, and how often each is drawn. Most steps are short, so
// that events land inside mounts, directory mounts and condition retries.
constexpr std::array<std::pair<double, unsigned>, 7> kRunTimes{
    {{0.0, 20}, {0.001, 20}, {0.004, 15}, {0.02, 20}, {0.1, 12}, {0.6, 8}, {2.5, 5}}};

std::vector<std::string> const kPlainPaths{
    "d0",    "d1",       "d2",     "d3",       "d0/s0",       "d1/s1",   "d2/s2",
    "d3/s0", "d1/s0/e1", "cell/1", "cell/1/x", "d2/s1/e0/n0", "d0/s2/e1"};
std::vector<std::string> const kTemplatedPaths{
    "d%unit", "d%unit/s%slot", "d%u/s1", "cell/%cellId", "cell/%peerCellId/x", "d%unit/s0/e%slot"};
std::vector<std::string> const kDirMountPaths{"d0", "d1", "d2/s1", "d3", "d%unit", "d%u/s2"};
std::vector<std::string> const kOrdered{"==", "!=", "<", "<=", ">", ">="};
std::vector<std::string> const kTemplateConditions{"%unit == 1",    "%unit != 2",   "%slot == NULL",
                                                   "%slot != NULL", "%cellId == 1", "%u == 3"};

}  // namespace

char const* kindName(Kind k) {
  return kKinds[static_cast<std::size_t>(k)].name;
}

char const* controlName(Control c) {
  static constexpr std::array<char const*, kControls> kNames{
      "none",  "trimGroup",   "extendGroup",  "profileByName", "refused", "records",
      "graft", "placeholder", "engineByName", "sensorWrite",   "boundary"};
  return kNames[static_cast<std::size_t>(c)];
}

std::string Generator::describe(Event const& e) {
  std::string const control =
      e.control == Control::none
          ? ""
          : std::string(", control ") + controlName(e.control) + " " + std::to_string(e.detail);
  return std::string(kindName(e.kind)) + " (agent " + agentNames()[e.agent] + ", profile " +
         profileNames()[e.profile] + ", " + std::to_string(e.index) + ", " +
         std::to_string(e.value) + control + ", then " + std::to_string(e.dt) + " s)";
}

std::vector<std::string> const& Generator::agentNames() {
  // Family members, a member of a more specific family, an exact profile, an agent without any
  // profile and one whose name has no "-" for the family rule to cut.
  static std::vector<std::string> const names{"fan-1",   "fan-2", "fan-1-2", "psu-0",
                                              "psu-3-1", "ctl",   "ghost",   "fan"};
  return names;
}

std::vector<std::string> const& Generator::profileNames() {
  static std::vector<std::string> const names{"fan-", "fan-1-", "psu-", "ctl"};
  return names;
}

std::vector<std::string> const& Generator::directories() {
  static std::vector<std::string> const dirs = [] {
    std::vector<std::string> d{"cell", "cell/1", "cell/1/x", "cell/2", "cell/2/x"};
    for (int i = 0; i < 4; ++i) {
      std::string const top = "d" + std::to_string(i);
      d.push_back(top);
      for (int j = 0; j < 3; ++j) {
        std::string const mid = top + "/s" + std::to_string(j);
        d.push_back(mid);
        for (int k = 0; k < 2; ++k)
          d.push_back(mid + "/e" + std::to_string(k));
      }
    }
    return d;
  }();
  return dirs;
}

std::vector<std::string> const& Generator::numericAttributes() {
  static std::vector<std::string> const names{"f64", "f32", "u64", "s64", "s32", "u16",
                                              "s16", "u8",  "s8",  "lng", "dbl"};
  return names;
}

Generator::Generator(std::uint64_t seed, Avoid avoid)
    : rng_(seed),
      extra_(seed ^ 0x9e3779b97f4a7c15ULL),
      aside_(seed ^ 0xc2b2ae3d27d4eb4fULL),
      avoid_(avoid) {}

unsigned Generator::below(unsigned n) {
  return static_cast<unsigned>(rng_() % n);
}

double Generator::runTime() {
  unsigned total = 0;
  for (auto const& [t, w] : kRunTimes)
    total += w;
  unsigned r = below(total);
  for (auto const& [t, w] : kRunTimes) {
    if (r < w) return t;
    r -= w;
  }
  return 0;
}

Event Generator::next() {
  Event e;
  unsigned r = below(totalWeight());
  for (auto const& k : kKinds) {
    if (r < k.weight) {
      e.kind = k.kind;
      break;
    }
    r -= k.weight;
  }
  e.agent = below(static_cast<unsigned>(agentNames().size()));
  e.profile = below(static_cast<unsigned>(profileNames().size()));
  e.index = below(1000);
  e.value = below(1000);
  switch (e.kind) {
    case Kind::reloadProfile:
      e.newProfile = profile(profileNames()[e.profile]);
      break;
    case Kind::addGroup:
      e.newGroup = group("g" + std::to_string(groupSerial_++), true);
      break;
    case Kind::editGroup:
      e.newCondition = condition();
      break;
    case Kind::traceLevels:
      e.traceLevels = traceLevelText();
      break;
    case Kind::idle:
      if (!avoid_.controls && aside(100) < 45)
        e.control = static_cast<Control>(1 + aside(kControls - 1));
      e.detail = aside(1u << 30);
      break;
    default:
      break;
  }
  e.dt = runTime();
  return e;
}

ProfilePlan Generator::profile(std::string const& name) {
  ProfilePlan p;
  p.name = name;
  p.rootFlags = chance(20) ? "N" : "";
  p.hybrid = chance(25);
  p.lowPrio = chance(20);
  if (chance(70)) {
    p.templateKeys[1] = "%unit";
    if (chance(60)) p.templateKeys[2] = "%slot";
  }
  if (chance(30)) p.aliases["%u"] = chance(80) ? "%unit" : " %unit ";
  unsigned const groups = 1 + below(4);
  for (unsigned i = 0; i < groups; ++i) {
    // With allSkipped avoided, the first group never carries a template condition.
    p.groups.push_back(group("g" + std::to_string(groupSerial_++), !(avoid_.allSkipped && i == 0)));
  }
  if (avoid_.sharedCreate) {
    std::set<std::string> creating;
    for (auto& g : p.groups) {
      for (auto& m : g.mounts) {
        if (m.flags.find('c') == std::string::npos) continue;
        if (!creating.insert(m.path).second) m.flags.erase(m.flags.find('c'), 1);
      }
    }
  }
  return p;
}

GroupPlan Generator::group(std::string const& name, bool withTemplateConditions) {
  GroupPlan g;
  g.name = chance(5) ? "peerReady" : name;
  g.priority = 1 + below(chance(20) ? 99 : 6);
  unsigned const mounts = 1 + below(3);
  for (unsigned i = 0; i < mounts; ++i)
    g.mounts.push_back(mount());
  if (chance(30)) {
    unsigned const n = 1 + below(2);
    for (unsigned i = 0; i < n; ++i)
      g.conditions.push_back(condition());
    g.blocking = chance(40);
  }
  if (g.name == "peerReady" && g.conditions.empty()) {
    // The group that waits for the process to be active: its condition never holds by itself.
    g.conditions.push_back({0, "label", "==", "never", false, "", false, false});
    g.blocking = true;
  }
  if (withTemplateConditions && chance(20))
    g.templateConditions.push_back(pick(kTemplateConditions));
  if (avoid_.sharedCreate) {
    for (auto& m : g.mounts) {
      auto const c = m.flags.find('c');
      if (c != std::string::npos) m.flags.erase(c, 1);
    }
  }
  return g;
}

MountPlan Generator::mount() {
  MountPlan m;
  m.type = "Qel::Dir";
  bool const directory = chance(15);
  std::string rel;
  if (directory) {
    rel = pick(kDirMountPaths);
  } else {
    rel = chance(35) ? pick(kTemplatedPaths) : pick(kPlainPaths);
  }
  m.path = std::string(kRoot) + "/" + rel;
  if (chance(30)) m.flags += 'w';
  if (chance(8)) m.flags += 'f';
  if (chance(20)) m.flags += 'c';
  if (chance(8)) m.flags += 'i';
  if (chance(8)) m.flags += 'S';
  if (directory) {
    m.flags += 'D';
    if (chance(50)) m.flags += 'B';
  }
  if (m.flags.empty() && chance(50)) m.flags = "r";
  return m;
}

ConditionPlan Generator::condition() {
  ConditionPlan c;
  c.sensor = static_cast<int>(below(kSensors));
  switch (below(6)) {
    case 0:
      c.attribute = "ready";
      c.op = chance(70) ? "==" : "!=";
      c.constant = c.op == "==" ? "true" : "false";
      break;
    case 1:
      c.attribute = "level";
      c.op = pick(kOrdered);
      c.constant = std::to_string(c.op == ">" ? 1 + below(4) : below(5));
      break;
    case 2:
      c.attribute = "mode";
      c.op = chance(70) ? "==" : "!=";
      c.constant = chance(50) ? "on" : "off";
      break;
    case 3:
      c.attribute = "label";
      c.op = chance(70) ? "==" : "!=";
      c.constant = chance(50) ? "up" : "NULL";
      break;
    case 4:
      c.attribute = "tags";
      c.op = chance(60) ? "in" : "notin";
      c.constant = chance(50) ? "hot" : "cold";
      break;
    default:
      c.attribute = "tags";
      c.len = true;
      c.op = pick(kOrdered);
      c.constant = std::to_string(c.op == ">" ? 1 + below(3) : below(3));
      break;
  }
  // Some conditions watch attributes of the other types instead (second generator).
  unsigned const typed = extra(100);
  if (typed < 30) {
    auto const& numeric = numericAttributes();
    c.attribute = numeric[extra(static_cast<unsigned>(numeric.size()))];
    c.op = kOrdered[extra(static_cast<unsigned>(kOrdered.size()))];
    c.constant = std::to_string(c.op == ">" ? 1 + extra(4) : extra(5));
    c.len = false;
  } else if (typed < 36) {
    c.attribute = kNameAttribute;
    c.op = extra(10) < 7 ? "==" : "!=";
    c.constant = extra(2) ? "up" : "NULL";
    c.len = false;
  } else if (!avoid_.controls && aside(100) < 45) {
    asideCondition(c);
  }
  if (avoid_.controls) return c;
  c.spaced = aside(10) == 0;
  c.closed = c.len && aside(2) == 0;
  return c;
}

void Generator::asideCondition(ConditionPlan& c) {
  auto membership = [&](char const* attribute, std::vector<char const*> const& keys) {
    c.attribute = attribute;
    c.op = aside(10) < 6 ? "in" : "notin";
    c.constant = keys[aside(static_cast<unsigned>(keys.size()))];
  };
  c.len = false;
  switch (aside(10)) {
    case 0:
      c.attribute = "ch";
      c.op = kOrdered[aside(6)];
      c.constant = std::string(1, "bcd"[aside(3)]);
      return;
    case 1: {
      // A character pointer constant is a copy of its text: it equals no pointer the attribute
      // can hold, so only NULL is compared with "==".
      c.attribute = aside(2) ? "cp" : "ccp";
      c.constant = aside(3) ? "NULL" : "on";
      c.op = c.constant == "NULL" && aside(2) ? "==" : "!=";
      return;
    }
    case 2: {
      c.attribute = "ptr";
      unsigned const k = aside(20);
      c.constant = k < 5    ? "NULL"
                   : k < 7  ? "0"
                   : k < 13 ? std::string(kRoot) + "/sensors"
                   : k < 19 ? std::string(kRoot)
                            : std::string(kNowhere);
      c.op = aside(2) ? "==" : "!=";
      return;
    }
    case 3:
      return membership("slots", {"1", "2", "3"});
    case 4:
      return membership("modes", {"on", "fault"});
    case 5:
      return membership("peers", {"a", "b"});
    case 6:
      if (aside(2)) return membership("flags", {"true", "false"});
      return membership("offsets", {"-1", "2"});
    case 7:
      return membership("weights", {"1", "2"});
    case 8:
      c.record = kGate;
      c.attribute = "enabled";
      c.op = aside(2) ? "==" : "!=";
      c.constant = aside(2) ? "true" : "false";
      return;
    default:
      c.record = kLedger;
      switch (aside(3)) {
        case 0:
          c.attribute = "agentString";
          c.op = aside(10) < 7 ? "==" : "!=";
          c.constant = aside(2) ? "up" : "NULL";
          return;
        case 1:
          return membership("templateValueDict", {"k1", "k2"});
        default:
          c.attribute = "templateCache";
          c.len = true;
          c.op = kOrdered[aside(6)];
          c.constant = std::to_string(c.op == ">" ? 1 + aside(2) : aside(3));
          return;
      }
  }
}

std::string Generator::traceLevelText() {
  static std::vector<std::string> const facilities{"PassiveEntityManager", "Orn", "LedraPlatform",
                                                   "*"};
  std::string text;
  unsigned const n = 1 + below(3);
  for (unsigned i = 0; i < n; ++i) {
    if (!text.empty()) text += ",";
    text += pick(facilities) + "=" + std::to_string(chance(40) ? 9 : below(10));
  }
  return text;
}

std::string ConditionPlan::sensorPath() const {
  if (!record.empty()) return std::string(kRoot) + "/sensors/" + record;
  return std::string(kRoot) + "/sensors/s" + std::to_string(sensor);
}

std::string ConditionPlan::text() const {
  std::string const blank = spaced ? "  " : " ";
  return (spaced ? " " : "") + constant + blank + op + blank + (len ? "len(" + blank : "") +
         sensorPath() + "." + attribute + (closed ? ")" : "");
}

}  // namespace Sim
