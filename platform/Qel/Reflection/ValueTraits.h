// ValueTraits<T>: how a C++ type appears in the reflection: its QelType, and boxing to and from
// the generic view. Specialised here for the builtins and entity pointers; a value type (a struct
// registered with the reflection) specialises it next to its own definition.
#pragma once

#include <type_traits>

#include "Qel/Containers/InternedText.h"
#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/QelType.h"

namespace Qel {

template <class T, class = void>
struct ValueTraits;

template <Builtin B, class T>
struct BuiltinTraits {
  static QelType const* type() { return QelType::builtin(B); }
  static GenericIf::PtrConst box(T const& v) { return GenericValue::make(type(), toValue(v)); }
  static T unbox(GenericIf::PtrConst const& g) { return g ? g->template valueAs<T>() : T{}; }
};

// clang-format off
template <> struct ValueTraits<bool> : BuiltinTraits<Builtin::bool_, bool> {};
template <> struct ValueTraits<U8> : BuiltinTraits<Builtin::u8, U8> {};
template <> struct ValueTraits<S8> : BuiltinTraits<Builtin::s8, S8> {};
template <> struct ValueTraits<U16> : BuiltinTraits<Builtin::u16, U16> {};
template <> struct ValueTraits<S16> : BuiltinTraits<Builtin::s16, S16> {};
template <> struct ValueTraits<U32> : BuiltinTraits<Builtin::u32, U32> {};
template <> struct ValueTraits<S32> : BuiltinTraits<Builtin::s32, S32> {};
template <> struct ValueTraits<U64> : BuiltinTraits<Builtin::u64, U64> {};
template <> struct ValueTraits<unsigned long> : BuiltinTraits<Builtin::u64, unsigned long> {};
template <> struct ValueTraits<S64> : BuiltinTraits<Builtin::s64, S64> {};
template <> struct ValueTraits<F32> : BuiltinTraits<Builtin::f32, F32> {};
template <> struct ValueTraits<F64> : BuiltinTraits<Builtin::f64, F64> {};
template <> struct ValueTraits<char> : BuiltinTraits<Builtin::char_, char> {};
template <> struct ValueTraits<char*> : BuiltinTraits<Builtin::charPtr, char*> {};
template <> struct ValueTraits<char const*> : BuiltinTraits<Builtin::constCharPtr, char const*> {};
template <> struct ValueTraits<long> : BuiltinTraits<Builtin::long_, long> {};
template <> struct ValueTraits<String> : BuiltinTraits<Builtin::string, String> {};
template <> struct ValueTraits<Name> : BuiltinTraits<Builtin::name, Name> {};
// clang-format on

// An interned text appears as the string it holds.
template <>
struct ValueTraits<InternedText> {
  static QelType const* type() { return ValueTraits<String>::type(); }
  static GenericIf::PtrConst box(InternedText const& t) { return ValueTraits<String>::box(t); }
  static InternedText unbox(GenericIf::PtrConst const& g) {
    return InternedText(ValueTraits<String>::unbox(g));
  }
};

// Pointers to entities: the generic value of a pointer attribute is the entity itself.
template <class E>
struct ValueTraits<Ptr<E>, std::enable_if_t<std::is_base_of_v<GenericIf, std::remove_const_t<E>>>> {
  static QelType const* type() { return std::remove_const_t<E>::staticType(); }
  static GenericIf::PtrConst box(Ptr<E> const& p) { return GenericIf::PtrConst(p.ptr()); }
  static Ptr<E> unbox(GenericIf::PtrConst const& g) {
    return Ptr<E>(const_cast<E*>(dynamic_cast<E const*>(g.ptr())));
  }
};

// The builtin behind a C++ type, for the enum-valued attributes of compiled types.
template <class T>
QelType const* qelTypeOf() {
  return ValueTraits<T>::type();
}

}  // namespace Qel
