#include "Qel/NboAttrLog/EntityStateCache.h"

#include <exception>

#include "Check/Check.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Entity/EntityPathIndex.h"
#include "Qel/NboAttrLog/WireMessage.h"
#include "Qel/Reflection/QelType.h"

namespace Qel::NboAttrLog {

// One kept frame and the notifiee that drops it when its entity changes or dies.
struct EntityStateCache::Entry {
  class Watcher final : public NotifieeBase {
   public:
    Watcher(EntityStateCache* cache, Entity const* e)
        : NotifieeBase(Reference::weak), cache_(cache) {
      notifierBaseIs(e);
    }
    ~Watcher() override = default;
    Entries::iterator self;

    // Any change of the entity may change its state.
    void qelDispatch(AttributeId, NotifyKey const&) override { cache_->drop(self); }

   protected:
    void onNotifierDeleted() override { cache_->drop(self); }

   private:
    EntityStateCache* const cache_;
  };

  Entry(EntityStateCache* cache, Entity const& e, String const& p, std::string&& f)
      : path(p), entity(&e), frame(std::move(f)), watcher(cache, &e) {}

  String const path;
  Entity const* const entity;
  // Entity::treeVersion() when the entity was last seen at the path.
  U64 treeVersion = Entity::treeVersion();
  std::string const frame;
  Watcher watcher;
};

EntityStateCache::EntityStateCache(std::size_t maxEntries, std::size_t maxBytes)
    : maxEntries_(maxEntries), maxBytes_(maxBytes) {
  QEL_CHECK(maxEntries_ > 0, "maxEntries_ > 0 && \"an entity state cache of at least one entry\"");
}

EntityStateCache::~EntityStateCache() {
  index_.clear();
  entries_.clear();
}

std::string_view EntityStateCache::frame(String const& path) {
  if (auto it = index_.find(path); it != index_.end()) {
    Entries::iterator const e = it->second;
    // Unless the tree changed since, the entity stands where it stood.
    if (e->treeVersion == Entity::treeVersion() || EntityPathIndex::standsAt(*e->entity, path)) {
      e->treeVersion = Entity::treeVersion();
      ++hits_;
      entries_.splice(entries_.begin(), entries_, e);
      return e->frame;
    }
    drop(e);
  }
  Entity::Ptr const e = globalDir()->entity(path);
  if (!e) return {};
  ++renders_;
  std::string out;
  bool const keepable = render(*e, path, out);
  if (!keepable || out.size() > kMaxKeptFrame || out.size() > maxBytes_ ||
      !EntityPathIndex::standsAt(*e, path)) {
    scratch_ = std::move(out);
    return scratch_;
  }
  keep(*e, path, std::move(out));
  return entries_.front().frame;
}

bool EntityStateCache::render(Entity const& e, String const& path, std::string& out) {
  WireEntityState s;
  s.path = path;
  QelType const* const type = e.fwkType();
  s.typeName = type->name();
  bool keepable = true;
  for (AttributeId aid = 1; aid < type->attributes(); ++aid) {
    QelAttr const* const a = type->attribute(aid);
    if (!a || a->isCollection() || !a->getter()) continue;
    try {
      GenericIf::PtrConst const v = e.attribute(aid);
      if (v && !v->asValue()) keepable = false;
      s.attributes.emplace_back(a->name(), v ? v->text() : String());
    } catch (std::exception const&) {
      // An attribute the reflection cannot read is left out of the state.
    }
  }
  if (auto const* dir = dynamic_cast<Dir const*>(&e)) {
    s.directory = true;
    s.entries.reserve(dir->entries());
    for (auto const& entry : dir->entryMap())
      s.entries.push_back(entry.first);
  }
  out = wireFrame(s);
  return keepable;
}

void EntityStateCache::keep(Entity const& e, String const& path, std::string&& frame) {
  std::size_t const size = frame.size();
  while (!entries_.empty() && (index_.size() >= maxEntries_ || bytes_ + size > maxBytes_))
    drop(std::prev(entries_.end()));
  entries_.emplace_front(this, e, path, std::move(frame));
  Entries::iterator const it = entries_.begin();
  it->watcher.self = it;
  index_.emplace(std::string_view(it->path), it);
  bytes_ += size;
}

void EntityStateCache::drop(Entries::iterator it) {
  index_.erase(std::string_view(it->path));
  bytes_ -= it->frame.size();
  entries_.erase(it);
}

EntityStateCache& entityStateCache() {
  static EntityStateCache cache;
  return cache;
}

}  // namespace Qel::NboAttrLog
