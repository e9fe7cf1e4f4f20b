// The storage of one builtin or enum value in the generic view.
//
// Value holds a builtin value in the widest C++ representation of its kind: every signed integer
// type (and char and enums) as int64, every unsigned one as uint64, both floating types as double,
// character pointers as void const*. The QelType beside it says which builtin it is; Value alone
// only stores and orders (std::variant's ordering serves as the key order of generic collections).
#pragma once

#include <cstdint>
#include <type_traits>
#include <variant>

#include "Qel/Core/Types.h"

namespace Qel {

using Value = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, String, Name,
                           void const*>;

// The Value of a C++ builtin.
template <class T>
Value toValue(T const& v) {
  if constexpr (std::is_same_v<T, bool>) {
    return Value(v);
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return Value(static_cast<std::int64_t>(v));
  } else if constexpr (std::is_integral_v<T>) {
    return Value(static_cast<std::uint64_t>(v));
  } else if constexpr (std::is_floating_point_v<T>) {
    return Value(static_cast<double>(v));
  } else if constexpr (std::is_same_v<T, String> || std::is_same_v<T, Name>) {
    return Value(v);
  } else if constexpr (std::is_pointer_v<T>) {
    return Value(static_cast<void const*>(v));
  } else {
    static_assert(sizeof(T) == 0, "not a builtin value");
  }
}

// Reads a Value as T, converting between the numeric kinds and between the two text kinds.
template <class T>
T fromValue(Value const& v) {
  if constexpr (std::is_arithmetic_v<T>) {
    return std::visit(
        [](auto const& x) -> T {
          using X = std::decay_t<decltype(x)>;
          if constexpr (std::is_arithmetic_v<X>) return static_cast<T>(x);
          return T{};
        },
        v);
  } else if constexpr (std::is_same_v<T, String> || std::is_same_v<T, Name>) {
    if (auto s = std::get_if<String>(&v)) return T(*s);
    if (auto n = std::get_if<Name>(&v)) return T(*n);
    return T{};
  } else if constexpr (std::is_pointer_v<T>) {
    if (auto p = std::get_if<void const*>(&v)) return static_cast<T>(const_cast<void*>(*p));
    return nullptr;
  } else {
    static_assert(sizeof(T) == 0, "not a builtin value");
  }
}

}  // namespace Qel
