#include "PassiveEntityManager/MountGroupReactor.h"

#include "Check/Check.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

namespace {
constexpr int kTraceSignature = 8;
constexpr int kTraceReport = 2;
}  // namespace

template <class T>
MountGroupReactor<T>::MountGroupReactor(ConditionalMountGroupSm* conditionSm,
                                        Qel::String const& condition,
                                        Qel::Ptr<Qel::GenericIf> const& entity, T const& value,
                                        Orn::LogicalOp op, bool len, unsigned int aid)
    : Orn::ConditionalReactor<T>(entity, value, op, len, aid),
      conditionSm_(conditionSm),
      condition_(condition) {
  QEL_CHECK(conditionSm, "conditionSm && \"a mount group reactor reports to a state machine\"");
  this->handleCreation();
}

template <class T>
MountGroupReactor<T>::MountGroupReactor(ConditionalMountGroupSm* conditionSm,
                                        Qel::String const& condition,
                                        Qel::Ptr<Qel::GenericIf> const& entity,
                                        PointerConstant pointee, Orn::LogicalOp op, bool len,
                                        unsigned int aid) requires std::is_pointer_v<T>
    : PointerConstant(std::move(pointee)),
      Orn::ConditionalReactor<T>(entity, PointerConstant::pointer<T>(), op, len, aid),
      conditionSm_(conditionSm),
      condition_(condition) {
  QEL_CHECK(conditionSm, "conditionSm && \"a mount group reactor reports to a state machine\"");
  this->handleCreation();
}

template <class T>
void MountGroupReactor<T>::handleAttribute() {
  TRACE(PassiveEntityManager, kTraceSignature, "MountGroupReactor::handleAttribute");
  TRACE(PassiveEntityManager, kTraceReport, "handleAttribute 0x{:x}, condition: {} is true",
        static_cast<void const*>(this), condition_);
  QEL_CHECK(conditionSm_->currentPendingCondition() == condition_,
            "conditionSm_->currentPendingCondition() == condition_");
  TRACE(PassiveEntityManager, kTraceDecision, "Condition check start 0x{:x}",
        static_cast<void const*>(this));
  // Enabling the group, or a later condition that enables it at once, lets the engine release
  // the state machine (and so this reactor) while this call is still running.
  ConditionalMountGroupSm::Ptr const sm(conditionSm_);
  if (sm->conditionLocalQueues() != 0) {
    TRACE(PassiveEntityManager, kTraceDecision, "More Conditions found");
    // Installing the next condition's reactor releases the current one, which may be this one.
    Orn::CountedNotifiee::Ptr const current = sm->conditionalReactor();
    sm->handleCondition(sm->conditionLocalQueueDeq());
    return;
  }
  PassiveMountGroup::PtrConst const group = sm->mountGroup();
  if (group && group->blockingConditional()) {
    TRACE(PassiveEntityManager, kTraceReport,
          "MountGroupReactor::handleAttribute Removing a blocking Condition");
    if (PassiveEntityManagerSm* engine = sm->passiveEntityManagerSm()) {
      engine->blockingConditionalsDel(group->entireCondition());
    }
  }
  sm->conditionRes()->enabledIs(true);
  TRACE(PassiveEntityManager, kTraceDecision, "Condition check stop: all conditions true");
}

#define LEDRA_INSTANTIATE_MOUNT_GROUP_REACTOR(T) template class MountGroupReactor<T>;
ORN_FOR_EACH_CONSTANT_TYPE(LEDRA_INSTANTIATE_MOUNT_GROUP_REACTOR)
#undef LEDRA_INSTANTIATE_MOUNT_GROUP_REACTOR

}  // namespace Ledra
