// Ledra::PassiveMountReference: what was mounted for an agent under one path (its name): the
// entity found there and whether the mount completed. `complete` is only ever set to true; an
// entity cut off from the tree since it was mounted is detected by isCompleteMount() instead.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "Qel/Entity.h"
#include "Qel/Notifiee.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveMountReference : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveMountReference>;
  using PtrConst = Qel::Ptr<PassiveMountReference const>;
  enum : Qel::AttributeId { kEntity = 1, kComplete };

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onEntity() {}
    virtual void onComplete() {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const&) override {
      if (aid == kEntity) onEntity();
      if (aid == kComplete) onComplete();
    }
  };
  using Notifiee = NotifieeT<PassiveMountReference>;
  using NotifieeConst = NotifieeT<PassiveMountReference const>;

  static Ptr mountReferenceNew(Qel::Name const& path) {
    return Ptr(new PassiveMountReference(path));
  }

  Qel::Entity::PtrConst entity() const { return entity_; }
  void entityIs(Qel::Entity::PtrConst const& e);
  bool complete() const { return complete_; }
  void completeIs(bool v);

  // Whether the mount counts as completed: `complete` is set and the mounted entity is still in
  // the tree of the global directory. An entity cut off since it was mounted is `orphaned`, and so
  // is a complete reference without entity (a mount found unchanged where no entity stands).
  enum class Completion { incomplete, complete, orphaned };
  Completion completion() const;

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveMountReference(Qel::Name path) : Entity(std::move(path)) {}
  ~PassiveMountReference() override = default;

 private:
  Qel::Entity::PtrConst entity_;
  bool complete_ = false;
};

}  // namespace Ledra
