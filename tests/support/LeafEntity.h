// test::Leaf: an entity type without attributes of its own, for tests of collections of
// entities. Registered as "test::Leaf".
#pragma once

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra::test {

class Leaf : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Leaf>;
  static Ptr leafNew(Qel::Name const& name) { return Ptr(new Leaf(name)); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType() {
    static Qel::QelType const* const t = Qel::TypeBuilder<Leaf>("test::Leaf").done();
    return t;
  }

 protected:
  explicit Leaf(Qel::Name name) : Entity(std::move(name)) {}
};

}  // namespace Ledra::test
