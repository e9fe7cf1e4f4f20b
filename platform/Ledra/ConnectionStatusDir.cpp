#include "Ledra/ConnectionStatusDir.h"

#include "Check/Check.h"

namespace Ledra {

void ConnectionStatusDir::passiveConnectionStatusIs(PassiveConnectionStatus::Ptr const& record) {
  QEL_CHECK(record, "record && \"null connection status record\"");
  entryIs(record);
}

Qel::QelType const* ConnectionStatusDir::staticType() {
  static Qel::QelType const* const t = typeNew();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConnectionStatusDir::staticType();
}

}  // namespace Ledra
