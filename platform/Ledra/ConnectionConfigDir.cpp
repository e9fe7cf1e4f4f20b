#include "Ledra/ConnectionConfigDir.h"

#include "Qel/Assert.h"

namespace Ledra {

PassiveConnectionConfig::Ptr ConnectionConfigDir::passiveConnectionConfigIs(
    Qel::Name const& agentName) {
  QEL_ASSERT(!agentName.empty() && "passive connection configuration without an agent name");
  return entryIs(agentName);
}

Qel::QelType const* ConnectionConfigDir::staticType() {
  static Qel::QelType const* const t = typeNew();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConnectionConfigDir::staticType();
}

}  // namespace Ledra
