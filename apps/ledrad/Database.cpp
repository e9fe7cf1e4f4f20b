#include "apps/ledrad/Database.h"

#include "apps/ledrad/ConfigText.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "Ledra/Cell.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Core/Exception.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/NboAttrLog/WireText.h"
#include "Qel/Reflection/GenericValue.h"
#include "apps/ledrad/ProfileFile.h"

namespace Ledrad {

namespace {

// The text of attribute `aid` (or of its element at `key`); "(none)" when there is none.
std::string attributeText(Qel::Entity const& e, Qel::AttributeId aid,
                          Qel::GenericIf::PtrConst const& key) {
  try {
    auto v = e.attribute(aid, key);
    return v ? std::string(v->text()) : std::string("(none)");
  } catch (Qel::Exception const&) {
    return "(unreadable)";
  }
}

// The entity a pointer attribute is to hold, read as a state file reads it: "null" for none, else
// the absolute path of an entity of the attribute's type. Sets `reason` when there is none such.
Qel::Entity::Ptr pointee(Qel::QelAttr const& a, std::string const& text, std::string& reason) {
  if (text == "null") return nullptr;
  if (text.empty() || text.front() != '/') {
    reason = "a pointer takes the path of an entity or null, not '" + text + "'";
    return nullptr;
  }
  Qel::Entity::Ptr target = Qel::globalDir()->entity(Qel::String(text));
  if (!target) {
    reason = "no entity at " + text;
    return nullptr;
  }
  std::string const type = target->fwkType()->name();
  if (a.type() && !pointerTypeAccepts(a.type()->name(), type)) {
    reason = "the entity at " + text + " is a " + type + ", not a " + a.type()->name();
    return nullptr;
  }
  return target;
}

}  // namespace

// The groups one engine was served, with a weak watch on the engine: the watch loses its notifier
// when the engine dies, so a later engine of the same agent (even at the same address) is never
// taken for it. The watch is switched off: it only tells whether the engine lives.
struct Database::Served {
  Served() { engine.hasNotificationActiveIs(false); }
  Qel::GenericIf::NotifieeConst engine{Qel::NotifieeBase::Reference::weak};
  ServedGroups groups;
};

Database::Database(Config const& config) {
  if (config.systemName.empty() || config.systemName.find('/') != std::string::npos) {
    throw std::invalid_argument("the system name '" + config.systemName +
                                "' cannot name a directory");
  }
  Cell::cellIdIs(config.cell);
  Qel::ActivityManagerConfig::instance()->systemNameIs(Qel::String(config.systemName));
  for (auto const& [name, e] : Qel::globalDir()->entryMap())
    topLevelBefore_.push_back(name);
  ledraRoot_ = Qel::globalDir()->dirIs(Qel::Name(config.systemName))->dirIs("Ledra");
  profileDir_ = Ledra::PassiveAgentProfileDir::agentProfileDirNew("agentProfile");
  statusDir_ = Ledra::PassiveAgentStatusDir::agentStatusDirNew("agentStatus");
  entMgr_ = Ledra::EntityManager::entityManagerNew("entityManager");
  entMgr_->writeMountsGrantedIs(true);
  wrapper_ = Ledra::passiveEntityManagerSmWrapperFactory("passiveEntityManagerSmWrapper");
  wrapper_->passiveEntityManagerRootSmIs(profileDir_, statusDir_, entMgr_);
}

Database::~Database() {
  wrapper_->passiveEntityManagerRootSmDel();
  served_.clear();
  wrapper_.reset();
  std::vector<Qel::Name> added;
  for (auto const& [name, e] : Qel::globalDir()->entryMap()) {
    if (std::find(topLevelBefore_.begin(), topLevelBefore_.end(), name) == topLevelBefore_.end()) {
      added.push_back(name);
    }
  }
  for (auto const& name : added)
    Qel::globalDir()->entryDel(name);
}

Ledra::PassiveEntityManagerRootSm::Ptr Database::root() const {
  return wrapper_->passiveEntityManagerRootSm();
}

std::string plural(std::size_t n, std::string const& what) {
  if (n == 1) return "1 " + what;
  if (what.back() == 'y') return std::to_string(n) + " " + what.substr(0, what.size() - 1) + "ies";
  return std::to_string(n) + " " + what + "s";
}

StateFile::Vars Database::templateVars() const {
  StateFile::Vars vars;
  for (auto const& [k, v] : Ledra::globalReservedTemplateKeyDict())
    vars.emplace(k, v);
  return vars;
}

std::vector<std::string> Database::loadState(std::vector<std::string> const& files) {
  std::vector<std::string> lines;
  for (auto const& file : files) {
    StateFile const sf = StateFile::load(file, templateVars());
    StateFile::Applied const a = sf.applyTo();
    lines.push_back(file + ": " + plural(a.typesDefined, "type") + " defined, " +
                    plural(a.directoriesCreated, "directory") + " and " +
                    plural(a.entitiesCreated, "entity") + " created, " +
                    plural(a.valuesWritten, "value") + " written");
  }
  return lines;
}

std::vector<std::string> Database::loadProfiles(std::vector<std::string> const& files) {
  std::vector<std::string> lines;
  loadWarnings_.clear();
  for (auto const& file : files) {
    // Problems of the text and of its conditions against the state are told together.
    FileProblems problems(file);
    ProfileFile const pf = ProfileFile::parse(readConfigFile(file), problems);
    pf.checkConditions(problems);
    problems.throwIfAny();
    for (auto& w : pf.unknownTypes())
      loadWarnings_.push_back(std::move(w));
    keepServedGroups();
    ProfileFile::Applied const a = pf.applyTo(*profileDir_);
    lines.push_back(file + ": " + plural(pf.profiles().size(), "profile") + " (" +
                    std::to_string(a.profilesCreated) + " new, " +
                    std::to_string(a.profilesUpdated) + " changed, " +
                    std::to_string(a.profilesUnchanged) + " unchanged)");
  }
  return lines;
}

namespace {

// An attribute as a control client names it: "name", or "name[KEY]" for one element of a
// collection, of the entity at `path`.
struct AttributeRef {
  Qel::Entity::Ptr entity;
  Qel::QelAttr const* attr = nullptr;
  std::string name;
  std::optional<std::string> key;
};

Qel::Entity::Ptr entityAt(std::string const& path) {
  Qel::Entity::Ptr e = path == "/" ? Qel::Entity::Ptr(Qel::globalDir())
                                   : Qel::globalDir()->entity(Qel::String(path));
  if (!e) throw std::runtime_error("no entity at " + path);
  return e;
}

AttributeRef attributeRef(std::string const& path, std::string const& attribute) {
  AttributeRef r{entityAt(path), nullptr, attribute, std::nullopt};
  std::size_t const open = attribute.find('[');
  if (open != std::string::npos && attribute.back() == ']') {
    r.name = attribute.substr(0, open);
    r.key = attribute.substr(open + 1, attribute.size() - open - 2);
  }
  r.attr = r.entity->qelType()->attribute(Qel::Name(r.name));
  if (!r.attr) {
    throw std::runtime_error(r.entity->qelType()->name() + " at " + path + " has no attribute '" +
                             r.name + "'");
  }
  if (r.key && !r.attr->isCollection())
    throw std::runtime_error("'" + r.name + "' is no collection");
  return r;
}

std::string printable(std::string const& text) {
  return Qel::NboAttrLog::printableText(text);
}

// A plain attribute's value, or "N elements" for a collection.
std::string shortValue(Qel::Entity const& e, Qel::QelAttr const& a) {
  if (!a.isCollection()) return printable(attributeText(e, a.id(), {}));
  auto const n = e.colLength(a.id());
  return plural(n ? n->valueAs<Qel::U32>() : 0, "element");
}

}  // namespace

std::string Database::set(std::string const& path, std::string const& attribute,
                          std::string const& value) {
  AttributeRef const r = attributeRef(path, attribute);
  if (r.attr->isCollection() && !r.key) {
    throw std::runtime_error("'" + r.name + "' is a collection: write " + r.name + "[KEY]");
  }
  auto refuse = [&](std::string const& reason) {
    return std::runtime_error(path + " " + attribute + ": " + reason);
  };
  try {
    Qel::GenericIf::PtrConst key;
    if (r.key) key = r.attr->keyType()->valueFromText(Qel::String(*r.key));
    std::string const before = attributeText(*r.entity, r.attr->id(), key);
    if (r.attr->kind() == Qel::QelAttr::Kind::pointer || r.attr->elementsArePointers()) {
      std::string reason;
      Qel::Entity::Ptr const target = pointee(*r.attr, value, reason);
      if (!reason.empty()) throw refuse(reason);
      r.entity->attributeIs(Qel::Name(r.name), Qel::GenericIf::PtrConst(target.ptr()), key);
    } else {
      r.entity->attributeIs(Qel::Name(r.name), Qel::String(value), Qel::String(r.key.value_or("")));
    }
    return path + " " + attribute + ": " + before + " -> " +
           attributeText(*r.entity, r.attr->id(), key);
  } catch (Qel::Exception const& x) {
    throw refuse(x.what());
  }
}

std::string Database::get(std::string const& path, std::string const& attribute) const {
  if (!attribute.empty()) {
    AttributeRef const r = attributeRef(path, attribute);
    if (!r.key) return shortValue(*r.entity, *r.attr) + "\n";
    try {
      auto const key = r.attr->keyType()->valueFromText(Qel::String(*r.key));
      return printable(attributeText(*r.entity, r.attr->id(), key)) + "\n";
    } catch (Qel::Exception const& x) {
      throw std::runtime_error(path + " " + attribute + ": " + x.what());
    }
  }
  Qel::Entity::Ptr const e = entityAt(path);
  std::string out = printable(path) + " " + e->fwkType()->name() + "\n";
  Qel::QelType const* t = e->qelType();
  for (std::size_t i = 0; i < t->attributes(); ++i) {
    Qel::QelAttr const* a = t->attribute(static_cast<Qel::AttributeId>(i));
    if (!a || a->isHandler() || a->name() == "name") continue;
    out += "  " + a->name() + (a->isCollection() ? ": " : " = ") + shortValue(*e, *a) + "\n";
  }
  return out;
}

std::string Database::ls(std::string const& path) const {
  Qel::Entity::Ptr const e = entityAt(path);
  auto const* d = dynamic_cast<Qel::Dir const*>(e.ptr());
  if (!d) throw std::runtime_error(path + " is a " + e->fwkType()->name() + ", not a directory");
  std::string out;
  for (auto const& [name, entry] : d->entryMap())
    out += printable(std::string(name)) + " " + entry->fwkType()->name() + "\n";
  return out;
}

void Database::keepServedGroups() {
  std::erase_if(served_, [](auto const& s) { return !s.second->engine.notifier(); });
  auto const r = root();
  if (!r) return;
  for (auto const& [name, engine] : r->passiveEntityManagerSm()) {
    // An engine still in init takes its groups from the profile as it will be.
    if (!engine || engine->state() == Ledra::PassiveEntityManagerSm::init) continue;
    if (!engine->agentProfile() || servedGroups(*engine)) continue;
    auto served = std::make_unique<Served>();
    served->engine.notifierIs(engine);
    for (auto const& [group, g] : engine->agentProfile()->mountGroup())
      served->groups.push_back(g);
    served_[name] = std::move(served);
  }
}

ServedGroups const* Database::servedGroups(Ledra::PassiveEntityManagerSm const& engine) const {
  auto it = served_.find(engine.agentName());
  if (it == served_.end() || it->second->engine.notifier().ptr() != &engine) return nullptr;
  return &it->second->groups;
}

StatusReport Database::status(std::vector<std::string> const& only) const {
  auto const r = root();
  StatusReport report = StatusReport::build(
      *profileDir_, *statusDir_, r.ptr(), only,
      [this](Ledra::PassiveEntityManagerSm const& engine) { return servedGroups(engine); });
  Qel::Time const now = Qel::now();
  bool added = false;
  for (auto const& [name, d] : departed_) {
    if (now - d.closedAt > kDepartedKeep) continue;
    if (!only.empty() && std::find(only.begin(), only.end(), name) == only.end()) continue;
    if (statusDir_->agentStatus(Qel::Name(name))) continue;
    report.agents.push_back(d.report);
    report.agents.back().departedFor = now - d.closedAt;
    added = true;
  }
  if (added) {
    std::sort(report.agents.begin(), report.agents.end(),
              [](AgentReport const& a, AgentReport const& b) { return a.name < b.name; });
  }
  return report;
}

void Database::agentClosed(std::string const& agent, std::string const& reason) {
  StatusReport const last = status({agent});
  auto const live = std::find_if(last.agents.begin(), last.agents.end(),
                                 [](AgentReport const& a) { return !a.departed; });
  // An agent closed before it had a status record (no profile serves it) is shown by its name.
  AgentReport unserved;
  unserved.name = agent;
  unserved.state = "-";
  Departed d{live == last.agents.end() ? unserved : *live, Qel::now()};
  d.report.departed = true;
  d.report.connected = false;
  d.report.closeReason = reason;
  departed_[agent] = std::move(d);
  // The oldest go first, and those kept too long on every close.
  std::erase_if(departed_,
                [&](auto const& e) { return Qel::now() - e.second.closedAt > kDepartedKeep; });
  while (departed_.size() > kMaxDeparted) {
    auto oldest = std::min_element(
        departed_.begin(), departed_.end(),
        [](auto const& a, auto const& b) { return a.second.closedAt < b.second.closedAt; });
    departed_.erase(oldest);
  }
}

}  // namespace Ledrad
