// Ledra::PassiveAgentProfile: what one agent (or a family of agents, for a name ending in "-")
// receives: its mount groups, the template keys cut from its agent string (by position, ordered
// ascending) and alias keys, the flags of its root mount, and three switches.
//
// The profile owns its groups. mountGroupIs(name, priority) returns the existing group when its
// priority matches, refuses another priority with Qel::NameInUseException, and otherwise creates,
// inserts and notifies. Same notification rules as every entity. Single-threaded.
#pragma once

#include <map>
#include <unordered_map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveMountGroup.h"
#include "Qel/Entity.h"
#include "Qel/EntityMap.h"
#include "Qel/Notifiee.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentProfile : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentProfile>;
  using PtrConst = Qel::Ptr<PassiveAgentProfile const>;
  using TemplateKeyCol = std::map<Qel::U32, Qel::String>;
  using AliasKeyCol = std::unordered_map<Qel::String, Qel::String>;
  using MountGroupCol = Qel::EntityMap<PassiveMountGroup>::Map;

  enum : Qel::AttributeId {
    kRootFlags = 1,
    kTemplateKey,
    kAliasKey,
    kMountGroup,
    kNoDefaultMountGroup,
    kHybridMount,
    kLowMountPrio,
  };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveAgentProfile>;
  using NotifieeConst = NotifieeT<PassiveAgentProfile const>;

  static Ptr agentProfileNew(Qel::Name const& name) { return Ptr(new PassiveAgentProfile(name)); }

  Qel::String rootFlags() const { return rootFlags_; }
  void rootFlagsIs(Qel::String const& v);

  TemplateKeyCol const& templateKey() const { return templateKey_; }
  Qel::String const* templateKey(Qel::U32 position) const;
  void templateKeyIs(Qel::U32 position, Qel::String const& key);
  void templateKeyDel(Qel::U32 position);
  void templateKeyDelAll();

  AliasKeyCol const& aliasKey() const { return aliasKey_; }
  Qel::String const* aliasKey(Qel::String const& alias) const;
  void aliasKeyIs(Qel::String const& alias, Qel::String const& key);
  void aliasKeyDel(Qel::String const& alias);
  void aliasKeyDelAll();

  MountGroupCol const& mountGroup() const { return mountGroup_.map(); }
  PassiveMountGroup::Ptr mountGroup(Qel::Name const& name) const;
  std::size_t mountGroups() const { return mountGroup_.size(); }
  PassiveMountGroup::Ptr mountGroupIs(Qel::Name const& name, Qel::U32 priority);
  void mountGroupDel(Qel::Name const& name);
  void mountGroupDelAll();

  bool noDefaultMountGroup() const { return noDefaultMountGroup_; }
  void noDefaultMountGroupIs(bool v);
  bool hybridMount() const { return hybridMount_; }
  void hybridMountIs(bool v);
  bool lowMountPrio() const { return lowMountPrio_; }
  void lowMountPrioIs(bool v);

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return mountGroup(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentProfile(Qel::Name name) : Entity(std::move(name)), mountGroup_(this) {}
  ~PassiveAgentProfile() override = default;

 private:
  void flagIs(bool& flag, bool v, Qel::AttributeId aid);

  Qel::String rootFlags_;
  TemplateKeyCol templateKey_;
  AliasKeyCol aliasKey_;
  Qel::EntityMap<PassiveMountGroup> mountGroup_;
  bool noDefaultMountGroup_ = false;
  bool hybridMount_ = false;
  bool lowMountPrio_ = false;
};

template <class N>
class PassiveAgentProfile::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;

  virtual void onRootFlags() {}
  virtual void onTemplateKey(unsigned position) {}
  virtual void onTemplateKeyqelImmediate() {}
  virtual void onTemplateKey() {}
  virtual void onAliasKey(Qel::String const& alias) {}
  virtual void onAliasKeyqelImmediate() {}
  virtual void onAliasKey() {}
  virtual void onMountGroup(Qel::Name const& name) {}
  virtual void onMountGroupqelImmediate() {}
  virtual void onMountGroup() {}
  virtual void onNoDefaultMountGroup() {}
  virtual void onHybridMount() {}
  virtual void onLowMountPrio() {}

  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
    switch (aid) {
      case kRootFlags:
        return onRootFlags();
      case kTemplateKey:
        return this->dispatchInTurn(
            [&] { onTemplateKey(*static_cast<Qel::U32 const*>(key.native)); },
            [&] { onTemplateKeyqelImmediate(); }, [&] { onTemplateKey(); });
      case kAliasKey:
        return this->dispatchInTurn(
            [&] { onAliasKey(*static_cast<Qel::String const*>(key.native)); },
            [&] { onAliasKeyqelImmediate(); }, [&] { onAliasKey(); });
      case kMountGroup:
        return this->dispatchInTurn(
            [&] { onMountGroup(*static_cast<Qel::Name const*>(key.native)); },
            [&] { onMountGroupqelImmediate(); }, [&] { onMountGroup(); });
      case kNoDefaultMountGroup:
        return onNoDefaultMountGroup();
      case kHybridMount:
        return onHybridMount();
      case kLowMountPrio:
        return onLowMountPrio();
      default:
        return;
    }
  }
};

}  // namespace Ledra
