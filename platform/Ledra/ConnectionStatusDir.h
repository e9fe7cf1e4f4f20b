// Ledra::ConnectionStatusDir: the status records of the process's agent connections, one
// PassiveConnectionStatus per connection, keyed by connection name; the process's one instance is
// ConnMgrHelper::connectionStatusDir().
//
// passiveConnectionStatusIs(record) adds a record (adding the same record again does nothing;
// another record under a name in use throws NameInUseException); passiveConnectionStatusIs(name)
// returns the record of that name, creating and adding an empty one when there is none.
// passiveConnectionStatusDel(name) removes it. onPassiveConnectionStatus(name) is notified when a
// record appears and when it leaves; a watcher tells the two apart by looking the name up.
// Single-threaded.
#pragma once

#include "Ledra/PassiveConnectionStatus.h"
#include "Qel/Api.h"
#include "Qel/EntityMap.h"

namespace Ledra {

class QEL_API ConnectionStatusDir : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<ConnectionStatusDir>;
  using PtrConst = Qel::Ptr<ConnectionStatusDir const>;
  using PassiveConnectionStatusCol = Qel::EntityMap<PassiveConnectionStatus>::Map;
  static constexpr Qel::AttributeId kPassiveConnectionStatus = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onPassiveConnectionStatus(Qel::Name const& name) {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
      if (aid == kPassiveConnectionStatus) {
        onPassiveConnectionStatus(*static_cast<Qel::Name const*>(key.native));
      }
    }
  };
  using Notifiee = NotifieeT<ConnectionStatusDir>;
  using NotifieeConst = NotifieeT<ConnectionStatusDir const>;

  static Ptr connectionStatusDirNew(Qel::Name const& name) {
    return Ptr(new ConnectionStatusDir(name));
  }

  PassiveConnectionStatusCol const& passiveConnectionStatus() const {
    return passiveConnectionStatus_.map();
  }
  PassiveConnectionStatus::Ptr passiveConnectionStatus(Qel::Name const& name) const {
    return passiveConnectionStatus_.find(name);
  }
  std::size_t passiveConnectionStatuses() const { return passiveConnectionStatus_.size(); }
  void passiveConnectionStatusIs(PassiveConnectionStatus::Ptr const& record);
  PassiveConnectionStatus::Ptr passiveConnectionStatusIs(Qel::Name const& name);
  void passiveConnectionStatusDel(Qel::Name const& name);
  void passiveConnectionStatusDelAll();

  Qel::Entity::Ptr child(Qel::Name const& name) const override {
    return passiveConnectionStatus(name);
  }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit ConnectionStatusDir(Qel::Name name)
      : Entity(std::move(name)), passiveConnectionStatus_(this) {}
  ~ConnectionStatusDir() override = default;

 private:
  Qel::EntityMap<PassiveConnectionStatus> passiveConnectionStatus_;
};

}  // namespace Ledra
