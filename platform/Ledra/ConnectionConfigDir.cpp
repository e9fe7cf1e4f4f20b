#include "Ledra/ConnectionConfigDir.h"

#include "Check/Check.h"

namespace Ledra {

PassiveConnectionConfig::Ptr ConnectionConfigDir::passiveConnectionConfigIs(
    Qel::Name const& agentName) {
  QEL_CHECK(!agentName.empty(),
            "!agentName.empty() && \"passive connection configuration without an agent name\"");
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
