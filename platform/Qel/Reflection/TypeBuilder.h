// TypeBuilder<E>: registers the reflection of a compiled entity or value type.
//
//   QelType const* PassiveMountGroup::staticType() {
//     static QelType const* t = TypeBuilder<PassiveMountGroup>("Ledra::PassiveMountGroup")
//         .value<U32>("priority", [](auto& g) { return g.priority(); }).constructor()
//         .value<String>("entireCondition", [](auto& g) { return g.entireCondition(); },
//                        [](auto& g, String v) { g.entireConditionIs(v); })
//         .collection<String, Mount>("mountProfile", lookup, count)
//         .handler("addProfile", {"path", "qelType", "flags"},
//                  [](auto& g, String const& p, String const& t, String const& f) { ... })
//         .done();
//     return t;
//   }
//
// Attributes get ids in the order they are added; an entity type starts with "name" (id 0).
// Getters take the instance, setters the instance and the new value; a collection gives a lookup
// (instance, key) returning std::optional<V> (or a Ptr, null when absent), a count, and optionally
// a writer (instance, key, generic value or null to delete). A handler is a function of the
// (mutable) instance and its arguments; its parameter types and result come from the function's
// signature, its parameter names from the list given with it.
#pragma once

#include <cstddef>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Reflection/BoxedPtr.h"
#include "Qel/Reflection/BoxedValue.h"
#include "Qel/Reflection/QelType.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Qel {

namespace detail {

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};

template <class V, class R>
GenericIf::PtrConst boxLookup(R const& r) {
  if constexpr (IsPtr<R>::value) {
    return ValueTraits<V>::box(V(r));
  } else {
    return r ? ValueTraits<V>::box(*r) : GenericIf::PtrConst();
  }
}

template <class R>
bool lookupFound(R const& r) {
  return static_cast<bool>(r);
}

// The signature of a handler function (a lambda taking the instance first).
template <class F>
struct HandlerSignature : HandlerSignature<decltype(&F::operator())> {};
template <class C, class R, class Self, class... A>
struct HandlerSignature<R (C::*)(Self, A...) const> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};

template <class A>
QelAttr::Parameter parameterOf(char const* name) {
  QelAttr::Parameter p{Name(name), ValueTraits<A>::type(), IsPtr<A>::value, nullptr};
  if constexpr (IsPtr<A>::value) {
    using Pointee = std::remove_const_t<typename A::element_type>;
    if constexpr (std::is_base_of_v<GenericIf, Pointee>) {
      // An entity of a derived type fits too.
      p.accepts = [](GenericIf const& g) { return dynamic_cast<Pointee const*>(&g) != nullptr; };
    }
  }
  return p;
}

template <class E, class F, class... A, std::size_t... I>
GenericIf::PtrConst invokeHandler(F const& f, E& e, std::vector<GenericIf::PtrConst> const& args,
                                  std::tuple<A...>*, std::index_sequence<I...>) {
  using R = typename HandlerSignature<F>::Result;
  if constexpr (std::is_void_v<R>) {
    f(e, ValueTraits<A>::unbox(args[I])...);
    return {};
  } else {
    return ValueTraits<std::decay_t<R>>::box(f(e, ValueTraits<A>::unbox(args[I])...));
  }
}

}  // namespace detail

template <class E>
class TypeBuilder {
 public:
  explicit TypeBuilder(Name const& typeName, QelType::Kind kind = QelType::Kind::entity)
      : type_(QelType::typeNew(typeName, kind)) {
    if constexpr (std::is_base_of_v<Entity, E>) {
      if (kind != QelType::Kind::entity) return;
      value<Name>(
          "name", [](E const& e) { return e.name(); }, nullptr);
      constructor();
    }
  }

  // A plain attribute of C++ type T (a builtin, an enum with ValueTraits, a Ptr to an entity, or
  // a registered value type). Without a setter the attribute is read-only.
  template <class T, class Get, class Set = std::nullptr_t>
  TypeBuilder& value(Name const& name, Get get, Set set = nullptr) {
    QelType const* t = ValueTraits<T>::type();
    QelAttr::Kind kind = detail::IsPtr<T>::value ? QelAttr::Kind::pointer
                         : t && t->isEnum()      ? QelAttr::Kind::enumeration
                                                 : QelAttr::Kind::value;
    last_ = &type_.attributeNew(name, kind, t);
    last_->getterIs([get](GenericIf const& g, GenericIf::PtrConst const&) {
      return ValueTraits<T>::box(static_cast<T>(get(self(g))));
    });
    if constexpr (!std::is_same_v<Set, std::nullptr_t>) {
      last_->setterIs(
          [set](GenericIf& g, GenericIf::PtrConst const& v, GenericIf::PtrConst const&) {
            set(static_cast<E&>(g), ValueTraits<T>::unbox(v));
          });
    }
    return *this;
  }

  // A keyed collection from K to V (V a builtin, value type, or Ptr to an entity).
  template <class K, class V, class Lookup, class Count, class Write = std::nullptr_t>
  TypeBuilder& collection(Name const& name, Lookup lookup, Count count, Write write = nullptr) {
    QelType const* vt = ValueTraits<V>::type();
    last_ = &type_.attributeNew(name, QelAttr::Kind::collection, vt, ValueTraits<K>::type());
    last_->elementsArePointersIs(detail::IsPtr<V>::value);
    last_->getterIs([lookup](GenericIf const& g, GenericIf::PtrConst const& key) {
      return detail::boxLookup<V>(lookup(self(g), ValueTraits<K>::unbox(key)));
    });
    last_->memberIs([lookup](GenericIf const& g, GenericIf::PtrConst const& key) {
      return detail::lookupFound(lookup(self(g), ValueTraits<K>::unbox(key)));
    });
    last_->countIs(
        [count](GenericIf const& g) { return static_cast<std::size_t>(count(self(g))); });
    if constexpr (!std::is_same_v<Write, std::nullptr_t>) {
      last_->setterIs(
          [write](GenericIf& g, GenericIf::PtrConst const& v, GenericIf::PtrConst const& key) {
            write(static_cast<E&>(g), ValueTraits<K>::unbox(key), v);
          });
    }
    return *this;
  }

  // A handler `f(E&, args...)` with parameters named `params`, in the order of f's arguments.
  template <std::size_t N, class F>
  TypeBuilder& handler(Name const& name, char const* const (&params)[N], F f) {
    static_assert(N == std::tuple_size_v<typename detail::HandlerSignature<F>::Args>,
                  "one name for every parameter");
    return handlerWith(name, params, std::move(f));
  }
  // A handler without parameters.
  template <class F>
  TypeBuilder& handler(Name const& name, F f) {
    static_assert(std::tuple_size_v<typename detail::HandlerSignature<F>::Args> == 0,
                  "a handler with parameters names them");
    return handlerWith(name, static_cast<char const* const*>(nullptr), std::move(f));
  }

  // Marks the last attribute as a constructor attribute.
  TypeBuilder& constructor() {
    last_->constructorAttributeIs(true);
    return *this;
  }

  // Lets `f(*this)` register more of the type in the middle of a chain.
  template <class F>
  TypeBuilder& with(F f) {
    f(*this);
    return *this;
  }

  template <class F>
  TypeBuilder& factory(F f) {
    type_.factoryIs(std::move(f));
    return *this;
  }

  QelType& type() { return type_; }
  QelType const* done() { return &type_; }

 private:
  static E const& self(GenericIf const& g) { return static_cast<E const&>(g); }

  template <class F>
  TypeBuilder& handlerWith(Name const& name, char const* const* params, F f) {
    using Signature = detail::HandlerSignature<F>;
    using Args = typename Signature::Args;
    using R = std::decay_t<typename Signature::Result>;
    constexpr std::size_t n = std::tuple_size_v<Args>;
    QelType const* result = nullptr;
    if constexpr (!std::is_void_v<R>) result = ValueTraits<R>::type();
    std::vector<QelAttr::Parameter> parameters;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (parameters.push_back(detail::parameterOf<std::tuple_element_t<I, Args>>(params[I])), ...);
    }
    (std::make_index_sequence<n>());
    last_ = &type_.attributeNew(name, QelAttr::Kind::handler, result);
    last_->parametersIs(std::move(parameters));
    last_->invokerIs([f](GenericIf& g, std::vector<GenericIf::PtrConst> const& args) {
      return detail::invokeHandler(f, static_cast<E&>(g), args, static_cast<Args*>(nullptr),
                                   std::make_index_sequence<n>());
    });
    return *this;
  }

  QelType& type_;
  QelAttr* last_ = nullptr;
};

}  // namespace Qel
