#include "PassiveEntityManager/PassiveAgentProfileDir.h"

namespace Ledra {

Qel::QelType const* PassiveAgentProfileDir::staticType() {
  static Qel::QelType const* const t = typeNew();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveAgentProfileDir::staticType();
}

}  // namespace Ledra
