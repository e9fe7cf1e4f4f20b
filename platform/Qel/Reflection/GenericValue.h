// A boxed builtin or enum value: the generic form in which attribute values, collection keys and
// counts travel through the generic view. Immutable once made.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Reflection/GenericIf.h"
#include "Qel/Reflection/QelType.h"
#include "Qel/Reflection/Value.h"

namespace Qel {

class QEL_API GenericValue final : public GenericIf {
 public:
  static Ptr<GenericValue const> make(QelType const* type, Value v) {
    return Ptr<GenericValue const>(new GenericValue(type, std::move(v)));
  }

  QelType const* qelType() const override { return type_; }
  GenericValue const* asValue() const override { return this; }
  String text() const override { return type_->textOf(value_); }

  Value const& value() const { return value_; }

 private:
  GenericValue(QelType const* type, Value v) : type_(type), value_(std::move(v)) {}
  ~GenericValue() override = default;

  QelType const* type_;
  Value value_;
};

template <class T>
T GenericIf::valueAs() const {
  GenericValue const* v = asValue();
  if (!v) return T{};
  return fromValue<T>(v->value());
}

}  // namespace Qel
