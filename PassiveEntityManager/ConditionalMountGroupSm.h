// Ledra::ConditionalMountGroupSm: holds a conditional mount group back until every attribute
// condition of the group is true, then sets the `enabled` flag of the group's ConditionRes (the
// engine watches that flag and mounts the group).
//
// Conditions are texts "constant operator [len( ] path.attribute" (see conditionParts). They are
// evaluated one at a time, in the order of the group's condition collection: handleCondition()
// queues them all in conditionLocalQueue and evaluates the head; handleCondition(condition)
// resolves the entity and the attribute and installs one MountGroupReactor<T>, T chosen by the
// attribute's declared type. When that reactor reports the condition true, it evaluates the next
// condition, or, after the last one, enables the group (removing a blocking group's condition
// from the engine's blockingConditionals first).
//
// An entity that does not exist yet is waited for on the timer wheel: the same condition is tried
// again after retryDelay, which doubles after every failed attempt up to maxDelay (0.01 s, 0.02 s,
// ... 5.12 s, then 5.0 s forever; never reset), and each failed attempt writes one line to the
// standard error stream naming the agent, the entity and the next delay.
//
// States: idle (nothing pending, queue empty), waiting for an entity (retry armed; the reactor of
// the condition before is released, so it cannot report for this one), waiting for a condition
// (currentPendingCondition set, its reactor in conditionalReactor), done (enabled). When done,
// the last condition's reactor stays if that condition was waited for, and its further reports
// only repeat the idempotent enabling; if the last condition held at once, no reactor is left at
// all, the earlier condition's included. A condition for which no reactor can be made (a pointer
// constant naming no entity) leaves the state machine with nothing pending and the rest of the
// queue untouched: nothing retries it. A change of the group's conditions starts a new evaluation
// whenever no condition is pending: what is left of an earlier one (an armed retry, the queue) is
// dropped and the whole list evaluated again from its head, so an added condition is waited for.
//
// Re-entrance: a reactor that is true when it is created reports from inside its constructor, so
// handleCondition(condition) may run the rest of the list, and even enable the group, before it
// returns; it decides what to keep by looking at the state afterwards. Enabling the group may
// make the engine release this state machine: every handler keeps a reference to it while it
// runs.
//
// Invariants: at most one reactor is held, the one of currentPendingCondition; the engine pointer
// is plain and is cleared by the engine before it goes away (a null engine is allowed: agent name
// "<UNKNOWN>", no template values of an agent, no blocking conditions). Destruction releases the
// reactor (handleDeletion) and the retry timer.
//
// Single-threaded: the process's event loop (engine notifications, attribute notifications, the
// timer wheel).
#pragma once

#include <memory>

#include "Orn/CountedNotifiee.h"
#include "Orn/LogicalOp.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "PassiveEntityManager/PassiveMountGroup.h"
#include "Qel/Containers/LinkQueue.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Reflection/QelType.h"
#include "Timer/TimerWheel.h"

namespace Ledra {

class PassiveEntityManagerSm;

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES(X)                                         \
  X(ctor, none, PassiveMountGroup::PtrConst, mountGroup, MountGroup)                           \
  X(ctor, none, ConditionRes::Ptr, conditionRes, ConditionRes)                                 \
  X(value, plain, Qel::String, currentPendingCondition, CurrentPendingCondition)               \
  X(queueRo, key, Qel::String, conditionLocalQueue, ConditionLocalQueue, conditionLocalQueues) \
  X(value, plain, Qel::String, retryCondition, RetryCondition)                                 \
  X(value, plain, double, retryDelay, RetryDelay)                                              \
  X(value, plain, double, maxDelay, MaxDelay)                                                  \
  X(value, plain, bool, deletion, Deletion)

class LEDRA_PEM_EXPORT ConditionalMountGroupSm : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<ConditionalMountGroupSm>;
  using PtrConst = Qel::Ptr<ConditionalMountGroupSm const>;
  using ConditionLocalQueue = Qel::LinkQueue<Qel::String>;
  QEL_ATTR_IDS(LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES);

  static constexpr double kInitialRetryDelay = 0.01;
  static constexpr double kInitialMaxDelay = 5.0;

  // The tokens of one condition text. A token ends at a blank or a dot, which is dropped (blanks
  // before a token are skipped): the constant, the operator, optionally the word "len(", the
  // entity path and, after the dot, the attribute name. After "len(" a ")" ending the attribute
  // name is dropped, so "len( /p.tags)" reads as "len( /p.tags )". Whatever follows is not read.
  // Missing tokens are empty.
  struct ConditionParts {
    Qel::String constant;
    Qel::String op;
    bool len = false;
    Qel::String path;
    Qel::String attribute;

    friend bool operator==(ConditionParts const&, ConditionParts const&) = default;
  };
  static ConditionParts conditionParts(Qel::String const& condition);

  class QelMountGroup;
  class QelTimerWheel;

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<ConditionalMountGroupSm>;
  using NotifieeConst = NotifieeT<ConditionalMountGroupSm const>;

  // A state machine with the initial values, not started (conditionalMountGroupSmFactory starts
  // it). `mountGroup` and `conditionRes` are required.
  static Ptr conditionalMountGroupSmNew(PassiveMountGroup::PtrConst const& mountGroup,
                                        ConditionRes::Ptr const& conditionRes,
                                        PassiveEntityManagerSm* passiveEntityManagerSm,
                                        Orn::TimerWheel::PtrConst const& timerWheel);

  PassiveMountGroup::PtrConst mountGroup() const;
  ConditionRes::Ptr const& conditionRes() const { return conditionRes_; }
  PassiveEntityManagerSm* passiveEntityManagerSm() const { return passiveEntityManagerSm_; }
  void passiveEntityManagerSmIs(PassiveEntityManagerSm* engine) {
    passiveEntityManagerSm_ = engine;
  }
  // The agent's status record (from the engine), or null.
  PassiveAgentStatus::Ptr agentStatus() const;
  // The agent's name, "<UNKNOWN>" without an engine or a status record.
  Qel::String agentName() const;

  // The reactor of the condition being waited for. Replacing or clearing it releases the
  // previous one; a new one takes over this state machine's notification switches.
  Orn::CountedNotifiee::Ptr const& conditionalReactor() const { return conditionalReactor_; }
  void conditionalReactorIs(Orn::CountedNotifiee::Ptr const& reactor);

  // currentPendingCondition; conditionLocalQueue: the conditions still to evaluate after the
  // current one, oldest first (Deq on an empty queue gives an empty text); retryCondition,
  // retryDelay, maxDelay, deletion.
  QEL_ATTR_ACCESSORS(LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES)

  Orn::TimerWheel::PtrConst timerWheel() const;
  // When the retry timer fires; kNever when it is not armed.
  Qel::Time retryTime() const;

  // Starts evaluating the group's conditions, unless there are none or a condition is pending;
  // what is left of an earlier evaluation (an armed retry, the queue) is dropped.
  void handleCondition();
  // Evaluates one condition (see the header comment). Throws Qel::TypeException "Unknown type"
  // for an attribute the entity's type does not have and "Unknown builtin type" for one whose
  // type has no reactor; currentPendingCondition is then left set to the condition.
  void handleCondition(Qel::String const& condition);
  // The retry timer fired: evaluates retryCondition again.
  void handleRetryCondition();
  // Releases the reactor; called by the destructor.
  void handleDeletion();

  // Notification switches, passed on to the group and timer reactors and the condition reactor.
  bool notificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool on);
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  ConditionalMountGroupSm(PassiveMountGroup::PtrConst const& mountGroup,
                          ConditionRes::Ptr const& conditionRes,
                          PassiveEntityManagerSm* passiveEntityManagerSm,
                          Orn::TimerWheel::PtrConst const& timerWheel);
  ~ConditionalMountGroupSm() override;

 private:
  struct NewReactor;

  // The entity of `path` is missing: arm the retry and report it.
  void waitForEntity(Qel::String const& condition, Qel::String const& path);
  // The reactor for `constant` on `attr` (its row of the type table); null when the constant
  // names no usable value.
  NewReactor reactorNew(Qel::String const& condition, Qel::Entity::Ptr const& entity,
                        Qel::String const& constant, Orn::LogicalOp op, bool len,
                        Qel::QelAttr const& attr);

  std::unique_ptr<QelMountGroup> qelMountGroup_;
  ConditionRes::Ptr const conditionRes_;
  PassiveEntityManagerSm* passiveEntityManagerSm_;
  Orn::CountedNotifiee::Ptr conditionalReactor_;
  std::unique_ptr<QelTimerWheel> qelTimerWheel_;
  QEL_ATTR_STORAGE(LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES)
  bool notificationActive_ = true;
  bool zombie_ = false;
};

// Creates the state machine of `mountGroup` and starts it (handleCondition()); conditions that
// already hold are evaluated, and the group possibly enabled, before it returns. Exceptions of
// handleCondition propagate.
LEDRA_PEM_EXPORT ConditionalMountGroupSm::Ptr conditionalMountGroupSmFactory(
    PassiveMountGroup::PtrConst const& mountGroup, ConditionRes::Ptr const& conditionRes,
    PassiveEntityManagerSm* passiveEntityManagerSm, Orn::TimerWheel::PtrConst const& timerWheel);

template <class N>
class ConditionalMountGroupSm::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES)
};

}  // namespace Ledra
