#include "PassiveEntityManager/PassiveMountGroup.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

PassiveMountGroup::Ptr PassiveMountGroup::mountGroupNew(Qel::Name const& name, Qel::U32 priority) {
  if (priority < 1 || priority > 99) {
    throw Qel::RangeException("PassiveMountGroup::priority < 1 or > 99 not allowed");
  }
  return Ptr(new PassiveMountGroup(name, priority));
}

PassiveMountGroup::PassiveMountGroup(Qel::Name name, Qel::U32 priority)
    : Entity(std::move(name)), priority_(priority) {}

void PassiveMountGroup::conditionColMetadataIs(ConditionColMetadata const& m) {
  if (m == conditionCol_.metadata()) return;
  conditionCol_.metadataIs(m);
  notify(kConditionColMetadata);
}

void PassiveMountGroup::qelReflectAddProfile(Qel::TypeBuilder<PassiveMountGroup>& b) {
  b.handler("addProfile", {"path", "qelType", "flags"},
            [](PassiveMountGroup& g, Qel::String const& path, Qel::String const& qelType,
               Qel::String const& flags) { g.addProfile(path, qelType, flags); });
}

Qel::QelType const* PassiveMountGroup::staticType() {
  // conditionColMetadata is read-only by name: the queue's numbering may only be set while the
  // queue is empty.
  static Qel::QelType const* t =
      Qel::TypeBuilder<PassiveMountGroup>("Ledra::PassiveMountGroup") QEL_ATTR_REFLECTION(
          LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES)
          .factory([](Qel::Name const&) -> Qel::Entity::Ptr {
            throw Qel::TypeException("a mount group is created by its profile, with its priority");
          })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveMountGroup::staticType();
}

}  // namespace Ledra
