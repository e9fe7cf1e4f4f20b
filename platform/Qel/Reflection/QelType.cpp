#include "Qel/Reflection/QelType.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <type_traits>

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Reflection/GenericValue.h"

namespace Qel {

struct TypeRegistry {
  std::map<Name, std::unique_ptr<QelType>> byName;
  QelType const* builtins[static_cast<int>(Builtin::name) + 1] = {};

  static TypeRegistry& instance() {
    static TypeRegistry* r = [] {
      auto* reg = new TypeRegistry;  // immortal: types outlive every static entity
      reg->registerBuiltins();
      return reg;
    }();
    return *r;
  }

  QelType& add(Name const& name, QelType::Kind kind, Builtin b) {
    auto [it, inserted] = byName.try_emplace(name);
    if (!inserted) throw NameInUseException("type " + name + " is already defined");
    it->second.reset(new QelType(name, kind, b));
    return *it->second;
  }

  template <class T>
  void builtin(Builtin b, char const* name) {
    QelType& t = add(name, QelType::Kind::builtin, b);
    t.boxerIs([&t](void const* native) {
      return GenericValue::make(&t, toValue(*static_cast<T const*>(native)));
    });
    builtins[static_cast<int>(b)] = &t;
  }

  void registerBuiltins() {
    builtin<bool>(Builtin::bool_, "bool");
    builtin<U8>(Builtin::u8, "U8");
    builtin<S8>(Builtin::s8, "S8");
    builtin<U16>(Builtin::u16, "U16");
    builtin<S16>(Builtin::s16, "S16");
    builtin<U32>(Builtin::u32, "U32");
    builtin<S32>(Builtin::s32, "S32");
    builtin<U64>(Builtin::u64, "U64");
    builtin<S64>(Builtin::s64, "S64");
    builtin<F32>(Builtin::f32, "F32");
    builtin<F64>(Builtin::f64, "F64");
    builtin<char>(Builtin::char_, "char");
    builtin<char*>(Builtin::charPtr, "char*");
    builtin<char const*>(Builtin::constCharPtr, "const char*");
    builtin<long>(Builtin::long_, "long");
    builtin<double>(Builtin::double_, "double");
    builtin<String>(Builtin::string, "string");
    builtin<Name>(Builtin::name, "name");
  }
};

QelType::QelType(Name name, Kind kind, Builtin builtin)
    : name_(std::move(name)), kind_(kind), builtin_(builtin) {
  if (kind_ != Kind::enumeration) return;
  QelType* self = this;
  boxer_ = [self](void const* native) {
    return GenericValue::make(self, Value(*static_cast<std::int64_t const*>(native)));
  };
}

QelType const* QelType::type(Name const& name) {
  auto& reg = TypeRegistry::instance();
  auto it = reg.byName.find(name);
  return it == reg.byName.end() ? nullptr : it->second.get();
}

QelType const& QelType::typeOrThrow(Name const& name) {
  QelType const* t = type(name);
  if (!t) throw TypeException("Unknown type: " + name);
  return *t;
}

QelType const* QelType::builtin(Builtin b) {
  return TypeRegistry::instance().builtins[static_cast<int>(b)];
}

QelType& QelType::typeNew(Name const& name, Kind kind) {
  return TypeRegistry::instance().add(name, kind, Builtin::none);
}

QelAttr::Parameter const* QelAttr::parameter(Name const& name) const {
  for (auto const& p : parameters_) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

QelAttr const* QelType::attribute(Name const& name) const {
  for (auto const& a : attrs_) {
    if (a->name() == name) return a.get();
  }
  return nullptr;
}

QelAttr& QelType::attributeNew(Name const& name, QelAttr::Kind kind, QelType const* type,
                               QelType const* keyType) {
  if (attribute(name)) throw NameInUseException("attribute " + name + " of " + name_ + " exists");
  attrs_.push_back(std::make_unique<QelAttr>(static_cast<AttributeId>(attrs_.size()), name, kind,
                                             type, keyType));
  return *attrs_.back();
}

void QelType::enumeratorIs(Name const& name, std::int64_t value) {
  for (auto& [n, v] : enumerators_) {
    if (n != name) continue;
    v = value;
    return;
  }
  enumerators_.emplace_back(name, value);
}

std::optional<std::int64_t> QelType::enumeratorValue(Name const& name) const {
  for (auto const& [n, v] : enumerators_) {
    if (n == name) return v;
  }
  return std::nullopt;
}

std::optional<Name> QelType::enumeratorName(std::int64_t value) const {
  for (auto const& [n, v] : enumerators_) {
    if (v == value) return n;
  }
  return std::nullopt;
}

Ptr<Entity> QelType::newEntity(Name const& name) const {
  if (!factory_) throw TypeException("type " + name_ + " has no factory");
  return factory_(name);
}

GenericIf::PtrConst QelType::newValue(Value v) const {
  return GenericValue::make(this, std::move(v));
}

GenericIf::PtrConst QelType::box(void const* native) const {
  if (!native) return {};
  if (!boxer_) throw TypeException("type " + name_ + " cannot be boxed");
  return boxer_(native);
}

namespace {

[[noreturn]] void badText(String const& text, QelType const& t, char const* why) {
  throw ParseException("cannot read \"" + text + "\" as " + t.name() + ": " + why);
}

template <class T>
T parseNumber(String const& text, QelType const& t) {
  T v{};
  char const* first = text.data();
  char const* last = first + text.size();
  if (first != last && *first == '+') ++first;
  if constexpr (std::is_unsigned_v<T>) {
    // A negative number is a number all the same: below the range, unless it is zero.
    if (first != last && *first == '-') {
      auto [end, err] = std::from_chars(first + 1, last, v);
      if (end != last || first + 1 == last || err == std::errc::invalid_argument)
        badText(text, t, "not a number");
      if (err == std::errc::result_out_of_range || v != 0) badText(text, t, "out of range");
      return v;
    }
  }
  auto [ptr, ec] = std::from_chars(first, last, v);
  if (ec == std::errc::result_out_of_range) badText(text, t, "out of range");
  if (ec != std::errc() || ptr != last || first == last) badText(text, t, "not a number");
  return v;
}

String numberText(double d) {
  char buf[64];
  auto [ptr, ec] = std::to_chars(buf, buf + sizeof buf, d);
  return String(std::string_view(buf, static_cast<std::size_t>(ptr - buf)));
}

String pointerText(void const* p) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  return String(buf);
}

}  // namespace

GenericIf::PtrConst QelType::valueFromText(String const& text) const {
  if (kind_ == Kind::enumeration) {
    auto v = enumeratorValue(text);
    if (!v) badText(text, *this, "no such enumerator");
    return newValue(*v);
  }
  if (reader_) return reader_(text);
  if (kind_ != Kind::builtin) badText(text, *this, "the type has no text form");
  switch (builtin_) {
    case Builtin::bool_:
      if (text == "true") return newValue(true);
      if (text == "false") return newValue(false);
      badText(text, *this, "expected true or false");
    case Builtin::u8:
      return newValue(toValue(parseNumber<U8>(text, *this)));
    case Builtin::s8:
      return newValue(toValue(parseNumber<S8>(text, *this)));
    case Builtin::u16:
      return newValue(toValue(parseNumber<U16>(text, *this)));
    case Builtin::s16:
      return newValue(toValue(parseNumber<S16>(text, *this)));
    case Builtin::u32:
      return newValue(toValue(parseNumber<U32>(text, *this)));
    case Builtin::s32:
      return newValue(toValue(parseNumber<S32>(text, *this)));
    case Builtin::u64:
      return newValue(toValue(parseNumber<U64>(text, *this)));
    case Builtin::s64:
      return newValue(toValue(parseNumber<S64>(text, *this)));
    case Builtin::long_:
      return newValue(toValue(parseNumber<long>(text, *this)));
    case Builtin::f32:
      return newValue(toValue(parseNumber<float>(text, *this)));
    case Builtin::f64:
    case Builtin::double_:
      return newValue(toValue(parseNumber<double>(text, *this)));
    case Builtin::char_:
      if (text.size() != 1) badText(text, *this, "expected one character");
      return newValue(toValue(text[0]));
    case Builtin::string:
      return newValue(String(text));
    case Builtin::name:
      return newValue(Name(text));
    case Builtin::charPtr:
    case Builtin::constCharPtr:
      if (text == "0" || text == "null") return newValue(static_cast<void const*>(nullptr));
      badText(text, *this, "only a null pointer can be written as text");
    case Builtin::none:
      break;
  }
  badText(text, *this, "the type has no text form");
}

String QelType::textOf(Value const& v) const {
  if (kind_ == Kind::enumeration) {
    auto n = enumeratorName(fromValue<std::int64_t>(v));
    if (n) return String(*n);
    return String(name_ + "(" + std::to_string(fromValue<std::int64_t>(v)) + ")");
  }
  switch (builtin_) {
    case Builtin::bool_:
      return fromValue<bool>(v) ? "true" : "false";
    case Builtin::char_:
      return String(1, fromValue<char>(v));
    case Builtin::f32:
    case Builtin::f64:
    case Builtin::double_:
      return numberText(fromValue<double>(v));
    case Builtin::string:
    case Builtin::name:
      return fromValue<String>(v);
    case Builtin::charPtr:
    case Builtin::constCharPtr:
      return pointerText(fromValue<void const*>(v));
    case Builtin::u8:
    case Builtin::u16:
    case Builtin::u32:
    case Builtin::u64:
      return String(std::to_string(fromValue<std::uint64_t>(v)));
    case Builtin::s8:
    case Builtin::s16:
    case Builtin::s32:
    case Builtin::s64:
    case Builtin::long_:
      return String(std::to_string(fromValue<std::int64_t>(v)));
    case Builtin::none:
      break;
  }
  return String();
}

}  // namespace Qel
