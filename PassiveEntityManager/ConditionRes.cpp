#include "PassiveEntityManager/ConditionRes.h"

#include "Qel/TypeBuilder.h"

namespace Ledra {

Qel::QelType const* ConditionRes::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<ConditionRes>("Ledra::ConditionRes")
          .value<bool>(
              "enabled", [](ConditionRes const& c) { return c.enabled(); },
              [](ConditionRes& c, bool v) { c.enabledIs(v); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(conditionResNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConditionRes::staticType();
}

}  // namespace Ledra
