#include "Qel/Entity/Dir.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

void Dir::entryIs(Entity::Ptr const& e) {
  QEL_CHECK(e, "e && \"null entry\"");
  if (Entity::Ptr existing = entry(e->name())) {
    if (existing == e) return;
    throw NameInUseException("Reinstantiating the entity with name " + e->name() + " in " +
                             fullName() + " not allowed");
  }
  if (e->parent()) {
    throw NameInUseException("entity " + e->fullName() + " already has a parent");
  }
  entry_.insert(*this, e);
}

Dir::Ptr Dir::dirIs(Name const& name) {
  if (Entity::Ptr e = entry(name)) {
    Ptr d(dynamic_cast<Dir*>(e.ptr()));
    if (!d) throw NameInUseException("entry " + name + " of " + fullName() + " is not a Dir");
    return d;
  }
  Ptr d = dirNew(name);
  entryIs(d);
  return d;
}

QelType const* Dir::staticType() {
  static QelType const* t = TypeBuilder<Dir>("Qel::Dir") QEL_ATTR_REFLECTION(QEL_DIR_ATTRIBUTES)
                                .factory([](Name const& n) { return Entity::Ptr(dirNew(n)); })
                                .done();
  return t;
}

Dir::Ptr globalDir() {
  static Dir::Ptr root = Dir::dirNew("");
  return root;
}

}  // namespace Qel

namespace {
// Registered at start-up, so that both types can be found and created by name.
[[maybe_unused]] Qel::QelType const* const kDirType = Qel::Dir::staticType();
[[maybe_unused]] Qel::QelType const* const kEntityType = Qel::Entity::staticType();
}  // namespace
