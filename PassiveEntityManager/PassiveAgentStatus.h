// Ledra::PassiveAgentStatus: what the system has done for one agent (its name): the agent string
// its connection reported, the resolved form of each templated path, the values of its template
// keys, and one mount reference per path mounted for it. Created by the root when the agent's
// connection succeeds, deleted when the connection goes away; filled by the agent's engine.
//
// The mount references are records keyed by the interned path (MountRecord: the entity and the
// completion), one small node each; the PassiveMountReference entity of a record is made only
// when someone asks for it (mountReference(path), mountReferenceIs, a walk of the collection, a
// lookup by path or through the reflection) and then holds the record's state, so that its
// notifiees see every later write. A walk gives back each entity it made that nobody kept. The
// engine writes through the records (mountRecordIs, mountEntityIs, mountCompleteIs), which costs no
// entity while nobody has asked for one. The collection notifies as any collection of children
// does: the path as key, on insert and delete.
#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveMountReference.h"
#include "Qel/Containers/InternedText.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES(X)                    \
  X(value, plain, Qel::String, agentString, AgentString)            \
  X(map, keyWhole, TemplateCacheMap, templateCache, TemplateCache)  \
  X(map, keyWhole, StringMap, templateValueDict, TemplateValueDict) \
  X(custom, keyWhole, Qel::Name, mountReference, MountReference)

class LEDRA_PEM_EXPORT PassiveAgentStatus : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentStatus>;
  using PtrConst = Qel::Ptr<PassiveAgentStatus const>;
  using StringMap = std::unordered_map<Qel::String, Qel::String>;
  // Raw path to substituted path, both interned: the raw paths are the profile's, the same for
  // every agent, and a substituted path is the one the mount tables hold.
  using TemplateCacheMap = std::unordered_map<Qel::InternedText, Qel::InternedText,
                                              Qel::InternedText::Hash, Qel::InternedText::Equal>;
  QEL_ATTR_IDS(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES);

  // One mount reference: the state of its entity once that is made, else its own.
  class MountRecord {
   public:
    Qel::Entity::PtrConst const& entity() const { return made_ ? made_->entity() : entity_; }
    bool complete() const { return made_ ? made_->complete() : complete_; }
    PassiveMountReference::Completion completion() const {
      return PassiveMountReference::completionOf(complete(), entity().ptr());
    }

   private:
    friend class PassiveAgentStatus;
    Qel::Entity::PtrConst entity_;  // null once made_ holds it
    bool complete_ = false;
    PassiveMountReference::Ptr made_;
  };
  using MountRecordMap = std::unordered_map<Qel::InternedText, MountRecord, Qel::InternedText::Hash,
                                            Qel::InternedText::Equal>;

  // The references as (path, entity) pairs, each entity made as it is reached. Stepping on
  // folds the entity just passed back into its record when nobody else holds or watches it, so
  // that a walk (a status report) leaves no entities behind.
  class MountReferenceView {
   public:
    class Iterator {
     public:
      Iterator(PassiveAgentStatus const* owner, MountRecordMap::const_iterator it)
          : owner_(owner), it_(it) {}
      std::pair<std::string_view, PassiveMountReference::Ptr> operator*() const {
        return {it_->first.str(), owner_->made(*it_)};
      }
      Iterator& operator++() {
        owner_->unmadeIfIdle(*it_);
        ++it_;
        return *this;
      }
      bool operator==(Iterator const& o) const { return it_ == o.it_; }

     private:
      PassiveAgentStatus const* owner_;
      MountRecordMap::const_iterator it_;
    };
    explicit MountReferenceView(PassiveAgentStatus const* owner) : owner_(owner) {}
    Iterator begin() const { return {owner_, owner_->mountRecords_.begin()}; }
    Iterator end() const { return {owner_, owner_->mountRecords_.end()}; }
    std::size_t size() const { return owner_->mountRecords_.size(); }
    bool empty() const { return owner_->mountRecords_.empty(); }

   private:
    PassiveAgentStatus const* owner_;
  };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveAgentStatus>;
  using NotifieeConst = NotifieeT<PassiveAgentStatus const>;

  static Ptr agentStatusNew(Qel::Name const& name) { return Ptr(new PassiveAgentStatus(name)); }

  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)

  // The mount references as entities: all of them, the one for `path` (null when absent), their
  // number; deleting one notifies its path and cuts its entity, if made, off from this status.
  MountReferenceView mountReference() const { return MountReferenceView(this); }
  PassiveMountReference::Ptr mountReference(std::string_view path) const;
  std::size_t mountReferences() const { return mountRecords_.size(); }
  void mountReferenceDel(std::string_view path);
  void mountReferenceDelAll();
  // The existing reference for `path`, or a new one (inserted and notified).
  PassiveMountReference::Ptr mountReferenceIs(std::string_view path);

  // The record for `path`, or null; valid until the next change of the collection.
  template <class K>
  MountRecord const* mountRecord(K const& path) const {
    auto const it = mountRecords_.find(path);
    return it == mountRecords_.end() ? nullptr : &it->second;
  }
  // Makes the record for `path` (inserted and notified) unless it is there.
  void mountRecordIs(Qel::InternedText const& path);
  // Write the record for `path`, through its entity when that is made; nothing when absent.
  void mountEntityIs(Qel::InternedText const& path, Qel::Entity::PtrConst const& entity);
  void mountCompleteIs(Qel::InternedText const& path, bool complete);

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return mountReference(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentStatus(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveAgentStatus() override;

 private:
  static void qelReflectMountReference(Qel::TypeBuilder<PassiveAgentStatus>& b);
  // The record's entity, made now if it was not yet.
  PassiveMountReference::Ptr made(MountRecordMap::value_type const& record) const;
  // Takes the record's state back from its entity and lets the entity go, when the record alone
  // holds it and nothing watches it.
  void unmadeIfIdle(MountRecordMap::value_type const& record) const;
  void notifyMountReference(std::string_view path) const;

  QEL_ATTR_STORAGE(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
  // Mutable for the entities made on a read; the map's shape changes only through the writers.
  mutable MountRecordMap mountRecords_;
};

template <class N>
class PassiveAgentStatus::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
};

}  // namespace Ledra
