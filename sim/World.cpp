#include "sim/World.h"

#include <algorithm>
#include <array>

#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "PassiveEntityManager/MountGroupReactor.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "Qel/Containers/Path.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Trace/Facilities.h"

namespace Sim {

namespace {

using Ledra::LoopbackAgent;
using Qel::MountTable;

// "sim::Sensor": what the attribute conditions of the simulated profiles watch.
Qel::QelType const* sensorType() {
  static Qel::QelType const* const t = [] {
    Qel::QelType const* mode = Qel::defineEnum("sim::Mode", {{"off", 0}, {"on", 1}, {"fault", 7}});
    return Qel::defineType("sim::Sensor", {{"ready", "bool"},
                                           {"level", "U32"},
                                           {"mode", mode->name()},
                                           {"label", "string"},
                                           {"tags", "bool", "string"},
                                           {"f64", "F64"},
                                           {"f32", "F32"},
                                           {"u64", "U64"},
                                           {"s64", "S64"},
                                           {"s32", "S32"},
                                           {"u16", "U16"},
                                           {"s16", "S16"},
                                           {"u8", "U8"},
                                           {"s8", "S8"},
                                           {"lng", "long"},
                                           {"dbl", "double"},
                                           {Generator::kNameAttribute, "name"},
                                           {"ch", "char"},
                                           {"cp", "char*"},
                                           {"ccp", "const char*"},
                                           {"ptr", "Qel::Dir"},
                                           {"slots", "bool", "U16"},
                                           {"modes", "bool", mode->name()},
                                           {"peers", "bool", "name"},
                                           {"flags", "bool", "bool"},
                                           {"offsets", "bool", "S16"},
                                           {"weights", "bool", "F64"}});
  }();
  return t;
}

// "sim::Placeholder": an entity that is no directory, standing where a directory may come.
Qel::QelType const* placeholderType() {
  static Qel::QelType const* const t = Qel::defineType("sim::Placeholder", {{"note", "string"}});
  return t;
}

// The keys the collections added last are written with.
std::vector<std::string> const& asideKeys(std::string const& attribute) {
  static std::map<std::string, std::vector<std::string>> const keys{
      {"slots", {"1", "2", "3"}},   {"modes", {"off", "on", "fault"}}, {"peers", {"a", "b", "c"}},
      {"flags", {"true", "false"}}, {"offsets", {"-1", "2", "5"}},     {"weights", {"1", "2"}}};
  static std::vector<std::string> const none;
  auto it = keys.find(attribute);
  return it == keys.end() ? none : it->second;
}

// What the character pointer attributes point at: texts the database process keeps.
char const kOnText[] = "on";
char const kOffText[] = "off";

Qel::GenericIf::PtrConst charPointer(Qel::DynamicEntity const& s, Qel::AttributeId aid,
                                     char const* chars) {
  return s.qelType()->attribute(aid)->type()->newValue(Qel::Value(static_cast<void const*>(chars)));
}

// "k op v", the constant on the left; "in" and "notin" as "==" and "!=".
template <class K, class V>
bool compareBy(std::string const& op, K const& k, V const& v) {
  if (op == "==" || op == "in") return k == v;
  if (op == "!=" || op == "notin") return k != v;
  if (op == "<") return k < v;
  if (op == "<=") return k <= v;
  if (op == ">") return k > v;
  return k >= v;
}

// A value v for which "k op v" holds.
long satisfying(std::string const& op, long k) {
  if (op == "!=" || op == "notin" || op == "<") return k + 1;
  return op == ">" ? k - 1 : k;
}

// The text a condition's constant stands for: "NULL" is the empty text.
std::string textOf(std::string const& constant) {
  return constant == "NULL" ? std::string() : constant;
}

bool isNullText(std::string const& text) {
  return text == "NULL" || text == "0";
}

// The directory `relative` (below the root) would stand in, or null, and its name there.
std::pair<Qel::Dir*, Qel::Name> slotOf(std::string const& relative) {
  std::string const path = std::string(kRoot) + "/" + relative;
  auto const slash = path.rfind('/');
  auto const parent = Qel::globalDir()->entity(path.substr(0, slash));
  return {dynamic_cast<Qel::Dir*>(parent.ptr()), Qel::Name(path.substr(slash + 1))};
}

std::vector<std::string> const kTags{"hot", "cold", "warm", "dry"};

MountTable::PathState synchronisedState() {
  return MountTable::PathState().mountedIs(true).completeIs(true).synchronisedIs(true).mountPointIs(
      true);
}

std::string join(std::vector<ConditionPlan> const& conditions) {
  std::string text;
  for (auto const& c : conditions)
    text += (text.empty() ? "" : " && ") + c.text();
  return text;
}

std::string strip(std::string const& s) {
  std::string out;
  for (char c : s) {
    if (c != ' ' && c != '\t') out += c;
  }
  return out;
}

}  // namespace

namespace {

using Browsed = std::set<Qel::GenericIf const*>;

// Reads every plain attribute of `e` by name as text and every collection's length; follows
// pointers to other entities once, and into values that have attributes of their own.
void browse(Qel::GenericIf const& e, Browsed& seen) {
  // Values are read afresh each time: only entities are remembered.
  if (dynamic_cast<Qel::Entity const*>(&e) && !seen.insert(&e).second) return;
  Qel::QelType const* const type = e.qelType();
  for (Qel::AttributeId aid = 1; aid < type->attributes(); ++aid) {
    Qel::QelAttr const* const a = type->attribute(aid);
    if (!a || a->isHandler()) continue;
    if (a->isCollection()) {
      if (a->count()) e.colLength(aid);
      continue;
    }
    if (!a->getter()) continue;
    auto const v = e.attribute(aid);
    if (!v) continue;
    (void)v->text();
    if (!v->asValue()) browse(*v, seen);
  }
}

// Reads the element of collection `name` whose key prints as `keyText`, by name.
void browseElement(Qel::GenericIf const& e, char const* name, std::string const& keyText,
                   Browsed& seen) {
  Qel::AttributeId const aid = e.attributeId(Qel::Name(name));
  if (aid == Qel::kNoAttribute) return;
  Qel::QelAttr const* const a = e.qelType()->attribute(aid);
  auto const v = e.attribute(aid, a->keyType()->valueFromText(Qel::String(keyText)));
  if (!v) return;
  (void)v->text();
  if (!v->asValue()) browse(*v, seen);
}

// What a condition reactor reports for, read through the reactor of its constant's type.
struct ReactorView {
  bool found = false;
  Ledra::ConditionalMountGroupSm const* sm = nullptr;
  std::string condition;
  Qel::AttributeId aid = 0;
  Qel::QelAttr const* attr = nullptr;
  Qel::QelType const* entityType = nullptr;
  bool len = false;
};

template <class T>
void viewAs(Orn::CountedNotifiee const& reactor, ReactorView& view) {
  if (view.found) return;
  auto const* r = dynamic_cast<Ledra::MountGroupReactor<T> const*>(&reactor);
  if (!r) return;
  view.found = true;
  view.sm = r->conditionSm();
  view.condition = r->condition();
  view.aid = r->aid();
  view.attr = r->attr();
  view.entityType = r->entityType();
  view.len = r->len();
  (void)r->value();
  (void)r->logicalOp();
}

ReactorView viewOf(Orn::CountedNotifiee const& reactor) {
  ReactorView view;
#define SIM_VIEW_AS(T) viewAs<T>(reactor, view);
  ORN_FOR_EACH_CONSTANT_TYPE(SIM_VIEW_AS)
#undef SIM_VIEW_AS
  return view;
}

// Problems of the reactor a state machine has installed: it must report to that state machine,
// for its pending condition, on the attribute of the watched entity's type the condition names.
void checkReactor(std::string const& who, Ledra::ConditionalMountGroupSm const& sm,
                  std::vector<std::string>& problems) {
  auto const& reactor = sm.conditionalReactor();
  if (!reactor) return;
  ReactorView const view = viewOf(*reactor);
  std::string const what = who + " group " + std::string(sm.name()) + ": reactor ";
  if (!view.found) {
    problems.push_back(what + "of no known kind");
    return;
  }
  if (view.sm != &sm) problems.push_back(what + "reports to another state machine");
  if (view.condition != sm.currentPendingCondition())
    problems.push_back(what + "for '" + view.condition + "' while '" +
                       sm.currentPendingCondition() + "' is pending");
  auto const watched = reactor->notifier();
  if (!view.attr || view.attr->id() != view.aid || !watched ||
      watched->qelType() != view.entityType)
    problems.push_back(what + "watches another attribute than it names");
  if (view.len != (view.condition.find("len(") != std::string::npos))
    problems.push_back(what + "counts elements or not against its condition");
}

}  // namespace

World::World(Generator& generator, Avoid avoid, bool traced, History& history)
    : generator_(generator), avoid_(avoid), traced_(traced), history_(history) {
  Qel::ActivityManagerConfig::instanceIs(nullptr);
  clock_ = Qel::SimulatedClock::simulatedClockNew();
  Qel::ActivityManagerConfig::instance()->clockIs(clock_);
  loop_ = Qel::EventLoop::eventLoopNew(clock_);
  root_ = Qel::globalDir()->dirIs("ledra")->dirIs("Ledra");
  sensors_ = root_->dirIs("sensors");
  observer_ = std::make_unique<Observer>(
      history_, [this](std::string const& a, std::string const& p) { return entitlement(a, p); },
      [this](std::string const& c) { return holds(c); });

  // The initial tree: some directories and sensors exist, the others may come later.
  for (auto const& d : Generator::directories()) {
    if (generator_.number(100) < 60) makeDir(d);
  }
  for (unsigned i = 0; i < Generator::kSensors; ++i) {
    if (generator_.number(100) < 60) createSensor(i);
  }
  for (char const* name : {Generator::kGate, Generator::kLedger}) {
    if (!avoid_.controls && generator_.aside(100) < 60)
      createRecord(name, generator_.aside(2) == 0);
  }
  profiles_ = Ledra::passiveAgentProfileDirFactory("profiles");
  statuses_ = Ledra::passiveAgentStatusDirFactory("statuses");
  for (auto const& name : Generator::profileNames()) {
    ProfilePlan plan = generator_.profile(name);
    if (generator_.number(100) < 25) continue;  // added later by a reload, if ever
    applyProfile(plan);
  }
  entMgr_ = Ledra::EntityManager::entityManagerNew(
      "entityManager", generator_.number(2) ? Ledra::EntityManager::Role::active
                                            : Ledra::EntityManager::Role::backup);
  entMgr_->writeMountsGrantedIs(generator_.number(2) == 0);
  wrapper_ = Ledra::passiveEntityManagerSmWrapperFactory("passive");
  wrapper_->passiveEntityManagerRootSmIs(profiles_, statuses_, entMgr_);
  observer_->rootIs(wrapper_->passiveEntityManagerRootSm());
  for (auto const& name : Generator::agentNames()) {
    AgentState a;
    a.agent = LoopbackAgent::loopbackAgentNew(loop_, name, name);
    agents_.push_back(std::move(a));
  }
  observer_->oracleIs(
      {[this](std::string const& agent, unsigned epoch) { return expectation(agent, epoch); },
       [this] { return entMgr_ && entMgr_->writeMountsGranted(); },
       [this](std::string const& profile) {
         auto it = plans_.find(profile);
         return it == plans_.end() ? std::string() : it->second.rootFlags;
       },
       [](std::string const& path) { return bool(Qel::globalDir()->entity(path)); },
       [this](std::string const& condition, void const* watched) {
         auto it = conditions_.find(condition);
         if (it == conditions_.end()) return false;
         auto const now = Qel::globalDir()->entity(it->second.sensorPath());
         return now && static_cast<Qel::GenericIf const*>(now.ptr()) == watched && holds(condition);
       }});
}

World::~World() {
  if (clock_) release();
}

void World::run(double seconds) {
  if (seconds <= 0) {
    loop_->runOnce();
    return;
  }
  loop_->runFor(seconds);
}

// --- events

std::string World::apply(Event const& e) {
  AgentState& a = agents_[e.agent % agents_.size()];
  std::string const agentName(a.agent->agentName());
  std::string const profileName = Generator::profileNames()[e.profile];
  auto const& dirs = Generator::directories();
  switch (e.kind) {
    case Kind::connect:
      return connect(a, e);
    case Kind::disconnect:
      if (!a.agent->connected()) return "disconnect " + agentName + ": not connected";
      a.agent->disconnect("sim: cable pulled");
      return "disconnect " + agentName;
    case Kind::releaseAnswers: {
      auto const held = a.agent->heldAnswers();
      if (held.empty()) return "release " + agentName + ": nothing held";
      if (e.value % 2)
        return "release all " + std::to_string(a.agent->answersRelease()) + " of " + agentName;
      Qel::String const path = held[e.index % held.size()];
      a.agent->answerRelease(path);
      return "release " + agentName + " " + path + " (out of order)";
    }
    case Kind::holdAnswers:
      a.agent->holdAnswersIs(!a.agent->holdAnswers());
      return std::string("hold answers of ") + agentName +
             (a.agent->holdAnswers() ? " on" : " off");
    case Kind::answerDelay:
    case Kind::protocolVersion:
      return agentChange(a, e);
    case Kind::failMount: {
      if (e.value % 3 == 0) {
        for (auto const& p : a.failing)
          a.agent->mountFailureIs(p, "");
        a.failing.clear();
        return "failures of " + agentName + " lifted";
      }
      std::string path = std::string(kRoot) + "/" + dirs[e.index % dirs.size()];
      if (e.index % 10 == 0 && !avoid_.rootRefusal) path = kRoot;
      a.agent->mountFailureIs(path, "sim: refused");
      a.failing.insert(path);
      return "mounts of " + path + " fail for " + agentName;
    }
    case Kind::unsyncPath: {
      auto const table = a.agent->peerMountTable();
      if (e.value % 3 == 2) {
        for (auto const& p : a.unsynced) {
          a.agent->pathStateOnAnswerDel(p);
          // Only a path mounted on this connection: a peer reports no state of another.
          if (a.agent->connected() && table && !table->conf(p).empty()) {
            a.agent->pathStateIs(p, synchronisedState());
          }
        }
        a.unsynced.clear();
        return "paths of " + agentName + " synchronised";
      }
      if (!a.agent->connected() || !table || table->confs() == 0)
        return "unsync " + agentName + ": nothing";
      auto const confs = table->conf();
      std::string const path = confs[e.index % confs.size()].first;
      MountTable::PathState s = MountTable::PathState().mountedIs(true).completeIs(true);
      if (e.index % 4 == 0) s = synchronisedState().monitoringIs(true).monitoringEidIs(42);
      a.unsynced.insert(path);
      if (e.value % 3 == 0) {
        a.agent->pathStateOnAnswerIs(path, s);
        return "answers of " + path + " leave it unsynchronised for " + agentName;
      }
      a.agent->pathStateIs(path, s);
      return path + " unsynchronised now for " + agentName + ": " + s.text();
    }
    case Kind::createDir:
      makeDir(dirs[e.index % dirs.size()]);
      return "create " + dirs[e.index % dirs.size()];
    case Kind::deleteDir:
      return removeDir(dirs[e.index % dirs.size()]);
    case Kind::createSensor:
      return createSensor(e.index % Generator::kSensors);
    case Kind::deleteSensor: {
      std::string const name = "s" + std::to_string(e.index % Generator::kSensors);
      if (!sensors_->entry(Qel::Name(name))) return "delete sensor " + name + ": absent";
      sensors_->entryDel(Qel::Name(name));
      observer_->sensorsChanged();
      return "delete sensor " + name;
    }
    case Kind::writeAttribute:
      return write(e.index % Generator::kSensors, e.value % 5, e.value / 5);
    case Kind::reloadProfile: {
      if (e.newProfile.groups.empty()) return "reload " + profileName + ": no groups";
      applyProfile(e.newProfile);
      entitleAll();
      return "reload profile " + profileName + " (" + std::to_string(e.newProfile.groups.size()) +
             " groups)";
    }
    case Kind::addGroup: {
      auto it = plans_.find(profileName);
      if (it == plans_.end()) return "add group to " + profileName + ": no profile";
      ProfilePlan plan = it->second;
      std::erase_if(plan.groups, [&](GroupPlan const& g) { return g.name == e.newGroup.name; });
      plan.groups.push_back(e.newGroup);
      applyProfile(plan);
      entitleAll();
      return "add group " + e.newGroup.name + " (priority " + std::to_string(e.newGroup.priority) +
             ") to " + profileName;
    }
    case Kind::removeGroup: {
      auto it = plans_.find(profileName);
      if (it == plans_.end() || it->second.groups.empty()) return "remove group: none";
      ProfilePlan plan = it->second;
      std::string const name = plan.groups[e.index % plan.groups.size()].name;
      std::erase_if(plan.groups, [&](GroupPlan const& g) { return g.name == name; });
      bool const plainLeft =
          std::any_of(plan.groups.begin(), plan.groups.end(),
                      [](GroupPlan const& g) { return g.templateConditions.empty(); });
      if (avoid_.allSkipped && !plainLeft) return "remove group " + name + ": avoided";
      applyProfile(plan);
      return "remove group " + name + " from " + profileName;
    }
    case Kind::editGroup: {
      auto it = plans_.find(profileName);
      if (it == plans_.end() || it->second.groups.empty()) return "edit group: none";
      if (avoid_.inPlaceEdit) return "edit group: avoided";
      GroupPlan& gs = it->second.groups[e.index % it->second.groups.size()];
      auto g = profiles_->agentProfile(Qel::Name(profileName))->mountGroup(Qel::Name(gs.name));
      if (!g) return "edit group " + gs.name + ": gone";
      // Known to the world before the group has it: the engine may take it in, and release the
      // group, while it is added.
      conditions_[e.newCondition.text()] = e.newCondition;
      g->conditionColEnq(e.newCondition.text());
      gs.conditions.push_back(e.newCondition);
      profileChanged(profileName);
      return "edit group " + gs.name + " of " + profileName + " in place: add condition " +
             e.newCondition.text();
    }
    case Kind::grantWrites:
      entMgr_->writeMountsGrantedIs(e.value % 3 != 0);
      return std::string("write mounts ") +
             (entMgr_->writeMountsGranted() ? "granted" : "withdrawn");
    case Kind::switchRole: {
      auto const role =
          e.value % 2 ? Ledra::EntityManager::Role::active : Ledra::EntityManager::Role::backup;
      becomeActive(role);
      return std::string("process becomes ") + Ledra::EntityManager::roleName(role);
    }
    case Kind::traceLevels:
      if (traced_) {
        Trace::Facilities::instance().levelsAre(e.traceLevels);
        // The shared-create fault shows in a decision trace (level 6): stay below it.
        if (avoid_.sharedCreate) Trace::Facilities::instance().levelsAre("PassiveEntityManager=5");
      }
      return "trace levels " + e.traceLevels + (traced_ ? "" : " (not in this run)");
    case Kind::idle:
      return control(e);
  }
  return "?";
}

void World::becomeActive(Ledra::EntityManager::Role role) {
  // Only a change of role is told; becoming active removes every "peerReady" group.
  bool const activated = role == Ledra::EntityManager::Role::active && !entMgr_->active();
  if (activated) peerReadyDropped();
  observer_->droppingIs(true);
  entMgr_->localIs(role);
  observer_->droppingIs(false);
  if (!activated) return;
  for (auto& [name, plan] : plans_) {
    if (std::erase_if(plan.groups, [](GroupPlan const& g) { return g.name == "peerReady"; }))
      profileChanged(name);
  }
  if (!avoid_.allSkipped) return;
  auto const plans = plans_;
  for (auto const& [name, plan] : plans)
    applyProfile(plan);
}

std::string World::agentChange(AgentState& a, Event const& e) {
  std::string const name(a.agent->agentName());
  if (e.kind == Kind::protocolVersion) {
    if (!a.agent->connected()) return "protocol version of " + name + ": not connected";
    a.agent->currentVersionIs(e.value % 3 == 0 && !avoid_.oldProtocol ? 4 : 5);
    return "protocol version of " + name + " now " + std::to_string(a.agent->currentVersion());
  }
  a.agent->answerTurnsIs(1 + e.value % 3);
  a.agent->answerDelayIs(e.value % 5 == 0 ? 0.01 * (e.index % 30) : 0);
  return "answers of " + name + " after " + std::to_string(a.agent->answerTurns()) + " turns, " +
         std::to_string(a.agent->answerDelay()) + " s";
}

std::string World::connect(AgentState& a, Event const& e) {
  std::string const name(a.agent->agentName());
  if (a.agent->connected()) return "connect " + name + ": already connected";
  a.agent->answerTurnsIs(1 + e.value % 3);
  a.agent->answerDelayIs(e.value % 5 == 0 ? 0.01 * (e.index % 30) : 0);
  a.agent->holdAnswersIs(e.index % 10 == 0);
  a.agent->currentVersionIs(e.index % 20 == 1 && !avoid_.oldProtocol ? 4 : 5);
  a.agent->whiteListIs(e.value % 50 == 7);
  a.profile = Expectation::profileFor(name, plans_);
  a.entitled.clear();
  a.directoryMounts.clear();
  a.groupOf.clear();
  // The template values are fixed when the engine starts, from the profile of that moment.
  a.values.clear();
  if (!a.profile.empty()) {
    ProfilePlan const& p = plans_.at(a.profile);
    std::vector<std::string> fields;
    std::size_t pos = 0;
    while (true) {
      std::size_t const dash = name.find('-', pos);
      fields.push_back(name.substr(pos, dash - pos));
      if (dash == std::string::npos) break;
      pos = dash + 1;
    }
    std::size_t field = 1;
    for (auto const& [position, key] : p.templateKeys)
      a.values[key] = field < fields.size() ? fields[field++] : "";
    for (auto const& [alias, key] : p.aliases) {
      auto it = a.values.find(strip(key));
      a.values[strip(alias)] = it == a.values.end() ? "" : it->second;
    }
  }
  entitle(a);
  std::size_t const closes = expect(a);
  a.agent->connect();
  connected(a, closes);
  return "connect " + name + " (profile " + (a.profile.empty() ? "none" : a.profile) + ", " +
         std::to_string(a.agent->answerTurns()) + " turns, delay " +
         std::to_string(a.agent->answerDelay()) + (a.agent->holdAnswers() ? ", holding" : "") +
         ", version " + std::to_string(a.agent->currentVersion()) +
         (a.agent->whiteList() ? ", white-listed" : "") + ")";
}

// --- entitlement

std::string World::canonical(AgentState const& a, std::string const& path) const {
  if (path.find('%') == std::string::npos) return path;
  int const cell = Cell::cellId();
  std::map<std::string, std::string> const reserved{
      {"%cellId", std::to_string(cell)},
      {"%cellPath", "cell/" + std::to_string(cell)},
      {"%peerCellId", std::to_string(3 - cell)},
      {"%peerCellPath", "cell/" + std::to_string(3 - cell)},
      {"%sysname", "ledra"}};
  return Expectation::substituted(path, [&](std::string const& key) -> std::string {
    if (auto it = a.values.find(key); it != a.values.end()) return it->second;
    if (auto it = reserved.find(key); it != reserved.end()) return it->second;
    return "";
  });
}

void World::entitle(AgentState& a) {
  if (a.profile.empty()) return;
  auto it = plans_.find(a.profile);
  if (it == plans_.end()) return;
  for (auto const& g : it->second.groups) {
    for (auto const& m : g.mounts) {
      std::string const path = canonical(a, m.path);
      a.entitled.insert(path);
      if (m.flags.find('D') != std::string::npos) a.directoryMounts.insert(path);
      std::string& groups = a.groupOf[path];
      if (groups.find(g.name) == std::string::npos) groups += (groups.empty() ? "" : ",") + g.name;
    }
  }
}

void World::entitleAll() {
  for (auto& a : agents_) {
    if (a.agent->connected()) entitle(a);
  }
}

std::string World::entitlement(std::string const& agent, std::string const& path) const {
  if (path == kRoot) return "root";
  auto a = std::find_if(agents_.begin(), agents_.end(),
                        [&](AgentState const& s) { return s.agent->agentName() == agent; });
  if (a == agents_.end()) return "";
  if (a->entitled.count(path)) return "group " + a->groupOf.at(path);
  for (auto const& e : a->entitled) {
    if (e.size() > path.size() && e.compare(0, path.size(), path) == 0 && e[path.size()] == '/')
      return "parent of " + a->groupOf.at(e);
  }
  std::string const parent = path.substr(0, path.rfind('/'));
  if (a->directoryMounts.count(parent)) return "entry of " + a->groupOf.at(parent);
  return "";
}

// --- profiles

void World::fillGroup(Ledra::PassiveMountGroup& g, GroupPlan const& s, bool byName) {
  for (auto const& c : s.conditions)
    conditions_[c.text()] = c;
  if (!byName) {
    if (!s.conditions.empty()) g.entireConditionIs(join(s.conditions));
    for (auto const& c : s.conditions)
      g.conditionColEnq(c.text());
    g.blockingConditionalIs(s.blocking);
    for (auto const& t : s.templateConditions)
      g.templateConditionColIs(t, true);
    for (auto const& m : s.mounts)
      g.addProfile(m.path, m.type, m.flags);
    return;
  }
  // A condition is appended empty and then written by its index, the way a control client
  // fills a queue it cannot append to by name.
  if (!s.conditions.empty()) g.attributeIs("entireCondition", Qel::String(join(s.conditions)));
  for (auto const& c : s.conditions) {
    Qel::U32 const index = g.conditionColEnq("");
    g.attributeIs("conditionCol", Qel::String(c.text()), Qel::String(std::to_string(index)));
  }
  g.attributeIs("blockingConditional", Qel::String(s.blocking ? "true" : "false"));
  for (auto const& t : s.templateConditions)
    g.attributeIs("templateConditionCol", Qel::String("true"), Qel::String(t));
  auto const text = [](std::string const& v) { return Qel::ValueTraits<Qel::String>::box(v); };
  for (std::size_t i = 0; i < s.mounts.size(); ++i) {
    MountPlan const& m = s.mounts[i];
    if (i % 2 == 0) {
      g.invoke("addProfile",
               {{"path", text(m.path)}, {"qelType", text(m.type)}, {"flags", text(m.flags)}});
      continue;
    }
    g.attributeIs("mountProfile", Qel::ValueTraits<Ledra::Mount>::box({m.path, m.type, m.flags}),
                  text(m.path));
  }
}

void World::applyProfile(ProfilePlan const& given) {
  ProfilePlan plan = given;
  // One group per name, as in a profile file.
  std::set<std::string> names;
  std::erase_if(plan.groups, [&](GroupPlan const& g) { return !names.insert(g.name).second; });
  bool const plain = std::any_of(plan.groups.begin(), plan.groups.end(), [](GroupPlan const& g) {
    return g.templateConditions.empty() && g.name != "peerReady";
  });
  if (avoid_.allSkipped && !plain) {
    // A group that is never skipped and never removed by the switch to active.
    GroupPlan base;
    base.name = "base";
    base.mounts.push_back({std::string(kRoot) + "/d0", "Qel::Dir", "r"});
    plan.groups.push_back(base);
    names.insert(base.name);
  }
  auto const before = plans_.find(plan.name);
  auto p = profiles_->agentProfileIs(Qel::Name(plan.name));
  bool const byName = generator_.aside(2) == 0;
  if (byName) {
    applyProfileByName(*p, plan, before == plans_.end() ? nullptr : &before->second);
  } else {
    p->rootFlagsIs(plan.rootFlags);
    p->hybridMountIs(plan.hybrid);
    p->lowMountPrioIs(plan.lowPrio);
    if (before == plans_.end() || before->second.templateKeys != plan.templateKeys) {
      p->templateKeyDelAll();
      for (auto const& [position, key] : plan.templateKeys)
        p->templateKeyIs(position, key);
    }
    if (before == plans_.end() || before->second.aliases != plan.aliases) {
      p->aliasKeyDelAll();
      for (auto const& [alias, key] : plan.aliases)
        p->aliasKeyIs(alias, key);
    }
  }
  auto const unchanged = [&](GroupPlan const& gs) {
    if (before == plans_.end() || !p->mountGroup(Qel::Name(gs.name))) return false;
    return std::any_of(before->second.groups.begin(), before->second.groups.end(),
                       [&](GroupPlan const& old) { return old == gs; });
  };
  std::vector<Qel::Name> stale;
  for (auto const& [name, g] : p->mountGroup()) {
    if (!names.count(std::string(name))) stale.push_back(name);
  }
  if (std::none_of(plan.groups.begin(), plan.groups.end(), unchanged)) {
    // Nothing stays: every group goes at once.
    p->mountGroupDelAll();
    stale.clear();
  }
  for (auto const& name : stale)
    p->mountGroupDel(name);
  for (auto const& gs : plan.groups) {
    std::optional<Qel::LinkQueueMetadata> numbering;
    if (auto const old = p->mountGroup(Qel::Name(gs.name))) {
      // Stated again, as a reload states every group: an unchanged group keeps its object.
      if (unchanged(gs) && p->mountGroupIs(Qel::Name(gs.name), gs.priority)) continue;
      // The replacement goes on numbering its conditions where the group it replaces stopped.
      numbering = old->conditionColMetadata();
      p->mountGroupDel(Qel::Name(gs.name));
    }
    auto const g = p->mountGroupIs(Qel::Name(gs.name), gs.priority);
    if (numbering && !byName) g->conditionColMetadataIs({numbering->next, numbering->next});
    fillGroup(*g, gs, byName);
  }
  plans_[plan.name] = plan;
  profileChanged(plan.name);
}

void World::applyProfileByName(Ledra::PassiveAgentProfile& p, ProfilePlan const& plan,
                               ProfilePlan const* before) {
  auto const flag = [](bool v) { return Qel::String(v ? "true" : "false"); };
  p.attributeIs("rootFlags", Qel::String(plan.rootFlags));
  p.attributeIs("hybridMount", flag(plan.hybrid));
  p.attributeIs("lowMountPrio", flag(plan.lowPrio));
  if (!before || before->templateKeys != plan.templateKeys) {
    std::vector<Qel::U32> stale;
    for (auto const& [position, key] : p.templateKey()) {
      if (!plan.templateKeys.count(position)) stale.push_back(position);
    }
    for (auto const position : stale)
      p.attributeIs("templateKey", Qel::String(), Qel::String(std::to_string(position)));
    for (auto const& [position, key] : plan.templateKeys)
      p.attributeIs("templateKey", Qel::String(key), Qel::String(std::to_string(position)));
  }
  if (!before || before->aliases != plan.aliases) {
    std::vector<std::string> stale;
    for (auto const& [alias, key] : p.aliasKey()) {
      if (!plan.aliases.count(alias)) stale.push_back(alias);
    }
    for (auto const& alias : stale)
      p.attributeIs("aliasKey", Qel::String(), Qel::String(alias));
    for (auto const& [alias, key] : plan.aliases)
      p.attributeIs("aliasKey", Qel::String(key), Qel::String(alias));
  }
}

// --- the tree

void World::makeDir(std::string const& relative) {
  Qel::Dir::Ptr d = root_;
  for (std::string_view const component : Qel::pathComponents(relative)) {
    Qel::Name const name(component);
    // A placeholder gives way to the directory.
    auto const e = d->entry(name);
    if (e && !dynamic_cast<Qel::Dir*>(e.ptr())) d->entryDel(name);
    d = d->dirIs(name);
  }
}

std::string World::removeDir(std::string const& relative) {
  auto const [dir, name] = slotOf(relative);
  if (!dir || !dir->entry(name)) return "delete " + relative + ": absent";
  dir->entryDel(name);
  return "delete " + relative;
}

Qel::DynamicEntity::Ptr World::sensor(unsigned i) const {
  auto e = sensors_->entry(Qel::Name("s" + std::to_string(i)));
  return Qel::DynamicEntity::Ptr(dynamic_cast<Qel::DynamicEntity*>(e.ptr()));
}

std::string World::createSensor(unsigned i) {
  std::string const name = "s" + std::to_string(i);
  if (sensor(i)) return "create sensor " + name + ": present";
  sensors_->entryIs(Qel::DynamicEntity::entityNew(sensorType(), Qel::Name(name)));
  if (observer_) observer_->sensorsChanged();
  return "create sensor " + name;
}

std::string World::write(unsigned i, unsigned what, unsigned value) {
  std::string done = writeAttribute(i, what, value);
  // Now and then one of the other attributes too (second generator).
  auto s = sensor(i);
  unsigned const typed = generator_.extra(100);
  if (s && typed < 40) {
    auto const& numeric = Generator::numericAttributes();
    std::string const attribute = numeric[generator_.extra(static_cast<unsigned>(numeric.size()))];
    std::string const v = std::to_string(generator_.extra(6));
    s->attributeIs(Qel::Name(attribute), Qel::String(v));
    done += ", " + attribute + " = " + v;
  } else if (s && typed < 50) {
    std::string const v = generator_.extra(2) ? "up" : "";
    s->attributeIs(Qel::Name(Generator::kNameAttribute), Qel::String(v));
    done += std::string(", ") + Generator::kNameAttribute + " = '" + v + "'";
  }
  // And the attributes added last (third generator).
  if (s && !avoid_.controls && generator_.aside(100) < 30)
    done += ", " + writeAside(i, generator_.aside(1000));
  observer_->sensorsChanged();
  return done;
}

// The number a condition's constant stands for on a numeric attribute: the code of its first
// character for the one-byte types, else its value.
long World::numericConstant(ConditionPlan const& c) {
  if (c.attribute == "u8" || c.attribute == "s8") return static_cast<unsigned char>(c.constant[0]);
  return std::stol(c.constant);
}

bool World::numeric(std::string const& attribute) {
  auto const& n = Generator::numericAttributes();
  return attribute == "level" || std::find(n.begin(), n.end(), attribute) != n.end();
}

std::string World::writeAttribute(unsigned i, unsigned what, unsigned value) {
  auto s = sensor(i);
  std::string const name = "s" + std::to_string(i);
  if (!s) return "write sensor " + name + ": absent";
  static std::vector<std::string> const modes{"off", "on", "fault"};
  static std::vector<std::string> const labels{"up", "down", "", "never"};
  switch (what) {
    case 0:
      s->attributeIs("ready", Qel::String(value % 2 ? "true" : "false"));
      return name + ".ready = " + (value % 2 ? "true" : "false");
    case 1:
      s->attributeIs("level", Qel::String(std::to_string(value % 6)));
      return name + ".level = " + std::to_string(value % 6);
    case 2:
      s->attributeIs("mode", Qel::String(modes[value % modes.size()]));
      return name + ".mode = " + modes[value % modes.size()];
    case 3:
      s->attributeIs("label", Qel::String(labels[value % labels.size()]));
      return name + ".label = '" + labels[value % labels.size()] + "'";
    default: {
      std::string const tag = kTags[value % kTags.size()];
      bool const add = (value / kTags.size()) % 2 == 0;
      s->attributeIs("tags", Qel::String(add ? "true" : ""), Qel::String(tag));
      return name + ".tags " + (add ? "+ " : "- ") + tag;
    }
  }
}

void World::makeTrue(ConditionPlan const& c) {
  setTrue(c);
  observer_->sensorsChanged();
}

void World::setTrue(ConditionPlan const& c) {
  if (!c.record.empty()) {
    recordSetTrue(c);
    return;
  }
  auto s = sensor(static_cast<unsigned>(c.sensor));
  if (!s) return;
  if (asideAttribute(c.attribute)) {
    asideSetTrue(c, *s);
    return;
  }
  bool const eq = c.op == "==" || c.op == "in";
  if (c.len || numeric(c.attribute)) {
    writeNumber(*s, c, satisfying(c.op, c.len ? std::stol(c.constant) : numericConstant(c)));
    return;
  }
  if (c.attribute == "ready") {
    bool const k = c.constant == "true";
    s->attributeIs("ready", Qel::String(k == eq ? "true" : "false"));
    return;
  }
  if (c.attribute == "mode") {
    s->attributeIs("mode", Qel::String(eq ? c.constant : (c.constant == "on" ? "off" : "on")));
    return;
  }
  if (c.attribute == Generator::kNameAttribute || c.attribute == "label") {
    std::string const k = textOf(c.constant);
    s->attributeIs(Qel::Name(c.attribute), Qel::String(eq ? k : k + "x"));
    return;
  }
  s->attributeIs("tags", Qel::String(eq ? "true" : ""), Qel::String(c.constant));
}

void World::writeNumber(Qel::DynamicEntity& s, ConditionPlan const& c, long v) {
  if (!c.len) {
    s.attributeIs(Qel::Name(c.attribute), Qel::String(std::to_string(v)));
    return;
  }
  for (std::size_t i = 0; i < kTags.size(); ++i)
    s.attributeIs("tags", Qel::String(static_cast<long>(i) < v ? "true" : ""),
                  Qel::String(kTags[i]));
}

bool World::holds(std::string const& text) const {
  auto it = conditions_.find(text);
  if (it == conditions_.end()) return false;
  ConditionPlan const& c = it->second;
  if (!c.record.empty()) return recordHolds(c);
  auto const s = sensor(static_cast<unsigned>(c.sensor));
  if (!s) return false;
  if (asideAttribute(c.attribute)) return asideHolds(c, *s);
  Qel::AttributeId const aid = s->attributeId(Qel::Name(c.attribute));
  auto compare = [&c](auto k, auto v) { return compareBy(c.op, k, v); };
  if (c.len) return compare(std::stol(c.constant), static_cast<long>(s->elements(aid)));
  if (c.attribute == "tags") {
    bool member = false;
    for (auto const& key : s->keys(aid))
      member = member || (key && key->text() == c.constant);
    return c.op == "in" ? member : !member;
  }
  auto const value = s->attribute(aid);
  std::string const now = value ? std::string(value->text()) : "";
  if (numeric(c.attribute))
    return compare(static_cast<double>(numericConstant(c)), now.empty() ? 0.0 : std::stod(now));
  if (c.attribute == "ready") return compare(c.constant == "true", now == "true");
  if (c.attribute == "mode") return compare(c.constant, now.empty() ? std::string("off") : now);
  return compare(textOf(c.constant), now);
}

// --- the attributes added last and the records beside the sensors

bool World::asideAttribute(std::string const& attribute) {
  return attribute == "ch" || attribute == "cp" || attribute == "ccp" || attribute == "ptr" ||
         !asideKeys(attribute).empty();
}

std::string World::writeAside(unsigned i, unsigned what) {
  auto s = sensor(i);
  std::string const name = "s" + std::to_string(i);
  if (!s) return "write sensor " + name + ": absent";
  unsigned const v = what / 8;
  switch (what % 8) {
    case 0: {
      std::string const ch(1, static_cast<char>('a' + v % 5));
      s->attributeIs("ch", Qel::String(ch));
      return name + ".ch = '" + ch + "'";
    }
    case 1:
    case 2: {
      char const* const attribute = what % 8 == 1 ? "cp" : "ccp";
      Qel::AttributeId const aid = s->attributeId(Qel::Name(attribute));
      char const* const chars = v % 3 == 0 ? nullptr : v % 3 == 1 ? kOnText : kOffText;
      if (!chars) {
        // The text form of the null pointer, as a control client writes it.
        s->attributeIs(Qel::Name(attribute), Qel::String(v % 2 ? "null" : "0"));
      } else {
        s->attributeIs(Qel::Name(attribute), charPointer(*s, aid, chars));
      }
      return name + "." + attribute + " = " + (chars ? chars : "null");
    }
    case 3: {
      std::string const target = v % 3 == 0   ? ""
                                 : v % 3 == 1 ? std::string(kRoot) + "/sensors"
                                              : std::string(kRoot);
      s->attributeIs("ptr", Qel::String(target));
      return name + ".ptr = " + (target.empty() ? "null" : target);
    }
    default: {
      static std::vector<std::string> const sets{"slots", "modes",   "peers",
                                                 "flags", "offsets", "weights"};
      std::string const attribute = sets[(what % 8 - 4 + 4 * (v % 2)) % sets.size()];
      auto const& keys = asideKeys(attribute);
      std::string const key = keys[(v / 2) % keys.size()];
      bool const add = (v / 8) % 2 == 0;
      s->attributeIs(Qel::Name(attribute), Qel::String(add ? "true" : ""), Qel::String(key));
      return name + "." + attribute + (add ? " + " : " - ") + key;
    }
  }
}

bool World::asideHolds(ConditionPlan const& c, Qel::DynamicEntity const& s) const {
  Qel::AttributeId const aid = s.attributeId(Qel::Name(c.attribute));
  if (!asideKeys(c.attribute).empty()) {
    auto const key = s.qelType()->attribute(aid)->keyType()->valueFromText(Qel::String(c.constant));
    bool const member = s.isMember(aid, key)->valueAs<bool>();
    return c.op == "in" ? member : !member;
  }
  auto const value = s.attribute(aid);
  if (c.attribute == "ch") {
    auto const k = static_cast<signed char>(c.constant.empty() ? '\0' : c.constant[0]);
    auto const v = static_cast<signed char>(value ? value->valueAs<char>() : '\0');
    return compareBy(c.op, k, v);
  }
  if (c.attribute == "ptr") {
    Qel::Entity::Ptr target;
    if (!isNullText(c.constant)) {
      target = Qel::globalDir()->entity(Qel::String(c.constant));
      if (!target) return false;  // no reactor: the condition is never evaluated
    }
    bool const same = value.ptr() == static_cast<Qel::GenericIf const*>(target.ptr());
    return c.op == "==" ? same : !same;
  }
  // A character pointer: the reactor's constant is its own copy of the text, so only two null
  // pointers are equal.
  bool const same = c.constant == "NULL" && (!value || !value->valueAs<char const*>());
  return c.op == "==" ? same : !same;
}

void World::asideSetTrue(ConditionPlan const& c, Qel::DynamicEntity& s) {
  Qel::AttributeId const aid = s.attributeId(Qel::Name(c.attribute));
  if (!asideKeys(c.attribute).empty()) {
    bool const add = c.op == "in";
    s.attributeIs(Qel::Name(c.attribute), Qel::String(add ? "true" : ""), Qel::String(c.constant));
    return;
  }
  if (c.attribute == "ch") {
    long const v = satisfying(c.op, c.constant.empty() ? 0 : c.constant[0]);
    s.attributeIs("ch", Qel::String(std::string(1, static_cast<char>(v))));
    return;
  }
  if (c.attribute == "ptr") {
    Qel::Entity::Ptr target;
    if (!isNullText(c.constant)) target = Qel::globalDir()->entity(Qel::String(c.constant));
    Qel::Entity::Ptr const other = target ? nullptr : Qel::Entity::Ptr(sensors_);
    s.attributeIs("ptr", Qel::GenericIf::PtrConst((c.op == "==" ? target : other).ptr()));
    return;
  }
  if (c.constant != "NULL") return;  // "!=" with a text holds for every pointer
  s.attributeIs(Qel::Name(c.attribute), charPointer(s, aid, c.op == "==" ? nullptr : kOnText));
}

Qel::Entity::Ptr World::record(std::string const& name) const {
  return sensors_->entry(Qel::Name(name));
}

std::string World::createRecord(std::string const& name, bool byTypeName) {
  if (record(name)) return "create record " + name + ": present";
  bool const gate = name == Generator::kGate;
  char const* const typeName = gate ? "Ledra::ConditionRes" : "Ledra::PassiveAgentStatus";
  Qel::Entity::Ptr e;
  if (byTypeName) {
    e = Qel::QelType::typeOrThrow(typeName).newEntity(Qel::Name(name));
  } else if (gate) {
    e = Ledra::conditionResFactory(Qel::Name(name));
  } else {
    e = Ledra::passiveAgentStatusFactory(Qel::Name(name));
  }
  sensors_->entryIs(e);
  if (observer_) observer_->sensorsChanged();
  return "create record " + name + (byTypeName ? " by type name " : " by its factory ") + typeName;
}

bool World::recordHolds(ConditionPlan const& c) const {
  auto const e = record(c.record);
  if (!e) return false;
  Qel::AttributeId const aid = e->attributeId(Qel::Name(c.attribute));
  if (c.len) {
    auto const n = static_cast<long>(e->colLength(aid)->valueAs<Qel::U32>());
    return compareBy(c.op, std::stol(c.constant), n);
  }
  if (c.attribute == "templateValueDict") {
    auto const key =
        e->qelType()->attribute(aid)->keyType()->valueFromText(Qel::String(c.constant));
    bool const member = e->isMember(aid, key)->valueAs<bool>();
    return c.op == "in" ? member : !member;
  }
  auto const value = e->attribute(aid);
  if (c.attribute == "enabled")
    return compareBy(c.op, c.constant == "true", value && value->valueAs<bool>());
  std::string const now = value ? std::string(value->text()) : "";
  return compareBy(c.op, textOf(c.constant), now);
}

void World::recordSetTrue(ConditionPlan const& c) {
  createRecord(c.record, false);
  auto const e = record(c.record);
  bool const eq = c.op == "==" || c.op == "in";
  if (c.len) {
    // Entries k0, k1, ... of the cache until the count v satisfies "k op v".
    long const v = satisfying(c.op, std::stol(c.constant));
    for (long i = 0; i < 4; ++i) {
      e->attributeIs(Qel::Name(c.attribute), Qel::String(i < v ? "/ledra/Ledra" : ""),
                     Qel::String("k" + std::to_string(i)));
    }
    return;
  }
  if (c.attribute == "templateValueDict") {
    e->attributeIs(Qel::Name(c.attribute), Qel::String(eq ? "1" : ""), Qel::String(c.constant));
    return;
  }
  if (c.attribute == "enabled") {
    bool const k = c.constant == "true";
    e->attributeIs("enabled", Qel::String(k == eq ? "true" : "false"));
    return;
  }
  std::string const k = textOf(c.constant);
  e->attributeIs(Qel::Name(c.attribute), Qel::String(eq ? k : k + "x"));
}

// --- control actions

std::string World::control(Event const& e) {
  std::string const done = controlAction(e);
  // An edit in place changes a plan without a reload: every connection sees the new version.
  for (auto const& [name, plan] : plans_)
    profileChanged(name);
  return done;
}

std::string World::sensorWrite(unsigned d) {
  std::string const done = writeAside(d % Generator::kSensors, d / Generator::kSensors);
  observer_->sensorsChanged();
  return done;
}

// The attribute of a numeric condition some engine waits on set to the condition's constant:
// the comparison at its boundary, which holds for "==", "<=" and ">=" only.
std::string World::boundary(unsigned d) {
  std::vector<ConditionPlan const*> awaited;
  for (auto const& [agent, engine] :
       wrapper_->passiveEntityManagerRootSm()->passiveEntityManagerSm()) {
    for (auto const& [name, record] : engine->conditionalMountGroup()) {
      auto const& sm = record->conditionalMountGroupSm();
      auto const it = sm ? conditions_.find(sm->currentPendingCondition()) : conditions_.end();
      if (it == conditions_.end() || !it->second.record.empty()) continue;
      if (it->second.len || numeric(it->second.attribute)) awaited.push_back(&it->second);
    }
  }
  if (awaited.empty()) return "boundary: no numeric condition awaited";
  ConditionPlan const& c = *awaited[d % awaited.size()];
  auto const s = sensor(static_cast<unsigned>(c.sensor));
  if (!s) return "boundary of '" + c.text() + "': no sensor";
  writeNumber(*s, c, c.len ? std::stol(c.constant) : numericConstant(c));
  observer_->sensorsChanged();
  return "boundary of '" + c.text() + "'";
}

std::string World::controlAction(Event const& e) {
  if (e.control == Control::none) return "idle";
  // In the order of Control, from trimGroup on.
  static constexpr std::array<std::string (World::*)(unsigned), kControls - 1> kActions{
      &World::trimGroup,   &World::extendGroup, &World::profileByName, &World::refused,
      &World::records,     &World::graft,       &World::placeholder,   &World::engineByName,
      &World::sensorWrite, &World::boundary};
  return (this->*kActions[static_cast<std::size_t>(e.control) - 1])(e.detail);
}

bool World::held(Ledra::PassiveMountGroup const& g) const {
  auto const root = wrapper_->passiveEntityManagerRootSm();
  for (auto const& [agent, engine] : root->passiveEntityManagerSm()) {
    for (auto const& [name, r] : engine->conditionalMountGroup()) {
      if (r && r->mountGroup().ptr() == &g) return true;
    }
  }
  return false;
}

// The group an in-place edit works on, picked by `d`; `refusal` says why there is none.
World::GroupPick World::pickGroup(std::string const& action, unsigned d) {
  GroupPick p;
  if (avoid_.inPlaceEdit) return p.refused(action + ": avoided");
  if (plans_.empty()) return p.refused(action + ": no profile");
  auto it = plans_.begin();
  std::advance(it, d % plans_.size());
  p.plan = &it->second;
  if (p.plan->groups.empty()) return p.refused(action + ": none in " + p.plan->name);
  p.gs = &p.plan->groups[(d / 8) % p.plan->groups.size()];
  p.g = profiles_->agentProfile(Qel::Name(p.plan->name))->mountGroup(Qel::Name(p.gs->name));
  if (!p.g) return p.refused(action + " " + p.gs->name + ": gone");
  p.what = action + " " + p.gs->name + " of " + p.plan->name + ": ";
  return p;
}

std::string World::trimGroup(unsigned d) {
  GroupPick const pick = pickGroup("trim group", d);
  if (!pick.refusal.empty()) return pick.refusal;
  GroupPlan& gs = *pick.gs;
  auto const& g = pick.g;
  std::string const& what = pick.what;
  bool const byName = (d / 64) % 2 == 0;
  switch ((d / 128) % 3) {
    case 0: {
      if (gs.mounts.empty()) return what + "no mount profile";
      std::string const path = gs.mounts[(d / 512) % gs.mounts.size()].path;
      std::erase_if(gs.mounts, [&](MountPlan const& m) { return m.path == path; });
      if (gs.mounts.empty() && !byName) {
        g->mountProfileDelAll();
      } else if (byName) {
        g->attributeIs("mountProfile", Qel::String(), Qel::String(path));
      } else {
        g->mountProfileDel(path);
      }
      return what + "mount profile " + path + " removed";
    }
    case 1: {
      if (gs.conditions.empty()) return what + "no condition";
      // The conditions a state machine took in are the ones it waits for: none of those goes.
      if (held(*g)) return what + "held by an engine";
      std::size_t const at = byName ? (d / 512) % gs.conditions.size() : 0;
      std::string const text = gs.conditions[at].text();
      gs.conditions.erase(gs.conditions.begin() + static_cast<std::ptrdiff_t>(at));
      if (gs.conditions.empty() && d % 2) {
        g->conditionColDelAll();
      } else if (byName) {
        auto entry = g->conditionCol().begin();
        std::advance(entry, at);
        g->attributeIs("conditionCol", Qel::String(), Qel::String(std::to_string((*entry).index)));
      } else {
        g->conditionColDeq();
      }
      g->attributeIs("entireCondition", Qel::String(join(gs.conditions)));
      return what + "condition '" + text + "' removed";
    }
    default: {
      if (gs.templateConditions.empty()) return what + "no template condition";
      std::string const text = gs.templateConditions.front();
      gs.templateConditions.erase(gs.templateConditions.begin());
      if (gs.templateConditions.empty() && d % 2) {
        g->templateConditionColDelAll();
      } else if (byName) {
        g->attributeIs("templateConditionCol", Qel::String(), Qel::String(text));
      } else {
        g->templateConditionColDel(text);
      }
      return what + "template condition '" + text + "' removed";
    }
  }
}

std::string World::extendGroup(unsigned d) {
  GroupPick const pick = pickGroup("extend group", d);
  if (!pick.refusal.empty()) return pick.refusal;
  GroupPlan& gs = *pick.gs;
  auto const& g = pick.g;
  std::string const& what = pick.what;
  bool const byName = (d / 64) % 2 == 0;
  switch ((d / 128) % 3) {
    case 0: {
      static std::vector<std::string> const flags{"r", "w", "", "i", "S", "wS"};
      auto const& dirs = Generator::directories();
      MountPlan const m{std::string(kRoot) + "/" + dirs[(d / 512) % dirs.size()], "Qel::Dir",
                        flags[(d / 16384) % flags.size()]};
      std::erase_if(gs.mounts, [&](MountPlan const& old) { return old.path == m.path; });
      gs.mounts.push_back(m);
      auto const text = [](std::string const& v) { return Qel::ValueTraits<Qel::String>::box(v); };
      if (byName) {
        g->invoke("addProfile",
                  {{"path", text(m.path)}, {"qelType", text(m.type)}, {"flags", text(m.flags)}});
      } else {
        g->addProfile(m.path, m.type, m.flags);
      }
      entitleAll();
      return what + "mount profile " + m.path + "?flags=" + m.flags;
    }
    case 1: {
      if (avoid_.allSkipped) return what + "template conditions avoided";
      static std::vector<std::string> const texts{"%unit == 1", "%slot != NULL", "%u == 3"};
      std::string const text = texts[(d / 512) % texts.size()];
      if (std::find(gs.templateConditions.begin(), gs.templateConditions.end(), text) ==
          gs.templateConditions.end())
        gs.templateConditions.push_back(text);
      if (byName) {
        g->attributeIs("templateConditionCol", Qel::String("true"), Qel::String(text));
      } else {
        g->templateConditionColIs(text, true);
      }
      return what + "template condition '" + text + "'";
    }
    default: {
      if (gs.conditions.empty()) return what + "no condition";
      // An engine holding a blocking group removes the group's whole condition from what blocks
      // it once the conditions hold: while it does, the flag stays set and the text unchanged.
      bool const holding = held(*g);
      if (holding && gs.blocking) return what + "blocking and held: left";
      if (holding && (d / 512) % 2) {
        std::string const text = join(gs.conditions) + " ";
        g->attributeIs("entireCondition", Qel::String(text));
        return what + "whole condition '" + text + "'";
      }
      gs.blocking = !gs.blocking;
      g->attributeIs("blockingConditional", Qel::String(gs.blocking ? "true" : "false"));
      return what + (gs.blocking ? "blocking" : "not blocking");
    }
  }
}

std::string World::profileByName(unsigned d) {
  if (plans_.empty()) return "profile by name: no profile";
  auto it = plans_.begin();
  std::advance(it, d % plans_.size());
  ProfilePlan& plan = it->second;
  auto const p = profiles_->agentProfile(Qel::Name(plan.name));
  std::string const what = "profile " + plan.name + " by name: ";
  auto const flag = [](bool v) { return Qel::String(v ? "true" : "false"); };
  // The hybrid switch is left to reloads (applyProfileByName writes it by name): flipped here as
  // well, it made the runs much longer without reaching anything new.
  switch ((d / 8) % 5) {
    case 0:
      plan.rootFlags = plan.rootFlags.empty() ? "N" : "";
      p->attributeIs("rootFlags", Qel::String(plan.rootFlags));
      return what + "rootFlags '" + plan.rootFlags + "'";
    case 1:
      plan.lowPrio = !plan.lowPrio;
      p->attributeIs("lowMountPrio", flag(plan.lowPrio));
      return what + "lowMountPrio " + flag(plan.lowPrio);
    case 2: {
      bool const v = !p->noDefaultMountGroup();
      p->attributeIs("noDefaultMountGroup", flag(v));
      return what + "noDefaultMountGroup " + flag(v);
    }
    case 3: {
      // The second template key comes and goes.
      bool const add = !plan.templateKeys.count(2);
      if (add) {
        plan.templateKeys[2] = "%slot";
      } else {
        plan.templateKeys.erase(2);
      }
      p->attributeIs("templateKey", Qel::String(add ? "%slot" : ""), Qel::String("2"));
      return what + "templateKey[2] " + (add ? "%slot" : "removed");
    }
    default: {
      bool const add = !plan.aliases.count("%u");
      if (add) {
        plan.aliases["%u"] = "%unit";
      } else {
        plan.aliases.erase("%u");
      }
      p->attributeIs("aliasKey", Qel::String(add ? "%unit" : ""), Qel::String("%u"));
      return what + "aliasKey[%u] " + (add ? "%unit" : "removed");
    }
  }
}

std::string World::refused(unsigned d) {
  try {
    switch (d % 6) {
      case 0: {
        // A group created again with another priority.
        if (plans_.empty()) return "refused: no profile";
        auto it = plans_.begin();
        std::advance(it, (d / 8) % plans_.size());
        if (it->second.groups.empty()) return "refused: no group";
        GroupPlan const& gs = it->second.groups.front();
        profiles_->agentProfile(Qel::Name(it->first))
            ->mountGroupIs(Qel::Name(gs.name), gs.priority % 99 + 1);
        return "group " + gs.name + " created again with another priority: accepted";
      }
      case 1: {
        if (plans_.empty()) return "refused: no profile";
        Qel::U32 const priority = (d / 8) % 2 ? 100 : 0;
        profiles_->agentProfile(Qel::Name(plans_.begin()->first))
            ->mountGroupIs("outOfRange", priority);
        return "group of priority " + std::to_string(priority) + ": accepted";
      }
      case 2: {
        static std::vector<char const*> const types{"Ledra::PassiveMountGroup",
                                                    "Ledra::PassiveDirMounter",
                                                    "Ledra::PassiveEntityManagerSm"};
        char const* const type = types[(d / 8) % types.size()];
        Qel::QelType::typeOrThrow(type).newEntity("made");
        return std::string(type) + " made by type name: accepted";
      }
      case 3: {
        // The process asks for its root again: the present one, with the same directories.
        auto const root = wrapper_->passiveEntityManagerRootSmIs(profiles_, statuses_, entMgr_);
        if (root != wrapper_->passiveEntityManagerRootSm()) return "root asked again: a new one";
        wrapper_->passiveEntityManagerRootSmIs(
            (d / 8) % 2 ? Ledra::passiveAgentProfileDirFactory("other") : profiles_,
            (d / 8) % 2 ? statuses_ : Ledra::passiveAgentStatusDirFactory("other"), entMgr_);
        return "root asked for with another directory: accepted";
      }
      case 4: {
        // A spare wrapper made by type name holds no root.
        auto const spare =
            Qel::QelType::typeOrThrow("Ledra::PassiveEntityManagerSmWrapper").newEntity("spare");
        auto const root = spare->attribute(spare->attributeId("passiveEntityManagerRootSm"));
        if (root) return "spare wrapper made by type name holds a root";
        // Asked for a root without a profile directory, it refuses.
        dynamic_cast<Ledra::PassiveEntityManagerSmWrapper&>(*spare).passiveEntityManagerRootSmIs(
            nullptr, statuses_, entMgr_);
        return "spare wrapper made a root without profiles: accepted";
      }
      default: {
        // A profile made by its factory stands outside the directory: nobody serves it.
        auto const draft = Ledra::passiveAgentProfileFactory("draft");
        draft->mountGroupIs("g", 1)->addProfile(std::string(kRoot) + "/d0", "Qel::Dir", "r");
        return "draft profile outside the directory, " + std::to_string(draft->mountGroups()) +
               " group";
      }
    }
  } catch (Qel::Exception const& x) {
    return std::string("refused: ") + x.what();
  }
}

std::string World::records(unsigned d) {
  std::string const name = d % 2 ? Generator::kGate : Generator::kLedger;
  std::string done;
  switch ((d / 2) % 5) {
    case 0:
      done = createRecord(name, (d / 16) % 2 == 0);
      break;
    case 1:
      if (!record(name)) return "delete record " + name + ": absent";
      sensors_->entryDel(Qel::Name(name));
      done = "delete record " + name;
      break;
    default: {
      auto const e = record(name);
      if (!e) return "write record " + name + ": absent";
      unsigned const v = d / 16;
      if (name == Generator::kGate) {
        e->attributeIs("enabled", Qel::String(v % 2 ? "true" : "false"));
        done = name + ".enabled = " + (v % 2 ? "true" : "false");
        break;
      }
      auto* const ledger = dynamic_cast<Ledra::PassiveAgentStatus*>(e.ptr());
      std::string const key = "k" + std::to_string(v % 3);
      switch (v % 5) {
        case 0: {
          std::string const text = v % 3 == 0 ? "" : "up";
          e->attributeIs("agentString", Qel::String(text));
          done = name + ".agentString = '" + text + "'";
          break;
        }
        case 1:
        case 2: {
          char const* const attribute = v % 5 == 1 ? "templateValueDict" : "templateCache";
          bool const add = (v / 8) % 2 == 0;
          e->attributeIs(attribute, Qel::String(add ? "1" : ""), Qel::String(key));
          done = name + "." + attribute + (add ? " + " : " - ") + key;
          break;
        }
        case 3:
          ledger->templateValueDictDelAll();
          ledger->templateCacheDelAll();
          done = name + " emptied";
          break;
        default:
          ledger->mountReferenceIs(Qel::Name(key))->attributeIs("complete", Qel::String("true"));
          if ((v / 8) % 2) ledger->mountReferenceDelAll();
          done = name + " references " + std::to_string(ledger->mountReferences());
          break;
      }
    }
  }
  observer_->sensorsChanged();
  return done;
}

std::string World::engineByName(unsigned d) {
  auto& a = agents_[d % agents_.size()];
  std::string const name(a.agent->agentName());
  auto const root = wrapper_->passiveEntityManagerRootSm();
  auto const engine = root->passiveEntityManagerSm(Qel::Name(name));
  if (!engine) return "engine of " + name + ": none";
  // An operator asks how a template condition reads for the agent.
  static std::vector<std::string> const conditions{"%unit == 1", "%slot != NULL", "%u == 3",
                                                   "%cellId == 1"};
  std::string const condition = conditions[(d / 8) % conditions.size()];
  auto const holds = engine->invoke("evaluateTemplateCondition",
                                    {{"cond", Qel::ValueTraits<Qel::String>::box(condition)}});
  return "ask the engine of " + name + " whether " + condition + ": " +
         (holds ? std::string(holds->text()) : "?");
}

std::string World::graft(unsigned d) {
  auto const& dirs = Generator::directories();
  std::string const relative = dirs[d % dirs.size()];
  auto const [dir, name] = slotOf(relative);
  if (!dir || dir->entry(name)) return "graft " + relative + ": no parent, or present";
  // Built aside with everything below it, then put in place in one piece.
  auto const top = Qel::Dir::dirNew(name);
  unsigned entries = 0;
  for (auto const& below : dirs) {
    if (below.size() <= relative.size() || below.compare(0, relative.size(), relative) != 0 ||
        below[relative.size()] != '/')
      continue;
    Qel::Dir::Ptr at = top;
    std::string_view const rest = std::string_view(below).substr(relative.size() + 1);
    for (std::string_view const component : Qel::pathComponents(rest, Qel::EmptyComponents::keep))
      at = at->dirIs(Qel::Name(component));
    ++entries;
  }
  dir->entryIs(top);
  return "graft " + relative + " with " + std::to_string(entries) + " directories below";
}

std::string World::placeholder(unsigned d) {
  auto const& dirs = Generator::directories();
  std::string const relative = dirs[d % dirs.size()];
  auto const [dir, name] = slotOf(relative);
  if (!dir || dir->entry(name)) return "placeholder " + relative + ": no parent, or present";
  dir->entryIs(Qel::DynamicEntity::entityNew(placeholderType(), name));
  return "placeholder at " + relative;
}

bool World::waitsOnNowhere(Ledra::PassiveEntityManagerSm const& engine) const {
  for (auto const& [g, r] : engine.conditionalMountGroup()) {
    std::vector<std::string> texts;
    if (r->mountGroup()) {
      for (auto const& entry : r->mountGroup()->conditionCol())
        texts.push_back(entry.value);
    }
    if (auto const& sm = r->conditionalMountGroupSm()) {
      texts.push_back(sm->currentPendingCondition());
      texts.push_back(sm->retryCondition());
    }
    for (auto const& t : texts) {
      if (t.find(Generator::kNowhere) == std::string::npos) continue;
      history_.add(
          0, clock_->now(),
          std::string(engine.agentName()) + " waits on a condition naming no entity: " + t);
      return true;
    }
  }
  return false;
}

// --- the end of a run

void World::settle() {
  history_.add(0, now(), "settle: answers released, failures lifted, everything created");
  entMgr_->writeMountsGrantedIs(true);
  becomeActive(Ledra::EntityManager::Role::active);
  for (auto const& d : Generator::directories())
    makeDir(d);
  for (unsigned i = 0; i < Generator::kSensors; ++i)
    createSensor(i);
  for (char const* name : {Generator::kGate, Generator::kLedger}) {
    if (!avoid_.controls) createRecord(name, false);
  }
  auto release = [this] {
    for (auto& a : agents_) {
      a.agent->holdAnswersIs(false);
      a.agent->answerTurnsIs(1);
      a.agent->answerDelayIs(0);
      for (auto const& p : a.failing)
        a.agent->mountFailureIs(p, "");
      for (auto const& p : a.unsynced)
        a.agent->pathStateOnAnswerDel(p);
      if (!a.agent->connected()) continue;
      for (auto const& d : a.directoryMounts) {
        if (d.rfind(std::string(kRoot) + "/", 0) == 0)
          makeDir(d.substr(std::string(kRoot).size() + 1));
      }
      a.agent->currentVersionIs(5);
      if (auto t = a.agent->peerMountTable()) {
        for (auto const& [path, conf] : t->conf()) {
          if (t->pathState(path) != synchronisedState())
            a.agent->pathStateIs(path, synchronisedState());
        }
      }
      a.agent->answersRelease();
    }
  };
  release();
  run(6.0);
  // The conditions that hold agents back are those of the groups their engines wait on, which
  // may be groups a reload has since replaced: taken from the engines, in each group's order.
  auto const root = wrapper_->passiveEntityManagerRootSm();
  for (int round = 0; round < 4; ++round) {
    std::vector<std::string> waiting;
    for (auto const& [agent, engine] : root->passiveEntityManagerSm()) {
      for (auto const& [name, record] : engine->conditionalMountGroup()) {
        for (auto const& entry : record->mountGroup()->conditionCol())
          waiting.push_back(entry.value);
        // A condition removed from the group since its state machine took it in is still
        // awaited there.
        if (auto const& sm = record->conditionalMountGroupSm()) {
          waiting.push_back(sm->currentPendingCondition());
          for (auto const& entry : sm->conditionLocalQueue())
            waiting.push_back(entry.value);
          waiting.push_back(sm->retryCondition());
        }
      }
    }
    for (auto const& text : waiting) {
      if (auto it = conditions_.find(text); it != conditions_.end()) makeTrue(it->second);
      run(0.02);
    }
    release();
    run(6.0);
  }
  release();
  run(12.0);
}

bool World::waitsOnReplacedEntity(Ledra::PassiveEntityManagerSm const& engine) const {
  // A condition's reactor watches the entity that stood at the path when it was made; an entity
  // put there since is not watched, so the condition cannot be seen to hold.
  for (auto const& [g, r] : engine.conditionalMountGroup()) {
    auto const& sm = r->conditionalMountGroupSm();
    if (!sm || !sm->conditionalReactor()) continue;
    auto it = conditions_.find(sm->currentPendingCondition());
    if (it == conditions_.end()) continue;
    auto const now = Qel::globalDir()->entity(it->second.sensorPath());
    auto const watched = sm->conditionalReactor()->notifier();
    if (watched.ptr() != static_cast<Qel::GenericIf const*>(now.ptr())) {
      history_.add(
          0, clock_->now(),
          std::string(engine.agentName()) + " waits on a replaced " + it->second.sensorPath());
      return true;
    }
  }
  return false;
}

std::vector<std::string> World::unfinishedAgents() const {
  std::vector<std::string> out;
  auto const root = wrapper_->passiveEntityManagerRootSm();
  for (auto const& a : agents_) {
    std::string const name(a.agent->agentName());
    if (!a.agent->connected() || a.profile.empty() || a.agent->whiteList()) continue;
    if (std::string const refusal = observer_->rootRefusal(name, a.agent->epoch());
        !refusal.empty()) {
      out.push_back(name + " refused its root mount and is still connected; expected a close '" +
                    refusal + "'");
      continue;
    }
    if (observer_->failedAnswer(name, a.agent->epoch())) continue;
    if (!a.agent->closeReasons().empty()) continue;
    auto const engine = root->passiveEntityManagerSm(Qel::Name(name));
    if (!engine) {
      out.push_back(name + " has no engine");
      continue;
    }
    if (engine->state() == Ledra::PassiveEntityManagerSm::mountComplete) continue;
    if (waitsOnReplacedEntity(*engine) || waitsOnNowhere(*engine)) continue;
    std::string why = name + " is in state " + std::to_string(engine->state()) + " (ready " +
                      std::to_string(engine->readyMountGroups()) + ", conditional";
    for (auto const& [g, r] : engine->conditionalMountGroup()) {
      why += " " + std::string(g) + " {";
      for (auto const& entry : r->mountGroup()->conditionCol())
        why += " '" + entry.value + "'";
      if (auto const& sm = r->conditionalMountGroupSm()) {
        why += " waiting for '" + sm->currentPendingCondition() + "', " +
               std::to_string(sm->conditionLocalQueues()) + " queued, reactor " +
               (sm->conditionalReactor() ? "set" : "none");
      }
      why += " }";
    }
    why += ", pending";
    for (auto const& [p, m] : engine->pendingMountProfile())
      why += " " + p;
    why += ", blocking " + std::to_string(engine->blockingConditionals().size()) +
           ", directory mounters " + std::to_string(engine->passiveDirMounterCol().size()) +
           ", to convert " + std::to_string(engine->convertableMountsCount()) + ", initialized " +
           std::to_string(engine->initialized()) + ")";
    out.push_back(why);
  }
  return out;
}

std::vector<std::string> World::leftoversAfterDisconnect() {
  for (auto& a : agents_) {
    if (a.agent->connected()) a.agent->disconnect("sim: end of run");
  }
  run(1.0);
  std::vector<std::string> out;
  auto const root = wrapper_->passiveEntityManagerRootSm();
  std::pair<std::size_t, char const*> const left[] = {
      {root->passiveEntityManagerSms(), " engines left"},
      {root->connStatuses(), " connection reactors left"},
      {statuses_->agentStatus().size(), " agent status records left"},
      {root->timerWheel()->timers(), " timers armed on the wheel"}};
  for (auto const& [n, what] : left) {
    if (n != 0) out.push_back(std::to_string(n) + what);
  }
  return out;
}

std::size_t World::release() {
  observer_->rootIs(nullptr);
  // As the database process shuts down: the root first, then its profiles.
  wrapper_->passiveEntityManagerRootSmDel();
  wrapper_ = nullptr;
  agents_.clear();
  loop_->runFor(0.01);
  Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
  profiles_->agentProfileDelAll();
  statuses_->agentStatusDelAll();
  profiles_ = nullptr;
  statuses_ = nullptr;
  // A sensor pointing at a directory above it would keep the tree alive.
  for (unsigned i = 0; i < Generator::kSensors; ++i) {
    if (auto s = sensor(i)) s->attributeIs("ptr", Qel::GenericIf::PtrConst());
  }
  entMgr_ = nullptr;
  sensors_ = nullptr;
  root_ = nullptr;
  Qel::globalDir()->entryDel("ledra");
  observer_->prune();
  std::size_t const timers = clock_->timers();
  loop_ = nullptr;
  Qel::ActivityManagerConfig::instanceIs(nullptr);
  clock_ = nullptr;
  return timers;
}

std::vector<std::string> World::requestsSent() const {
  std::vector<std::string> out;
  for (auto const& a : agents_) {
    for (auto const& r : a.agent->mountRequests()) {
      out.push_back(std::string(a.agent->agentName()) + "#" + std::to_string(r.epoch) + " " +
                    r.path + "?flags=" + r.flags + " " + r.type);
    }
  }
  return out;
}

void World::browseEngine(Ledra::PassiveEntityManagerSm const& engine, Browsed& seen) const {
  for (auto const& [path, mount] : engine.pendingMountProfile())
    browseElement(engine, "pendingMountProfile", std::string(path), seen);
  for (auto const& entry : engine.convertableMounts())
    browseElement(engine, "convertableMounts", std::to_string(entry.index), seen);
  for (auto const& [path, mounter] : engine.passiveDirMounterCol())
    browseElement(engine, "passiveDirMounterCol", std::string(path), seen);
  for (auto const& [condition, flag] : engine.blockingConditionals())
    browseElement(engine, "blockingConditionals", std::string(condition), seen);
  for (auto const& [path, real] : engine.templateCache())
    browseElement(engine, "templateCache", std::string(path), seen);
  for (auto const& [path, mount] : engine.allMountPaths())
    browseElement(engine, "allMountPaths", std::string(path), seen);
}

std::vector<std::string> World::browseRecords() const {
  using Engine = Ledra::PassiveEntityManagerSm;
  std::vector<std::string> problems;
  Browsed seen;
  for (auto const& [name, profile] : profiles_->agentProfile()) {
    browseElement(*profiles_, "agentProfile", std::string(name), seen);
    browse(*profile, seen);
    for (auto const& [position, key] : profile->templateKey())
      browseElement(*profile, "templateKey", std::to_string(position), seen);
    for (auto const& [alias, key] : profile->aliasKey())
      browseElement(*profile, "aliasKey", std::string(alias), seen);
    for (auto const& [groupName, group] : profile->mountGroup()) {
      browseElement(*profile, "mountGroup", std::string(groupName), seen);
      // A group is also found by its path below the profile directory.
      if (profiles_->entity(Qel::String(name + "/" + group->name())) != group)
        problems.push_back("group " + group->name() + " of " + name + " not found by its path");
      for (auto const& entry : group->conditionCol())
        browseElement(*group, "conditionCol", std::to_string(entry.index), seen);
      for (auto const& [condition, flag] : group->templateConditionCol())
        browseElement(*group, "templateConditionCol", std::string(condition), seen);
      for (auto const& [path, mount] : group->mountProfile())
        browseElement(*group, "mountProfile", std::string(path), seen);
    }
  }
  for (auto const& [name, status] : statuses_->agentStatus()) {
    browseElement(*statuses_, "agentStatus", std::string(name), seen);
    if (statuses_->entity(Qel::String(name)) != status)
      problems.push_back("status record " + name + " not found by its path");
    browse(*status, seen);
    for (auto const& [key, value] : status->templateValueDict())
      browseElement(*status, "templateValueDict", std::string(key), seen);
    for (auto const& [path, reference] : status->mountReference())
      browseElement(*status, "mountReference", std::string(path), seen);
  }
  auto const root = wrapper_ ? wrapper_->passiveEntityManagerRootSm() : nullptr;
  if (!root) return problems;
  // The root by name through the wrapper, and by its path below it.
  browse(*wrapper_, seen);
  if (wrapper_->entity(Qel::String(root->name())) != root || wrapper_->entity("elsewhere"))
    problems.push_back("the wrapper does not lead to its root, and only to it, by name");
  browse(*root, seen);
  for (auto const& [name, reactor] : root->connStatus())
    browseElement(*root, "connStatus", std::string(name), seen);
  for (auto const& [name, engine] : root->passiveEntityManagerSm()) {
    browseElement(*root, "passiveEntityManagerSm", std::string(name), seen);
    if (!engine) continue;
    browse(*engine, seen);
    browseEngine(*engine, seen);
    // A key of the ready queue as a user may type it wrong, one per look: it is refused.
    static std::string const type = "'Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex'";
    static std::vector<std::string> const typedWrong{
        "Value(" + type + ", ** {'index0': 5",
        "Value('Ledra::Mount', ** {'index0': 1, 'index1': 2})",
        "Value(" + type + ", ** {'index2': 1, 'index1': 2})",
        "Value(" + type + ", ** {'index0': 99999999999, 'index1': 0})",
        "Value(" + type + ", ** {'index0': 1, 'index1': 2}) 3",
        "Value(\"Ledra::\\n\\tIndex\", ** {})",
        "Valeur(" + type + ", ** {'index0': 1, 'index1': 2})",
    };
    std::string const& wrong = typedWrong[looks_++ % typedWrong.size()];
    try {
      Qel::AttributeId const aid = engine->attributeId("readyMountGroup");
      (void)engine->attribute(aid,
                              engine->qelType()->attribute(aid)->keyType()->valueFromText(wrong));
      problems.push_back(std::string(name) + ": ready group key " + wrong + " accepted");
    } catch (Qel::Exception const&) {
    }
    Qel::String const state = Ledra::valueToStrep(engine->state());
    if (Ledra::strepToValue<Engine::State>(state) != engine->state())
      problems.push_back(std::string(name) + ": state " + state + " reads back otherwise");
    for (auto const& entry : engine->readyMountGroup()) {
      Engine::ReadyMountGroupCompoundIndex const index(entry.key.index0,
                                                       static_cast<Qel::U32>(entry.key.index1));
      Qel::String const text = Ledra::valueToStrep(index);
      if (Ledra::strepToValue<Engine::ReadyMountGroupCompoundIndex>(text) != index)
        problems.push_back(std::string(name) + ": ready group index " + text +
                           " reads back otherwise");
      // The key as a control client gives it: read from its text, it prints that text again.
      auto const key = engine->qelType()
                           ->attribute(engine->attributeId("readyMountGroup"))
                           ->keyType()
                           ->valueFromText(text);
      browse(*key, seen);
      if (key->text() != text)
        problems.push_back(std::string(name) + ": ready group key " + text + " prints as " +
                           key->text());
      browseElement(*engine, "readyMountGroup", text, seen);
    }
    for (auto const& [group, record] : engine->conditionalMountGroup()) {
      browseElement(*engine, "conditionalMountGroup", std::string(group), seen);
      if (record && record->conditionalMountGroupSm()) {
        auto const& sm = *record->conditionalMountGroupSm();
        browse(sm, seen);
        checkReactor(std::string(name), sm, problems);
        for (auto const& entry : sm.conditionLocalQueue())
          browseElement(sm, "conditionLocalQueue", std::to_string(entry.index), seen);
      }
    }
  }
  return problems;
}

// --- the model of each connection

std::size_t World::expect(AgentState const& a) {
  std::string const name(a.agent->agentName());
  std::string const profile = Expectation::profileFor(name, plans_);
  auto isDir = [](std::string const& path) {
    return dynamic_cast<Qel::Dir const*>(Qel::globalDir()->entity(path).ptr()) != nullptr;
  };
  expected_[name] = {
      a.agent->epoch() + 1,
      std::make_unique<Expectation>(name, profile.empty() ? nullptr : &plans_.at(profile),
                                    Cell::cellId(), isDir)};
  return a.agent->closeReasons().size();
}

void World::connected(AgentState const& a, std::size_t closeReasonsBefore) {
  auto const& reasons = a.agent->closeReasons();
  std::vector<std::string> const closed(reasons.begin() + static_cast<long>(closeReasonsBefore),
                                        reasons.end());
  observer_->connectionMade(std::string(a.agent->agentName()), a.agent->epoch(),
                            a.agent->whiteList(), closed);
}

template <class F>
void World::forEachLiveModel(F const& f) {
  for (auto const& a : agents_) {
    auto it = expected_.find(std::string(a.agent->agentName()));
    if (it != expected_.end() && a.agent->connected() && it->second.first == a.agent->epoch())
      f(*it->second.second);
  }
}

void World::profileChanged(std::string const& name) {
  auto const plan = plans_.find(name);
  if (plan == plans_.end()) return;
  forEachLiveModel([&](Expectation& model) { model.versionSeen(plan->second); });
}

void World::peerReadyDropped() {
  forEachLiveModel([](Expectation& model) { model.peerReadyDropped(); });
}

Expectation const* World::expectation(std::string const& agent, unsigned epoch) const {
  auto it = expected_.find(agent);
  if (it == expected_.end() || it->second.first != epoch) return nullptr;
  return it->second.second.get();
}

}  // namespace Sim
