// Qel::NboAttrLog::EntityStateCache: the EntityState frames of the entities of Qel::globalDir(),
// rendered once and handed out again while the entity stands unchanged at its path.
//
// frame(path) answers the frame of the entity at `path` as a mount request sends it: its type
// name, its plain attributes read through the reflection as text (an attribute that cannot be
// read is left out), and a Dir's entry names; the sequence number is 0, to be set per request with
// wireSeqnoIs. Empty when no entity stands at the path.
//
// Exactness. A frame is kept only for an entity whose every plain attribute is a value (an
// attribute naming another entity reads as that entity's path, which changes without telling the
// entity). A kept frame is watched through a weak notifiee on its entity: any change the entity
// notifies (an attribute stored, a directory entry added or removed) drops it, and so does the
// entity's death. A frame found again is handed out only when the entity it was made from still
// stands at the path it is asked for: each of its ancestors up to Qel::globalDir() still holds it
// under the path's component names. So an entity removed, or moved, or replaced by another at the
// same path, is rendered afresh.
//
// Bounds. The cache never holds an entity alive. It keeps at most maxEntries() frames of at most
// maxBytes() bytes together, dropping the least recently used first; a frame longer than
// kMaxKeptFrame is rendered for its caller and not kept.
//
// entityStateCache() is the process-wide cache the socket transports share: a path mounted by
// many agents is rendered once. Single-threaded, like the entity tree it reads.
#pragma once

#include "Qel/Core/Api.h"

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Qel/Core/Types.h"
#include "Qel/Entity/Entity.h"

namespace Qel::NboAttrLog {

class QEL_API EntityStateCache {
 public:
  static constexpr std::size_t kDefaultMaxEntries = 2048;
  static constexpr std::size_t kDefaultMaxBytes = std::size_t(1) << 20;
  static constexpr std::size_t kMaxKeptFrame = 64 * 1024;

  explicit EntityStateCache(std::size_t maxEntries = kDefaultMaxEntries,
                            std::size_t maxBytes = kDefaultMaxBytes);
  ~EntityStateCache();
  EntityStateCache(EntityStateCache const&) = delete;
  EntityStateCache& operator=(EntityStateCache const&) = delete;

  // The frame of the entity at `path` (sequence number 0), or empty when there is none. The view
  // holds until the next call of frame() or until an entity changes.
  std::string_view frame(String const& path);

  std::size_t maxEntries() const { return maxEntries_; }
  std::size_t maxBytes() const { return maxBytes_; }
  // Frames kept, and their bytes together.
  std::size_t entries() const { return index_.size(); }
  std::size_t bytes() const { return bytes_; }
  // Frames handed out from the cache, and frames rendered.
  U64 hits() const { return hits_; }
  U64 renders() const { return renders_; }

 private:
  struct Entry;
  using Entries = std::list<Entry>;

  // Renders the state of `e` at `path` into `out`; false when the frame may not be kept.
  static bool render(Entity const& e, String const& path, std::string& out);
  void keep(Entity const& e, String const& path, std::string&& frame);
  void drop(Entries::iterator it);

  std::size_t const maxEntries_;
  std::size_t const maxBytes_;
  // Most recently used first.
  Entries entries_;
  // Keys view the path of their entry.
  std::unordered_map<std::string_view, Entries::iterator> index_;
  std::size_t bytes_ = 0;
  std::string scratch_;
  U64 hits_ = 0;
  U64 renders_ = 0;
};

QEL_API EntityStateCache& entityStateCache();

}  // namespace Qel::NboAttrLog
