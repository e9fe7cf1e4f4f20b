#include "Ledra/PassiveConnectionConfig.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

Qel::QelType const* PassiveConnectionConfig::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveConnectionConfig>("Ledra::PassiveConnectionConfig")
          .factory(
              [](Qel::Name const& n) { return Qel::Entity::Ptr(passiveConnectionConfigNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveConnectionConfig::staticType();
}

}  // namespace Ledra
