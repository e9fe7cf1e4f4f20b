// The kinds of value a trace call accepts, and how a C++ argument type maps onto them.
//
// Every argument of TRACE and RINGLOG is classified at compile time. The kind decides how the
// value is encoded in a ring record and how it is formatted: booleans print as true/false, char as
// the character, the standard integer types as decimal numbers (or two's-complement hex with
// {:x}), float and double in their shortest round-trip form, C strings, std::string_view and every
// class derived from std::string as text, and object pointers as hex. Any other type is rejected
// at compile time, naming the type in the error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Trace {

enum class ArgKind : std::uint8_t {
  Bool = 1,
  Char,
  I8,
  I16,
  I32,
  I64,
  U8,
  U16,
  U32,
  U64,
  F32,
  F64,
  String,
  Pointer,
};

// At most this many arguments per trace call; checked at compile time.
inline constexpr std::size_t kMaxArgs = 16;
// A string argument keeps at most this many bytes in a ring record.
inline constexpr std::size_t kMaxStringBytes = 255;

// True when the byte read from a dump names one of the kinds above.
constexpr bool isArgKind(std::uint8_t code) {
  return code >= static_cast<std::uint8_t>(ArgKind::Bool) &&
         code <= static_cast<std::uint8_t>(ArgKind::Pointer);
}

// Bytes a fixed-size kind occupies in a record; 0 for String, which is stored as one length byte
// followed by that many bytes.
constexpr std::size_t fixedBytes(ArgKind kind) {
  switch (kind) {
    case ArgKind::Bool:
    case ArgKind::Char:
    case ArgKind::I8:
    case ArgKind::U8:
      return 1;
    case ArgKind::I16:
    case ArgKind::U16:
      return 2;
    case ArgKind::I32:
    case ArgKind::U32:
    case ArgKind::F32:
      return 4;
    case ArgKind::I64:
    case ArgKind::U64:
    case ArgKind::F64:
    case ArgKind::Pointer:
      return 8;
    case ArgKind::String:
      return 0;
  }
  return 0;
}

// Whether {:x} applies to a kind: integers, char and pointers.
constexpr bool acceptsHex(ArgKind kind) {
  return kind != ArgKind::Bool && kind != ArgKind::F32 && kind != ArgKind::F64 &&
         kind != ArgKind::String;
}

namespace detail {

template <class T>
inline constexpr bool kUnsupportedArg = false;

template <class T>
inline constexpr bool kIsStringClass =
    std::is_same_v<T, std::string_view> || std::is_base_of_v<std::string, T>;

template <class T>
inline constexpr bool kIsCharPointer =
    std::is_pointer_v<T>&& std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char>;

template <class T>
inline constexpr bool kIsWideChar = std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
                                    std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

template <std::size_t Bytes, bool Signed>
constexpr ArgKind integerKind() {
  static_assert(Bytes == 1 || Bytes == 2 || Bytes == 4 || Bytes == 8,
                "trace arguments support integers of 1, 2, 4 or 8 bytes");
  if constexpr (Bytes == 1) return Signed ? ArgKind::I8 : ArgKind::U8;
  if constexpr (Bytes == 2) return Signed ? ArgKind::I16 : ArgKind::U16;
  if constexpr (Bytes == 4) return Signed ? ArgKind::I32 : ArgKind::U32;
  return Signed ? ArgKind::I64 : ArgKind::U64;
}

}  // namespace detail

// The kind of an argument of type T (after decay: a char array is a C string).
template <class Arg>
constexpr ArgKind argKindOf() {
  using T = std::remove_cv_t<std::decay_t<Arg>>;
  if constexpr (std::is_same_v<T, bool>) {
    return ArgKind::Bool;
  } else if constexpr (std::is_same_v<T, char>) {
    return ArgKind::Char;
  } else if constexpr (detail::kIsWideChar<T> ||
                       (std::is_pointer_v<T> &&
                        detail::kIsWideChar<std::remove_cv_t<std::remove_pointer_t<T>>>)) {
    static_assert(detail::kUnsupportedArg<T>,
                  "trace arguments do not support wide characters or wide strings");
    return ArgKind::Char;
  } else if constexpr (std::is_integral_v<T>) {
    return detail::integerKind<sizeof(T), std::is_signed_v<T>>();
  } else if constexpr (std::is_same_v<T, float>) {
    return ArgKind::F32;
  } else if constexpr (std::is_same_v<T, double>) {
    return ArgKind::F64;
  } else if constexpr (detail::kIsCharPointer<T> || detail::kIsStringClass<T>) {
    return ArgKind::String;
  } else if constexpr (std::is_same_v<T, std::nullptr_t>) {
    return ArgKind::Pointer;
  } else if constexpr (std::is_pointer_v<T> && std::is_object_v<std::remove_pointer_t<T>>) {
    return ArgKind::Pointer;
  } else if constexpr (std::is_pointer_v<T> && std::is_void_v<std::remove_pointer_t<T>>) {
    return ArgKind::Pointer;
  } else {
    static_assert(detail::kUnsupportedArg<T>, "unsupported trace argument type");
    return ArgKind::Bool;
  }
}

}  // namespace Trace
