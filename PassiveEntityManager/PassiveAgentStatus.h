// Ledra::PassiveAgentStatus: what the system has done for one agent (its name): the agent string
// its connection reported, the resolved form of each templated path, the values of its template
// keys, and one mount reference per path mounted for it. Created by the root when the agent's
// connection succeeds, deleted when the connection goes away; filled by the agent's engine.
#pragma once

#include <string_view>
#include <unordered_map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveMountReference.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES(X)                    \
  X(value, plain, Qel::String, agentString, AgentString)            \
  X(map, keyWhole, TemplateCacheMap, templateCache, TemplateCache)  \
  X(map, keyWhole, StringMap, templateValueDict, TemplateValueDict) \
  X(children, keyWhole, PassiveMountReference, mountReference, MountReference, mountReferences)

class LEDRA_PEM_EXPORT PassiveAgentStatus : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentStatus>;
  using PtrConst = Qel::Ptr<PassiveAgentStatus const>;
  using StringMap = std::unordered_map<Qel::String, Qel::String>;
  // Raw path to substituted path, both interned: the raw paths are the profile's, the same for
  // every agent, and a substituted path is the one the mount tables hold.
  using TemplateCacheMap = std::unordered_map<Qel::InternedText, Qel::InternedText,
                                              Qel::InternedText::Hash, Qel::InternedText::Equal>;
  using MountReferenceCol = Qel::EntityMap<PassiveMountReference>::Map;
  QEL_ATTR_IDS(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveAgentStatus>;
  using NotifieeConst = NotifieeT<PassiveAgentStatus const>;

  static Ptr agentStatusNew(Qel::Name const& name) { return Ptr(new PassiveAgentStatus(name)); }

  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
  // The existing reference for `path`, or a new one (inserted and notified).
  PassiveMountReference::Ptr mountReferenceIs(std::string_view path);

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return mountReference(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentStatus(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveAgentStatus() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
};

template <class N>
class PassiveAgentStatus::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_AGENT_STATUS_ATTRIBUTES)
};

}  // namespace Ledra
