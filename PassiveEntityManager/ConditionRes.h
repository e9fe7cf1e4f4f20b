// Ledra::ConditionRes: the result record through which a conditional mount group's state machine
// tells the engine that all of the group's conditions hold (enabled becomes true).
#pragma once

#include "PassiveEntityManager/Export.h"
#include "Qel/Entity.h"
#include "Qel/Notifiee.h"

namespace Ledra {

class LEDRA_PEM_EXPORT ConditionRes : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<ConditionRes>;
  using PtrConst = Qel::Ptr<ConditionRes const>;
  static constexpr Qel::AttributeId kEnabled = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onEnabled() {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const&) override {
      if (aid == kEnabled) onEnabled();
    }
  };
  using Notifiee = NotifieeT<ConditionRes>;
  using NotifieeConst = NotifieeT<ConditionRes const>;

  static Ptr conditionResNew(Qel::Name const& name) { return Ptr(new ConditionRes(name)); }

  bool enabled() const { return enabled_; }
  void enabledIs(bool v) {
    if (v == enabled_) return;
    enabled_ = v;
    notify(kEnabled);
  }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit ConditionRes(Qel::Name name) : Entity(std::move(name)) {}
  ~ConditionRes() override = default;

 private:
  bool enabled_ = false;
};

}  // namespace Ledra
