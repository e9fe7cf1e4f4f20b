#include "Ledra/EntityManager.h"

#include "Qel/TypeBuilder.h"

namespace Ledra {

void EntityManager::localIs(Role r) {
  if (r == local_) return;
  local_ = r;
  notify(kLocal);
}

void EntityManager::writeMountsGrantedIs(bool v) {
  if (v == writeMountsGranted_) return;
  writeMountsGranted_ = v;
  notify(kWriteMountsGranted);
}

char const* EntityManager::roleName(Role r) {
  return r == Role::active ? "active" : "backup";
}

Qel::QelType const* EntityManager::roleType() {
  static Qel::QelType const* t = [] {
    Qel::QelType& e =
        Qel::QelType::typeNew("Ledra::EntityManager::Role", Qel::QelType::Kind::enumeration);
    e.enumeratorIs(roleName(Role::backup), static_cast<std::int64_t>(Role::backup));
    e.enumeratorIs(roleName(Role::active), static_cast<std::int64_t>(Role::active));
    return &e;
  }();
  return t;
}

Qel::QelType const* EntityManager::staticType() {
  using E = EntityManager;
  static Qel::QelType const* t =
      Qel::TypeBuilder<E>("Ledra::EntityManager")
          .value<Role>(
              "local", [](E const& e) { return e.local(); }, [](E& e, Role r) { e.localIs(r); })
          .value<bool>(
              "writeMountsGranted", [](E const& e) { return e.writeMountsGranted(); },
              [](E& e, bool v) { e.writeMountsGrantedIs(v); })
          .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(entityManagerNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = EntityManager::staticType();
}

}  // namespace Ledra
