// The generic, by-name view of entities and values.
//
// Every entity and every boxed value is a GenericIf. Its QelType describes its attributes; the
// view answers by attribute id: the attribute's name ("unknown" when there is none), the value of
// a plain attribute as a generic value, whether a key is a member of a collection, a collection's
// element count, writes by name, and the invocation of a handler by name with its arguments by
// parameter name. A write or an invocation through a read-only instance (a Ptr<GenericIf const>)
// is refused with ConstInstanceException ("attempting to modify a const instance"); a write of a
// constructor attribute is refused with TypeException.
//
// GenericIf is also the notifier: it keeps the list of notifiees and delivers each change to every
// notifiee registered when the change happened (see ObserverList). Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include <cstddef>
#include <map>

#include "Qel/Core/ObserverList.h"
#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Reflection/Value.h"

namespace Qel {

class QelType;
class QelAttr;
struct AttrNotifier;
class GenericValue;

class QEL_API GenericIf : public RefCounted {
 public:
  using PtrConst = Ptr<GenericIf const>;
  // The arguments of a handler by parameter name; a null value is a null pointer.
  using Arguments = std::map<Name, PtrConst>;
  class NotifieeConst;

  virtual QelType const* qelType() const = 0;

  // The name of attribute `aid`, or "unknown".
  Name attributeName(AttributeId aid) const;
  // The attribute's id, or kNoAttribute.
  AttributeId attributeId(Name const& name) const;

  // A plain attribute's value (key empty), or the element at `key` of a collection; empty when
  // the element or the pointed-to entity is absent. Throws TypeException for an unknown id.
  PtrConst attribute(AttributeId aid, PtrConst const& key = {}) const;
  // A bool value: whether `key` is a member of collection `aid`.
  PtrConst isMember(AttributeId aid, PtrConst const& key) const;
  // A U32 value: the number of elements of collection `aid`.
  PtrConst colLength(AttributeId aid) const;

  // Writes attribute `name` (for a collection, the element at `key`; an empty value deletes it).
  void attributeIs(Name const& name, PtrConst const& value, PtrConst const& key = {});
  void attributeIs(Name const& name, PtrConst const& value, PtrConst const& key = {}) const;
  // The same from text, converted by the attribute's value and key types.
  void attributeIs(Name const& name, String const& text, String const& keyText = {});
  void attributeIs(Name const& name, String const& text, String const& keyText = {}) const;

  // Invokes handler `name` with one argument per parameter and returns its result (empty when it
  // returns nothing). Throws TypeException, changing nothing, for a name that is no handler, an
  // argument that names no parameter, a missing argument or one of another type.
  PtrConst invoke(Name const& name, Arguments const& args);
  PtrConst invoke(Name const& name, Arguments const& args) const;

  // For boxed builtin and enum values: the value; null for entities.
  virtual GenericValue const* asValue() const { return nullptr; }
  // The value read as T (see GenericValue); T{} when this is no builtin value.
  template <class T>
  T valueAs() const;
  // The value's text form (entities: their full name).
  virtual String text() const = 0;

  std::size_t notifiees() const { return notifiees_.size(); }

 protected:
  GenericIf() = default;
  ~GenericIf() override;

  // Delivers a change of `aid` to every registered, active notifiee.
  void notify(AttributeId aid, NotifyKey const& key = {}) const {
    if (notifiees_.empty()) return;
    // A notifiee may drop the last reference to this object while it is being notified.
    PtrConst keepAlive(refCount() > 0 ? this : nullptr);
    notifiees_.forEach([&](NotifieeBase* n) {
      if (n->delivering()) n->qelDispatch(aid, key);
    });
  }
  template <class K>
  void notifyKey(AttributeId aid, K const& key) const {
    notify(aid, NotifyKey{&key, nullptr});
  }

 private:
  friend class NotifieeBase;
  friend struct AttrNotifier;
  mutable ObserverList<NotifieeBase> notifiees_;
};

// The generic notifiee: one callback for every attribute of every entity type.
class GenericIf::NotifieeConst : public BasicNotifiee<GenericIf const> {
 public:
  explicit NotifieeConst(Reference ref = Reference::strong) : BasicNotifiee(ref) {}
  ~NotifieeConst() override = default;

  // `key` is empty for a plain attribute and holds the changed key for a collection.
  virtual void onAttribute(AttributeId /*aid*/, PtrConst& /*key*/) {}

  void qelDispatch(AttributeId aid, NotifyKey const& key) override;
};

}  // namespace Qel
