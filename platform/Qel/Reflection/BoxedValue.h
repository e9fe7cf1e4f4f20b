// BoxedValue<T>: a value of a registered value type (a struct with attributes of its own) in the
// generic view. T provides `static QelType const* staticType()` (registered with
// TypeBuilder<BoxedValue<T>>(name, QelType::Kind::value)) and `String text() const`.
// ValueTraits<T> is specialised here for every such T via the QEL_VALUE_TYPE trait below.
#pragma once

#include <type_traits>
#include <utility>

#include "Qel/Reflection/GenericIf.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Qel {

template <class T>
class BoxedValue final : public GenericIf {
 public:
  static Ptr<BoxedValue const> make(T v) {
    return Ptr<BoxedValue const>(new BoxedValue(std::move(v)));
  }

  T const& value() const { return value_; }
  QelType const* qelType() const override { return T::staticType(); }
  String text() const override { return value_.text(); }

 private:
  explicit BoxedValue(T v) : value_(std::move(v)) {}
  ~BoxedValue() override = default;
  T value_;
};

// Marks T as a registered value type: `static constexpr bool kQelValueType = true;` in T.
template <class T>
struct ValueTraits<T, std::enable_if_t<T::kQelValueType>> {
  static QelType const* type() { return T::staticType(); }
  static GenericIf::PtrConst box(T const& v) { return BoxedValue<T>::make(v); }
  static T unbox(GenericIf::PtrConst const& g) {
    auto const* b = dynamic_cast<BoxedValue<T> const*>(g.ptr());
    return b ? b->value() : T{};
  }
};

}  // namespace Qel
