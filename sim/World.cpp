#include "sim/World.h"

#include <algorithm>

#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "Qel/ActivityManagerConfig.h"
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
                                           {Generator::kNameAttribute, "name"}});
  }();
  return t;
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
// pointers to other entities once.
void browse(Qel::GenericIf const& e, Browsed& seen) {
  if (!seen.insert(&e).second) return;
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
    if (a->kind() == Qel::QelAttr::Kind::pointer) browse(*v, seen);
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
  if (a->elementsArePointers()) browse(*v, seen);
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
       [](std::string const& path) { return bool(Qel::globalDir()->entity(path)); }});
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
      auto it = table->conf().begin();
      std::advance(it, e.index % table->confs());
      std::string const path = it->first;
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
      g->conditionColEnq(e.newCondition.text());
      conditions_[e.newCondition.text()] = e.newCondition;
      gs.conditions.push_back(e.newCondition);
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
      return "idle";
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
  a.profile = profileFor(name);
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

std::string World::profileFor(std::string const& agent) const {
  if (plans_.count(agent)) return agent;
  std::string rest = agent;
  for (auto dash = rest.rfind('-'); dash != std::string::npos; dash = rest.rfind('-')) {
    rest = rest.substr(0, dash);
    if (plans_.count(rest + "-")) return rest + "-";
  }
  return "";
}

std::string World::canonical(AgentState const& a, std::string const& path) const {
  if (path.find('%') == std::string::npos) return path;
  int const cell = Cell::cellId();
  std::map<std::string, std::string> const reserved{
      {"%cellId", std::to_string(cell)},
      {"%cellPath", "cell/" + std::to_string(cell)},
      {"%peerCellId", std::to_string(3 - cell)},
      {"%peerCellPath", "cell/" + std::to_string(3 - cell)},
      {"%sysname", "ledra"}};
  auto value = [&](std::string const& key) -> std::string {
    if (auto it = a.values.find(key); it != a.values.end()) return it->second;
    if (auto it = reserved.find(key); it != reserved.end()) return it->second;
    return "";
  };
  std::string out;
  std::string key;
  bool inKey = false;
  for (char c : path) {
    if (c == '%') {
      if (inKey) out += value(key);
      key = "%";
      inKey = true;
      continue;
    }
    if (inKey && (c == '-' || c == '/')) {
      out += value(key);
      out += c;
      inKey = false;
      continue;
    }
    if (inKey) {
      key += c;
      continue;
    }
    out += c;
  }
  if (inKey) out += value(key);
  return out;
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

void World::fillGroup(Ledra::PassiveMountGroup& g, GroupPlan const& s) {
  if (!s.conditions.empty()) g.entireConditionIs(join(s.conditions));
  for (auto const& c : s.conditions) {
    g.conditionColEnq(c.text());
    conditions_[c.text()] = c;
  }
  g.blockingConditionalIs(s.blocking);
  for (auto const& t : s.templateConditions)
    g.templateConditionColIs(t, true);
  for (auto const& m : s.mounts)
    g.addProfile(m.path, m.type, m.flags);
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
  std::vector<Qel::Name> stale;
  for (auto const& [name, g] : p->mountGroup()) {
    if (!names.count(std::string(name))) stale.push_back(name);
  }
  for (auto const& name : stale)
    p->mountGroupDel(name);
  for (auto const& gs : plan.groups) {
    if (p->mountGroup(Qel::Name(gs.name))) {
      bool same = false;
      if (before != plans_.end()) {
        for (auto const& old : before->second.groups)
          same = same || old == gs;
      }
      // Stated again, as a reload states every group: an unchanged group keeps its object.
      if (same && p->mountGroupIs(Qel::Name(gs.name), gs.priority)) continue;
      p->mountGroupDel(Qel::Name(gs.name));
    }
    fillGroup(*p->mountGroupIs(Qel::Name(gs.name), gs.priority), gs);
  }
  plans_[plan.name] = plan;
  profileChanged(plan.name);
}

// --- the tree

void World::makeDir(std::string const& relative) {
  Qel::Dir::Ptr d = root_;
  std::size_t pos = 0;
  while (d && pos <= relative.size()) {
    std::size_t end = relative.find('/', pos);
    if (end == std::string::npos) end = relative.size();
    if (end > pos) d = d->dirIs(Qel::Name(relative.substr(pos, end - pos)));
    pos = end + 1;
  }
}

std::string World::removeDir(std::string const& relative) {
  std::string const path = std::string(kRoot) + "/" + relative;
  auto const slash = path.rfind('/');
  auto parent = Qel::globalDir()->entity(path.substr(0, slash));
  auto* dir = dynamic_cast<Qel::Dir*>(parent.ptr());
  Qel::Name const name(path.substr(slash + 1));
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
  auto s = sensor(static_cast<unsigned>(c.sensor));
  if (!s) return;
  bool const eq = c.op == "==" || c.op == "in";
  if (c.len || numeric(c.attribute)) {
    long const k = c.len ? std::stol(c.constant) : numericConstant(c);
    long v = k;  // the constant is on the left: k <op> v
    if (c.op == "!=" || c.op == "notin" || c.op == "<") v = k + 1;
    if (c.op == ">") v = k - 1;
    if (!c.len) {
      s->attributeIs(Qel::Name(c.attribute), Qel::String(std::to_string(v)));
      return;
    }
    for (std::size_t i = 0; i < kTags.size(); ++i)
      s->attributeIs("tags", Qel::String(static_cast<long>(i) < v ? "true" : ""),
                     Qel::String(kTags[i]));
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
  if (c.attribute == Generator::kNameAttribute) {
    std::string const k = c.constant == "NULL" ? "" : c.constant;
    s->attributeIs(Qel::Name(c.attribute), Qel::String(eq ? k : k + "x"));
    return;
  }
  if (c.attribute == "label") {
    std::string const k = c.constant == "NULL" ? "" : c.constant;
    s->attributeIs("label", Qel::String(eq ? k : k + "x"));
    return;
  }
  s->attributeIs("tags", Qel::String(eq ? "true" : ""), Qel::String(c.constant));
}

bool World::holds(std::string const& text) const {
  auto it = conditions_.find(text);
  if (it == conditions_.end()) return false;
  ConditionPlan const& c = it->second;
  auto const s = sensor(static_cast<unsigned>(c.sensor));
  if (!s) return false;
  Qel::AttributeId const aid = s->attributeId(Qel::Name(c.attribute));
  auto compare = [&c](auto k, auto v) {
    if (c.op == "==" || c.op == "in") return k == v;
    if (c.op == "!=" || c.op == "notin") return k != v;
    if (c.op == "<") return k < v;
    if (c.op == "<=") return k <= v;
    if (c.op == ">") return k > v;
    return k >= v;
  };
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
  return compare(c.constant == "NULL" ? std::string() : c.constant, now);
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
    if (observer_->failedAnswer(name, a.agent->epoch())) continue;
    if (!a.agent->closeReasons().empty()) continue;
    auto const engine = root->passiveEntityManagerSm(Qel::Name(name));
    if (!engine) {
      out.push_back(name + " has no engine");
      continue;
    }
    if (engine->state() == Ledra::PassiveEntityManagerSm::mountComplete) continue;
    if (waitsOnReplacedEntity(*engine)) continue;
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
  if (root->passiveEntityManagerSms() != 0) {
    out.push_back(std::to_string(root->passiveEntityManagerSms()) + " engines left");
  }
  if (root->connStatuses() != 0) {
    out.push_back(std::to_string(root->connStatuses()) + " connection reactors left");
  }
  if (statuses_->agentStatus().size() != 0) {
    out.push_back(std::to_string(statuses_->agentStatus().size()) + " agent status records left");
  }
  if (root->timerWheel()->timers() != 0) {
    out.push_back(std::to_string(root->timerWheel()->timers()) + " timers armed on the wheel");
  }
  return out;
}

std::size_t World::release() {
  observer_->rootIs(nullptr);
  wrapper_ = nullptr;
  agents_.clear();
  loop_->runFor(0.01);
  Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
  profiles_ = nullptr;
  statuses_ = nullptr;
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

std::vector<std::string> World::browseRecords() const {
  using Engine = Ledra::PassiveEntityManagerSm;
  std::vector<std::string> problems;
  Browsed seen;
  for (auto const& [name, profile] : profiles_->agentProfile()) {
    browse(*profile, seen);
    for (auto const& [position, key] : profile->templateKey())
      browseElement(*profile, "templateKey", std::to_string(position), seen);
    for (auto const& [alias, key] : profile->aliasKey())
      browseElement(*profile, "aliasKey", std::string(alias), seen);
    for (auto const& [groupName, group] : profile->mountGroup()) {
      browseElement(*profile, "mountGroup", std::string(groupName), seen);
      for (auto const& entry : group->conditionCol())
        browseElement(*group, "conditionCol", std::to_string(entry.index), seen);
      for (auto const& [condition, flag] : group->templateConditionCol())
        browseElement(*group, "templateConditionCol", std::string(condition), seen);
      for (auto const& [path, mount] : group->mountProfile())
        browseElement(*group, "mountProfile", std::string(path), seen);
    }
  }
  for (auto const& [name, status] : statuses_->agentStatus()) {
    browse(*status, seen);
    for (auto const& [key, value] : status->templateValueDict())
      browseElement(*status, "templateValueDict", std::string(key), seen);
    for (auto const& [path, reference] : status->mountReference())
      browseElement(*status, "mountReference", std::string(path), seen);
  }
  auto const root = wrapper_ ? wrapper_->passiveEntityManagerRootSm() : nullptr;
  if (!root) return problems;
  browse(*root, seen);
  for (auto const& [name, engine] : root->passiveEntityManagerSm()) {
    if (!engine) continue;
    browse(*engine, seen);
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
      browseElement(*engine, "readyMountGroup", text, seen);
    }
    for (auto const& [group, record] : engine->conditionalMountGroup()) {
      browseElement(*engine, "conditionalMountGroup", std::string(group), seen);
      if (record && record->conditionalMountGroupSm())
        browse(*record->conditionalMountGroupSm(), seen);
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

void World::profileChanged(std::string const& name) {
  auto const plan = plans_.find(name);
  if (plan == plans_.end()) return;
  for (auto const& a : agents_) {
    auto it = expected_.find(std::string(a.agent->agentName()));
    if (it == expected_.end() || !a.agent->connected() || it->second.first != a.agent->epoch())
      continue;
    it->second.second->versionSeen(plan->second);
  }
}

void World::peerReadyDropped() {
  for (auto const& a : agents_) {
    auto it = expected_.find(std::string(a.agent->agentName()));
    if (it != expected_.end() && a.agent->connected() && it->second.first == a.agent->epoch())
      it->second.second->peerReadyDropped();
  }
}

Expectation const* World::expectation(std::string const& agent, unsigned epoch) const {
  auto it = expected_.find(agent);
  if (it == expected_.end() || it->second.first != epoch) return nullptr;
  return it->second.second.get();
}

}  // namespace Sim
