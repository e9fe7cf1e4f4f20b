// Ledra::ConditionRes: the result record through which a conditional mount group's state machine
// tells the engine that all of the group's conditions hold (enabled becomes true).
#pragma once

#include "PassiveEntityManager/Export.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_CONDITION_RES_ATTRIBUTES(X) X(value, plain, bool, enabled, Enabled)

class LEDRA_PEM_EXPORT ConditionRes : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<ConditionRes>;
  using PtrConst = Qel::Ptr<ConditionRes const>;
  QEL_ATTR_IDS(LEDRA_CONDITION_RES_ATTRIBUTES);

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    QEL_ATTR_NOTIFIEE(LEDRA_CONDITION_RES_ATTRIBUTES)
  };
  using Notifiee = NotifieeT<ConditionRes>;
  using NotifieeConst = NotifieeT<ConditionRes const>;

  static Ptr conditionResNew(Qel::Name const& name) { return Ptr(new ConditionRes(name)); }

  QEL_ATTR_ACCESSORS(LEDRA_CONDITION_RES_ATTRIBUTES)

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit ConditionRes(Qel::Name name) : Entity(std::move(name)) {}
  ~ConditionRes() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_CONDITION_RES_ATTRIBUTES)
};

}  // namespace Ledra
