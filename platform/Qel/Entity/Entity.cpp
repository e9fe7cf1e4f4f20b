#include "Qel/Entity/Entity.h"

#include "Qel/Containers/Path.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

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
  Ptr e(const_cast<Entity*>(this));
  for (std::string_view const component : pathComponents(path)) {
    if (!e) break;
    e = e->child(Name(component));
  }
  return e;
}

QelType const* Entity::staticType() {
  static QelType const* t = TypeBuilder<Entity>("Qel::Entity").done();
  return t;
}

}  // namespace Qel
