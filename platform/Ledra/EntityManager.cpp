#include "Ledra/EntityManager.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

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
  static Qel::QelType const* t =
      Qel::TypeBuilder<EntityManager>("Ledra::EntityManager")
          QEL_ATTR_REFLECTION(LEDRA_ENTITY_MANAGER_ATTRIBUTES)
              .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(entityManagerNew(n)); })
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = EntityManager::staticType();
}

}  // namespace Ledra
