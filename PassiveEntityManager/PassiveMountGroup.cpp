#include "PassiveEntityManager/PassiveMountGroup.h"

#include "Qel/Exception.h"
#include "Qel/KeyedStore.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

PassiveMountGroup::Ptr PassiveMountGroup::mountGroupNew(Qel::Name const& name, Qel::U32 priority) {
  if (priority < 1 || priority > 99) {
    throw Qel::RangeException("PassiveMountGroup::priority < 1 or > 99 not allowed");
  }
  return Ptr(new PassiveMountGroup(name, priority));
}

PassiveMountGroup::PassiveMountGroup(Qel::Name name, Qel::U32 priority)
    : Entity(std::move(name)), priority_(priority) {}

void PassiveMountGroup::entireConditionIs(Qel::String const& v) {
  if (v == entireCondition_) return;
  entireCondition_ = v;
  notify(kEntireCondition);
}

Qel::U32 PassiveMountGroup::conditionColEnq(Qel::String const& v) {
  Qel::U32 const index = conditionCol_.enqueue(v);
  notifyKey(kConditionCol, index);
  return index;
}

void PassiveMountGroup::conditionColDeq() {
  Qel::String const* head = conditionCol_.front();
  if (!head) return;
  Qel::U32 const index = conditionCol_.metadata().head;
  conditionCol_.dequeue();
  notifyKey(kConditionCol, index);
}

void PassiveMountGroup::conditionColIs(Qel::U32 index, Qel::String const& v) {
  if (!conditionCol_.at(index)) throw Qel::RangeException(Qel::kNullValidPtr);
  if (!conditionCol_.set(index, v)) return;
  notifyKey(kConditionCol, index);
}

void PassiveMountGroup::conditionColDel(Qel::U32 index) {
  if (!conditionCol_.erase(index)) return;
  notifyKey(kConditionCol, index);
}

void PassiveMountGroup::conditionColDelAll() {
  while (!conditionCol_.empty())
    conditionColDeq();
}

void PassiveMountGroup::conditionColMetadataIs(ConditionColMetadata const& m) {
  if (m == conditionCol_.metadata()) return;
  conditionCol_.metadataIs(m);
  notify(kConditionColMetadata);
}

std::optional<bool> PassiveMountGroup::templateConditionCol(Qel::String const& cond) const {
  auto it = templateConditionCol_.find(cond);
  if (it == templateConditionCol_.end()) return std::nullopt;
  return it->second;
}

void PassiveMountGroup::templateConditionColIs(Qel::String const& cond, bool flag) {
  if (!Qel::storeIfChanged(templateConditionCol_, cond, flag)) return;
  notifyKey(kTemplateConditionCol, cond);
}

void PassiveMountGroup::templateConditionColDel(Qel::String const& cond) {
  if (templateConditionCol_.erase(cond) == 0) return;
  notifyKey(kTemplateConditionCol, cond);
}

void PassiveMountGroup::templateConditionColDelAll() {
  while (!templateConditionCol_.empty()) {
    templateConditionColDel(Qel::String(templateConditionCol_.begin()->first));
  }
}

void PassiveMountGroup::blockingConditionalIs(bool v) {
  if (v == blockingConditional_) return;
  blockingConditional_ = v;
  notify(kBlockingConditional);
}

Mount const* PassiveMountGroup::mountProfile(Qel::String const& path) const {
  return Qel::findOrNull(mountProfile_, path);
}

void PassiveMountGroup::mountProfileIs(Mount const& m) {
  Qel::String const path = m.path();
  if (!Qel::storeIfChanged(mountProfile_, path, m)) return;  // an existing entry is overwritten
  notifyKey(kMountProfile, path);
}

void PassiveMountGroup::mountProfileDel(Qel::String const& path) {
  if (mountProfile_.erase(path) == 0) return;
  notifyKey(kMountProfile, path);
}

PassiveMountGroup::MountProfileIteratorConst PassiveMountGroup::mountProfileDel(
    MountProfileIteratorConst it) {
  Qel::String const path = it->first;
  auto next = mountProfile_.erase(it);
  notifyKey(kMountProfile, path);
  return next;
}

void PassiveMountGroup::mountProfileDelAll() {
  while (!mountProfile_.empty())
    mountProfileDel(mountProfile_.begin());
}

Qel::QelType const* PassiveMountGroup::staticType() {
  using G = PassiveMountGroup;
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<G> b("Ledra::PassiveMountGroup");
    b.value<Qel::U32>("priority", [](G const& g) { return g.priority(); })
        .constructor()
        .value<Qel::String>(
            "entireCondition", [](G const& g) { return g.entireCondition(); },
            [](G& g, Qel::String const& v) { g.entireConditionIs(v); })
        .collection<Qel::U32, Qel::String>(
            "conditionCol",
            [](G const& g, Qel::U32 i) -> std::optional<Qel::String> {
              Qel::String const* s = g.conditionCol(i);
              return s ? std::optional<Qel::String>(*s) : std::nullopt;
            },
            [](G const& g) { return g.conditionCols(); },
            [](G& g, Qel::U32 i, Qel::GenericIf::PtrConst const& v) {
              if (!v) return g.conditionColDel(i);
              g.conditionColIs(i, v->valueAs<Qel::String>());
            })
        .collection<Qel::String, bool>(
            "templateConditionCol",
            [](G const& g, Qel::String const& k) { return g.templateConditionCol(k); },
            [](G const& g) { return g.templateConditionCol().size(); },
            [](G& g, Qel::String const& k, Qel::GenericIf::PtrConst const& v) {
              if (!v) return g.templateConditionColDel(k);
              g.templateConditionColIs(k, v->valueAs<bool>());
            })
        .value<bool>(
            "blockingConditional", [](G const& g) { return g.blockingConditional(); },
            [](G& g, bool v) { g.blockingConditionalIs(v); })
        .collection<Qel::String, Mount>(
            "mountProfile",
            [](G const& g, Qel::String const& k) -> std::optional<Mount> {
              Mount const* m = g.mountProfile(k);
              return m ? std::optional<Mount>(*m) : std::nullopt;
            },
            [](G const& g) { return g.mountProfiles(); },
            [](G& g, Qel::String const& k, Qel::GenericIf::PtrConst const& v) {
              if (!v) return g.mountProfileDel(k);
              Mount m = Qel::ValueTraits<Mount>::unbox(v);
              if (m.path() != k) throw Qel::RangeException("mount profile keyed by another path");
              g.mountProfileIs(m);
            });
    b.handler("addProfile", {"path", "qelType", "flags"},
              [](G& g, Qel::String const& path, Qel::String const& qelType,
                 Qel::String const& flags) { g.addProfile(path, qelType, flags); })
        // Read-only here: the queue's numbering may only be set while the queue is empty.
        .value<ConditionColMetadata>("conditionColMetadata",
                                     [](G const& g) { return g.conditionColMetadata(); });
    b.factory([](Qel::Name const&) -> Qel::Entity::Ptr {
      throw Qel::TypeException("a mount group is created by its profile, with its priority");
    });
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveMountGroup::staticType();
}

}  // namespace Ledra
