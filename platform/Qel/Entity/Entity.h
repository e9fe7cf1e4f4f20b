// Qel::Entity: the base of every entity of the database.
//
// An entity has a name, fixed at construction, and a non-owning parent set by the collection that
// owns it (a Dir, or an entity collection of a typed entity). fullName() is its path from the top
// of its tree: "/" for the global root, "/a/b" for entity b in directory a. entity(path) finds a
// descendant by a "/"-separated path (empty components are skipped), descending through child();
// from the root, where it was found last is remembered (EntityPathIndex) and checked first.
//
// An entity is a GenericIf: it is described by its QelType (fwkType()), read and written by name
// through the generic view, and notifies its notifiees of every change. Attribute 0 of every
// entity type is its name. Entities are reference counted and single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"
#include "Qel/Reflection/GenericIf.h"

namespace Qel {

class QEL_API Entity : public GenericIf {
 public:
  using Ptr = Qel::Ptr<Entity>;
  using PtrConst = Qel::Ptr<Entity const>;
  static constexpr AttributeId kName = 0;

  Name const& name() const { return name_; }
  Entity* parent() const { return parent_; }
  // The top-most ancestor (this entity when it has no parent).
  Entity const* root() const;
  String fullName() const;

  virtual QelType const* fwkType() const = 0;
  QelType const* qelType() const final { return fwkType(); }
  String text() const override { return fullName(); }

  // The descendant at `path`, or null.
  Ptr entity(String const& path) const;
  // The child called `name` (for path lookup); entities without children have none.
  virtual Ptr child(Name const& /*name*/) const { return nullptr; }

  // Set by the collection that owns this entity; null when it is removed from it.
  void qelParentIs(Entity* parent);

  static QelType const* staticType();
  // Rises whenever an entity is destroyed, enters a Dir or leaves one: while it stays the same,
  // every entity alive stays alive, and every entity whose ancestors are all Dirs keeps its path.
  static U64 treeVersion() { return treeVersion_; }

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  ~Entity() override;

 private:
  static U64 treeVersion_;

  Name const name_;
  Entity* parent_ = nullptr;
};

}  // namespace Qel
