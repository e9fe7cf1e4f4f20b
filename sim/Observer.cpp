#include "sim/Observer.h"

#include <algorithm>
#include <cmath>

#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/Demuxer.h"
#include "sim/Plans.h"

namespace Sim {

using Qel::NotifieeBase;

namespace {

// The conditions a group holds, in its order.
std::vector<std::string> conditionsOf(Ledra::PassiveMountGroup const& group) {
  std::vector<std::string> out;
  for (auto const& entry : group.conditionCol())
    out.push_back(entry.value);
  return out;
}

}  // namespace

// New connections appear in the demuxer manager before their status record, so before the
// database sends them anything.
class Observer::DemuxerMgrWatch : public Qel::NboAttrLog::DemuxerMgr::NotifieeConst {
 public:
  explicit DemuxerMgrWatch(Observer& o)
      : Qel::NboAttrLog::DemuxerMgr::NotifieeConst(NotifieeBase::Reference::weak), o_(o) {}
  void onDemuxer(Qel::Name const& name) override { o_.connectionSeen(name); }

 private:
  Observer& o_;
};

// One connection's peer mount table: configurations installed are requests, statuses set by the
// peer's answers are answers.
class Observer::TableWatch : public Qel::MountTable::NotifieeConst {
 public:
  TableWatch(Observer& o, std::string agent, unsigned epoch)
      : Qel::MountTable::NotifieeConst(NotifieeBase::Reference::weak),
        o_(o),
        agent_(std::move(agent)),
        epoch_(epoch) {}

  void onConf(Qel::String const& path) override {
    auto const table = notifier();
    if (!table) return;
    Qel::MountTable::Conf const conf = table->conf(path);
    if (conf.empty()) return;
    auto const* d = table->connection();
    unsigned const unanswered = d ? d->flowOutMountRequests() : 0;
    std::string const label = o_.entitlement_(agent_, path);
    o_.note(who() + " request " + path + "?flags=" + conf.flags().text() +
                (conf.type().empty() ? "" : " type " + conf.type()) + " [" +
                (label.empty() ? "NOT ENTITLED" : label) +
                "] unanswered before: " + std::to_string(unanswered),
            true);
    o_.requestSeen(agent_, epoch_, path, conf.flags().text(), conf.type(), label);
    if (path == kRoot) return;
    std::string const parent = path.substr(0, path.rfind('/'));
    if (table->conf(parent).empty()) {
      o_.violation("parent: " + who() + " was sent " + path + " before its parent " + parent);
    }
  }

  void onStatus(Qel::ConnectDesc const& cd) override {
    auto const table = notifier();
    if (!table) return;
    Qel::MountTable::Stat const s = table->stat(cd);
    if (s.status() == Qel::MountTable::complete_) {
      o_.note(who() + " answer " + cd.path() + " complete", true);
      return;
    }
    if (s.status() != Qel::MountTable::failed_) return;
    o_.note(who() + " answer " + cd.path() + " failed: " + s.exceptionDesc(), true);
    Connection& c = o_.connections_[{agent_, epoch_}];
    c.failed = true;
    if (cd.path() == kRoot) c.rootRefusal = "root mount failed: " + s.exceptionDesc();
  }

  std::string who() const { return agent_ + "#" + std::to_string(epoch_); }

 private:
  Observer& o_;
  std::string const agent_;
  unsigned const epoch_;
};

// One connection: the reason the database closes it with.
class Observer::CloseWatch : public Qel::NboAttrLog::Demuxer::NotifieeConst {
 public:
  CloseWatch(Observer& o, std::string agent, unsigned epoch)
      : Qel::NboAttrLog::Demuxer::NotifieeConst(NotifieeBase::Reference::weak),
        o_(o),
        agent_(std::move(agent)),
        epoch_(epoch) {}

  void onCloseReason() override {
    auto const d = notifier();
    if (d && !d->closeReason().empty()) o_.closed(agent_, epoch_, d->closeReason());
  }

 private:
  Observer& o_;
  std::string const agent_;
  unsigned const epoch_;
};

// The root manager's engines, as it creates them.
class Observer::RootWatch : public Ledra::PassiveEntityManagerRootSm::NotifieeConst {
 public:
  explicit RootWatch(Observer& o)
      : Ledra::PassiveEntityManagerRootSm::NotifieeConst(NotifieeBase::Reference::weak), o_(o) {}
  void onPassiveEntityManagerSm(Qel::Name const& agent) override { o_.engineSeen(agent); }

 private:
  Observer& o_;
};

// One engine's ready queue: the group that leaves its head is started.
class Observer::EngineWatch : public Ledra::PassiveEntityManagerSm::NotifieeConst {
 public:
  using Key = std::pair<Qel::U32, Qel::U64>;

  EngineWatch(Observer& o, std::string agent)
      : Ledra::PassiveEntityManagerSm::NotifieeConst(NotifieeBase::Reference::weak),
        o_(o),
        agent_(std::move(agent)) {}

  void onReadyMountGroup() override {
    auto const engine = notifier();
    if (!engine) return;
    std::vector<Key> now;
    std::vector<std::string> names;
    for (auto const& entry : engine->readyMountGroup()) {
      now.emplace_back(entry.key.index0, entry.key.index1);
      names.push_back(entry.value ? std::string(entry.value->name()) : "?");
    }
    // A group taken inside a scheduling pass of a live engine; the queue is also emptied by a
    // cleanup (the agent gone or closed), which starts nothing.
    auto const d = engine->demuxer();
    bool const live = engine->mountsInProgress() && engine->initialized() &&
                      !(d && (d->closed() || d->closing()));
    bool const dequeued = live && !queue_.empty() && now.size() + 1 == queue_.size() &&
                          std::equal(now.begin(), now.end(), queue_.begin() + 1);
    if (dequeued && !o_.dropping_) started(*engine, queue_.front(), names_.front());
    queue_ = std::move(now);
    names_ = std::move(names);
  }

  // A blocking group holds the queue back from the moment its record joins the engine waiting
  // until the record goes (its conditions held, or the switch to active dropped it).
  void onConditionalMountGroup(Qel::Name const& name) override {
    auto const engine = notifier();
    if (!engine) return;
    auto const record = engine->conditionalMountGroup(name);
    if (!record) {
      blockers_.erase(std::string(name));
      return;
    }
    auto const& group = record->mountGroup();
    if (record->initialized() && group && group->blockingConditional())
      blockers_.insert(std::string(name));
    o_.conditionalGroupSeen(agent_, *record);
  }

  void onState() override {
    auto const engine = notifier();
    if (!engine) return;
    o_.note(agent_ + " engine state " + std::to_string(engine->state()), false);
    if (engine->state() != Ledra::PassiveEntityManagerSm::mountComplete || completed_) return;
    completed_ = true;
    if (auto const d = engine->demuxer()) o_.engineCompleted(agent_, d->epoch());
  }

  // The pass that completed the engine has ended: its retry timer must have been disarmed.
  void onMountsInProgress() override {
    auto const engine = notifier();
    if (!engine || engine->mountsInProgress() || !completed_ || disarmChecked_) return;
    disarmChecked_ = true;
    if (engine->retryTime() == Qel::kNever) return;
    o_.violation("leftover: " + agent_ + " completed with its retry timer armed for " +
                 std::to_string(engine->retryTime()));
  }

 private:
  void started(Ledra::PassiveEntityManagerSm const& engine, Key const& key,
               std::string const& name) {
    o_.note(agent_ + " group " + name + " (priority " + std::to_string(key.first) + ") started",
            true);
    if (key.first < lastPriority_) {
      o_.violation("order: " + agent_ + " started group " + name + " of priority " +
                   std::to_string(key.first) + " after one of priority " +
                   std::to_string(lastPriority_));
    }
    lastPriority_ = key.first;
    if (!blockers_.empty()) {
      o_.violation("gate: " + agent_ + " started group " + name + " while blocking group " +
                   *blockers_.begin() + " waits for its conditions");
    }
    auto const d = engine.demuxer();
    if (!d) {
      o_.violation("gate: " + agent_ + " started group " + name + " without a connection");
      return;
    }
    if (d->flowOutMountRequests() != 0) {
      o_.violation("gate: " + agent_ + " started group " + name + " with " +
                   std::to_string(d->flowOutMountRequests()) + " requests unanswered");
    }
    for (auto const& [cd, stat] : d->outMount()->status()) {
      if (stat.status() == Qel::MountTable::complete_) continue;
      o_.violation("gate: " + agent_ + " started group " + name + " while " + cd.path() +
                   " is not complete");
    }
    // A directory mounted whole meanwhile no longer waits for its mounter.
    auto const& sent = o_.connections_[{agent_, d->epoch()}].sent;
    for (auto const& [path, mounter] : engine.passiveDirMounterCol()) {
      if (!mounter || !mounter->mount().userFlags().has('B') || sent.count(std::string(path)))
        continue;
      o_.violation("gate: " + agent_ + " started group " + name +
                   " while the blocking directory mount of " + std::string(path) +
                   " has not finished");
    }
    if (engine.pendingMountProfiles() != 0) {
      o_.violation("gate: " + agent_ + " started group " + name + " with mounts pending");
    }
  }

  Observer& o_;
  std::string const agent_;
  std::vector<Key> queue_;
  std::vector<std::string> names_;
  Qel::U32 lastPriority_ = 0;
  std::set<std::string> blockers_;  // blocking groups waiting for their conditions
  bool completed_ = false;
  bool disarmChecked_ = false;
};

// One conditional group of one engine, from the moment its record joins the engine: its result
// record's enabled flag turning true releases the group. Meanwhile it notes which of the group's
// conditions have held in the tree at some moment (the engine takes them one after the other).
// The conditions are those of the state machine's evaluation: the group's list when its record
// joined, and again each time the state machine starts over (its queue of conditions grows; it
// does so when the group's conditions change while none is pending, as while the first one
// waits for its entity).
class Observer::ConditionWatch : public Ledra::ConditionRes::NotifieeConst {
 public:
  ConditionWatch(Observer& o, std::string agent, Ledra::PassiveMountGroup::PtrConst const& group,
                 Ledra::ConditionalMountGroupSm::PtrConst const& sm)
      : Ledra::ConditionRes::NotifieeConst(NotifieeBase::Reference::weak),
        o_(o),
        agent_(std::move(agent)),
        group_(group->name()),
        conditions_(conditionsOf(*group)),
        restarts_(*this) {
    if (sm) {
      restarts_.queued = sm->conditionLocalQueues();
      restarts_.notifierIs(sm);
    }
    sensorsChanged();
  }

  void onEnabled() override {
    auto const res = notifier();
    if (!res || !res->enabled() || released_) return;
    released_ = true;
    o_.groupReleased(agent_, group_, conditions_, held_);
  }

  // Notes the conditions that hold now.
  void sensorsChanged() {
    if (released_) return;
    for (auto const& c : conditions_) {
      if (!held_.count(c) && o_.holds_(c)) held_.insert(c);
    }
  }

  bool done() const { return released_ || !notifier(); }

 private:
  // The state machine's queue of conditions: it only shrinks while one evaluation runs; a new
  // one empties it (entry by entry, each told) and fills it again from the group's list.
  class Restarts : public Ledra::ConditionalMountGroupSm::NotifieeConst {
   public:
    explicit Restarts(ConditionWatch& w)
        : Ledra::ConditionalMountGroupSm::NotifieeConst(NotifieeBase::Reference::weak), w_(w) {}
    void onConditionLocalQueue(Qel::U32) override {
      auto const sm = notifier();
      if (!sm) return;
      std::size_t const now = sm->conditionLocalQueues();
      // A new evaluation empties the queue and fills it again: the first entry is its start.
      bool const started = queued == 0 && now > 0;
      queued = now;
      auto const group = sm->mountGroup();
      if (started && group) w_.restarted(*group);
    }
    std::size_t queued = 0;

   private:
    ConditionWatch& w_;
  };

  // A new evaluation of `group`'s conditions: what held before counts no more.
  void restarted(Ledra::PassiveMountGroup const& group) {
    if (released_) return;
    auto conditions = conditionsOf(group);
    o_.note(agent_ + " group " + group_ + " evaluates its " + std::to_string(conditions.size()) +
                " conditions again",
            false);
    conditions_ = std::move(conditions);
    held_.clear();
    sensorsChanged();
  }

  Observer& o_;
  std::string const agent_;
  std::string const group_;
  // The conditions of the state machine's evaluation. One added to the group in place while a
  // condition is pending is not awaited: the state machine reads the group's conditions only
  // when nothing is pending.
  std::vector<std::string> conditions_;
  std::set<std::string> held_;
  bool released_ = false;
  Restarts restarts_;
};

// The retry of one conditional group's state machine while the entity of a condition is missing:
// each retry arms the timer with the present delay and doubles it, up to the maximum, after
// which every retry waits the maximum (0.01, 0.02, ..., 2.56, 5.12, then 5.0 s). A state machine
// that waits for an entity holds no reactor of an earlier condition.
class Observer::RetryWatch : public Ledra::ConditionalMountGroupSm::NotifieeConst {
 public:
  static constexpr double kMaxDelay = 5.0;

  RetryWatch(Observer& o, std::string agent, std::string group, double delay)
      : Ledra::ConditionalMountGroupSm::NotifieeConst(NotifieeBase::Reference::weak),
        o_(o),
        agent_(std::move(agent)),
        group_(std::move(group)),
        delay_(delay) {}

  void onRetryDelay() override {
    auto const sm = notifier();
    if (!sm) return;
    double const armed = delay_;
    delay_ = sm->retryDelay();
    std::string const who =
        agent_ + " group " + group_ + " retrying '" + sm->retryCondition() + "'";
    double const next = armed >= kMaxDelay ? kMaxDelay : armed * 2;
    if (std::abs(delay_ - next) > 1e-9) {
      o_.violation("retry: " + who + " after a wait of " + std::to_string(armed) +
                   " s set the next wait to " + std::to_string(delay_) + " s; expected " +
                   std::to_string(next) + " s");
    }
    auto const wheel = sm->timerWheel();
    double const now = wheel ? wheel->clock()->now() : 0;
    if (wheel && std::abs(sm->retryTime() - (now + armed)) > 1e-9) {
      o_.violation("retry: " + who + " armed its timer for " + std::to_string(sm->retryTime()) +
                   " at " + std::to_string(now) + "; expected " + std::to_string(now + armed));
    }
    if (sm->conditionalReactor()) {
      o_.violation("leftover: " + who + " waits for its entity while a reactor is still set");
    }
  }

  bool done() const { return !notifier(); }

 private:
  Observer& o_;
  std::string const agent_;
  std::string const group_;
  double delay_;
};

Observer::Observer(History& history, Entitlement entitlement, Holds holds)
    : history_(history), entitlement_(std::move(entitlement)), holds_(std::move(holds)) {
  demuxerMgrWatch_ = std::make_unique<DemuxerMgrWatch>(*this);
  demuxerMgrWatch_->notifierIs(Qel::NboAttrLog::demuxerMgr());
}

Observer::~Observer() = default;

void Observer::rootIs(Ledra::PassiveEntityManagerRootSm::Ptr const& root) {
  if (!root) {
    rootWatch_.reset();
    return;
  }
  rootWatch_ = std::make_unique<RootWatch>(*this);
  rootWatch_->notifierIs(root);
}

void Observer::connectionSeen(Qel::Name const& name) {
  auto const d = Qel::NboAttrLog::demuxerMgr()->demuxer(name);
  if (!d) return;
  for (auto const& t : tables_) {
    if (t->notifier().ptr() == d->peer().ptr()) return;
  }
  std::string const agent(name);
  // A connection seen anew starts from nothing, whatever fields a Connection holds.
  Connection& c = connections_[{agent, d->epoch()}] = Connection();
  c.agent = agent;
  c.epoch = d->epoch();
  tables_.push_back(std::make_unique<TableWatch>(*this, agent, d->epoch()));
  tables_.back()->notifierIs(d->peer());
  closeWatches_.push_back(std::make_unique<CloseWatch>(*this, agent, d->epoch()));
  closeWatches_.back()->notifierIs(d);
}

void Observer::engineSeen(Qel::Name const& agent) {
  if (!rootWatch_) return;
  auto const root = rootWatch_->notifier();
  if (!root) return;
  auto const engine = root->passiveEntityManagerSm(agent);
  if (!engine) return;
  for (auto const& e : engines_) {
    if (e->notifier().ptr() == engine.ptr()) return;
  }
  engines_.push_back(std::make_unique<EngineWatch>(*this, std::string(agent)));
  engines_.back()->notifierIs(engine);
}

void Observer::conditionalGroupSeen(
    std::string const& agent,
    Ledra::PassiveEntityManagerSm::QelConditionalMountGroup const& record) {
  auto const& group = record.mountGroup();
  if (!group) return;
  if (!record.initialized()) {
    // Released while it joined the engine: its conditions held when it started.
    groupReleased(agent, std::string(group->name()), conditionsOf(*group), {});
    return;
  }
  if (auto const& sm = record.conditionalMountGroupSm()) {
    retryWatches_.push_back(
        std::make_unique<RetryWatch>(*this, agent, std::string(group->name()), sm->retryDelay()));
    retryWatches_.back()->notifierIs(sm);
  }
  auto const res = record.conditionRes();
  if (!res) return;
  for (auto const& w : conditionWatches_) {
    if (w->notifier().ptr() == res.ptr()) return;
  }
  conditionWatches_.push_back(
      std::make_unique<ConditionWatch>(*this, agent, group, record.conditionalMountGroupSm()));
  conditionWatches_.back()->notifierIs(res);
}

void Observer::groupReleased(std::string const& agent, std::string const& group,
                             std::vector<std::string> const& conditions,
                             std::set<std::string> const& sinceHeld) {
  note(agent + " group " + group + " released", true);
  if (conditions.empty()) return;
  // The last condition's report releases the group: it holds now.
  if (!holds_(conditions.back())) {
    violation("condition: " + agent + " group " + group +
              " was released while its last condition '" + conditions.back() + "' is false");
  }
  std::string falseNow;
  for (auto const& c : conditions) {
    if (c == conditions.back() || holds_(c)) continue;
    if (sinceHeld.count(c)) {
      note(agent + " group " + group + " released while '" + c +
               "' is false again (it held since the group started waiting)",
           false);
      continue;
    }
    falseNow += (falseNow.empty() ? "'" : ", '") + c + "'";
  }
  if (falseNow.empty()) return;
  violation("condition: " + agent + " group " + group + " was released while " + falseNow +
            " is false and never held since the group started waiting");
}

void Observer::sensorsChanged() {
  for (auto const& w : conditionWatches_)
    w->sensorsChanged();
}

bool Observer::failedAnswer(std::string const& agent, unsigned epoch) const {
  auto it = connections_.find({agent, epoch});
  return it != connections_.end() && it->second.failed;
}

std::string Observer::rootRefusal(std::string const& agent, unsigned epoch) const {
  auto it = connections_.find({agent, epoch});
  return it == connections_.end() ? std::string() : it->second.rootRefusal;
}

void Observer::requestSeen(std::string const& agent, unsigned epoch, std::string const& path,
                           std::string const& letters, std::string const& type,
                           std::string const& label) {
  Connection& c = connections_[{agent, epoch}];
  c.sent.insert(path);
  std::string const who = agent + "#" + std::to_string(epoch);
  Expectation const* model = oracle_.expectation ? oracle_.expectation(agent, epoch) : nullptr;
  if (!model) {
    if (label.empty()) violation("entitlement: " + who + " was sent " + path);
    return;
  }
  bool const granted = oracle_.writesGranted();
  std::string const rootFlags = oracle_.rootFlags(model->profile());
  bool const exists = oracle_.exists(path);
  std::string const sent = path + "?flags=" + letters + (type.empty() ? "" : " type " + type);
  if (auto const wrong = model->request(path, letters, type, granted, rootFlags, exists);
      !wrong.empty()) {
    if (!model->allowed(path)) {
      violation("entitlement: " + who + " was sent " + sent + "; expected " + wrong);
    } else {
      violation("flags: " + who + " was sent " + sent + " (write mounts " +
                (granted ? "granted" : "not granted") + "); expected " + wrong);
    }
  }
  if (letters.starts_with('C') &&
      model->queuesConversion(path, letters, type, granted, rootFlags, exists)) {
    c.toConvert.insert(path);
  } else if (!letters.empty() && letters[0] == 'w') {
    c.toConvert.erase(path);
  }
}

void Observer::closed(std::string const& agent, unsigned epoch, std::string const& reason) {
  Expectation const* model = oracle_.expectation ? oracle_.expectation(agent, epoch) : nullptr;
  note(agent + "#" + std::to_string(epoch) + " closed: " + reason, false);
  auto const it = connections_.find({agent, epoch});
  if (it != connections_.end() && !it->second.rootRefusal.empty() &&
      reason != it->second.rootRefusal) {
    violation("close: " + agent + "#" + std::to_string(epoch) + " was closed with '" + reason +
              "' after refusing its root mount; expected '" + it->second.rootRefusal + "'");
  }
  if (!model || reason != "Processed an invalid mount profile. " + agent) return;
  if (model->conflictPossible()) return;
  violation("close: " + agent + "#" + std::to_string(epoch) + " was closed with '" + reason +
            "'; expected no such close: no path of profile " + model->profile() +
            " may be mounted twice with other flags");
}

void Observer::engineCompleted(std::string const& agent, unsigned epoch) {
  Expectation const* model = oracle_.expectation ? oracle_.expectation(agent, epoch) : nullptr;
  if (!model) return;
  Connection& c = connections_[{agent, epoch}];
  std::string const who = agent + "#" + std::to_string(epoch);
  for (auto const& path : c.toConvert) {
    violation("conversion: " + who + " completed while " + path +
              " is mounted 'C' and was never converted to 'w'");
  }
  std::string const versions =
      model->versions() == 1 ? "" : " (" + std::to_string(model->versions()) + " profile versions)";
  for (auto const& [path, why] : model->required()) {
    if (c.sent.count(path)) continue;
    violation("completeness: " + who + " completed" + versions + " without being sent " + path +
              "; expected it for " + why + " of profile " + model->profile());
  }
}

void Observer::connectionMade(std::string const& agent, unsigned epoch, bool whiteListed,
                              std::vector<std::string> const& closeReasons) {
  Expectation const* model = oracle_.expectation ? oracle_.expectation(agent, epoch) : nullptr;
  if (!model || whiteListed) return;
  std::string const who = agent + "#" + std::to_string(epoch);
  std::string const& expected = model->closeReason();
  std::string const actual = closeReasons.empty() ? "" : closeReasons.front();
  if (actual != expected) {
    violation("close: " + who +
              (actual.empty() ? " was served" : " was closed with '" + actual + "'") +
              " as it connected; expected " +
              (expected.empty() ? "it served by profile " + model->profile()
                                : "it closed with '" + expected + "'"));
    return;
  }
  if (!expected.empty() || !rootWatch_ || !rootWatch_->notifier()) return;
  auto const engine = rootWatch_->notifier()->passiveEntityManagerSm(Qel::Name(agent));
  std::string const served =
      engine && engine->agentProfile() ? std::string(engine->agentProfile()->name()) : "";
  if (served == model->profile()) return;
  violation("profile: " + who + " is served by profile '" + served + "'; expected '" +
            model->profile() + "'");
}

void Observer::checkLeftovers() {
  auto const root = rootWatch_ ? rootWatch_->notifier() : nullptr;
  if (!root) return;
  for (auto const& [agent, engine] : root->passiveEntityManagerSm()) {
    if (!engine) continue;
    if (engine->state() == Ledra::PassiveEntityManagerSm::mountComplete &&
        engine->retryTime() != Qel::kNever) {
      violation("leftover: " + std::string(agent) + " is complete with its retry timer armed for " +
                std::to_string(engine->retryTime()));
    }
    for (auto const& [group, record] : engine->conditionalMountGroup()) {
      auto const sm = record ? record->conditionalMountGroupSm() : nullptr;
      auto const reactor = sm ? sm->conditionalReactor() : nullptr;
      if (reactor && oracle_.holdsOn &&
          oracle_.holdsOn(sm->currentPendingCondition(), reactor->notifier().ptr())) {
        violation("awaited: " + std::string(agent) + " group " + std::string(group) +
                  " still waits on '" + sm->currentPendingCondition() + "', which holds");
      }
      if (!reactor || sm->retryTime() == Qel::kNever) continue;
      violation("leftover: " + std::string(agent) + " group " + std::string(group) +
                " waits to retry '" + sm->retryCondition() + "' while a reactor is still set");
    }
  }
}

void Observer::prune() {
  std::erase_if(tables_, [](auto const& t) { return !t->notifier(); });
  std::erase_if(engines_, [](auto const& e) { return !e->notifier(); });
  std::erase_if(conditionWatches_, [](auto const& w) { return w->done(); });
  std::erase_if(retryWatches_, [](auto const& w) { return w->done(); });
  std::erase_if(closeWatches_, [](auto const& w) { return !w->notifier(); });
}

void Observer::violation(std::string text) {
  history_.add(step_, time_, "VIOLATION " + text);
  violations_.push_back("step " + std::to_string(step_) + ": " + std::move(text));
}

void Observer::note(std::string text, bool logged) {
  if (logged) log_.push_back(std::to_string(step_) + " " + text);
  history_.add(step_, time_, std::move(text));
}

}  // namespace Sim
