#include "PassiveEntityManager/PassiveAgentStatus.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

PassiveAgentStatus::~PassiveAgentStatus() {
  // An entity made for a record and still held elsewhere is seen as cut off from the tree.
  for (auto& [path, record] : mountRecords_) {
    if (record.made_) record.made_->qelParentIs(nullptr);
  }
}

PassiveMountReference::Ptr PassiveAgentStatus::made(
    MountRecordMap::value_type const& record) const {
  // Only the record's value changes here, never the map, so iterators over it stay valid.
  MountRecord& r = const_cast<MountRecord&>(record.second);
  if (r.made_) return r.made_;
  PassiveMountReference::Ptr const ref =
      PassiveMountReference::mountReferenceNew(Qel::Name(record.first.str()));
  ref->entityIs(r.entity_);
  r.entity_ = nullptr;
  ref->completeIs(r.complete_);
  ref->qelParentIs(const_cast<PassiveAgentStatus*>(this));
  r.made_ = ref;
  return ref;
}

void PassiveAgentStatus::unmadeIfIdle(MountRecordMap::value_type const& record) const {
  MountRecord& r = const_cast<MountRecord&>(record.second);
  if (!r.made_ || r.made_->refCount() > 1 || r.made_->notifiees() > 0) return;
  r.entity_ = r.made_->entity();
  r.complete_ = r.made_->complete();
  r.made_->qelParentIs(nullptr);
  r.made_ = nullptr;
}

void PassiveAgentStatus::notifyMountReference(std::string_view path) const {
  // The key is made only for someone to tell.
  if (!notifiees()) return;
  Qel::Name const key(path);
  notifyKey(kMountReference, key);
}

PassiveMountReference::Ptr PassiveAgentStatus::mountReference(std::string_view path) const {
  auto const it = mountRecords_.find(path);
  if (it == mountRecords_.end()) return nullptr;
  return made(*it);
}

void PassiveAgentStatus::mountReferenceDel(std::string_view path) {
  auto const it = mountRecords_.find(path);
  if (it == mountRecords_.end()) return;
  // Kept until the notification is out: `path` may be a view of the record's key.
  Qel::InternedText const key = it->first;
  PassiveMountReference::Ptr const gone = std::move(it->second.made_);
  mountRecords_.erase(it);
  if (gone) gone->qelParentIs(nullptr);
  notifyMountReference(key.str());
}

void PassiveAgentStatus::mountReferenceDelAll() {
  while (!mountRecords_.empty()) {
    Qel::InternedText const key = mountRecords_.begin()->first;
    mountReferenceDel(key.str());
  }
}

PassiveMountReference::Ptr PassiveAgentStatus::mountReferenceIs(std::string_view path) {
  auto it = mountRecords_.find(path);
  if (it == mountRecords_.end()) {
    Qel::InternedText const key(path);
    mountRecordIs(key);
    it = mountRecords_.find(key);
    // A notifiee may have deleted it again; then the reference is made apart from the status.
    if (it == mountRecords_.end()) return PassiveMountReference::mountReferenceNew(Qel::Name(path));
  }
  return made(*it);
}

void PassiveAgentStatus::mountRecordIs(Qel::InternedText const& path) {
  if (!mountRecords_.try_emplace(path).second) return;
  notifyMountReference(path.str());
}

void PassiveAgentStatus::mountEntityIs(Qel::InternedText const& path,
                                       Qel::Entity::PtrConst const& entity) {
  auto const it = mountRecords_.find(path);
  if (it == mountRecords_.end()) return;
  MountRecord& r = it->second;
  if (!r.made_) {
    r.entity_ = entity;
    return;
  }
  // Held: a notifiee of the entity may delete the record.
  PassiveMountReference::Ptr const ref = r.made_;
  ref->entityIs(entity);
}

void PassiveAgentStatus::mountCompleteIs(Qel::InternedText const& path, bool complete) {
  auto const it = mountRecords_.find(path);
  if (it == mountRecords_.end()) return;
  MountRecord& r = it->second;
  if (!r.made_) {
    r.complete_ = complete;
    return;
  }
  PassiveMountReference::Ptr const ref = r.made_;
  ref->completeIs(complete);
}

void PassiveAgentStatus::qelReflectMountReference(Qel::TypeBuilder<PassiveAgentStatus>& b) {
  b.collection<Qel::Name, PassiveMountReference::Ptr>(
      "mountReference",
      [](PassiveAgentStatus const& s, Qel::Name const& path) { return s.mountReference(path); },
      [](PassiveAgentStatus const& s) { return s.mountReferences(); });
}

Qel::QelType const* PassiveAgentStatus::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveAgentStatus>("Ledra::PassiveAgentStatus")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentStatusNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentStatus::staticType();
}

}  // namespace Ledra
