#include "PassiveEntityManager/PassiveMountReference.h"

#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

PassiveMountReference::Completion PassiveMountReference::completionOf(bool complete,
                                                                      Qel::Entity const* entity) {
  if (!complete) return Completion::incomplete;
  if (!entity || entity->root() != Qel::globalDir().ptr()) return Completion::orphaned;
  return Completion::complete;
}

Qel::QelType const* PassiveMountReference::staticType() {
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveMountReference>("Ledra::PassiveMountReference")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_MOUNT_REFERENCE_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(mountReferenceNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveMountReference::staticType();
}

}  // namespace Ledra
