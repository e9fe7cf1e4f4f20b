// Entity types defined at run time from a schema, and their entities.
//
// defineType() registers a QelType whose attributes are given by name and type name: a builtin
// ("U32", "string", ...), an enum type (defineEnum), or an entity type (a pointer attribute).
// An attribute with a key type is a keyed collection, ordered by key. The type gets a factory, so
// QelType::newEntity() creates DynamicEntity instances of it.
//
// A DynamicEntity behaves like an entity of a compiled type: it is read and written through the
// generic view, and every change notifies its generic notifiees (with the key for collections);
// storing a value equal to the present one changes nothing and notifies nobody. Values are checked
// against the attribute's type on every write. Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include <initializer_list>
#include <map>
#include <utility>
#include <vector>

#include "Qel/Entity/Entity.h"
#include "Qel/Reflection/QelType.h"

namespace Qel {

struct AttributeSchema {
  Name name;
  Name typeName;
  Name keyTypeName = {};  // non-empty: a collection keyed by this builtin or enum type
};

// Registers an entity type; throws RangeException for an empty type or attribute name,
// NameInUseException when the name is taken and TypeException for an unknown attribute type or a
// key type that is not a builtin or enum. A refused schema registers nothing.
QelType const* defineType(Name const& typeName, std::vector<AttributeSchema> const& attributes);
// Registers an enum type with its enumerators; throws RangeException for an empty type or
// enumerator name (registering nothing) and NameInUseException when the name is taken.
QelType const* defineEnum(Name const& typeName,
                          std::vector<std::pair<Name, std::int64_t>> const& enumerators);

class QEL_API DynamicEntity final : public Entity {
 public:
  using Ptr = Qel::Ptr<DynamicEntity>;
  using PtrConst = Qel::Ptr<DynamicEntity const>;

  // An entity of a type made by defineType.
  static Ptr entityNew(QelType const* type, Name const& name);

  QelType const* fwkType() const override { return type_; }

  // Plain attributes.
  GenericIf::PtrConst value(AttributeId aid) const;
  void valueIs(AttributeId aid, GenericIf::PtrConst const& v);

  // Collections: element at key (null when absent), insert-or-update, delete, count.
  GenericIf::PtrConst element(AttributeId aid, GenericIf::PtrConst const& key) const;
  void elementIs(AttributeId aid, GenericIf::PtrConst const& key, GenericIf::PtrConst const& v);
  void elementDel(AttributeId aid, GenericIf::PtrConst const& key);
  std::size_t elements(AttributeId aid) const;
  // The keys of a collection, in key order.
  std::vector<GenericIf::PtrConst> keys(AttributeId aid) const;

 private:
  struct Element {
    GenericIf::PtrConst key;
    GenericIf::PtrConst value;
  };
  struct Slot {
    GenericIf::PtrConst value;
    std::map<Value, Element> elements;
  };

  DynamicEntity(QelType const* type, Name name);
  ~DynamicEntity() override = default;

  QelAttr const& attr(AttributeId aid) const;
  Slot& slot(AttributeId aid) { return slots_[aid]; }
  Slot const& slot(AttributeId aid) const { return slots_[aid]; }

  QelType const* type_;
  std::vector<Slot> slots_;
};

}  // namespace Qel
