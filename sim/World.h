// Sim::World: one simulated database process: the tree under /ledra/Ledra (directories and
// sensor entities), the agent profiles, the entity manager, the root manager, the loopback
// agents and the simulated clock that drives them, all of it the real library and platform.
//
// apply(event) carries out one generated event against the present state and says what it did
// (an event that does not fit, such as disconnecting an agent that is not connected, does
// nothing). Profiles are changed the way the reference database process reloads them: a profile
// is never deleted; a group whose content changes is replaced by a new group object, so that an
// engine still holding the old one is undisturbed. Half of the time the profile and its groups
// are written through the generic, by-name view instead of the typed accessors, with the same
// outcome. The exceptions, all avoided with in-place-edit: editGroup adds a condition to a group
// in place, and the control actions of idle steps (see Control) remove single conditions, mount
// profiles and template conditions, add mount profiles and template conditions and change the
// blocking flag of groups in place, never taking a condition from a group whose state machine
// took it in, nor clearing the flag of a blocking group an engine holds.
//
// Beside the sensors stand two records of library types, a ConditionRes ("gate") and a
// PassiveAgentStatus ("ledger"), made by type name or by their factories, whose attributes
// conditions watch too.
//
// The world also knows, independently of the library, which paths each agent is entitled to
// (entitlement()), and how to bring every agent to the end of its work (settle()): answers
// released, failures lifted, every directory a directory mount waits for created, every
// condition made true, writes granted and the process active. For every connection it makes it
// builds the model of what that connection must be sent (Expectation, expectation()), told of
// every later version of the profile and of the switch to active while the agent stays connected.
//
// Construction takes the process configuration, clock, event loop and global tree entries for
// itself; destruction gives them all back. One World at a time. Single-threaded.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Ledra/EntityManager.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManager.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "sim/Expectation.h"
#include "sim/Generator.h"
#include "sim/History.h"
#include "sim/Observer.h"

namespace Sim {

class World {
 public:
  World(Generator& generator, Avoid avoid, bool traced, History& history);
  ~World();
  World(World const&) = delete;
  World& operator=(World const&) = delete;

  std::string apply(Event const& e);
  void run(double seconds);
  // Brings every connected agent to the end of its work (see the header comment).
  void settle();
  // Agents still connected, with a profile, never answered with a failure and not closed, that
  // did not reach mountComplete; one line each.
  std::vector<std::string> unfinishedAgents() const;
  // Disconnects every agent and lets the connections go; then what is left of the agents'
  // engines, status records and retry timers, one line each.
  std::vector<std::string> leftoversAfterDisconnect();
  // Releases the root manager and everything else the world holds; then the clock's armed timers.
  std::size_t release();

  Observer& observer() { return *observer_; }
  double now() const { return clock_->now(); }
  // Reads every profile, status record, engine and conditional group state machine by name, the
  // way a control client browses them (plain attributes as text, collections by length, the
  // elements of the keyed ones the world knows the keys of). Returns the text forms that do not
  // read back as the value they print, one line each.
  std::vector<std::string> browseRecords() const;
  // What each agent was sent, "agent#epoch path?flags=letters type", for comparing runs.
  std::vector<std::string> requestsSent() const;
  // The model of what connection `epoch` of `agent` must be sent (see Expectation); null when this
  // world did not make that connection.
  Expectation const* expectation(std::string const& agent, unsigned epoch) const;

 private:
  struct AgentState {
    Ledra::LoopbackAgent::Ptr agent;
    std::string profile;  // the profile that served the present connection ("" when none)
    std::set<std::string> entitled;         // canonical mount paths of that profile, every version
    std::set<std::string> directoryMounts;  // those mounted entry by entry
    std::map<std::string, std::string> groupOf;  // canonical path -> group names
    std::map<std::string, std::string> values;   // template key -> value, fixed at connect
    std::set<std::string> failing;
    std::set<std::string> unsynced;
  };

  std::string connect(AgentState& a, Event const& e);
  void entitle(AgentState& a);
  void entitleAll();
  // `path` with the agent's template values substituted, computed here, not by the library.
  std::string canonical(AgentState const& a, std::string const& path) const;
  std::string entitlement(std::string const& agent, std::string const& path) const;
  void applyProfile(ProfilePlan const& plan);
  // `byName`: through the generic view, as a control client writes (the outcome is the same).
  void fillGroup(Ledra::PassiveMountGroup& g, GroupPlan const& s, bool byName);
  void applyProfileByName(Ledra::PassiveAgentProfile& p, ProfilePlan const& plan,
                          ProfilePlan const* before);
  void makeDir(std::string const& relative);
  std::string removeDir(std::string const& relative);
  Qel::DynamicEntity::Ptr sensor(unsigned i) const;
  std::string createSensor(unsigned i);
  std::string write(unsigned sensor, unsigned what, unsigned value);
  std::string writeAttribute(unsigned sensor, unsigned what, unsigned value);
  void makeTrue(ConditionPlan const& c);
  void setTrue(ConditionPlan const& c);
  // The attribute of the numeric condition `c` (its element count for "len(") set to `v`.
  static void writeNumber(Qel::DynamicEntity& s, ConditionPlan const& c, long v);
  // Whether the condition `text` (one the world gave a profile) holds in the tree now, read from
  // the sensors' attributes here, not by the library.
  bool holds(std::string const& text) const;
  static long numericConstant(ConditionPlan const& c);
  static bool numeric(std::string const& attribute);
  std::string agentChange(AgentState& a, Event const& e);

  // The control actions of idle steps (see Control).
  std::string control(Event const& e);
  std::string controlAction(Event const& e);
  std::string sensorWrite(unsigned d);
  std::string boundary(unsigned d);
  // The profile plan, group plan and group an in-place edit works on, and the start of its
  // history line; `refusal` is set when there is none.
  struct GroupPick {
    ProfilePlan* plan = nullptr;
    GroupPlan* gs = nullptr;
    Ledra::PassiveMountGroup::Ptr g;
    std::string what;
    std::string refusal;
    GroupPick& refused(std::string text) {
      refusal = std::move(text);
      return *this;
    }
  };
  GroupPick pickGroup(std::string const& action, unsigned d);
  std::string trimGroup(unsigned d);
  std::string extendGroup(unsigned d);
  std::string profileByName(unsigned d);
  std::string refused(unsigned d);
  std::string records(unsigned d);
  std::string engineByName(unsigned d);
  std::string graft(unsigned d);
  std::string placeholder(unsigned d);
  // Whether a conditional group record of some engine holds `g` (its state machine took in the
  // conditions g had then).
  bool held(Ledra::PassiveMountGroup const& g) const;
  // The attributes added last and the records beside the sensors.
  static bool asideAttribute(std::string const& attribute);
  std::string writeAside(unsigned sensor, unsigned what);
  bool asideHolds(ConditionPlan const& c, Qel::DynamicEntity const& s) const;
  void asideSetTrue(ConditionPlan const& c, Qel::DynamicEntity& s);
  Qel::Entity::Ptr record(std::string const& name) const;
  std::string createRecord(std::string const& name, bool byTypeName);
  bool recordHolds(ConditionPlan const& c) const;
  void recordSetTrue(ConditionPlan const& c);
  // Whether the engine waits on a group whose pointer condition names no entity (never evaluated).
  bool waitsOnNowhere(Ledra::PassiveEntityManagerSm const& engine) const;
  // Reads the engine's keyed collections by key and refuses keys typed wrong, as a control
  // client's look-ups do.
  void browseEngine(Ledra::PassiveEntityManagerSm const& engine,
                    std::set<Qel::GenericIf const*>& seen) const;
  void becomeActive(Ledra::EntityManager::Role role);
  bool waitsOnReplacedEntity(Ledra::PassiveEntityManagerSm const& engine) const;

  Generator& generator_;
  Avoid const avoid_;
  bool const traced_;
  History& history_;
  mutable unsigned looks_ = 0;  // browseRecords calls that read a key typed wrong
  Qel::SimulatedClock::Ptr clock_;
  Qel::EventLoop::Ptr loop_;
  Qel::Dir::Ptr root_;
  Qel::Dir::Ptr sensors_;
  Ledra::PassiveAgentProfileDir::Ptr profiles_;
  Ledra::PassiveAgentStatusDir::Ptr statuses_;
  Ledra::EntityManager::Ptr entMgr_;
  Ledra::PassiveEntityManagerSmWrapper::Ptr wrapper_;
  std::map<std::string, ProfilePlan> plans_;
  std::map<std::string, ConditionPlan> conditions_;  // every condition ever given, by its text
  std::vector<AgentState> agents_;
  std::unique_ptr<Observer> observer_;

  // The model of the connection `a` is about to make; returns the count of its close reasons.
  std::size_t expect(AgentState const& a);
  // Tells the observer how the connection `a` has just made came out.
  void connected(AgentState const& a, std::size_t closeReasonsBefore);
  // Profile `name` changed: the models of the agents connected under it see the new version.
  void profileChanged(std::string const& name);
  // The process becomes active: the engines of connected agents drop their "peerReady" groups.
  void peerReadyDropped();
  // Runs `f` on the model of every agent still on the connection the model was made for.
  template <class F>
  void forEachLiveModel(F const& f);
  std::map<std::string, std::pair<unsigned, std::unique_ptr<Expectation>>> expected_;
};

}  // namespace Sim
