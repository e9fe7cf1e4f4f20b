#include "PassiveEntityManager/PassiveAgentProfile.h"

#include "Qel/Exception.h"
#include "Qel/KeyedStore.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

void PassiveAgentProfile::rootFlagsIs(Qel::String const& v) {
  if (v == rootFlags_) return;
  rootFlags_ = v;
  notify(kRootFlags);
}

Qel::String const* PassiveAgentProfile::templateKey(Qel::U32 position) const {
  return Qel::findOrNull(templateKey_, position);
}

void PassiveAgentProfile::templateKeyIs(Qel::U32 position, Qel::String const& key) {
  if (!Qel::storeIfChanged(templateKey_, position, key)) return;
  notifyKey(kTemplateKey, position);
}

void PassiveAgentProfile::templateKeyDel(Qel::U32 position) {
  if (templateKey_.erase(position) == 0) return;
  notifyKey(kTemplateKey, position);
}

void PassiveAgentProfile::templateKeyDelAll() {
  while (!templateKey_.empty())
    templateKeyDel(templateKey_.begin()->first);
}

Qel::String const* PassiveAgentProfile::aliasKey(Qel::String const& alias) const {
  return Qel::findOrNull(aliasKey_, alias);
}

void PassiveAgentProfile::aliasKeyIs(Qel::String const& alias, Qel::String const& key) {
  if (!Qel::storeIfChanged(aliasKey_, alias, key)) return;
  notifyKey(kAliasKey, alias);
}

void PassiveAgentProfile::aliasKeyDel(Qel::String const& alias) {
  if (aliasKey_.erase(alias) == 0) return;
  notifyKey(kAliasKey, alias);
}

void PassiveAgentProfile::aliasKeyDelAll() {
  while (!aliasKey_.empty())
    aliasKeyDel(Qel::String(aliasKey_.begin()->first));
}

PassiveMountGroup::Ptr PassiveAgentProfile::mountGroup(Qel::Name const& name) const {
  return mountGroup_.find(name);
}

PassiveMountGroup::Ptr PassiveAgentProfile::mountGroupIs(Qel::Name const& name, Qel::U32 priority) {
  if (PassiveMountGroup::Ptr existing = mountGroup(name)) {
    if (existing->priority() == priority) return existing;
    throw Qel::NameInUseException(
        "Reinstantiating the entity with name " + name +
        " where constructor parameter attribute _priority has a different value of " +
        std::to_string(priority) + " than the current value of " +
        std::to_string(existing->priority()) + " not allowed");
  }
  PassiveMountGroup::Ptr group = PassiveMountGroup::mountGroupNew(name, priority);
  mountGroup_.insert(group);
  notifyKey(kMountGroup, name);
  return group;
}

void PassiveAgentProfile::mountGroupDel(Qel::Name const& name) {
  if (!mountGroup_.erase(name)) return;
  notifyKey(kMountGroup, name);
}

void PassiveAgentProfile::mountGroupDelAll() {
  while (!mountGroup_.empty())
    mountGroupDel(Qel::Name(mountGroup_.anyName()));
}

void PassiveAgentProfile::flagIs(bool& flag, bool v, Qel::AttributeId aid) {
  if (flag == v) return;
  flag = v;
  notify(aid);
}

void PassiveAgentProfile::noDefaultMountGroupIs(bool v) {
  flagIs(noDefaultMountGroup_, v, kNoDefaultMountGroup);
}
void PassiveAgentProfile::hybridMountIs(bool v) {
  flagIs(hybridMount_, v, kHybridMount);
}
void PassiveAgentProfile::lowMountPrioIs(bool v) {
  flagIs(lowMountPrio_, v, kLowMountPrio);
}

Qel::QelType const* PassiveAgentProfile::staticType() {
  using P = PassiveAgentProfile;
  using GPtr = Qel::GenericIf::PtrConst;
  static Qel::QelType const* t =
      Qel::TypeBuilder<P>("Ledra::PassiveAgentProfile")
          .value<Qel::String>(
              "rootFlags", [](P const& p) { return p.rootFlags(); },
              [](P& p, Qel::String const& v) { p.rootFlagsIs(v); })
          .collection<Qel::U32, Qel::String>(
              "templateKey",
              [](P const& p, Qel::U32 k) -> std::optional<Qel::String> {
                Qel::String const* s = p.templateKey(k);
                return s ? std::optional<Qel::String>(*s) : std::nullopt;
              },
              [](P const& p) { return p.templateKey().size(); },
              [](P& p, Qel::U32 k, GPtr const& v) {
                if (!v) return p.templateKeyDel(k);
                p.templateKeyIs(k, v->valueAs<Qel::String>());
              })
          .collection<Qel::String, Qel::String>(
              "aliasKey",
              [](P const& p, Qel::String const& k) -> std::optional<Qel::String> {
                Qel::String const* s = p.aliasKey(k);
                return s ? std::optional<Qel::String>(*s) : std::nullopt;
              },
              [](P const& p) { return p.aliasKey().size(); },
              [](P& p, Qel::String const& k, GPtr const& v) {
                if (!v) return p.aliasKeyDel(k);
                p.aliasKeyIs(k, v->valueAs<Qel::String>());
              })
          .collection<Qel::Name, PassiveMountGroup::Ptr>(
              "mountGroup", [](P const& p, Qel::Name const& k) { return p.mountGroup(k); },
              [](P const& p) { return p.mountGroups(); })
          .value<bool>(
              "noDefaultMountGroup", [](P const& p) { return p.noDefaultMountGroup(); },
              [](P& p, bool v) { p.noDefaultMountGroupIs(v); })
          .value<bool>(
              "hybridMount", [](P const& p) { return p.hybridMount(); },
              [](P& p, bool v) { p.hybridMountIs(v); })
          .value<bool>(
              "lowMountPrio", [](P const& p) { return p.lowMountPrio(); },
              [](P& p, bool v) { p.lowMountPrioIs(v); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(agentProfileNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentProfile::staticType();
}

}  // namespace Ledra
