#include "PassiveEntityManager/PassiveMountReference.h"

#include "Qel/Dir.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

void PassiveMountReference::entityIs(Qel::Entity::PtrConst const& e) {
  if (e == entity_) return;
  entity_ = e;
  notify(kEntity);
}

void PassiveMountReference::completeIs(bool v) {
  if (v == complete_) return;
  complete_ = v;
  notify(kComplete);
}

PassiveMountReference::Completion PassiveMountReference::completion() const {
  if (!complete_) return Completion::incomplete;
  if (!entity_ || entity_->root() != Qel::globalDir().ptr()) return Completion::orphaned;
  return Completion::complete;
}

Qel::QelType const* PassiveMountReference::staticType() {
  using R = PassiveMountReference;
  static Qel::QelType const* t =
      Qel::TypeBuilder<R>("Ledra::PassiveMountReference")
          .value<Qel::Entity::PtrConst>("entity", [](R const& r) { return r.entity(); })
          .value<bool>(
              "complete", [](R const& r) { return r.complete(); },
              [](R& r, bool v) { r.completeIs(v); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(mountReferenceNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveMountReference::staticType();
}

}  // namespace Ledra
