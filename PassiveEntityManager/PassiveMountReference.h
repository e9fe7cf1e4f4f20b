// Ledra::PassiveMountReference: what was mounted for an agent under one path (its name): the
// entity found there and whether the mount completed. `complete` is only ever set to true; an
// entity cut off from the tree since it was mounted is detected by isCompleteMount() instead.
// The agent's status keeps its references as plain records and makes the entity of one only when
// it is asked for (see PassiveAgentStatus); from then on the entity holds the reference's state.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES(X)        \
  X(valueRo, plain, Qel::Entity::PtrConst, entity, Entity) \
  X(value, plain, bool, complete, Complete)

class LEDRA_PEM_EXPORT PassiveMountReference : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveMountReference>;
  using PtrConst = Qel::Ptr<PassiveMountReference const>;
  QEL_ATTR_IDS(LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES);

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES)
  };
  using Notifiee = NotifieeT<PassiveMountReference>;
  using NotifieeConst = NotifieeT<PassiveMountReference const>;

  static Ptr mountReferenceNew(Qel::Name path) {
    return Ptr(new PassiveMountReference(std::move(path)));
  }

  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES)

  // Whether the mount counts as completed: `complete` is set and the mounted entity is still in
  // the tree of the global directory. An entity cut off since it was mounted is `orphaned`, and so
  // is a complete reference without entity (a mount found unchanged where no entity stands).
  enum class Completion { incomplete, complete, orphaned };
  Completion completion() const { return completionOf(complete(), entity().ptr()); }
  // The completion of a reference in the state given.
  static Completion completionOf(bool complete, Qel::Entity const* entity);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveMountReference(Qel::Name path) : Entity(std::move(path)) {}
  ~PassiveMountReference() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES)
};

}  // namespace Ledra
