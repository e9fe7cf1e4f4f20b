// Ledra::PassiveEntityManagerSmWrapper: the entity through which the database process creates and
// holds its one PassiveEntityManagerRootSm.
//
// passiveEntityManagerRootSmIs(agentProfileDir, agentStatusDir, entMgr) constructs the root with
// those three arguments (it initializes itself at once) and notifies onPassiveEntityManagerRootSm.
// Asking again with the same three arguments returns the present root and changes nothing; with
// another one it throws Qel::NameInUseException ("Reinstantiating the pointer interface where
// constructor parameter attribute _<attr> has a different value of ... not allowed") and keeps the
// present root. passiveEntityManagerRootSmDel() releases the root (which deletes its engines).
// The root is the wrapper's child: its parent is the wrapper while the wrapper holds it.
//
// Single-threaded: the database process's event loop.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_ENTITY_MANAGER_SM_WRAPPER_ATTRIBUTES(X)                   \
  X(getter, plain, PassiveEntityManagerRootSm::Ptr, passiveEntityManagerRootSm, \
    PassiveEntityManagerRootSm)

class LEDRA_PEM_EXPORT PassiveEntityManagerSmWrapper : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveEntityManagerSmWrapper>;
  using PtrConst = Qel::Ptr<PassiveEntityManagerSmWrapper const>;
  QEL_ATTR_IDS(LEDRA_PASSIVE_ENTITY_MANAGER_SM_WRAPPER_ATTRIBUTES);

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_ENTITY_MANAGER_SM_WRAPPER_ATTRIBUTES)
  };
  using Notifiee = NotifieeT<PassiveEntityManagerSmWrapper>;
  using NotifieeConst = NotifieeT<PassiveEntityManagerSmWrapper const>;

  static Ptr passiveEntityManagerSmWrapperNew(Qel::Name const& name) {
    return Ptr(new PassiveEntityManagerSmWrapper(name));
  }

  // Null until passiveEntityManagerRootSmIs.
  PassiveEntityManagerRootSm::Ptr const& passiveEntityManagerRootSm() const { return root_; }
  PassiveEntityManagerRootSm::Ptr passiveEntityManagerRootSmIs(
      PassiveAgentProfileDir::Ptr const& agentProfileDir,
      PassiveAgentStatusDir::Ptr const& agentStatusDir, EntityManager::PtrConst const& entMgr);
  void passiveEntityManagerRootSmDel();

  Qel::Entity::Ptr child(Qel::Name const& name) const override;
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveEntityManagerSmWrapper(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveEntityManagerSmWrapper() override;

 private:
  PassiveEntityManagerRootSm::Ptr root_;
};

// A new wrapper called `name`; throws Qel::RangeException "null ValidPtr" if none could be made.
LEDRA_PEM_EXPORT PassiveEntityManagerSmWrapper::Ptr passiveEntityManagerSmWrapperFactory(
    Qel::Name const& name);

}  // namespace Ledra
