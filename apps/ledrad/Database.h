// Ledrad::Database: the database side of ledrad: the tree, the passive entity manager hosted in
// it, and the operations of the control program on them.
//
// Construction, in this order: the process's cell number (Cell::cellIdIs) and system name
// (ActivityManagerConfig) are set; the database root "/<system name>/Ledra" is made in the global
// tree; the agent profile and agent status directories (held here, outside the tree, so that no
// generic write can delete a profile) and the entity manager (active, write mounts granted) are
// made; then the wrapper (passiveEntityManagerSmWrapperFactory) and through it the root manager,
// which fills the reserved template values and watches the connection status directory from then
// on. Destruction releases the root (and so every engine and status record) and removes from the
// global tree every top-level entry that was not there before construction.
//
// Loading. loadState and loadProfiles take files one after another: each file is parsed and
// checked completely (StateFile, ProfileFile) and applied only when it is wholly valid. The first
// bad file stops the loading with a FileError holding every problem of that file; the files
// before it stay applied, the bad one and those after it are not. Both return one summary line per
// file. Engines keep serving the groups they took from a profile before it was reloaded; before a
// profile file is applied the Database notes those groups for each engine that has taken them, so
// that status() goes on showing what the agent is served, for as long as that engine lives.
//
// set() writes one attribute of one entity of the tree through the generic view, so that its
// watchers (a conditional mount group waiting on it) are told; errors throw std::runtime_error.
// A pointer attribute takes what a state file's `set` takes: `null`, or the absolute path of an
// entity of the attribute's type.
//
// Departed agents. agentClosed() takes the last report of an agent whose connection is being
// closed; status() goes on showing it, marked departed with the close reason, while the agent has
// no status record, for kDepartedKeep seconds and for the kMaxDeparted agents closed last.
//
// Single-threaded: the event loop's thread. One Database per process at a time.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ledra/EntityManager.h"
#include "PassiveEntityManager/PassiveEntityManagerSmWrapper.h"
#include "Qel/Entity/Dir.h"
#include "apps/ledrad/StateFile.h"
#include "apps/ledrad/StatusReport.h"

namespace Ledrad {

class Database {
 public:
  struct Config {
    std::string systemName = "ledra";
    int cell = 1;
  };

  // Throws Qel::RangeException for a cell other than 1 or 2 and std::invalid_argument for a
  // system name that cannot be a path component.
  explicit Database(Config const& config);
  ~Database();
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;

  Qel::Dir::Ptr const& ledraRoot() const { return ledraRoot_; }
  Ledra::PassiveAgentProfileDir::Ptr const& profileDir() const { return profileDir_; }
  Ledra::PassiveAgentStatusDir::Ptr const& statusDir() const { return statusDir_; }
  Ledra::EntityManager::Ptr const& entityManager() const { return entMgr_; }
  Ledra::PassiveEntityManagerRootSm::Ptr root() const;

  // The values of the reserved template keys (%sysname, %cellId, ...), for state file paths.
  StateFile::Vars templateVars() const;

  std::vector<std::string> loadState(std::vector<std::string> const& files);
  std::vector<std::string> loadProfiles(std::vector<std::string> const& files);
  // The warnings of the last loadProfiles: mounts of types nothing defines yet
  // (ProfileFile::unknownTypes), for the caller to tell.
  std::vector<std::string> const& loadWarnings() const { return loadWarnings_; }

  // Writes `attribute` (or the element `attribute[key]` of a collection) of the entity at
  // `path` from `value`; returns "<path> <attribute>: <old> -> <new>".
  std::string set(std::string const& path, std::string const& attribute, std::string const& value);
  // The entity at `path` ("/" is the top of the tree): its path and type, then one line per
  // attribute ("  name = value", or "  name: N elements" for a collection). With `attribute`:
  // its value alone ("N elements" for a collection), or the value of the element
  // `attribute[key]` ("(none)" when there is none).
  // Names and values are shown in printable form, so every line is one line.
  std::string get(std::string const& path, std::string const& attribute = {}) const;
  // The entries of the directory at `path`, in name order: "name Type" per line.
  std::string ls(std::string const& path) const;

  StatusReport status(std::vector<std::string> const& only = {}) const;
  // The groups `engine` took from its profile before the profile was reloaded; null when they are
  // still its profile's present groups.
  ServedGroups const* servedGroups(Ledra::PassiveEntityManagerSm const& engine) const;

  static constexpr std::size_t kMaxDeparted = 64;
  static constexpr double kDepartedKeep = 600;
  // The connection of `agent` is being closed for `reason`: its report is kept (see above).
  void agentClosed(std::string const& agent, std::string const& reason);

 private:
  struct Served;
  struct Departed {
    AgentReport report;
    Qel::Time closedAt = 0;
  };

  // Notes the groups of every engine that has taken its profile's groups and has none noted yet.
  void keepServedGroups();

  std::vector<Qel::Name> topLevelBefore_;
  Qel::Dir::Ptr ledraRoot_;
  Ledra::PassiveAgentProfileDir::Ptr profileDir_;
  Ledra::PassiveAgentStatusDir::Ptr statusDir_;
  Ledra::EntityManager::Ptr entMgr_;
  Ledra::PassiveEntityManagerSmWrapper::Ptr wrapper_;
  std::map<std::string, std::unique_ptr<Served>> served_;  // by agent name
  std::map<std::string, Departed> departed_;               // by agent name
  std::vector<std::string> loadWarnings_;
};

// "1 file", "2 files", "3 directories": a count and its noun for ledrad's messages.
std::string plural(std::size_t n, std::string const& what);

}  // namespace Ledrad
