#include "Qel/Entity/Entity.h"

#include <typeinfo>

#include "Qel/Containers/Path.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Entity/EntityPathIndex.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

U64 Entity::treeVersion_ = 0;

Entity::~Entity() {
  ++treeVersion_;
}

void Entity::qelParentIs(Entity* parent) {
  if (parent == parent_) return;
  // By the type itself: an owner clears its children's parents while it is being destroyed.
  if ((parent_ && typeid(*parent_) == typeid(Dir)) || (parent && typeid(*parent) == typeid(Dir)))
    ++treeVersion_;
  parent_ = parent;
}

Entity const* Entity::root() const {
  Entity const* e = this;
  while (e->parent_)
    e = e->parent_;
  return e;
}

String Entity::fullName() const {
  if (!parent_) return name_.empty() ? String("/") : String(name_);
  String prefix = parent_->fullName();
  if (prefix != "/") prefix += '/';
  return String(prefix + name_);
}

Entity::Ptr Entity::entity(String const& path) const {
  static Entity const* const globalRoot = globalDir().ptr();
  bool const fromRoot = this == globalRoot;
  if (fromRoot) {
    if (Entity* const known = entityPathIndex().find(path)) return Ptr(known);
  }
  Ptr e(const_cast<Entity*>(this));
  // Whether every entity the search went through is a Dir: only then is the one found where a
  // later search from the root may look first (an entry of a Dir stands under that Dir's name).
  bool throughDirs = true;
  for (std::string_view const component : pathComponents(path)) {
    if (!e) break;
    Entity const* const at = e.ptr();
    throughDirs = throughDirs && typeid(*at) == typeid(Dir);
    e = e->child(Name(component));
  }
  if (fromRoot && e && throughDirs) entityPathIndex().foundThroughDirsIs(path, e.ptr());
  return e;
}

QelType const* Entity::staticType() {
  static QelType const* t = TypeBuilder<Entity>("Qel::Entity").done();
  return t;
}

}  // namespace Qel
