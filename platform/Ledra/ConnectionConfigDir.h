// Ledra::ConnectionConfigDir: the agent-connection configurations of the database process; the
// process's one instance is ConnMgrHelper::connectionConfigDir().
//
// passiveConnectionConfigIs(agentName) registers a passive connection configuration for an agent
// name (or a family name ending in "-"): idempotent, it returns the existing record when there is
// one and notifies only when it creates one. passiveConnectionConfig(name) looks one up;
// passiveConnectionConfigDel(name) removes it (notified). The collection's behaviour is that of
// Qel::NamedEntityDir. Single-threaded.
#pragma once

#include "Ledra/PassiveConnectionConfig.h"
#include "Qel/Core/Api.h"
#include "Qel/Entity/NamedEntityDir.h"

namespace Ledra {

class QEL_API ConnectionConfigDir
    : public Qel::NamedEntityDir<ConnectionConfigDir, PassiveConnectionConfig,
                                 &PassiveConnectionConfig::passiveConnectionConfigNew> {
 public:
  using PassiveConnectionConfigCol = EntryMap;
  static constexpr Qel::AttributeId kPassiveConnectionConfig = kEntry;
  static constexpr Qel::NamedEntityDirNames kNames{
      "Ledra::ConnectionConfigDir", "passiveConnectionConfig", "connection configuration"};

  template <class N>
  class NotifieeT : public EntryNotifieeT<N> {
   public:
    using EntryNotifieeT<N>::EntryNotifieeT;
    virtual void onPassiveConnectionConfig(Qel::Name const& /*name*/) {}
    virtual void onPassiveConnectionConfigqelImmediate() {}
    virtual void onPassiveConnectionConfig() {}

   private:
    void onEntry(Qel::Name const& name) final { onPassiveConnectionConfig(name); }
    void onEntryqelImmediate() final { onPassiveConnectionConfigqelImmediate(); }
    void onEntry() final { onPassiveConnectionConfig(); }
  };
  using Notifiee = NotifieeT<ConnectionConfigDir>;
  using NotifieeConst = NotifieeT<ConnectionConfigDir const>;

  static Ptr connectionConfigDirNew(Qel::Name const& name) { return dirNew(name); }

  PassiveConnectionConfigCol const& passiveConnectionConfig() const { return entryMap(); }
  PassiveConnectionConfig::Ptr passiveConnectionConfig(Qel::Name const& agentName) const {
    return entry(agentName);
  }
  std::size_t passiveConnectionConfigs() const { return entries(); }
  PassiveConnectionConfig::Ptr passiveConnectionConfigIs(Qel::Name const& agentName);
  void passiveConnectionConfigDel(Qel::Name const& agentName) { entryDel(agentName); }
  void passiveConnectionConfigDelAll() { entryDelAll(); }

  static Qel::QelType const* staticType();

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
  ~ConnectionConfigDir() override = default;
};

}  // namespace Ledra
