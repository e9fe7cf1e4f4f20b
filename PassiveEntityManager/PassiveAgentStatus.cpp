#include "PassiveEntityManager/PassiveAgentStatus.h"

#include "Qel/KeyedStore.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

void PassiveAgentStatus::agentStringIs(Qel::String const& v) {
  if (v == agentString_) return;
  agentString_ = v;
  notify(kAgentString);
}

void PassiveAgentStatus::stringMapIs(StringMap& map, Qel::AttributeId aid, Qel::String const& key,
                                     Qel::String const& value) {
  if (!Qel::storeIfChanged(map, key, value)) return;
  notifyKey(aid, key);
}

void PassiveAgentStatus::stringMapDel(StringMap& map, Qel::AttributeId aid,
                                      Qel::String const& key) {
  if (map.erase(key) == 0) return;
  notifyKey(aid, key);
}

Qel::String const* PassiveAgentStatus::templateCache(Qel::String const& path) const {
  return Qel::findOrNull(templateCache_, path);
}
void PassiveAgentStatus::templateCacheIs(Qel::String const& path, Qel::String const& realPath) {
  stringMapIs(templateCache_, kTemplateCache, path, realPath);
}
void PassiveAgentStatus::templateCacheDel(Qel::String const& path) {
  stringMapDel(templateCache_, kTemplateCache, path);
}
void PassiveAgentStatus::templateCacheDelAll() {
  while (!templateCache_.empty())
    templateCacheDel(Qel::String(templateCache_.begin()->first));
}

Qel::String const* PassiveAgentStatus::templateValueDict(Qel::String const& key) const {
  return Qel::findOrNull(templateValueDict_, key);
}
void PassiveAgentStatus::templateValueDictIs(Qel::String const& key, Qel::String const& value) {
  stringMapIs(templateValueDict_, kTemplateValueDict, key, value);
}
void PassiveAgentStatus::templateValueDictDel(Qel::String const& key) {
  stringMapDel(templateValueDict_, kTemplateValueDict, key);
}
void PassiveAgentStatus::templateValueDictDelAll() {
  while (!templateValueDict_.empty()) {
    templateValueDictDel(Qel::String(templateValueDict_.begin()->first));
  }
}

PassiveMountReference::Ptr PassiveAgentStatus::mountReferenceIs(Qel::Name const& path) {
  if (PassiveMountReference::Ptr existing = mountReference(path)) return existing;
  PassiveMountReference::Ptr ref = PassiveMountReference::mountReferenceNew(path);
  mountReference_.insert(ref);
  notifyKey(kMountReference, path);
  return ref;
}

void PassiveAgentStatus::mountReferenceDel(Qel::Name const& path) {
  if (!mountReference_.erase(path)) return;
  notifyKey(kMountReference, path);
}

void PassiveAgentStatus::mountReferenceDelAll() {
  while (!mountReference_.empty())
    mountReferenceDel(Qel::Name(mountReference_.anyName()));
}

Qel::QelType const* PassiveAgentStatus::staticType() {
  using S = PassiveAgentStatus;
  using GPtr = Qel::GenericIf::PtrConst;
  auto stringMap = [](StringMap const& (S::*all)() const,
                      Qel::String const* (S::*one)(Qel::String const&) const) {
    return std::make_pair(
        [one](S const& s, Qel::String const& k) -> std::optional<Qel::String> {
          Qel::String const* v = (s.*one)(k);
          return v ? std::optional<Qel::String>(*v) : std::nullopt;
        },
        [all](S const& s) { return (s.*all)().size(); });
  };
  auto cache = stringMap(&S::templateCache, &S::templateCache);
  auto dict = stringMap(&S::templateValueDict, &S::templateValueDict);
  static Qel::QelType const* t =
      Qel::TypeBuilder<S>("Ledra::PassiveAgentStatus")
          .value<Qel::String>(
              "agentString", [](S const& s) { return s.agentString(); },
              [](S& s, Qel::String const& v) { s.agentStringIs(v); })
          .collection<Qel::String, Qel::String>("templateCache", cache.first, cache.second,
                                                [](S& s, Qel::String const& k, GPtr const& v) {
                                                  if (!v) return s.templateCacheDel(k);
                                                  s.templateCacheIs(k, v->valueAs<Qel::String>());
                                                })
          .collection<Qel::String, Qel::String>("templateValueDict", dict.first, dict.second,
                                                [](S& s, Qel::String const& k, GPtr const& v) {
                                                  if (!v) return s.templateValueDictDel(k);
                                                  s.templateValueDictIs(k,
                                                                        v->valueAs<Qel::String>());
                                                })
          .collection<Qel::Name, PassiveMountReference::Ptr>(
              "mountReference", [](S const& s, Qel::Name const& n) { return s.mountReference(n); },
              [](S const& s) { return s.mountReferences(); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentStatusNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentStatus::staticType();
}

}  // namespace Ledra
