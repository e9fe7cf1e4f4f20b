// Type metadata of the reflection: QelType (a type) and QelAttr (an attribute of an entity or
// value type), and the process-wide registry of types by name.
//
// An attribute is data (a value, a pointer, an enum, a collection) or a handler: an operation of
// the type with named, typed parameters and an optional result, invoked by name through
// GenericIf::invoke. Handlers share the attribute ids and names of their type, so that one list
// describes everything reachable by name; they can be neither read nor written.
//
// Types are immortal: the registry owns them and hands out plain pointers that stay valid for the
// life of the process. The eighteen builtin types are registered at start-up under the names bool,
// U8, S8, U16, S16, U32, S32, U64, S64, F32, F64, char, char*, const char*, long, double, string,
// name; they are distinct types even where their C++ representation is shared (F64 and double).
// Compiled entity types register themselves through TypeBuilder; run-time types through
// defineType (Schema.h). Both produce the same metadata, so the generic view cannot tell them
// apart. Single-threaded after static initialisation.
#pragma once

#include "Qel/Core/Api.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Qel/Core/Types.h"
#include "Qel/Reflection/GenericIf.h"
#include "Qel/Reflection/Value.h"

namespace Qel {

class Entity;

enum class Builtin : std::uint8_t {
  none,
  bool_,
  u8,
  s8,
  u16,
  s16,
  u32,
  s32,
  u64,
  s64,
  f32,
  f64,
  char_,
  charPtr,
  constCharPtr,
  long_,
  double_,
  string,
  name,
};

class QEL_API QelAttr {
 public:
  enum class Kind { value, pointer, enumeration, collection, handler };

  // A parameter of a handler. An argument fits when it is of `type`, or, given `accepts`, when
  // `accepts` says so; only a pointer parameter takes a null argument.
  struct Parameter {
    Name name;
    QelType const* type = nullptr;
    bool pointer = false;
    std::function<bool(GenericIf const&)> accepts;
  };
  // Runs a handler with its arguments in parameter order, already checked; returns the result,
  // empty when the handler returns nothing.
  using Invoker =
      std::function<GenericIf::PtrConst(GenericIf&, std::vector<GenericIf::PtrConst> const&)>;
  using Getter = std::function<GenericIf::PtrConst(GenericIf const&, GenericIf::PtrConst const&)>;
  using Setter =
      std::function<void(GenericIf&, GenericIf::PtrConst const&, GenericIf::PtrConst const&)>;
  using Member = std::function<bool(GenericIf const&, GenericIf::PtrConst const&)>;
  using Count = std::function<std::size_t(GenericIf const&)>;

  QelAttr(AttributeId id, Name name, Kind kind, QelType const* type, QelType const* keyType)
      : id_(id), name_(std::move(name)), kind_(kind), type_(type), keyType_(keyType) {}

  AttributeId id() const { return id_; }
  Name const& name() const { return name_; }
  Kind kind() const { return kind_; }
  bool isCollection() const { return kind_ == Kind::collection; }
  bool isHandler() const { return kind_ == Kind::handler; }
  // The type of the value (of a collection: of its elements; of a pointer: of the pointee; of a
  // handler: of its result, null when it returns nothing).
  QelType const* type() const { return type_; }
  // The key type of a collection; null otherwise.
  QelType const* keyType() const { return keyType_; }
  // Whether the elements of a collection are pointers to entities.
  bool elementsArePointers() const { return elementPointers_; }
  // Constructor attributes are fixed for an entity's life and refuse writes.
  bool isConstructorAttribute() const { return constructor_; }

  QelAttr& getterIs(Getter g) {
    get_ = std::move(g);
    return *this;
  }
  QelAttr& setterIs(Setter s) {
    set_ = std::move(s);
    return *this;
  }
  QelAttr& memberIs(Member m) {
    member_ = std::move(m);
    return *this;
  }
  QelAttr& countIs(Count c) {
    count_ = std::move(c);
    return *this;
  }
  QelAttr& constructorAttributeIs(bool b) {
    constructor_ = b;
    return *this;
  }
  QelAttr& elementsArePointersIs(bool b) {
    elementPointers_ = b;
    return *this;
  }
  QelAttr& parametersIs(std::vector<Parameter> p) {
    parameters_ = std::move(p);
    return *this;
  }
  QelAttr& invokerIs(Invoker i) {
    invoke_ = std::move(i);
    return *this;
  }

  // A handler's parameters in declaration order, and one by name (null when none).
  std::vector<Parameter> const& parameters() const { return parameters_; }
  Parameter const* parameter(Name const& name) const;

  Getter const& getter() const { return get_; }
  Setter const& setter() const { return set_; }
  Member const& member() const { return member_; }
  Count const& count() const { return count_; }
  Invoker const& invoker() const { return invoke_; }

 private:
  AttributeId id_;
  Name name_;
  Kind kind_;
  QelType const* type_;
  QelType const* keyType_;
  bool constructor_ = false;
  bool elementPointers_ = false;
  Getter get_;
  Setter set_;
  Member member_;
  Count count_;
  std::vector<Parameter> parameters_;
  Invoker invoke_;
};

class QEL_API QelType {
 public:
  enum class Kind { builtin, enumeration, entity, value };
  using Factory = std::function<Ptr<Entity>(Name const&)>;
  using Boxer = std::function<GenericIf::PtrConst(void const*)>;
  using Reader = std::function<GenericIf::PtrConst(String const&)>;

  QelType(QelType const&) = delete;
  QelType& operator=(QelType const&) = delete;

  // The registered type of that name, or null.
  static QelType const* type(Name const& name);
  // The registered type of that name; throws TypeException "Unknown type: <name>" when absent.
  static QelType const& typeOrThrow(Name const& name);
  static QelType const* builtin(Builtin b);
  // Registers a new type; throws NameInUseException when the name is taken.
  static QelType& typeNew(Name const& name, Kind kind);

  Name const& name() const { return name_; }
  // The type's name with its namespaces ("Ledra::PassiveMountGroup"); builtins: their name.
  Name const& fullName() const { return name_; }
  Kind kind() const { return kind_; }
  Builtin builtinKind() const { return builtin_; }
  bool isEnum() const { return kind_ == Kind::enumeration; }
  bool isBuiltin() const { return kind_ == Kind::builtin; }

  // Attributes, by id (declaration order) and by name.
  std::size_t attributes() const { return attrs_.size(); }
  QelAttr const* attribute(AttributeId aid) const {
    return aid < attrs_.size() ? attrs_[aid].get() : nullptr;
  }
  QelAttr const* attribute(Name const& name) const;
  // Appends an attribute with the next id.
  QelAttr& attributeNew(Name const& name, QelAttr::Kind kind, QelType const* type,
                        QelType const* keyType = nullptr);

  // Enumerators of an enum type.
  void enumeratorIs(Name const& name, std::int64_t value);
  std::optional<std::int64_t> enumeratorValue(Name const& name) const;
  std::optional<Name> enumeratorName(std::int64_t value) const;
  std::vector<std::pair<Name, std::int64_t>> const& enumerators() const { return enumerators_; }

  // Creation of entities by type name.
  void factoryIs(Factory f) { factory_ = std::move(f); }
  bool hasFactory() const { return static_cast<bool>(factory_); }
  // Throws TypeException when the type has no factory.
  Ptr<Entity> newEntity(Name const& name) const;

  // A generic value of this (builtin or enum) type holding `v`.
  GenericIf::PtrConst newValue(Value v) const;
  // A generic value of this type from its text form; throws ParseException on bad text. A value
  // type is read by its reader (readerIs), and has no text form without one.
  GenericIf::PtrConst valueFromText(String const& text) const;
  void readerIs(Reader r) { reader_ = std::move(r); }
  // The text form of a value of this type.
  String textOf(Value const& v) const;

  // Boxing of a key or value given in its C++ representation (used by notifications).
  void boxerIs(Boxer b) { boxer_ = std::move(b); }
  GenericIf::PtrConst box(void const* native) const;

 private:
  QelType(Name name, Kind kind, Builtin builtin);
  friend struct TypeRegistry;

  Name name_;
  Kind kind_;
  Builtin builtin_;
  std::vector<std::unique_ptr<QelAttr>> attrs_;
  std::vector<std::pair<Name, std::int64_t>> enumerators_;
  Factory factory_;
  Boxer boxer_;
  Reader reader_;
};

}  // namespace Qel
