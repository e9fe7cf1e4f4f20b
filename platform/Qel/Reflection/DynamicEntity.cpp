#include "Qel/Reflection/DynamicEntity.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/GenericValue.h"

namespace Qel {

namespace {

// The value an attribute of type `t` has before anything is written.
GenericIf::PtrConst defaultValue(QelAttr const& a) {
  QelType const* t = a.type();
  if (a.kind() == QelAttr::Kind::pointer) return {};
  if (t->isEnum()) {
    auto const& e = t->enumerators();
    return t->newValue(Value(e.empty() ? std::int64_t{0} : e.front().second));
  }
  switch (t->builtinKind()) {
    case Builtin::bool_:
      return t->newValue(false);
    case Builtin::u8:
    case Builtin::u16:
    case Builtin::u32:
    case Builtin::u64:
      return t->newValue(std::uint64_t{0});
    case Builtin::s8:
    case Builtin::s16:
    case Builtin::s32:
    case Builtin::s64:
    case Builtin::long_:
    case Builtin::char_:
      return t->newValue(std::int64_t{0});
    case Builtin::f32:
    case Builtin::f64:
    case Builtin::double_:
      return t->newValue(0.0);
    case Builtin::string:
      return t->newValue(String());
    case Builtin::name:
      return t->newValue(Name());
    case Builtin::charPtr:
    case Builtin::constCharPtr:
      return t->newValue(static_cast<void const*>(nullptr));
    case Builtin::none:
      break;
  }
  return {};
}

bool sameValue(GenericIf::PtrConst const& a, GenericIf::PtrConst const& b) {
  if (a == b) return true;
  if (!a || !b) return false;
  GenericValue const* va = a->asValue();
  GenericValue const* vb = b->asValue();
  if (!va || !vb) return false;  // entities compare by identity
  return va->qelType() == vb->qelType() && va->value() == vb->value();
}

// Checks that `v` may be stored in an attribute (or collection element) of type `t`.
void checkValue(QelAttr const& a, GenericIf::PtrConst const& v, QelType const* owner) {
  if (!v) {
    if (a.kind() == QelAttr::Kind::pointer || a.isCollection()) return;
    throw TypeException("attribute " + a.name() + " of " + owner->name() + " cannot be empty");
  }
  bool const pointer = a.kind() == QelAttr::Kind::pointer || a.elementsArePointers();
  if (pointer) {
    if (v->asValue()) {
      throw TypeException("attribute " + a.name() + " of " + owner->name() +
                          " takes an entity, not a " + v->qelType()->name());
    }
    return;
  }
  if (v->qelType() != a.type()) {
    throw TypeException("attribute " + a.name() + " of " + owner->name() + " takes " +
                        a.type()->name() + ", not " + v->qelType()->name());
  }
}

void checkKey(QelAttr const& a, GenericIf::PtrConst const& key, QelType const* owner) {
  if (!key || key->qelType() != a.keyType()) {
    throw TypeException("collection " + a.name() + " of " + owner->name() + " is keyed by " +
                        a.keyType()->name());
  }
}

QelType const* attributeType(Name const& typeName) {
  QelType const* t = QelType::type(typeName);
  if (!t) throw TypeException("Unknown type: " + typeName);
  return t;
}

}  // namespace

QelType const* defineEnum(Name const& typeName,
                          std::vector<std::pair<Name, std::int64_t>> const& enumerators) {
  if (typeName.empty()) throw RangeException("an enum type needs a name");
  for (auto const& [name, value] : enumerators) {
    if (name.empty()) throw RangeException("an enumerator of " + typeName + " needs a name");
  }
  QelType& t = QelType::typeNew(typeName, QelType::Kind::enumeration);
  for (auto const& [name, value] : enumerators)
    t.enumeratorIs(name, value);
  return &t;
}

QelType const* defineType(Name const& typeName, std::vector<AttributeSchema> const& attributes) {
  // Resolve every type before registering anything, so that a bad schema leaves no trace.
  struct Resolved {
    QelType const* type;
    QelType const* key;
  };
  std::vector<Resolved> resolved;
  if (typeName.empty()) throw RangeException("an entity type needs a name");
  for (auto const& a : attributes) {
    if (a.name.empty()) throw RangeException("an attribute of " + typeName + " needs a name");
    if (a.name == "name") throw NameInUseException("attribute name of " + typeName + " exists");
    QelType const* key = nullptr;
    if (!a.keyTypeName.empty()) {
      key = attributeType(a.keyTypeName);
      if (!key->isBuiltin() && !key->isEnum()) {
        throw TypeException("collection " + a.name + " of " + typeName +
                            " needs a builtin or enum key, not " + key->name());
      }
    }
    resolved.push_back({attributeType(a.typeName), key});
  }
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (attributes[i].name == attributes[j].name) {
        throw NameInUseException("attribute " + attributes[i].name + " of " + typeName +
                                 " is defined twice");
      }
    }
  }

  QelType& t = QelType::typeNew(typeName, QelType::Kind::entity);
  t.attributeNew("name", QelAttr::Kind::value, QelType::builtin(Builtin::name))
      .constructorAttributeIs(true)
      .getterIs([](GenericIf const& g, GenericIf::PtrConst const&) {
        return QelType::builtin(Builtin::name)->newValue(static_cast<Entity const&>(g).name());
      });
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    QelType const* vt = resolved[i].type;
    bool const entityValued = vt->kind() == QelType::Kind::entity;
    QelAttr::Kind kind = resolved[i].key ? QelAttr::Kind::collection
                         : entityValued  ? QelAttr::Kind::pointer
                         : vt->isEnum()  ? QelAttr::Kind::enumeration
                                         : QelAttr::Kind::value;
    QelAttr& a = t.attributeNew(attributes[i].name, kind, vt, resolved[i].key);
    AttributeId const aid = a.id();
    if (!resolved[i].key) {
      a.getterIs([aid](GenericIf const& g, GenericIf::PtrConst const&) {
         return static_cast<DynamicEntity const&>(g).value(aid);
       }).setterIs([aid](GenericIf& g, GenericIf::PtrConst const& v, GenericIf::PtrConst const&) {
        static_cast<DynamicEntity&>(g).valueIs(aid, v);
      });
      continue;
    }
    a.elementsArePointersIs(entityValued);
    a.getterIs([aid](GenericIf const& g, GenericIf::PtrConst const& key) {
       return static_cast<DynamicEntity const&>(g).element(aid, key);
     })
        .memberIs([aid](GenericIf const& g, GenericIf::PtrConst const& key) {
          return static_cast<bool>(static_cast<DynamicEntity const&>(g).element(aid, key));
        })
        .countIs([aid](GenericIf const& g) {
          return static_cast<DynamicEntity const&>(g).elements(aid);
        })
        .setterIs(
            [aid](GenericIf& g, GenericIf::PtrConst const& v, GenericIf::PtrConst const& key) {
              static_cast<DynamicEntity&>(g).elementIs(aid, key, v);  // null removes
            });
  }
  QelType const* self = &t;
  t.factoryIs(
      [self](Name const& name) { return Entity::Ptr(DynamicEntity::entityNew(self, name)); });
  return &t;
}

DynamicEntity::Ptr DynamicEntity::entityNew(QelType const* type, Name const& name) {
  QEL_CHECK(type && type->kind() == QelType::Kind::entity,
            "type && type->kind() == QelType::Kind::entity && \"not an entity type\"");
  return Ptr(new DynamicEntity(type, name));
}

DynamicEntity::DynamicEntity(QelType const* type, Name name)
    : Entity(std::move(name)), type_(type), slots_(type->attributes()) {
  for (AttributeId aid = 1; aid < type->attributes(); ++aid) {
    QelAttr const& a = *type->attribute(aid);
    if (!a.isCollection()) slots_[aid].value = defaultValue(a);
  }
}

QelAttr const& DynamicEntity::attr(AttributeId aid) const {
  QelAttr const* a = type_->attribute(aid);
  if (!a || aid == kName) {
    throw TypeException("type " + type_->name() + " has no writable attribute with id " +
                        std::to_string(aid));
  }
  return *a;
}

GenericIf::PtrConst DynamicEntity::value(AttributeId aid) const {
  if (attr(aid).isCollection()) throw TypeException("collection " + attr(aid).name() + " has keys");
  return slot(aid).value;
}

void DynamicEntity::valueIs(AttributeId aid, GenericIf::PtrConst const& v) {
  QelAttr const& a = attr(aid);
  if (a.isCollection()) throw TypeException("collection " + a.name() + " is written by key");
  checkValue(a, v, type_);
  if (sameValue(slot(aid).value, v)) return;
  slot(aid).value = v;
  notify(aid);
}

GenericIf::PtrConst DynamicEntity::element(AttributeId aid, GenericIf::PtrConst const& key) const {
  QelAttr const& a = attr(aid);
  checkKey(a, key, type_);
  auto const& elements = slot(aid).elements;
  auto it = elements.find(key->asValue()->value());
  return it == elements.end() ? nullptr : it->second.value;
}

void DynamicEntity::elementIs(AttributeId aid, GenericIf::PtrConst const& key,
                              GenericIf::PtrConst const& v) {
  QelAttr const& a = attr(aid);
  checkKey(a, key, type_);
  if (!v) {
    elementDel(aid, key);
    return;
  }
  checkValue(a, v, type_);
  auto [it, inserted] = slot(aid).elements.try_emplace(key->asValue()->value(), Element{key, v});
  if (!inserted) {
    if (sameValue(it->second.value, v)) return;
    it->second.value = v;
  }
  notify(aid, NotifyKey{nullptr, key.ptr()});
}

void DynamicEntity::elementDel(AttributeId aid, GenericIf::PtrConst const& key) {
  QelAttr const& a = attr(aid);
  checkKey(a, key, type_);
  auto& elements = slot(aid).elements;
  auto it = elements.find(key->asValue()->value());
  if (it == elements.end()) return;
  GenericIf::PtrConst const keep = it->second.key;
  elements.erase(it);
  notify(aid, NotifyKey{nullptr, keep.ptr()});
}

std::size_t DynamicEntity::elements(AttributeId aid) const {
  QelAttr const& a = attr(aid);
  if (!a.isCollection()) throw TypeException("attribute " + a.name() + " is not a collection");
  return slot(aid).elements.size();
}

std::vector<GenericIf::PtrConst> DynamicEntity::keys(AttributeId aid) const {
  std::vector<GenericIf::PtrConst> out;
  for (auto const& [v, e] : slot(aid).elements)
    out.push_back(e.key);
  return out;
}

}  // namespace Qel
