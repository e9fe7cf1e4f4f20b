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

#include "Qel/Api.h"
#include "Qel/Entity.h"
#include "Qel/GenericValue.h"
#include "Qel/Notifiee.h"
#include "Qel/ValueTraits.h"

namespace Ledra {

class QEL_API EntityManager : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<EntityManager>;
  using PtrConst = Qel::Ptr<EntityManager const>;
  enum : Qel::AttributeId { kLocal = 1, kWriteMountsGranted };
  enum class Role { backup = 0, active = 1 };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<EntityManager>;
  using NotifieeConst = NotifieeT<EntityManager const>;

  static Ptr entityManagerNew(Qel::Name const& name, Role role = Role::active) {
    return Ptr(new EntityManager(name, role));
  }

  Role local() const { return local_; }
  void localIs(Role r);
  Role role() const { return local_; }
  bool active() const { return local_ == Role::active; }

  bool writeMountsGranted() const { return writeMountsGranted_; }
  void writeMountsGrantedIs(bool v);

  // "active" or "backup".
  static char const* roleName(Role r);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();
  static Qel::QelType const* roleType();

 protected:
  EntityManager(Qel::Name name, Role role) : Entity(std::move(name)), local_(role) {}
  ~EntityManager() override = default;

 private:
  Role local_;
  bool writeMountsGranted_ = false;
};

template <class N>
class EntityManager::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  virtual void onLocal() {}
  virtual void onWriteMountsGranted() {}
  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const&) override {
    if (aid == kLocal) return onLocal();
    if (aid == kWriteMountsGranted) return onWriteMountsGranted();
  }
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
