// Ledra::ConnectionConfigDir: the agent-connection configurations of the database process; the
// process's one instance is ConnMgrHelper::connectionConfigDir().
//
// passiveConnectionConfigIs(agentName) registers a passive connection configuration for an agent
// name (or a family name ending in "-"): idempotent, it returns the existing record when there is
// one and notifies only when it creates one. passiveConnectionConfig(name) looks one up;
// passiveConnectionConfigDel(name) removes it (notified). Single-threaded.
#pragma once

#include "Ledra/PassiveConnectionConfig.h"
#include "Qel/Api.h"
#include "Qel/EntityMap.h"

namespace Ledra {

class QEL_API ConnectionConfigDir : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<ConnectionConfigDir>;
  using PtrConst = Qel::Ptr<ConnectionConfigDir const>;
  using PassiveConnectionConfigCol = Qel::EntityMap<PassiveConnectionConfig>::Map;
  static constexpr Qel::AttributeId kPassiveConnectionConfig = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onPassiveConnectionConfig(Qel::Name const& name) {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
      if (aid == kPassiveConnectionConfig) {
        onPassiveConnectionConfig(*static_cast<Qel::Name const*>(key.native));
      }
    }
  };
  using Notifiee = NotifieeT<ConnectionConfigDir>;
  using NotifieeConst = NotifieeT<ConnectionConfigDir const>;

  static Ptr connectionConfigDirNew(Qel::Name const& name) {
    return Ptr(new ConnectionConfigDir(name));
  }

  PassiveConnectionConfigCol const& passiveConnectionConfig() const {
    return passiveConnectionConfig_.map();
  }
  PassiveConnectionConfig::Ptr passiveConnectionConfig(Qel::Name const& agentName) const {
    return passiveConnectionConfig_.find(agentName);
  }
  std::size_t passiveConnectionConfigs() const { return passiveConnectionConfig_.size(); }
  PassiveConnectionConfig::Ptr passiveConnectionConfigIs(Qel::Name const& agentName);
  void passiveConnectionConfigDel(Qel::Name const& agentName);
  void passiveConnectionConfigDelAll();

  Qel::Entity::Ptr child(Qel::Name const& name) const override {
    return passiveConnectionConfig(name);
  }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit ConnectionConfigDir(Qel::Name name)
      : Entity(std::move(name)), passiveConnectionConfig_(this) {}
  ~ConnectionConfigDir() override = default;

 private:
  Qel::EntityMap<PassiveConnectionConfig> passiveConnectionConfig_;
};

}  // namespace Ledra
