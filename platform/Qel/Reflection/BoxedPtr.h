// BoxedPtr<T>: a counted pointer to a reflected object that is no GenericIf itself (a timer wheel,
// a reactor record) in the generic view. T provides `static QelType const* staticType()`
// (registered with TypeBuilder<BoxedPtr<T>>(name, QelType::Kind::value), its getters reading
// through target()) and `String text() const`. A boxed pointer keeps its object alive, as a
// pointer to an entity does; a null pointer boxes to an empty value. ValueTraits<Ptr<T>> is
// specialised here for every such T. Immutable once made; single-threaded.
#pragma once

#include <type_traits>
#include <utility>

#include "Qel/Reflection/GenericIf.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Qel {

template <class T>
class BoxedPtr final : public GenericIf {
  static_assert(!std::is_const_v<T>, "BoxedPtr is made for the object type itself");

 public:
  static Ptr<BoxedPtr const> make(Ptr<T const> target) {
    return Ptr<BoxedPtr const>(new BoxedPtr(std::move(target)));
  }

  // Never null.
  Ptr<T const> const& target() const { return target_; }
  QelType const* qelType() const override { return T::staticType(); }
  String text() const override { return target_->text(); }

 private:
  explicit BoxedPtr(Ptr<T const> target) : target_(std::move(target)) {}
  ~BoxedPtr() override = default;
  Ptr<T const> const target_;
};

// A reflected object that is not itself in the generic view.
template <class T>
concept ReflectedObject = !std::is_base_of_v<GenericIf, std::remove_const_t<T>> && requires {
  std::remove_const_t<T>::staticType();
};

template <class T>
struct ValueTraits<Ptr<T>, std::enable_if_t<ReflectedObject<T>>> {
  using Object = std::remove_const_t<T>;
  static QelType const* type() { return Object::staticType(); }
  static GenericIf::PtrConst box(Ptr<T> const& p) {
    if (!p) return {};
    return BoxedPtr<Object>::make(Ptr<Object const>(p.ptr()));
  }
  static Ptr<T> unbox(GenericIf::PtrConst const& g) {
    auto const* b = dynamic_cast<BoxedPtr<Object> const*>(g.ptr());
    return b ? Ptr<T>(const_cast<Object*>(b->target().ptr())) : Ptr<T>();
  }
};

}  // namespace Qel
