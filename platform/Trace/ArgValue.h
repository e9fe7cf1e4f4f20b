// One trace argument as a run-time value, and its text form.
//
// The text line of a trace and the line decoded from its ring record are both produced by
// appendTo() from an ArgValue, so the two forms agree by construction: a live argument becomes an
// ArgValue through ArgValue::of(), a record's bytes through the record decoder.
//
// Text forms: Bool "true"/"false"; Char the character itself; integers in decimal, or with hex in
// lower-case two's-complement hex of the argument's own width (int8_t -1 is "ff"); F32 and F64 in
// the shortest form that reads back to the same value ("1.5", "5", "1e+20"); String as is (a null
// C string prints "(null)"); Pointer as "0x" followed by lower-case hex, or just the hex digits
// with hex. No "0x" prefix is ever added in hex form: callers write it into the format.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Trace/ArgKind.h"

namespace Trace {

struct ArgValue {
  ArgKind kind = ArgKind::Bool;
  union {
    std::uint64_t u = 0;  // Bool, Char (as unsigned char), U8..U64, Pointer
    std::int64_t i;       // I8..I64
    double d;             // F64
    float f;              // F32
  };
  std::string_view s;  // String

  static ArgValue ofUnsigned(ArgKind kind, std::uint64_t value) {
    ArgValue v;
    v.kind = kind;
    v.u = value;
    return v;
  }
  static ArgValue ofSigned(ArgKind kind, std::int64_t value) {
    ArgValue v;
    v.kind = kind;
    v.i = value;
    return v;
  }
  static ArgValue ofDouble(double value) {
    ArgValue v;
    v.kind = ArgKind::F64;
    v.d = value;
    return v;
  }
  static ArgValue ofFloat(float value) {
    ArgValue v;
    v.kind = ArgKind::F32;
    v.f = value;
    return v;
  }
  static ArgValue ofString(std::string_view value) {
    ArgValue v;
    v.kind = ArgKind::String;
    v.s = value;
    return v;
  }

  // The value of a live trace argument; strings are viewed, not copied.
  template <class T>
  static ArgValue of(T const& value);

  // Appends the text form to out (hex selects the {:x} form where the kind accepts it).
  void appendTo(std::string& out, bool hex) const;
};

namespace detail {

inline constexpr std::string_view kNullString = "(null)";

inline std::string_view fullString(char const* s) {
  if (s == nullptr) return kNullString;
  return std::string_view(s, std::strlen(s));
}

}  // namespace detail

template <class T>
ArgValue ArgValue::of(T const& value) {
  constexpr ArgKind kind = argKindOf<T>();
  using D = std::remove_cv_t<std::decay_t<T>>;
  if constexpr (kind == ArgKind::Bool) {
    return ofUnsigned(kind, value ? 1 : 0);
  } else if constexpr (kind == ArgKind::Char) {
    return ofUnsigned(kind, static_cast<unsigned char>(value));
  } else if constexpr (kind == ArgKind::F32) {
    return ofFloat(value);
  } else if constexpr (kind == ArgKind::F64) {
    return ofDouble(value);
  } else if constexpr (kind == ArgKind::String) {
    if constexpr (std::is_pointer_v<D>) {
      return ofString(detail::fullString(value));
    } else {
      return ofString(std::string_view(value));
    }
  } else if constexpr (kind == ArgKind::Pointer) {
    if constexpr (std::is_same_v<D, std::nullptr_t>) {
      return ofUnsigned(kind, 0);
    } else {
      return ofUnsigned(kind, reinterpret_cast<std::uintptr_t>(value));
    }
  } else if constexpr (std::is_signed_v<D>) {
    return ofSigned(kind, value);
  } else {
    return ofUnsigned(kind, value);
  }
}

}  // namespace Trace
