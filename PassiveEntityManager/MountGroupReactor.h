// Ledra::MountGroupReactor<T>: the condition reactor of a conditional mount group. It watches one
// attribute like every Orn::ConditionalReactor<T> and, each time the condition is found true,
// advances its ConditionalMountGroupSm: to the next queued condition, or, after the last one, to
// enabling the group.
//
// Contract
// - It reports only while it is its state machine's current reactor (asserted: the state
//   machine's currentPendingCondition equals this reactor's condition); the state machine
//   releases the reactor of a satisfied condition when the next one is installed, or when the
//   group is enabled because every later condition held at once.
// - The constructor evaluates the initial state last (handleCreation), so a condition that holds
//   already advances the state machine before the constructor returns. The object is created with
//   no reference; the creator adopts it into a Qel::Ptr afterwards.
// - Pointer constants: with the constructor taking a PointerConstant, the reactor owns what its
//   constant points at (a copy of the characters, or a reference to the entity), so the pointer
//   stays valid, and unique, for the reactor's whole life.
// - Reporting may release the state machine (the engine drops it once the group is enabled) and
//   with it this reactor: nothing of either is used after that point.
//
// One instantiation exists for each constant type of the reactor family (ConstantTypes.h).
// Single-threaded: the process's event loop.
#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "Orn/ConditionalReactor.h"
#include "PassiveEntityManager/Export.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Reflection/GenericIf.h"

namespace Ledra {

class ConditionalMountGroupSm;

// What a pointer constant points at, kept alive by the reactor that compares with it: the
// characters of a char* constant (none: the null pointer) or the entity of an entity pointer.
class PointerConstant {
 public:
  PointerConstant() = default;
  explicit PointerConstant(std::optional<Qel::String> chars) : chars_(std::move(chars)) {}
  explicit PointerConstant(Qel::Entity::PtrConst entity) : entity_(std::move(entity)) {}

  // The kept constant as a T. Only the pointer reactors ask; the body still compiles for every T
  // because some compilers instantiate the constrained pointer constructor below for every T of
  // an explicit instantiation.
  template <class T>
  T pointer() {
    if constexpr (std::is_same_v<T, Qel::Entity const*>) {
      return entity_.ptr();
    } else if constexpr (std::is_pointer_v<T>) {
      return chars_ ? chars_->data() : nullptr;
    } else {
      return T{};
    }
  }

 private:
  std::optional<Qel::String> chars_;
  Qel::Entity::PtrConst entity_;
};

template <class T>
class LEDRA_PEM_EXPORT MountGroupReactor : private PointerConstant,
                                           public Orn::ConditionalReactor<T> {
 public:
  using Ptr = Qel::Ptr<MountGroupReactor>;

  // Watches attribute `aid` of `entity` for "value op attribute" (the element count with `len`)
  // on behalf of `conditionSm`, for the condition text `condition`.
  MountGroupReactor(ConditionalMountGroupSm* conditionSm, Qel::String const& condition,
                    Qel::Ptr<Qel::GenericIf> const& entity, T const& value, Orn::LogicalOp op,
                    bool len, unsigned int aid);
  // The same for a pointer constant that the reactor keeps.
  MountGroupReactor(ConditionalMountGroupSm* conditionSm, Qel::String const& condition,
                    Qel::Ptr<Qel::GenericIf> const& entity, PointerConstant pointee,
                    Orn::LogicalOp op, bool len, unsigned int aid) requires std::is_pointer_v<T>;

  ConditionalMountGroupSm* conditionSm() const { return conditionSm_; }
  Qel::String const& condition() const { return condition_; }

  void handleAttribute() override;

 protected:
  ~MountGroupReactor() override = default;

 private:
  ConditionalMountGroupSm* const conditionSm_;
  Qel::String const condition_;
};

#define LEDRA_DECLARE_MOUNT_GROUP_REACTOR(T) extern template class MountGroupReactor<T>;
ORN_FOR_EACH_CONSTANT_TYPE(LEDRA_DECLARE_MOUNT_GROUP_REACTOR)
#undef LEDRA_DECLARE_MOUNT_GROUP_REACTOR

}  // namespace Ledra
