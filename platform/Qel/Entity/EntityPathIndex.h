// Qel::EntityPathIndex: where entities were last found by their full path in Qel::globalDir(), so
// that Entity::entity from the root need not search every directory on the way again.
//
// A fixed table of slots, each chosen by the path's hash and holding a path (of at most kMaxPath
// bytes; longer ones are not remembered) with the entity last found there; nothing is allocated.
// Only an entity whose every ancestor up to the root is a Qel::Dir is remembered (standsAt). A
// slot is trusted while Entity::treeVersion() has not moved since it was filled: no entity has
// died since (the entity is alive) and none has entered or left a Dir (so the entity, its
// ancestors and the entries of those Dirs are as they were, and a search component by component
// would find the same entity). Anything else is left to that search.
//
// entityPathIndex() is the process-wide index Entity::entity uses. Single-threaded, like the tree.
#pragma once

#include "Qel/Core/Api.h"

#include <array>
#include <cstddef>
#include <string_view>

#include "Qel/Core/Types.h"

namespace Qel {

class Entity;

class QEL_API EntityPathIndex {
 public:
  static constexpr std::size_t kSlots = 4096;
  static constexpr std::size_t kMaxPath = 72;

  // The entity remembered at `path`, while it is sure to stand there; else null.
  Entity* find(std::string_view path) const;
  // Remembers `e` as found at `path`, when it stands there (standsAt).
  void foundIs(std::string_view path, Entity* e);
  // The same for `e` found from the root by `path` through Dirs alone, which is where it stands
  // by construction: nothing is checked but the path's length.
  void foundThroughDirsIs(std::string_view path, Entity* e);

  // Whether `e` stands at `path` below Qel::globalDir() with a Dir for every ancestor. Empty
  // components of the path are skipped, as a search skips them.
  static bool standsAt(Entity const& e, std::string_view path);

 private:
  struct Slot {
    Entity* entity = nullptr;
    U64 treeVersion = 0;
    std::size_t length = 0;
    char path[kMaxPath];
  };
  static std::size_t slotOf(std::string_view path);

  std::array<Slot, kSlots> slots_{};
};

QEL_API EntityPathIndex& entityPathIndex();

}  // namespace Qel
