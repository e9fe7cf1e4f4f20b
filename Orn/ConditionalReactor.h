// Orn::ConditionalReactor<T>: watches one attribute of one entity and reports, through the hook
// handleAttribute(), each time the condition "constant op attribute" is found true.
//
// Contract
// - The reactor is a generic notifiee of the entity (it holds a counted reference to it) and
//   knows the entity only through Qel::GenericIf and the type metadata, so one instantiation
//   serves every entity type whose watched attribute holds a T.
// - The constant is always the left operand (see attrCompare): LT with 5 holds for 6.
// - A subclass calls handleCreation() as the last step of its constructor; it checks the initial
//   state and may call handleAttribute() before the constructor returns.
// - Plain attribute: every change is compared. Collection attribute: with len, the element count
//   is compared, recounted on every keyed update, under any operator. Without len it is a
//   membership test of the constant as a key and only EQ ("in") and NEQ ("notin") are allowed
//   (assertion "Collection only supports EQ/NEQ logical ops or len()"). EQ fires at creation when
//   the key is present, and later on every notification for that key, also its removal: the key is
//   not looked up again. NEQ fires at creation when the key is absent, and later only when a
//   notification for that key finds it gone. An enum-keyed collection takes the constant as the
//   enum's underlying integer (assertion "enums cannot be used with non integral types").
// - The reactor only ever reports "true", again on every later update that leaves the condition
//   true; owners must tolerate repeated calls. Changes of other attributes are ignored silently.
// - handleAttribute() may drop the last reference to the reactor; nothing of it is used after.
//
// Threading: the process's single event loop; notifications and construction only. No locks.
// Invariant: the watched entity, its type, the constant, the attribute id, the operator and len
// are fixed for the reactor's life; the attribute's metadata is set once by handleCreation().
#pragma once

#include <cstdint>
#include <type_traits>

#include "Check/Check.h"
#include "Orn/AttrCompare.h"
#include "Orn/ConstantTypes.h"
#include "Orn/CountedNotifiee.h"
#include "Orn/LogicalOp.h"
#include "Orn/TraceFacility.h"
#include "Qel/Reflection/GenericIf.h"
#include "Qel/Reflection/QelType.h"

namespace Orn {

namespace detail {

// The constant stored the way values of the builtin `type` store themselves. Generic keys are
// ordered by their stored representation, so an int constant looked up in a U32-keyed
// collection must be stored as unsigned, and a Qel::String one in a name-keyed collection as a
// name, to find the key.
template <class T>
Qel::Value valueOfType(Qel::QelType const* type, T const& value) {
  using Qel::Builtin;
  if constexpr (std::is_integral_v<T>) {
    switch (type->builtinKind()) {
      case Builtin::bool_:
        return Qel::Value(static_cast<bool>(value));
      case Builtin::u8:
      case Builtin::u16:
      case Builtin::u32:
      case Builtin::u64:
        return Qel::Value(static_cast<std::uint64_t>(value));
      case Builtin::s8:
      case Builtin::s16:
      case Builtin::s32:
      case Builtin::s64:
      case Builtin::long_:
      case Builtin::char_:
        return Qel::Value(static_cast<std::int64_t>(value));
      case Builtin::f32:
      case Builtin::f64:
      case Builtin::double_:
        return Qel::Value(static_cast<double>(value));
      default:
        break;
    }
  }
  if constexpr (std::is_same_v<T, Qel::String> || std::is_same_v<T, Qel::Name>) {
    if (type->builtinKind() == Builtin::string) return Qel::Value(Qel::String(value));
    if (type->builtinKind() == Builtin::name) return Qel::Value(Qel::Name(value));
  }
  return Qel::toValue(value);
}

}  // namespace detail

template <class T>
class ConditionalReactor : public CountedNotifiee {
 public:
  using Ptr = Qel::Ptr<ConditionalReactor>;

  // Watches attribute `aid` of `entity` for "value logicalOp attribute" (or the element count
  // when `len`). Does not evaluate anything: the subclass calls handleCreation().
  ConditionalReactor(Qel::GenericIf::PtrConst const& entity, T const& value, LogicalOp logicalOp,
                     bool len, Qel::AttributeId aid)
      : type_(entity ? entity->qelType() : nullptr),
        value_(value),
        aid_(aid),
        logicalOp_(logicalOp),
        len_(len) {
    QEL_CHECK(entity, "entity && \"a condition reactor watches an entity\"");
    notifierIs(entity);
  }

  Qel::QelType const* entityType() const { return type_; }
  T const& value() const { return value_; }
  Qel::AttributeId aid() const { return aid_; }
  LogicalOp logicalOp() const { return logicalOp_; }
  // The watched attribute's metadata; null until handleCreation().
  Qel::QelAttr const* attr() const { return attr_; }
  bool len() const { return len_; }

  // Resolves the attribute and calls handleAttribute() if the condition already holds.
  void handleCreation();
  // Called by the framework on every change of any attribute of the entity.
  void onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) override;
  // Called each time the condition is found true.
  virtual void handleAttribute() {}

 protected:
  ~ConditionalReactor() override = default;

 private:
  // Whether the constant is a key of the watched collection now.
  bool isMemberNow() const;
  void handleKeyedInequality(Qel::GenericIf::PtrConst const& key);

  Qel::QelType const* type_;
  T value_;
  Qel::AttributeId aid_;
  LogicalOp logicalOp_;
  Qel::QelAttr const* attr_ = nullptr;
  bool len_;
};

template <class T>
void ConditionalReactor<T>::handleCreation() {
  Qel::GenericIf::PtrConst const entity = notifier();
  Qel::Name const name = entity->attributeName(aid_);
  attr_ = type_->attribute(name);
  TRACE(Orn, 2,
        "Orn/GenericConditionalReactor: ConditionalReactor::handleCreation checking initial "
        "state of {}::{}( aid {}) for {}",
        type_->fullName(), name, aid_, detail::traceForm(value_));
  if (!attr_ || !attr_->isCollection()) {
    // An unknown attribute id lands here too: the framework's read reports it.
    Qel::GenericIf::PtrConst noKey;
    onAttribute(aid_, noKey);
    return;
  }
  QEL_CHECK(len_ || logicalOp_ == EQ || logicalOp_ == NEQ,
            "(len_ || logicalOp_ == EQ || logicalOp_ == NEQ) && \"Collection only supports EQ/NEQ "
            "logical ops or len()\"");
  if (len_) {
    if (attrCompare(value_, getColLength(entity, aid_), attr_, logicalOp_)) handleAttribute();
    return;
  }
  if (isMemberNow() == (logicalOp_ == EQ)) handleAttribute();
}

template <class T>
void ConditionalReactor<T>::onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) {
  if (aid != aid_) return;
  Qel::GenericIf::PtrConst const entity = notifier();
  TRACE(Orn, 2,
        "Orn/GenericConditionalReactor: ConditionalReactor::onAttribute Received update on attr "
        "{}(aid {}) of {} index is {}",
        entity->attributeName(aid), aid, type_->name(), static_cast<void const*>(key.ptr()));
  if (key && !len_ && logicalOp_ == NEQ) {
    handleKeyedInequality(key);
    return;
  }
  // A plain attribute compares its value, a count its recount, a membership the changed key.
  Qel::GenericIf::PtrConst const operand = !key   ? entity->attribute(aid)
                                           : len_ ? getColLength(entity, aid)
                                                  : key;
  if (attrCompare(value_, operand, attr_, logicalOp_)) handleAttribute();
}

template <class T>
void ConditionalReactor<T>::handleKeyedInequality(Qel::GenericIf::PtrConst const& key) {
  if (attrCompare(value_, key, attr_, NEQ)) {
    TRACE(Orn, 2,
          "Orn/GenericConditionalReactor: ConditionalReactor::onAttribute ignored the "
          "uninteresting key update");
    return;
  }
  if (isMemberNow()) {
    TRACE(Orn, 2,
          "Orn/GenericConditionalReactor: ConditionalReactor::onAttribute key {} is still part "
          "of the collection {}",
          detail::traceForm(value_), attr_->name());
    return;
  }
  handleAttribute();
}

template <class T>
bool ConditionalReactor<T>::isMemberNow() const {
  QEL_CHECK(attr_,
            "attr_ && \"handleCreation resolves the attribute before keyed updates arrive\"");
  Qel::QelType const* keyType = attr_->keyType();
  Qel::GenericIf::PtrConst key;
  if (keyType->isEnum()) {
    enumToGif(key, keyType, value_);
  } else {
    key = keyType->newValue(detail::valueOfType(keyType, value_));
  }
  return notifier()->isMember(aid_, key)->template valueAs<bool>();
}

#define ORN_DECLARE_REACTOR(T) extern template class ConditionalReactor<T>;
ORN_FOR_EACH_CONSTANT_TYPE(ORN_DECLARE_REACTOR)
#undef ORN_DECLARE_REACTOR

}  // namespace Orn
