// Ledra::PassiveAgentStatus: what the system has done for one agent (its name): the agent string
// its connection reported, the resolved form of each templated path, the values of its template
// keys, and one mount reference per path mounted for it. Created by the root when the agent's
// connection succeeds, deleted when the connection goes away; filled by the agent's engine.
#pragma once

#include <unordered_map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveMountReference.h"
#include "Qel/EntityMap.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentStatus : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentStatus>;
  using PtrConst = Qel::Ptr<PassiveAgentStatus const>;
  using StringMap = std::unordered_map<Qel::String, Qel::String>;
  using MountReferenceCol = Qel::EntityMap<PassiveMountReference>::Map;
  enum : Qel::AttributeId { kAgentString = 1, kTemplateCache, kTemplateValueDict, kMountReference };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveAgentStatus>;
  using NotifieeConst = NotifieeT<PassiveAgentStatus const>;

  static Ptr agentStatusNew(Qel::Name const& name) { return Ptr(new PassiveAgentStatus(name)); }

  Qel::String agentString() const { return agentString_; }
  void agentStringIs(Qel::String const& v);

  StringMap const& templateCache() const { return templateCache_; }
  Qel::String const* templateCache(Qel::String const& path) const;
  void templateCacheIs(Qel::String const& path, Qel::String const& realPath);
  void templateCacheDel(Qel::String const& path);
  void templateCacheDelAll();

  StringMap const& templateValueDict() const { return templateValueDict_; }
  Qel::String const* templateValueDict(Qel::String const& key) const;
  void templateValueDictIs(Qel::String const& key, Qel::String const& value);
  void templateValueDictDel(Qel::String const& key);
  void templateValueDictDelAll();

  MountReferenceCol const& mountReference() const { return mountReference_.map(); }
  PassiveMountReference::Ptr mountReference(Qel::Name const& path) const {
    return mountReference_.find(path);
  }
  std::size_t mountReferences() const { return mountReference_.size(); }
  // The existing reference for `path`, or a new one (inserted and notified).
  PassiveMountReference::Ptr mountReferenceIs(Qel::Name const& path);
  void mountReferenceDel(Qel::Name const& path);
  void mountReferenceDelAll();

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return mountReference(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentStatus(Qel::Name name) : Entity(std::move(name)), mountReference_(this) {}
  ~PassiveAgentStatus() override = default;

 private:
  void stringMapIs(StringMap& map, Qel::AttributeId aid, Qel::String const& key,
                   Qel::String const& value);
  void stringMapDel(StringMap& map, Qel::AttributeId aid, Qel::String const& key);

  Qel::String agentString_;
  StringMap templateCache_;
  StringMap templateValueDict_;
  Qel::EntityMap<PassiveMountReference> mountReference_;
};

template <class N>
class PassiveAgentStatus::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  virtual void onAgentString() {}
  virtual void onTemplateCache(Qel::String const& path) {}
  virtual void onTemplateCache() {}
  virtual void onTemplateValueDict(Qel::String const& key) {}
  virtual void onTemplateValueDict() {}
  virtual void onMountReference(Qel::Name const& path) {}
  virtual void onMountReference() {}
  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
    switch (aid) {
      case kAgentString:
        return onAgentString();
      case kTemplateCache:
        onTemplateCache(*static_cast<Qel::String const*>(key.native));
        return onTemplateCache();
      case kTemplateValueDict:
        onTemplateValueDict(*static_cast<Qel::String const*>(key.native));
        return onTemplateValueDict();
      case kMountReference:
        onMountReference(*static_cast<Qel::Name const*>(key.native));
        return onMountReference();
      default:
        return;
    }
  }
};

}  // namespace Ledra
