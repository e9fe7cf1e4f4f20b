#include "Qel/Entity/EntityPathIndex.h"

#include <cstring>
#include <functional>
#include <typeinfo>

#include "Qel/Entity/Dir.h"

namespace Qel {

std::size_t EntityPathIndex::slotOf(std::string_view path) {
  return std::hash<std::string_view>()(path) & (kSlots - 1);
}

Entity* EntityPathIndex::find(std::string_view path) const {
  Slot const& s = slots_[slotOf(path)];
  if (!s.entity || s.treeVersion != Entity::treeVersion()) return nullptr;
  if (std::string_view(s.path, s.length) != path) return nullptr;
  return s.entity;
}

void EntityPathIndex::foundIs(std::string_view path, Entity* e) {
  if (!e || path.size() > kMaxPath || !standsAt(*e, path)) return;
  foundThroughDirsIs(path, e);
}

void EntityPathIndex::foundThroughDirsIs(std::string_view path, Entity* e) {
  if (!e || path.size() > kMaxPath) return;
  Slot& s = slots_[slotOf(path)];
  s.entity = e;
  s.treeVersion = Entity::treeVersion();
  s.length = path.size();
  std::memcpy(s.path, path.data(), path.size());
}

bool EntityPathIndex::standsAt(Entity const& e, std::string_view path) {
  static Entity const* const root = globalDir().ptr();
  char const* const begin = path.data();
  char const* end = begin + path.size();
  Entity const* at = &e;
  for (;;) {
    while (end != begin && end[-1] == '/')
      --end;
    if (end == begin) return at == root;
    // The last component must be the name: compared from its end, in place (names are short).
    // A "/" inside the compared text would mean the name spans two components.
    Name const& name = at->name();
    std::size_t const length = name.size();
    if (length == 0 || length > static_cast<std::size_t>(end - begin)) return false;
    char const* const start = end - length;
    if (start != begin && start[-1] != '/') return false;
    for (std::size_t i = 0; i < length; ++i) {
      if (start[i] != name[i] || start[i] == '/') return false;
    }
    at = at->parent();
    if (!at || typeid(*at) != typeid(Dir)) return false;
    end = start;
  }
}

EntityPathIndex& entityPathIndex() {
  static EntityPathIndex index;
  return index;
}

}  // namespace Qel
