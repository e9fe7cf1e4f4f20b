// Ledra::PassiveAgentProfileDir: the directory of agent profiles, one per agent name (or per
// family: a name ending in "-"). It owns the profiles. agentProfileIs(name) returns the existing
// profile or creates, inserts and notifies onAgentProfile(name); agentProfileDel(name) removes
// and notifies. The collection's behaviour is that of Qel::NamedEntityDir. Single-threaded.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "Qel/Entity/NamedEntityDir.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentProfileDir
    : public Qel::NamedEntityDir<PassiveAgentProfileDir, PassiveAgentProfile,
                                 &PassiveAgentProfile::agentProfileNew> {
 public:
  using AgentProfileCol = EntryMap;
  static constexpr Qel::AttributeId kAgentProfile = kEntry;
  static constexpr Qel::NamedEntityDirNames kNames{"Ledra::PassiveAgentProfileDir", "agentProfile",
                                                   "agent profile"};

  template <class N>
  class NotifieeT : public EntryNotifieeT<N> {
   public:
    using EntryNotifieeT<N>::EntryNotifieeT;
    virtual void onAgentProfile(Qel::Name const& /*name*/) {}
    virtual void onAgentProfileqelImmediate() {}
    virtual void onAgentProfile() {}

   private:
    void onEntry(Qel::Name const& name) final { onAgentProfile(name); }
    void onEntryqelImmediate() final { onAgentProfileqelImmediate(); }
    void onEntry() final { onAgentProfile(); }
  };
  using Notifiee = NotifieeT<PassiveAgentProfileDir>;
  using NotifieeConst = NotifieeT<PassiveAgentProfileDir const>;

  static Ptr agentProfileDirNew(Qel::Name const& name) { return dirNew(name); }

  AgentProfileCol const& agentProfile() const { return entryMap(); }
  PassiveAgentProfile::Ptr agentProfile(Qel::Name const& name) const { return entry(name); }
  std::size_t agentProfiles() const { return entries(); }
  PassiveAgentProfile::Ptr agentProfileIs(Qel::Name const& name) { return entryIs(name); }
  void agentProfileDel(Qel::Name const& name) { entryDel(name); }
  void agentProfileDelAll() { entryDelAll(); }

  static Qel::QelType const* staticType();

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
  ~PassiveAgentProfileDir() override = default;
};

}  // namespace Ledra
