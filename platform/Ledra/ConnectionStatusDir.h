// Ledra::ConnectionStatusDir: the status records of the process's agent connections, one
// PassiveConnectionStatus per connection, keyed by connection name; the process's one instance is
// ConnMgrHelper::connectionStatusDir().
//
// passiveConnectionStatusIs(record) adds a record (adding the same record again does nothing;
// another record under a name in use throws NameInUseException); passiveConnectionStatusIs(name)
// returns the record of that name, creating and adding an empty one when there is none.
// passiveConnectionStatusDel(name) removes it. onPassiveConnectionStatus(name) is notified when a
// record appears and when it leaves; a watcher tells the two apart by looking the name up. The
// collection's behaviour is that of Qel::NamedEntityDir. Single-threaded.
#pragma once

#include "Ledra/PassiveConnectionStatus.h"
#include "Qel/Core/Api.h"
#include "Qel/Entity/NamedEntityDir.h"

namespace Ledra {

class QEL_API ConnectionStatusDir
    : public Qel::NamedEntityDir<ConnectionStatusDir, PassiveConnectionStatus,
                                 &PassiveConnectionStatus::passiveConnectionStatusNew> {
 public:
  using PassiveConnectionStatusCol = EntryMap;
  static constexpr Qel::AttributeId kPassiveConnectionStatus = kEntry;
  static constexpr Qel::NamedEntityDirNames kNames{"Ledra::ConnectionStatusDir",
                                                   "passiveConnectionStatus", "connection status"};

  template <class N>
  class NotifieeT : public EntryNotifieeT<N> {
   public:
    using EntryNotifieeT<N>::EntryNotifieeT;
    virtual void onPassiveConnectionStatus(Qel::Name const& /*name*/) {}
    virtual void onPassiveConnectionStatusqelImmediate() {}
    virtual void onPassiveConnectionStatus() {}

   private:
    void onEntry(Qel::Name const& name) final { onPassiveConnectionStatus(name); }
    void onEntryqelImmediate() final { onPassiveConnectionStatusqelImmediate(); }
    void onEntry() final { onPassiveConnectionStatus(); }
  };
  using Notifiee = NotifieeT<ConnectionStatusDir>;
  using NotifieeConst = NotifieeT<ConnectionStatusDir const>;

  static Ptr connectionStatusDirNew(Qel::Name const& name) { return dirNew(name); }

  PassiveConnectionStatusCol const& passiveConnectionStatus() const { return entryMap(); }
  PassiveConnectionStatus::Ptr passiveConnectionStatus(Qel::Name const& name) const {
    return entry(name);
  }
  std::size_t passiveConnectionStatuses() const { return entries(); }
  void passiveConnectionStatusIs(PassiveConnectionStatus::Ptr const& record);
  PassiveConnectionStatus::Ptr passiveConnectionStatusIs(Qel::Name const& name) {
    return entryIs(name);
  }
  void passiveConnectionStatusDel(Qel::Name const& name) { entryDel(name); }
  void passiveConnectionStatusDelAll() { entryDelAll(); }

  static Qel::QelType const* staticType();

 protected:
  friend NamedEntityDir;
  using NamedEntityDir::NamedEntityDir;
  ~ConnectionStatusDir() override = default;
};

}  // namespace Ledra
