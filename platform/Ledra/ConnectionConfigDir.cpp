#include "Ledra/ConnectionConfigDir.h"

#include "Qel/Assert.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

PassiveConnectionConfig::Ptr ConnectionConfigDir::passiveConnectionConfigIs(
    Qel::Name const& agentName) {
  QEL_ASSERT(!agentName.empty() && "passive connection configuration without an agent name");
  if (PassiveConnectionConfig::Ptr existing = passiveConnectionConfig(agentName)) return existing;
  PassiveConnectionConfig::Ptr config =
      PassiveConnectionConfig::passiveConnectionConfigNew(agentName);
  passiveConnectionConfig_.insert(config);
  notifyKey(kPassiveConnectionConfig, agentName);
  return config;
}

void ConnectionConfigDir::passiveConnectionConfigDel(Qel::Name const& agentName) {
  if (!passiveConnectionConfig_.erase(agentName)) return;
  notifyKey(kPassiveConnectionConfig, agentName);
}

void ConnectionConfigDir::passiveConnectionConfigDelAll() {
  while (!passiveConnectionConfig_.empty()) {
    passiveConnectionConfigDel(Qel::Name(passiveConnectionConfig_.anyName()));
  }
}

Qel::QelType const* ConnectionConfigDir::staticType() {
  using D = ConnectionConfigDir;
  static Qel::QelType const* t =
      Qel::TypeBuilder<D>("Ledra::ConnectionConfigDir")
          .collection<Qel::Name, PassiveConnectionConfig::Ptr>(
              "passiveConnectionConfig",
              [](D const& d, Qel::Name const& n) { return d.passiveConnectionConfig(n); },
              [](D const& d) { return d.passiveConnectionConfigs(); },
              [](D& d, Qel::Name const& n, Qel::GenericIf::PtrConst const& v) {
                if (!v) return d.passiveConnectionConfigDel(n);
                d.passiveConnectionConfigIs(n);
              })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(connectionConfigDirNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConnectionConfigDir::staticType();
}

}  // namespace Ledra
