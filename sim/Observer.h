// Sim::Observer: watches, from outside, what the library does to each agent connection, and
// checks the invariants that must hold at every moment.
//
// It registers weak notifiees only (it never keeps a library object alive):
//   - on the process's demuxer manager, to find every new connection before its first request;
//   - on each connection's peer mount table: a configuration installed is a mount request (the
//     count of unanswered requests still reads its value from before the request), a status
//     turning complete or failed is an answer;
//   - on the root manager, to find every engine it creates;
//   - on each engine's ready queue: a group leaving the head of the queue is a group being
//     started;
//   - on each engine's conditional groups: the result record of each, whose enabled flag turning
//     true is the group being released to the engine (a group whose conditions all hold at once
//     is found already released when its record joins the engine);
//   - on each connection, whose close reason is set when the database closes it;
//   - on each conditional group's state machine, whose retry delay changes at each retry of a
//     condition whose entity is missing.
// What it sees goes into the run's History and, as trace-independent lines, into log(), which two
// runs of one seed must produce identically.
//
// Invariants checked as things happen (each failure is a line in violations()):
//   - gate: a group leaves the ready queue only when the connection has no unanswered request,
//     every earlier request completed, no mount is pending, no blocking group of the engine
//     waits for its conditions and no directory mounter started for a profile with 'B' runs;
//   - order: the groups of one engine leave the ready queue in ascending priority;
//   - parent: a path is requested only after its parent path was requested on that connection;
//   - entitlement: every requested path is one the model of the connection (Expectation, made by
//     the world from its own plans) allows: a path of a group the template conditions keep, a
//     listed parent, a prefix on the way, an entry of a directory mount; without a model, one
//     the agent's profile entitles it to at all (see World);
//   - flags: every request carries exactly the flag bits and type the model gives one of the
//     ways the path may be mounted, under the write grant and root flags of that moment;
//   - close and profile: as a connection is made it is closed with exactly the reason the model
//     expects (no profile, no template value) or served, and then by the profile the model
//     resolves from the agent's name; later it is closed for an invalid mount profile only if
//     the model finds a path the engine may mount twice with other flags;
//   - completeness: when the engine reaches its complete state, every path the model requires
//     (the root, every path of a kept group but directory mounts; for a profile changed while
//     connected, those of every version it had) was sent on that connection;
//   - conversion: when the engine completes, no path is left as last sent "C" by a mount that
//     asked to write (such a mount is sent again with "w" once writes are granted);
//   - retry: a condition waiting for its entity retries after 0.01 s, doubling each time up to
//     the maximum of 5.0 s (one wait of 5.12 s, then 5.0 s), its timer armed for now plus the
//     wait;
//   - leftovers: a completed engine's retry timer is disarmed by the pass that completed it and
//     stays so; a condition that waits for its entity holds no reactor (checked at each retry,
//     and after every event and every step: checkLeftovers()).
//   - awaited: after every event and every step, no conditional group waits on a condition that
//     holds in the tree on the entity its reactor watches (a reactor decides at once).
//   - condition: when a conditional group is released, its last condition, whose report
//     released it, holds now, read from the tree by the world (see Holds), not from the library;
//     every other one holds now or has held since the evaluation started: the conditions are
//     taken one after the other, and one that held may turn false again while a later one is
//     awaited. The conditions are those of the state machine's evaluation: the group's when its
//     record joined, and again whenever the state machine starts over (a change of the group's
//     conditions while none is pending, as while the first waits for its entity). One added in
//     place while another is pending is not awaited, by design. The world reports each change
//     of the tree (sensorsChanged()).
//
// Single-threaded: everything runs inside the library's notifications on the event loop.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "sim/Expectation.h"
#include "sim/History.h"

namespace Sim {

class Observer {
 public:
  // The group a requested path belongs to for `agent` ("g3", "parent of g3", "entry of g3"), or
  // "" when the agent is not entitled to it.
  using Entitlement = std::function<std::string(std::string const& agent, std::string const& path)>;
  // Whether a condition of a profile holds in the tree now, evaluated by the world.
  using Holds = std::function<bool(std::string const& condition)>;
  // What the world knows, beside the library, about what each connection must be sent.
  struct Oracle {
    // The model of connection `epoch` of `agent`; null when there is none.
    std::function<Expectation const*(std::string const& agent, unsigned epoch)> expectation;
    std::function<bool()> writesGranted;
    // The root flags of a profile now.
    std::function<std::string(std::string const& profile)> rootFlags;
    // Whether an entity stands at a path now.
    std::function<bool(std::string const& path)> exists;
    // Whether `condition` holds now, read from the tree by the world, on the entity `watched`
    // (false when another entity, or none, stands at the condition's path).
    std::function<bool(std::string const& condition, void const* watched)> holdsOn;
  };

  Observer(History& history, Entitlement entitlement, Holds holds);
  ~Observer();
  Observer(Observer const&) = delete;
  Observer& operator=(Observer const&) = delete;

  void stepIs(unsigned step, double time) {
    step_ = step;
    time_ = time;
  }
  // Watches the engines of `root` (null: none).
  void rootIs(Ledra::PassiveEntityManagerRootSm::Ptr const& root);
  // While set, groups leaving ready queues are dropped by the root, not started.
  void droppingIs(bool v) { dropping_ = v; }

  // The world changed the sensors' attributes, or created or deleted a sensor.
  void sensorsChanged();

  // Per connection (agent name and epoch): whether any answer was a failure.
  bool failedAnswer(std::string const& agent, unsigned epoch) const;
  // Per connection: the close the agent's refusal of its root mount calls for ("root mount
  // failed: <text>"), empty while the root mount was not refused.
  std::string rootRefusal(std::string const& agent, unsigned epoch) const;

  std::vector<std::string> const& violations() const { return violations_; }
  std::vector<std::string> const& log() const { return log_; }

  // Forgets the watches of objects that have died.
  void prune();

  void oracleIs(Oracle oracle) { oracle_ = std::move(oracle); }
  // The connection `epoch` of `agent` was made: `closeReasons` are those it was closed with while
  // it was being made. Checks them and the profile that serves it against the model.
  void connectionMade(std::string const& agent, unsigned epoch, bool whiteListed,
                      std::vector<std::string> const& closeReasons);
  // Nothing of a completed engine is left armed, and no condition that waits for its entity
  // holds a reactor; called after every event and after every step.
  void checkLeftovers();

 private:
  class DemuxerMgrWatch;
  class TableWatch;
  class RootWatch;
  class EngineWatch;
  class ConditionWatch;
  class RetryWatch;
  class CloseWatch;
  friend class DemuxerMgrWatch;
  friend class TableWatch;
  friend class RootWatch;
  friend class EngineWatch;
  friend class ConditionWatch;
  friend class RetryWatch;
  friend class CloseWatch;

  struct Connection {
    std::string agent;
    unsigned epoch = 0;
    bool failed = false;
    std::string rootRefusal;
    std::set<std::string> sent;       // every path requested
    std::set<std::string> toConvert;  // paths last requested "C" with a conversion queued
  };

  void connectionSeen(Qel::Name const& name);
  void engineSeen(Qel::Name const& agent);
  // A conditional group joined (or settled inside) the engine of `agent`.
  void conditionalGroupSeen(std::string const& agent,
                            Ledra::PassiveEntityManagerSm::QelConditionalMountGroup const& record);
  // `group` of `agent` is released: checks its conditions (`sinceHeld`: those seen holding since
  // it started waiting).
  void groupReleased(std::string const& agent, std::string const& group,
                     std::vector<std::string> const& conditions,
                     std::set<std::string> const& sinceHeld);
  // A mount request of `path` on a connection: checked against the model, when there is one,
  // else against the world's entitlement (`label` empty: not entitled).
  void requestSeen(std::string const& agent, unsigned epoch, std::string const& path,
                   std::string const& letters, std::string const& type, std::string const& label);
  // The database closed connection `epoch` of `agent` with `reason`.
  void closed(std::string const& agent, unsigned epoch, std::string const& reason);
  // The engine of connection `epoch` of `agent` reached its complete state.
  void engineCompleted(std::string const& agent, unsigned epoch);
  void violation(std::string text);
  void note(std::string text, bool logged);

  History& history_;
  Entitlement entitlement_;
  Holds holds_;
  unsigned step_ = 0;
  double time_ = 0;
  bool dropping_ = false;
  std::unique_ptr<DemuxerMgrWatch> demuxerMgrWatch_;
  std::unique_ptr<RootWatch> rootWatch_;
  std::vector<std::unique_ptr<TableWatch>> tables_;
  std::vector<std::unique_ptr<EngineWatch>> engines_;
  std::vector<std::unique_ptr<ConditionWatch>> conditionWatches_;
  std::vector<std::unique_ptr<RetryWatch>> retryWatches_;
  std::vector<std::unique_ptr<CloseWatch>> closeWatches_;
  Oracle oracle_;
  std::map<std::pair<std::string, unsigned>, Connection> connections_;
  std::vector<std::string> violations_;
  std::vector<std::string> log_;
};

}  // namespace Sim
