// TypeBuilder<E>: registers the reflection of a compiled entity or value type.
//
//   QelType const* PassiveMountGroup::staticType() {
//     static QelType const* t = TypeBuilder<PassiveMountGroup>("Ledra::PassiveMountGroup")
//         .value<U32>("priority", [](auto& g) { return g.priority(); }).constructor()
//         .value<String>("entireCondition", [](auto& g) { return g.entireCondition(); },
//                        [](auto& g, String v) { g.entireConditionIs(v); })
//         .collection<String, Mount>("mountProfile", lookup, count)
//         .done();
//     return t;
//   }
//
// Attributes get ids in the order they are added; an entity type starts with "name" (id 0).
// Getters take the instance, setters the instance and the new value; a collection gives a lookup
// (instance, key) returning std::optional<V> (or a Ptr, null when absent), a count, and optionally
// a writer (instance, key, generic value or null to delete).
#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "Qel/Entity.h"
#include "Qel/Exception.h"
#include "Qel/QelType.h"
#include "Qel/ValueTraits.h"

namespace Qel {

namespace detail {

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};

template <class R>
GenericIf::PtrConst boxLookup(R const& r) {
  if constexpr (IsPtr<R>::value) {
    return GenericIf::PtrConst(r.ptr());
  } else {
    using V = typename R::value_type;
    return r ? ValueTraits<V>::box(*r) : GenericIf::PtrConst();
  }
}

template <class R>
bool lookupFound(R const& r) {
  return static_cast<bool>(r);
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
      return detail::boxLookup(lookup(self(g), ValueTraits<K>::unbox(key)));
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

  // Marks the last attribute as a constructor attribute.
  TypeBuilder& constructor() {
    last_->constructorAttributeIs(true);
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

  QelType& type_;
  QelAttr* last_ = nullptr;
};

}  // namespace Qel
