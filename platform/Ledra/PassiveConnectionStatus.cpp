#include "Ledra/PassiveConnectionStatus.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

Qel::QelType const* PassiveConnectionStatus::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveConnectionStatus>("Ledra::PassiveConnectionStatus")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES)
              .factory([](Qel::Name const& n) {
                return Qel::Entity::Ptr(passiveConnectionStatusNew(n));
              })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveConnectionStatus::staticType();
}

}  // namespace Ledra
