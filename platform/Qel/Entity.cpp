#include "Qel/Entity.h"

#include "Qel/TypeBuilder.h"

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
  std::size_t pos = 0;
  while (e && pos <= path.size()) {
    std::size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    if (slash > pos) e = e->child(Name(path.substr(pos, slash - pos)));
    pos = slash + 1;
  }
  return e;
}

QelType const* Entity::staticType() {
  static QelType const* t = TypeBuilder<Entity>("Qel::Entity").done();
  return t;
}

}  // namespace Qel
