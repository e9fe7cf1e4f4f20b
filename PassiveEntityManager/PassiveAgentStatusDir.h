// Ledra::PassiveAgentStatusDir: the directory of agent status records, one per connected agent,
// written by the system. agentStatusIs(name) returns the existing record or creates, inserts and
// notifies onAgentStatus(name); agentStatusDel(name) removes and notifies. The collection's
// behaviour is that of Qel::NamedEntityDir. Single-threaded.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "Qel/Entity/NamedEntityDir.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentStatusDir
    : public Qel::NamedEntityDir<PassiveAgentStatusDir, PassiveAgentStatus,
                                 &PassiveAgentStatus::agentStatusNew> {
 public:
  using AgentStatusCol = EntryMap;
  static constexpr Qel::AttributeId kAgentStatus = kEntry;
  static constexpr Qel::NamedEntityDirNames kNames{"Ledra::PassiveAgentStatusDir", "agentStatus",
                                                   "agent status"};

  template <class N>
  class NotifieeT : public EntryNotifieeT<N> {
   public:
    using EntryNotifieeT<N>::EntryNotifieeT;
    virtual void onAgentStatus(Qel::Name const& /*name*/) {}
    virtual void onAgentStatusqelImmediate() {}
    virtual void onAgentStatus() {}

   private:
    void onEntry(Qel::Name const& name) final { onAgentStatus(name); }
    void onEntryqelImmediate() final { onAgentStatusqelImmediate(); }
    void onEntry() final { onAgentStatus(); }
  };
  using Notifiee = NotifieeT<PassiveAgentStatusDir>;
  using NotifieeConst = NotifieeT<PassiveAgentStatusDir const>;

  static Ptr agentStatusDirNew(Qel::Name const& name) { return dirNew(name); }

  AgentStatusCol const& agentStatus() const { return entryMap(); }
  PassiveAgentStatus::Ptr agentStatus(Qel::Name const& name) const { return entry(name); }
  std::size_t agentStatuses() const { return entries(); }
  PassiveAgentStatus::Ptr agentStatusIs(Qel::Name const& name) { return entryIs(name); }
  void agentStatusDel(Qel::Name const& name) { entryDel(name); }
  void agentStatusDelAll() { entryDelAll(); }

  static Qel::QelType const* staticType();

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
  ~PassiveAgentStatusDir() override = default;
};

}  // namespace Ledra
