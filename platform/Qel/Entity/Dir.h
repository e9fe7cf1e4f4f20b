// Qel::Dir: an entity that owns named child entities. globalDir() is the root of the database
// tree; entities are found from it by path (Entity::entity).
//
// Inserting an entity sets its parent; removing it clears the parent, so an entity held elsewhere
// after its removal is cut off from the tree (its root() is no longer the global directory).
// Entries iterate in ascending name order. Each insertion and removal notifies onEntry(name).
#pragma once

#include "Qel/Core/Api.h"

#include <map>

#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"

namespace Qel {

class QEL_API Dir : public Entity {
 public:
  using Ptr = Qel::Ptr<Dir>;
  using PtrConst = Qel::Ptr<Dir const>;
  using Entries = std::map<Name, Entity::Ptr>;
  static constexpr AttributeId kEntry = 1;

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<Dir>;
  using NotifieeConst = NotifieeT<Dir const>;

  static Ptr dirNew(Name const& name) { return Ptr(new Dir(name)); }

  Entity::Ptr entry(Name const& name) const;
  std::size_t entries() const { return entries_.size(); }
  Entries const& entryMap() const { return entries_; }

  // Inserts `e` under its name. Inserting the same entity again does nothing; another entity of
  // that name is refused with NameInUseException, as is an entity that already has a parent.
  void entryIs(Entity::Ptr const& e);
  // The sub-directory `name`, created when absent; NameInUseException when `name` is not a Dir.
  Ptr dirIs(Name const& name);
  // Removes the entry, if present.
  void entryDel(Name const& name);
  void entryDelAll();

  Entity::Ptr child(Name const& name) const override { return entry(name); }
  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();

 protected:
  explicit Dir(Name name) : Entity(std::move(name)) {}
  ~Dir() override;

 private:
  Entries entries_;
};

template <class N>
class Dir::NotifieeT : public BasicNotifiee<N> {
 public:
  using BasicNotifiee<N>::BasicNotifiee;
  virtual void onEntry(Name const& /*name*/) {}
  void qelDispatch(AttributeId aid, NotifyKey const& key) override {
    if (aid == kEntry) onEntry(*static_cast<Name const*>(key.native));
  }
};

// The root directory of the database tree.
Dir::Ptr globalDir();

}  // namespace Qel
