// The comparisons of attribute conditions: Orn::attrCompare (one comparison of a constant with
// an attribute's current value), Orn::enumToGif (a constant as a value of an enum type) and
// Orn::getColLength (the element count of a collection attribute).
//
// attrCompare always puts the constant on the left: with LT and constant 5 it holds when the
// current value is greater than 5. It traces the exact expression it evaluates at level 2 of the
// Orn facility ("attrCompare evaluating \"5 < 6\""). Arithmetic follows the constant's type T:
// signed comparison for the signed integral types (char included, whatever the platform's char
// signedness), unsigned for bool and the unsigned types, IEEE for float and double (a NaN on
// either side makes everything but NEQ false), text order for Qel::String and Qel::Name. Pointer
// types compare by identity and accept only EQ and NEQ (assertion "Only EQ and NEQ are supported
// for pointer types"). An operator outside 0..5 compares false.
//
// enumToGif accepts integral constants only; a non-integral one fails the assertion "enums cannot
// be used with non integral types".
//
// Instantiated in the library for the types of ORN_FOR_EACH_CONSTANT_TYPE. Single-threaded (the
// framework's objects are).
#pragma once

#include <cstdint>
#include <type_traits>

#include "Check/Check.h"
#include "Orn/ConstantTypes.h"
#include "Orn/LogicalOp.h"
#include "Orn/TraceFacility.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/QelType.h"

namespace Orn {

namespace detail {

template <class T>
inline constexpr bool kIsEntityPointer = std::is_pointer_v<T>&&
    std::is_base_of_v<Qel::GenericIf, std::remove_cv_t<std::remove_pointer_t<T>>>;

// How a constant or an operand appears in a trace line: pointers by address, never as text.
template <class T>
decltype(auto) traceForm(T const& v) {
  if constexpr (std::is_pointer_v<T>) {
    return static_cast<void const*>(v);
  } else {
    return (v);
  }
}

// The current value of a non-pointer attribute read as T; T{} when there is no value. An enum
// value holds its underlying integer, so it reads as that integer.
template <class T>
T operandAs(Qel::GenericIf::PtrConst const& current) {
  if (!current) return T{};
  return current->valueAs<T>();
}

// The current pointer: null when empty, the entity itself for entity pointers, else the
// character pointer the value holds.
template <class T>
T pointerOperand(Qel::GenericIf::PtrConst const& current) {
  if (!current) return nullptr;
  if constexpr (kIsEntityPointer<T>) return dynamic_cast<T>(current.ptr());
  return current->valueAs<T>();
}

template <class C>
bool compare(C const& lhs, C const& rhs, LogicalOp op) {
  switch (op) {
    case EQ:
      return lhs == rhs;
    case NEQ:
      return lhs != rhs;
    case LE:
      return lhs <= rhs;
    case GE:
      return lhs >= rhs;
    case LT:
      return lhs < rhs;
    case GT:
      return lhs > rhs;
  }
  return false;
}

}  // namespace detail

// Compares the constant `value` (left) with `current` (right) under `op`.
template <class T>
requires(!std::is_pointer_v<T>) bool attrCompare(T const& value,
                                                 Qel::GenericIf::PtrConst const& current,
                                                 Qel::QelAttr const* attr, LogicalOp op) {
  T const now = detail::operandAs<T>(current);
  TRACE(Orn, 2, "Orn/GenericConditionalReactor: attrCompare evaluating \"{} {} {}\"",
        detail::traceForm(value), detail::logicalOpText(op), detail::traceForm(now));
  if constexpr (std::is_same_v<T, char>) {
    return detail::compare(static_cast<signed char>(value), static_cast<signed char>(now), op);
  }
  return detail::compare(value, now, op);
}

// The pointer overload: identity of `value` and the pointer `current` holds (null when empty).
template <class T>
requires std::is_pointer_v<T>
bool attrCompare(T const& value, Qel::GenericIf::PtrConst const& current, Qel::QelAttr const* attr,
                 LogicalOp op) {
  QEL_CHECK(op == EQ || op == NEQ,
            "(op == EQ || op == NEQ) && \"Only EQ and NEQ are supported for pointer types\"");
  T const now = detail::pointerOperand<T>(current);
  TRACE(Orn, 2, "Orn/GenericConditionalReactor: attrCompare evaluating \"{} {} {}\"",
        detail::traceForm(value), detail::logicalOpText(op), detail::traceForm(now));
  if (op == EQ) return value == now;
  return value != now;
}

// `out` becomes a value of `enumType` whose underlying integer is `value`.
template <class T>
requires std::is_integral_v<T>
void enumToGif(Qel::GenericIf::PtrConst& out, Qel::QelType const* enumType, T const& value) {
  out = enumType->newValue(Qel::Value(static_cast<std::int64_t>(value)));
}

template <class T>
requires(!std::is_integral_v<T>) void enumToGif(Qel::GenericIf::PtrConst& out,
                                                Qel::QelType const* enumType, T const& value) {
  QEL_CHECK(false, "false && \"enums cannot be used with non integral types\"");
}

// A U32 value: the number of elements of collection `aid` of `entity`. The framework's exception
// for an attribute that is not a collection propagates.
Qel::GenericIf::PtrConst getColLength(Qel::Ptr<Qel::GenericIf const> const& entity,
                                      Qel::AttributeId const& aid);

#define ORN_DECLARE_COMPARISONS(T)                                               \
  extern template bool attrCompare<T>(T const&, Qel::GenericIf::PtrConst const&, \
                                      Qel::QelAttr const*, LogicalOp);           \
  extern template void enumToGif<T>(Qel::GenericIf::PtrConst&, Qel::QelType const*, T const&);
ORN_FOR_EACH_CONSTANT_TYPE(ORN_DECLARE_COMPARISONS)
#undef ORN_DECLARE_COMPARISONS

}  // namespace Orn
