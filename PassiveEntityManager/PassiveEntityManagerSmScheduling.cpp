// Mount group scheduling: the scheduling pass (doInitiateMounts), the mount of one group, the
// retry of pending mounts, and the engine side of conditional groups.
//
// A pass runs only when no outgoing mount request is unanswered and no other pass is running;
// that gate serialises the groups: a group is taken from the ready queue only once every request
// of the previous one has been answered.
#include <iostream>

#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/MountsInProgressAnchor.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PassiveEntityManagerSmReactors.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

void PassiveEntityManagerSm::doInitiateMounts() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::doInitiateMounts():  agentName: {}", agentName());
  if (!initialized()) return;
  if (state() == mountComplete) {
    TRACE(PassiveEntityManager, kTraceDecision, "mount complete..returning");
    return;
  }
  QEL_CHECK(demuxer(), "demuxer()");
  if (demuxer()->flowOutMountRequests() != 0 || mountsInProgress()) {
    TRACE(PassiveEntityManager, kTraceDecision, "flowOut mount requests: {} mountsInProgress: {}",
          demuxer()->flowOutMountRequests(), mountsInProgress());
    return;
  }
  // A handler of the pass may drop the last outside reference to this engine.
  Ptr const keepAlive(this);
  MountsInProgressAnchor const anchor(this);
  if (state() == conditionalMountGroupPending) return;
  if (state() != readyMountGroupPending && !queueProfileGroups()) return;
  serveReadyGroups();
}

bool PassiveEntityManagerSm::queueProfileGroups() {
  Qel::ConnectDesc const cd(ledraRoot_ ? Qel::String(ledraRoot_->fullName()) : Qel::String());
  Qel::MountTable::Stat const rootMount = demuxer()->outMount()->stat(cd);
  // The agent refused its root mount: nothing can be mounted for it.
  if (rootMount.status() == Qel::MountTable::failed_) {
    doCloseConnection("root mount failed: " + rootMount.exceptionDesc());
    return false;
  }
  // No root mount was asked for yet (the peer speaks an older protocol version, and a pass ran
  // from elsewhere): the first pass is the one its answer runs.
  if (rootMount.status() == Qel::MountTable::none_) {
    TRACE(PassiveEntityManager, kTraceDecision, "root mount not requested yet");
    return false;
  }
  // Asked for, and no request is unanswered: the answer has come.
  QEL_CHECK(rootMount.status() == Qel::MountTable::complete_,
            "demuxer()->outMount()->status( cd ) == Qel::MountTable::complete_");
  TRACE(PassiveEntityManager, kTraceDecision, "root mount completed");
  for (auto const& [name, group] : agentProfile_->mountGroup()) {
    TRACE(PassiveEntityManager, kTraceDecision, "Adding MountGroup: {} priority: {}", name,
          group->priority());
    bool allTrue = true;
    for (auto const& [condition, flag] : group->templateConditionCol()) {
      bool const result = evaluateTemplateCondition(condition);
      if (result) {
        TRACE(PassiveEntityManager, kTraceDecision, "template condition evaluted to True.");
      } else {
        TRACE(PassiveEntityManager, kTraceDecision, "template condition evaluted to False.");
      }
      allTrue = allTrue && result;
    }
    if (!allTrue) {
      TRACE(PassiveEntityManager, kTraceDecision,
            "At least one template condition evaluted to False.  Skipping mount");
      continue;
    }
    if (group->conditionCols() != 0)
      TRACE(PassiveEntityManager, kTraceDecision, "Proceeding with conditional");
    readyMountGroupEnq(group);
  }
  // A profile without any group, or one whose every group was skipped for this agent (a family
  // profile may rightly leave out every group for some of its members), asks for the root mount
  // only.
  if (readyMountGroup_.empty()) {
    if (conditionalMountGroup_.empty()) {
      completionTest();
      return false;
    }
    stateIs(conditionalMountGroupPending);
    return false;
  }
  stateIs(readyMountGroupPending);
  return true;
}

void PassiveEntityManagerSm::serveReadyGroups() {
  TRACE(PassiveEntityManager, kTraceDecision, "ready mount group pending");
  auto const table = demuxer()->outMount();
  if (table->incompleteStatuses() != 0) {
    // The record named in the trace is the first incomplete one by path: finding it walks the
    // table, so only a trace that is written pays for it.
    if (TRACE_ENABLED(PassiveEntityManager, kTraceDecision)) {
      Qel::ConnectDesc const cd = table->firstIncompleteStatus();
      Qel::MountTable::Stat const stat = table->stat(cd);
      TRACE(PassiveEntityManager, kTraceDecision,
            "readyMountGroupPending_ Exception: {}, status: {}, path: {}", stat.exceptionDesc(),
            Qel::MountTable::Stat(stat.status()).text(), cd.text());
    }
    return;
  }
  TRACE(PassiveEntityManager, kTraceDecision, "all previous mounts completed");
  doPendingMounts();
  if (!initialized()) return;
  if (!pendingMountProfile_.empty()) return retryLater();
  if (!blockingConditionals_.empty()) return completionTest();
  takeReadyGroups();
  // A group may have closed the agent for an invalid profile entry.
  if (!initialized()) return;
  convertMounts();
  if (!readyMountGroup_.empty()) {
    if (!pendingMountProfile_.empty()) return retryLater();
    return completionTest();
  }
  if (!pendingMountProfile_.empty()) return retryLater();
  if (!convertableMounts_.empty()) return completionTest();
  TRACE(PassiveEntityManager, kTraceDecision, "all ready mount groups completed");
  if (conditionalMountGroup_.empty()) return completionTest();
  TRACE(PassiveEntityManager, kTraceDecision, "conditional mount groups are pending");
  stateIs(conditionalMountGroupPending);
}

void PassiveEntityManagerSm::takeReadyGroups() {
  auto const d = demuxer();
  while (initialized() && d->flowOutMountRequests() == 0 && !readyMountGroup_.empty() &&
         pendingMountProfile_.empty() && blockingConditionals_.empty()) {
    PassiveMountGroup::PtrConst const group = readyMountGroupDeq();
    Qel::Name const name = group->name();
    TRACE(PassiveEntityManager, kTraceDecision, "readyMountGroupDeq: {} priority: {}", name,
          group->priority());
    if (group->conditionCols() == 0) {
      handleMountProfile(group);
      continue;
    }
    TRACE(PassiveEntityManager, kTraceDecision, "Creating a conditional mount group for {}",
          group->entireCondition());
    conditionalMountGroupIs(group);
    auto const record = conditionalMountGroup(name);
    if (!record || record->initialized()) continue;
    TRACE(PassiveEntityManager, kTraceDecision, "conditional mountgroup {} done inline", name);
    conditionalMountGroupDel(name);
  }
}

void PassiveEntityManagerSm::convertMounts() {
  if (convertableMounts_.empty() || !entMgr_ || !entMgr_->writeMountsGranted()) return;
  TRACE(PassiveEntityManager, kTraceDecision, "Num mounts to convert: {}",
        convertableMounts_.size());
  while (initialized() && !convertableMounts_.empty()) {
    Mount const m = convertableMountsDeq();
    if (agentStatus_) agentStatus_->mountReferenceDel(m.path());
    TRACE(PassiveEntityManager, kTraceDecision, "Converting {} to w", m.path());
    doPassiveMount(m.internedPath(), m.userFlags(), m.internedType());
  }
}

void PassiveEntityManagerSm::retryLater() {
  armRetryTimer();
  TRACE(PassiveEntityManager, kTraceDecision,
        "{} outstanding mount groups {} pending mount profiles {} blocking conditional",
        readyMountGroup_.size(), pendingMountProfile_.size(), blockingConditionals_.size());
}

void PassiveEntityManagerSm::armRetryTimer() {
  if (!qelTimerWheel_ || !qelTimerWheel_->notifier()) return;
  qelTimerWheel_->timeMinIs(qelTimerWheel_->notifier()->clock()->now());
}

Qel::Time PassiveEntityManagerSm::retryTime() const {
  return qelTimerWheel_ ? qelTimerWheel_->timeMin() : Qel::kNever;
}

void PassiveEntityManagerSm::completionTest() {
  if (!readyMountGroup_.empty() || !conditionalMountGroup_.empty() ||
      !pendingMountProfile_.empty() || !passiveDirMounterCol_.empty() ||
      !convertableMounts_.empty())
    return;
  TRACE(PassiveEntityManager, kTraceDecision, "All mounts complete for {}", agentName());
  stateIs(mountComplete);
  demuxerIs(nullptr);
  peerMountTableIs(nullptr);
  if (qelTimerWheel_) qelTimerWheel_->timeMinIs(Qel::kNever);
}

void PassiveEntityManagerSm::handleMountProfile(PassiveMountGroup::PtrConst const& group) {
  QEL_CHECK(group, "group && \"handleMountProfile of a null group\"");
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleMountProfile( group ): {} prio: {}", group->name(),
        group->priority());
  if (!initialized()) return;
  QEL_CHECK(peerMountTable(), "peerMountTable()");
  for (auto const& [path, mount] : group->mountProfile()) {
    if (!initialized()) return;
    doNestedPassiveMount(mount);
  }
}

void PassiveEntityManagerSm::doPendingMounts() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::doPendingMounts():  agentName: {}", agentName());
  QEL_CHECK(peerMountTable(), "peerMountTable()");
  TRACE(PassiveEntityManager, kTraceDecision, "doPendingMounts: pendingMountProfiles(): {}",
        pendingMountProfile_.size());
  // A mount that still has to wait is put back; it is retried by the next pass, not this one.
  PendingMountProfileCol const pending = pendingMountProfile_.map();
  for (auto const& [path, mount] : pending) {
    if (!initialized()) return;
    pendingMountProfileDel(path);
    doNestedPassiveMount(mount);
  }
}

bool PassiveEntityManagerSm::evaluateTemplateCondition(Qel::String const& cond) {
  return Ledra::evaluateTemplateCondition(cond, agentStatus_);
}

// --- QelConditionalMountGroup

PassiveEntityManagerSm::QelConditionalMountGroup::Ptr
PassiveEntityManagerSm::QelConditionalMountGroup::conditionalMountGroupNew(
    PassiveMountGroup::PtrConst const& group, PassiveEntityManagerSm* engine) {
  return Ptr(new QelConditionalMountGroup(group, engine));
}

PassiveEntityManagerSm::QelConditionalMountGroup::QelConditionalMountGroup(
    PassiveMountGroup::PtrConst group, PassiveEntityManagerSm* engine)
    : group_(std::move(group)), engine_(engine) {}

PassiveEntityManagerSm::QelConditionalMountGroup::~QelConditionalMountGroup() {
  if (qelConditionRes_) qelConditionRes_->ownerIs(nullptr);
  if (sm_) sm_->passiveEntityManagerSmIs(nullptr);
}

ConditionRes::Ptr PassiveEntityManagerSm::QelConditionalMountGroup::conditionRes() const {
  return qelConditionRes_ ? qelConditionRes_->notifier() : nullptr;
}

void PassiveEntityManagerSm::QelConditionalMountGroup::conditionResIs(ConditionRes::Ptr const& r) {
  if (r == conditionRes()) return;
  if (qelConditionRes_) qelConditionRes_->ownerIs(nullptr);
  qelConditionRes_ = r ? QelConditionRes::reactorNew(this, r) : nullptr;
}

void PassiveEntityManagerSm::QelConditionalMountGroup::conditionalMountGroupSmDel() {
  if (!sm_) return;
  Qel::Ptr<ConditionalMountGroupSm> sm = std::move(sm_);
  sm->passiveEntityManagerSmIs(nullptr);
}

void PassiveEntityManagerSm::QelConditionalMountGroup::handleInit() {
  TRACE(PassiveEntityManager, kTraceEntry, "QelConditionalMountGroup::handleInit(): {}", name());
  if (initialized_ || !engine_) return;
  Ptr const keepAlive(this);
  initialized_ = true;
  conditionResIs(ConditionRes::conditionResNew(name()));
  if (group_->blockingConditional()) {
    TRACE(PassiveEntityManager, kTraceDecision, "ConditionalMountGroup blocking: {}",
          group_->blockingConditional());
    engine_->blockingConditionalsIs(group_->entireCondition(), true);
  }
  auto sm = conditionalMountGroupSmFactory(group_, conditionRes(), engine_, engine_->timerWheel());
  // The conditions may have held at once: then the group is settled and keeps no state machine.
  if (initialized_) sm_ = std::move(sm);
}

void PassiveEntityManagerSm::QelConditionalMountGroup::handleEnabled() {
  TRACE(PassiveEntityManager, kTraceEntry, "QelConditionalMountGroup::handleEnabled(): {}", name());
  PassiveEntityManagerSm* const engine = engine_;
  ConditionRes::Ptr const res = conditionRes();
  if (!engine || !res) return;
  if (!res->enabled()) {
    TRACE(PassiveEntityManager, kTraceDecision, "agent: {}, condition for {} failed",
          engine->agentName(), name());
    return;
  }
  Ptr const keepAlive(this);
  PassiveEntityManagerSm::Ptr const keepEngine(engine);
  initialized_ = false;
  TRACE(PassiveEntityManager, kTraceDecision, "agent: {}, condition for {} succeeded",
        engine->agentName(), name());
  conditionalMountGroupSmDel();
  conditionResIs(nullptr);
  engine->handleMountProfile(group_);
  engine->stateIs(readyMountGroupPending);
  engine->conditionalMountGroupDel(name());
  engine->doInitiateMounts();
}

void PassiveEntityManagerSm::QelConditionalMountGroup::hasNotificationActiveIs(bool on) {
  if (qelConditionRes_) qelConditionRes_->hasNotificationActiveIs(on);
  if (sm_) sm_->hasNotificationActiveIs(on);
}

void PassiveEntityManagerSm::QelConditionalMountGroup::qelDoZombieReactorsIs(bool zombie) {
  if (qelConditionRes_) qelConditionRes_->qelDoZombieReactorsIs(zombie);
  if (sm_) sm_->qelDoZombieReactorsIs(zombie);
}

}  // namespace Ledra
