#include "Ledra/ConnectionStatusDir.h"

#include "Qel/Assert.h"
#include "Qel/Exception.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

void ConnectionStatusDir::passiveConnectionStatusIs(PassiveConnectionStatus::Ptr const& record) {
  QEL_ASSERT(record && "null connection status record");
  if (PassiveConnectionStatus::Ptr existing = passiveConnectionStatus(record->name())) {
    if (existing == record) return;
    throw Qel::NameInUseException("Reinstantiating the connection status with name " +
                                  record->name() + " not allowed");
  }
  passiveConnectionStatus_.insert(record);
  notifyKey(kPassiveConnectionStatus, record->name());
}

PassiveConnectionStatus::Ptr ConnectionStatusDir::passiveConnectionStatusIs(Qel::Name const& name) {
  if (PassiveConnectionStatus::Ptr existing = passiveConnectionStatus(name)) return existing;
  PassiveConnectionStatus::Ptr record = PassiveConnectionStatus::passiveConnectionStatusNew(name);
  passiveConnectionStatusIs(record);
  return record;
}

void ConnectionStatusDir::passiveConnectionStatusDel(Qel::Name const& name) {
  // Keep the record alive through the notification: watchers may still read it.
  PassiveConnectionStatus::Ptr gone = passiveConnectionStatus_.erase(name);
  if (!gone) return;
  notifyKey(kPassiveConnectionStatus, name);
}

void ConnectionStatusDir::passiveConnectionStatusDelAll() {
  while (!passiveConnectionStatus_.empty()) {
    passiveConnectionStatusDel(Qel::Name(passiveConnectionStatus_.anyName()));
  }
}

Qel::QelType const* ConnectionStatusDir::staticType() {
  using D = ConnectionStatusDir;
  static Qel::QelType const* t =
      Qel::TypeBuilder<D>("Ledra::ConnectionStatusDir")
          .collection<Qel::Name, PassiveConnectionStatus::Ptr>(
              "passiveConnectionStatus",
              [](D const& d, Qel::Name const& n) { return d.passiveConnectionStatus(n); },
              [](D const& d) { return d.passiveConnectionStatuses(); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(connectionStatusDirNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConnectionStatusDir::staticType();
}

}  // namespace Ledra
