#include "apps/ledrad/Database.h"

#include <algorithm>
#include <stdexcept>

#include "Ledra/Cell.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/ActivityManagerConfig.h"
#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "apps/ledrad/ProfileFile.h"

namespace Ledrad {

namespace {

// "1 entity", "2 entities", "1 type", "2 types".
std::string plural(unsigned n, std::string const& what) {
  if (n == 1) return "1 " + what;
  if (what.back() == 'y') return std::to_string(n) + " " + what.substr(0, what.size() - 1) + "ies";
  return std::to_string(n) + " " + what + "s";
}

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

}  // namespace

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
  for (auto const& file : files) {
    ProfileFile const pf = ProfileFile::load(file);
    pf.checkConditions();
    ProfileFile::Applied const a = pf.applyTo(*profileDir_);
    lines.push_back(file + ": " + plural(static_cast<unsigned>(pf.profiles().size()), "profile") +
                    " (" + std::to_string(a.profilesCreated) + " new, " +
                    std::to_string(a.profilesUpdated) + " changed, " +
                    std::to_string(a.profilesUnchanged) + " unchanged)");
  }
  return lines;
}

std::string Database::set(std::string const& path, std::string const& attribute,
                          std::string const& value) {
  Qel::Entity::Ptr const e = Qel::globalDir()->entity(Qel::String(path));
  if (!e) throw std::runtime_error("no entity at " + path);
  std::string name = attribute;
  std::string keyText;
  std::size_t const open = attribute.find('[');
  bool const keyed = open != std::string::npos && attribute.back() == ']';
  if (keyed) {
    name = attribute.substr(0, open);
    keyText = attribute.substr(open + 1, attribute.size() - open - 2);
  }
  Qel::QelAttr const* a = e->qelType()->attribute(Qel::Name(name));
  if (!a)
    throw std::runtime_error(e->qelType()->name() + " at " + path + " has no attribute '" + name +
                             "'");
  if (a->isCollection() != keyed) {
    throw std::runtime_error(keyed ? "'" + name + "' is no collection"
                                   : "'" + name + "' is a collection: write " + name + "[KEY]");
  }
  try {
    Qel::GenericIf::PtrConst key;
    if (keyed) key = a->keyType()->valueFromText(Qel::String(keyText));
    std::string const before = attributeText(*e, a->id(), key);
    e->attributeIs(Qel::Name(name), Qel::String(value), Qel::String(keyText));
    return path + " " + attribute + ": " + before + " -> " + attributeText(*e, a->id(), key);
  } catch (Qel::Exception const& x) {
    throw std::runtime_error(path + " " + attribute + ": " + x.what());
  }
}

StatusReport Database::status(std::vector<std::string> const& only) const {
  auto const r = root();
  return StatusReport::build(*profileDir_, *statusDir_, r.ptr(), only);
}

}  // namespace Ledrad
