// Ledra::EntityManager: the database process's entity manager as the passive entity manager sees
// it: the role of this (the local) process, active or backup, and whether write mounts are
// granted to agents now.
//
// local is the local process's role. It changes when the process switches role (a backup taking
// over, say), and each change notifies onLocal(); active() reads it. writeMountsGranted (false at
// creation) tells whether mounts may be made writable now; the process grants them when it is
// ready to accept agents' writes, and each change notifies onWriteMountsGranted(). Storing an
// equal value notifies nobody. Single-threaded.
#pragma once

#include "Qel/Core/Api.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_ENTITY_MANAGER_ATTRIBUTES(X) \
  X(value, plain, Role, local, Local)      \
  X(value, plain, bool, writeMountsGranted, WriteMountsGranted)

class QEL_API EntityManager : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<EntityManager>;
  using PtrConst = Qel::Ptr<EntityManager const>;
  enum class Role { backup = 0, active = 1 };
  QEL_ATTR_IDS(LEDRA_ENTITY_MANAGER_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<EntityManager>;
  using NotifieeConst = NotifieeT<EntityManager const>;

  static Ptr entityManagerNew(Qel::Name const& name, Role role = Role::active) {
    return Ptr(new EntityManager(name, role));
  }

  QEL_ATTR_ACCESSORS(LEDRA_ENTITY_MANAGER_ATTRIBUTES)
  Role role() const { return local(); }
  bool active() const { return local() == Role::active; }

  // "active" or "backup".
  static char const* roleName(Role r);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();
  static Qel::QelType const* roleType();

 protected:
  // Nobody watches yet: storing the role tells nobody.
  EntityManager(Qel::Name name, Role role) : Entity(std::move(name)) { localIs(role); }
  ~EntityManager() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_ENTITY_MANAGER_ATTRIBUTES)
};

template <class N>
class EntityManager::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_ENTITY_MANAGER_ATTRIBUTES)
};

}  // namespace Ledra

// The role enum in the reflection ("Ledra::EntityManager::Role").
template <>
struct Qel::ValueTraits<Ledra::EntityManager::Role> {
  using Role = Ledra::EntityManager::Role;
  static QelType const* type() { return Ledra::EntityManager::roleType(); }
  static GenericIf::PtrConst box(Role r) {
    return GenericValue::make(type(), Value(static_cast<std::int64_t>(r)));
  }
  static Role unbox(GenericIf::PtrConst const& g) {
    return g ? static_cast<Role>(g->valueAs<std::int64_t>()) : Role::backup;
  }
};
