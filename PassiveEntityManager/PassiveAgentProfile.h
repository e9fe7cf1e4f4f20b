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
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES(X)                                        \
  X(value, plain, Qel::String, rootFlags, RootFlags)                                     \
  X(map, keyImmediateWhole, TemplateKeyCol, templateKey, TemplateKey)                    \
  X(map, keyImmediateWhole, AliasKeyCol, aliasKey, AliasKey)                             \
  X(children, keyImmediateWhole, PassiveMountGroup, mountGroup, MountGroup, mountGroups) \
  X(value, plain, bool, noDefaultMountGroup, NoDefaultMountGroup)                        \
  X(value, plain, bool, hybridMount, HybridMount)                                        \
  X(value, plain, bool, lowMountPrio, LowMountPrio)

class LEDRA_PEM_EXPORT PassiveAgentProfile : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentProfile>;
  using PtrConst = Qel::Ptr<PassiveAgentProfile const>;
  using TemplateKeyCol = std::map<Qel::U32, Qel::String>;
  using AliasKeyCol = std::unordered_map<Qel::String, Qel::String>;
  using MountGroupCol = Qel::EntityMap<PassiveMountGroup>::Map;
  QEL_ATTR_IDS(LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveAgentProfile>;
  using NotifieeConst = NotifieeT<PassiveAgentProfile const>;

  static Ptr agentProfileNew(Qel::Name const& name) { return Ptr(new PassiveAgentProfile(name)); }

  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES)
  PassiveMountGroup::Ptr mountGroupIs(Qel::Name const& name, Qel::U32 priority);

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return mountGroup(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentProfile(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveAgentProfile() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES)
};

template <class N>
class PassiveAgentProfile::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_AGENT_PROFILE_ATTRIBUTES)
};

}  // namespace Ledra
