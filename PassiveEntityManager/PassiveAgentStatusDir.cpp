#include "PassiveEntityManager/PassiveAgentStatusDir.h"

namespace Ledra {

Qel::QelType const* PassiveAgentStatusDir::staticType() {
  static Qel::QelType const* const t = typeNew();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentStatusDir::staticType();
}

}  // namespace Ledra
