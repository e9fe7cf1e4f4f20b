#include "Qel/Entity/Dir.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

Dir::~Dir() {
  for (auto& [name, e] : entries_)
    e->qelParentIs(nullptr);
}

Entity::Ptr Dir::entry(Name const& name) const {
  auto it = entries_.find(name);
  return it == entries_.end() ? nullptr : it->second;
}

void Dir::entryIs(Entity::Ptr const& e) {
  QEL_CHECK(e, "e && \"null entry\"");
  auto it = entries_.find(e->name());
  if (it != entries_.end()) {
    if (it->second == e) return;
    throw NameInUseException("Reinstantiating the entity with name " + e->name() + " in " +
                             fullName() + " not allowed");
  }
  if (e->parent()) {
    throw NameInUseException("entity " + e->fullName() + " already has a parent");
  }
  entries_.emplace(e->name(), e);
  e->qelParentIs(this);
  notifyKey(kEntry, e->name());
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

void Dir::entryDel(Name const& name) {
  auto it = entries_.find(name);
  if (it == entries_.end()) return;
  Entity::Ptr e = std::move(it->second);
  entries_.erase(it);
  e->qelParentIs(nullptr);
  notifyKey(kEntry, name);
}

void Dir::entryDelAll() {
  while (!entries_.empty())
    entryDel(Name(entries_.begin()->first));
}

QelType const* Dir::staticType() {
  static QelType const* t = TypeBuilder<Dir>("Qel::Dir")
                                .collection<Name, Entity::Ptr>(
                                    "entry", [](Dir const& d, Name const& n) { return d.entry(n); },
                                    [](Dir const& d) { return d.entries(); })
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
