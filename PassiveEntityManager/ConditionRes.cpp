#include "PassiveEntityManager/ConditionRes.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

Qel::QelType const* ConditionRes::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<ConditionRes>("Ledra::ConditionRes")
          QEL_ATTR_REFLECTION(LEDRA_CONDITION_RES_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(conditionResNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConditionRes::staticType();
}

}  // namespace Ledra
