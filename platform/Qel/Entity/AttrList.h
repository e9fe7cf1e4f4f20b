// An entity's attribute list: the one place an entity type writes its attributes. From it come
// the attribute ids, the public accessors, the storage (Attr.h), the typed notifiee's callbacks
// and its qelDispatch, and the reflection registered with TypeBuilder.
//
// The list is a macro taking X, with one X(kind, style, T, name, Name, ...) per attribute in id
// order (ids start at 1; 0 is the name):
//
//   #define LEDRA_THING_ATTRIBUTES(X)
//     X(value, plain, Qel::String, agentString, AgentString)
//     X(map, keyWhole, StringMap, templateCache, TemplateCache)
//
//   class Thing : public Qel::Entity {
//    public:
//     QEL_ATTR_IDS(LEDRA_THING_ATTRIBUTES);     // enum { kAgentString = 1, kTemplateCache }
//     QEL_ATTR_ACCESSORS(LEDRA_THING_ATTRIBUTES)
//    private:
//     QEL_ATTR_STORAGE(LEDRA_THING_ATTRIBUTES)
//   };
//   template <class N> class Thing::NotifieeT : public Qel::BasicNotifiee<N> {
//    public:
//     using Qel::BasicNotifiee<N>::BasicNotifiee;
//     QEL_ATTR_NOTIFIEE(LEDRA_THING_ATTRIBUTES)
//   };
//   ... Qel::TypeBuilder<Thing>("Ledra::Thing") QEL_ATTR_REFLECTION(LEDRA_THING_ATTRIBUTES) ...
//
// kind: what the entity holds, its accessors and its reflection ("..." is the name of the
// element count accessor for the collections that have one):
//   value       T                  name(), nameIs(v); readable and writable by name
//   valueRo     T                  the same; read-only by name
//   valueOwnWrites T               name(), read-only by name; the writes are the entity's own,
//                                  on name_ (for a value only the entity itself changes)
//   valueOwnWritesRw T             name(); nameIs(v) is the entity's own, and the value is
//                                  writable by name through it (for a write that does more
//                                  than store)
//   getter      T                  nothing generated but the reflection: read-only name()
//   ctor        T                  the same, marked as a constructor attribute
//   map         map type T         name() (the whole map), name(k) (LookupResult), nameIs(k, v),
//                                  nameDel(k), nameDelAll(); readable and writable by name
//                                  (an empty value deletes)
//   mapRo       map type T         the same; read-only by name
//   keyedMap    map type T         as mapRo, but nameIs(v) stores v under qelKey(v)
//   keyedMapRw  map type T         as keyedMap, and writable by name: a written value must have
//                                  its key, else RangeException(qelKeyMismatch(v))
//   mapOwnWrites map type T        name() and name(k) as map, read-only by name; nameIs, nameDel
//                                  and nameDelAll are the entity's own, written on name_ (for
//                                  writes that do more than store: a side effect after a removal,
//                                  a value made from other arguments)
//   mapOwnIs    map type T         as mapRo, but nameIs is the entity's own (for a value made
//                                  from other arguments)
//   notifieeMap map type T         a map of Ptrs to notifiees, each watching one notifier:
//                                  name() and name(k) as map; nameIs, nameDel and nameDelAll are
//                                  the entity's own, written on name_; read-only by name, where
//                                  each element shows as the notifier it watches
//   children    entity type T      name() (the map), name(n) (a Ptr), nameDel(n), nameDelAll();
//                                  nameIs is the entity's own (it decides how a child is made)
//   childMap    map type T         as children, for children held in T (name to Ptr<E>, for
//                                  instance ordered by name)
//   queue       element type T     name() (the LinkQueue), name(i), nameEnq(v) (the index),
//                                  nameDeq() (the value), nameIs(i, v), nameDel(i), nameDelAll(),
//                                  nameMetadata(); writable by name
//   queueRo     element type T     the same; read-only by name
//   recordField RecordField type T one collection of the record map the entity holds as
//                                  qelRecords_ (a NotifyingRecordMap; declared with
//                                  QEL_ATTR_RECORDS): name() (the collection ordered by key, a
//                                  copy), nameOf(k) (the element, or null), nameIs(k, v),
//                                  nameDel(k), nameDelAll(); read-only by name
//   recordFieldOwnIs  RecordField type T  as recordField, but nameIs is the entity's own, written
//                                  on qelRecords_ (for a write that does more than store)
//   recordFieldOwnWrites RecordField type T  as recordField, but nameIs, nameDel and nameDelAll
//                                  are the entity's own
//   custom      key type T         accessors and storage are the entity's own; the reflection is
//                                  registered by its static qelReflectName(TypeBuilder<E>&)
//   handler     -                  an id only; handlers are registered after the list
//
// A type derived from an entity with a list declares the ids of its own list with
// QEL_ATTR_IDS_AFTER(Base, LIST): they follow the base's, as its reflection does when the base's
// attributes are registered first.
//
// style: what the typed notifiee is told, in its own callbacks:
//   none                 nothing
//   plain                onName()
//   key                  onName(key)
//   keyWhole             onName(key), then onName()
//   keyImmediateWhole    onName(key), then onNameqelImmediate(), then onName()
// A notifiee destroyed by one of these calls receives none of the rest.
//
// Every mutator stores only on a change and notifies after storing (see Attr.h).
#pragma once

#include "Qel/Entity/Attr.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Qel {
template <class E>
class TypeBuilder;
}  // namespace Qel

// --- ids

#define QEL_ATTR_ID(kind, style, T, name, Upper, ...) k##Upper,
#define QEL_ATTR_IDS_FROM(last, LIST) \
  enum : ::Qel::AttributeId { kQelAttributesBefore_ = last, LIST(QEL_ATTR_ID) kQelAttributesEnd_ }
#define QEL_ATTR_IDS(LIST) QEL_ATTR_IDS_FROM(::Qel::Entity::kName, LIST)
#define QEL_ATTR_IDS_AFTER(Base, LIST) QEL_ATTR_IDS_FROM(Base::kQelAttributesEnd_ - 1, LIST)

// --- accessors

#define QEL_ATTR_ACCESSORS(LIST) LIST(QEL_ATTR_ACCESSOR)
#define QEL_ATTR_ACCESSOR(kind, style, T, name, Upper, ...) \
  QEL_ATTR_ACCESSOR_##kind(T, name, Upper __VA_OPT__(, ) __VA_ARGS__)

#define QEL_ATTR_COUNT(name, ...) \
  __VA_OPT__(std::size_t __VA_ARGS__() const { return name##_.size(); })
// nameDel(k), nameDelAll() and the element count, for every collection kind.
#define QEL_ATTR_ACCESSOR_DELETE(K, name, ...) \
  void name##Del(K k) {                        \
    name##_.del(*this, k);                     \
  }                                            \
  void name##DelAll() {                        \
    name##_.delAll(*this);                     \
  }                                            \
  QEL_ATTR_COUNT(name __VA_OPT__(, ) __VA_ARGS__)

#define QEL_ATTR_ACCESSOR_value(T, name, Upper, ...) \
  T const& name() const {                            \
    return name##_.get();                            \
  }                                                  \
  void name##Is(T const& v) {                        \
    name##_.set(*this, v);                           \
  }
#define QEL_ATTR_ACCESSOR_valueRo QEL_ATTR_ACCESSOR_value
#define QEL_ATTR_ACCESSOR_valueOwnWrites(T, name, Upper, ...) \
  T const& name() const {                                     \
    return name##_.get();                                     \
  }
#define QEL_ATTR_ACCESSOR_valueOwnWritesRw QEL_ATTR_ACCESSOR_valueOwnWrites
#define QEL_ATTR_ACCESSOR_getter(T, name, Upper, ...)
#define QEL_ATTR_ACCESSOR_ctor(T, name, Upper, ...)
#define QEL_ATTR_ACCESSOR_custom(T, name, Upper, ...)
#define QEL_ATTR_ACCESSOR_handler(T, name, Upper, ...)

#define QEL_ATTR_ACCESSOR_MAP_LOOKUP(T, name)                           \
  T const& name() const {                                               \
    return name##_.map();                                               \
  }                                                                     \
  template <class K>                                                    \
  ::Qel::LookupResult<typename T::mapped_type> name(K const& k) const { \
    return name##_.find(k);                                             \
  }
#define QEL_ATTR_ACCESSOR_MAP_READ(T, name, ...) \
  QEL_ATTR_ACCESSOR_MAP_LOOKUP(T, name)          \
  QEL_ATTR_ACCESSOR_DELETE(typename T::key_type const&, name __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_ACCESSOR_map(T, name, Upper, ...)                                 \
  QEL_ATTR_ACCESSOR_MAP_READ(T, name __VA_OPT__(, ) __VA_ARGS__)                   \
  void name##Is(typename T::key_type const& k, typename T::mapped_type const& v) { \
    name##_.set(*this, k, v);                                                      \
  }
#define QEL_ATTR_ACCESSOR_mapRo QEL_ATTR_ACCESSOR_map
#define QEL_ATTR_ACCESSOR_keyedMap(T, name, Upper, ...)          \
  QEL_ATTR_ACCESSOR_MAP_READ(T, name __VA_OPT__(, ) __VA_ARGS__) \
  void name##Is(typename T::mapped_type const& v) {              \
    typename T::key_type const key = qelKey(v);                  \
    name##_.set(*this, key, v);                                  \
  }
#define QEL_ATTR_ACCESSOR_keyedMapRw QEL_ATTR_ACCESSOR_keyedMap
#define QEL_ATTR_ACCESSOR_mapOwnWrites(T, name, Upper, ...) \
  QEL_ATTR_ACCESSOR_MAP_LOOKUP(T, name)                     \
  QEL_ATTR_COUNT(name __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_ACCESSOR_mapOwnIs(T, name, Upper, ...) \
  QEL_ATTR_ACCESSOR_MAP_READ(T, name __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_ACCESSOR_notifieeMap QEL_ATTR_ACCESSOR_mapOwnWrites

#define QEL_ATTR_ACCESSOR_childMap(T, name, Upper, ...) \
  T const& name() const {                               \
    return name##_.map();                               \
  }                                                     \
  template <class K>                                    \
  typename T::mapped_type name(K const& n) const {      \
    return name##_.find(n);                             \
  }                                                     \
  QEL_ATTR_ACCESSOR_DELETE(::Qel::Name const&, name __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_ACCESSOR_children(T, name, Upper, ...) \
  QEL_ATTR_ACCESSOR_childMap(QEL_ATTR_CHILD_MAP(T), name, Upper __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_CHILD_MAP(T) ::Qel::EntityMapOf<T>

#define QEL_ATTR_ACCESSOR_queue(T, name, Upper, ...)                       \
  typename ::Qel::NotifyingQueue<T, k##Upper>::Queue const& name() const { \
    return name##_.queue();                                                \
  }                                                                        \
  T const* name(::Qel::U32 index) const {                                  \
    return name##_.find(index);                                            \
  }                                                                        \
  ::Qel::U32 name##Enq(T const& v) {                                       \
    return name##_.enq(*this, v);                                          \
  }                                                                        \
  T name##Deq() {                                                          \
    return name##_.deq(*this);                                             \
  }                                                                        \
  void name##Is(::Qel::U32 index, T const& v) {                            \
    name##_.set(*this, index, v);                                          \
  }                                                                        \
  ::Qel::LinkQueueMetadata name##Metadata() const {                        \
    return name##_.metadata();                                             \
  }                                                                        \
  QEL_ATTR_ACCESSOR_DELETE(::Qel::U32, name __VA_OPT__(, ) __VA_ARGS__)
#define QEL_ATTR_ACCESSOR_queueRo QEL_ATTR_ACCESSOR_queue

#define QEL_ATTR_RECORD_ARGS(T, Upper) T::kIndex, k##Upper, typename T::Key
#define QEL_ATTR_ACCESSOR_recordFieldOwnWrites(T, name, Upper, ...)              \
  std::vector<std::pair<typename T::Sorted, typename T::Element>> name() const { \
    return qelRecords_.template sorted<T::kIndex, typename T::Sorted>();         \
  }                                                                              \
  template <class K>                                                             \
  typename T::Element const* name##Of(K const& k) const {                        \
    return qelRecords_.template find<T::kIndex>(k);                              \
  }                                                                              \
  __VA_OPT__(std::size_t __VA_ARGS__() const { return qelRecords_.template size<T::kIndex>(); })
#define QEL_ATTR_RECORD_DELETE(T, name, Upper)                          \
  void name##Del(typename T::Key const& k) {                            \
    qelRecords_.template del<QEL_ATTR_RECORD_ARGS(T, Upper)>(*this, k); \
  }                                                                     \
  void name##DelAll() {                                                 \
    qelRecords_.template delAll<QEL_ATTR_RECORD_ARGS(T, Upper)>(*this); \
  }
#define QEL_ATTR_RECORD_SET(T, name, Upper)                                \
  void name##Is(typename T::Key const& k, typename T::Element const& v) {  \
    qelRecords_.template set<QEL_ATTR_RECORD_ARGS(T, Upper)>(*this, k, v); \
  }
#define QEL_ATTR_ACCESSOR_recordFieldOwnIs(T, name, Upper, ...)                     \
  QEL_ATTR_ACCESSOR_recordFieldOwnWrites(T, name, Upper __VA_OPT__(, ) __VA_ARGS__) \
      QEL_ATTR_RECORD_DELETE(T, name, Upper)
#define QEL_ATTR_ACCESSOR_recordField(T, name, Upper, ...)                          \
  QEL_ATTR_ACCESSOR_recordFieldOwnWrites(T, name, Upper __VA_OPT__(, ) __VA_ARGS__) \
      QEL_ATTR_RECORD_DELETE(T, name, Upper) QEL_ATTR_RECORD_SET(T, name, Upper)

// --- storage

#define QEL_ATTR_STORAGE(LIST) LIST(QEL_ATTR_FIELD)
#define QEL_ATTR_FIELD(kind, style, T, name, Upper, ...) QEL_ATTR_FIELD_##kind(T, name, Upper)

#define QEL_ATTR_FIELD_value(T, name, Upper) ::Qel::Attr<T, k##Upper> name##_;
#define QEL_ATTR_FIELD_valueRo QEL_ATTR_FIELD_value
#define QEL_ATTR_FIELD_valueOwnWrites QEL_ATTR_FIELD_value
#define QEL_ATTR_FIELD_valueOwnWritesRw QEL_ATTR_FIELD_value
#define QEL_ATTR_FIELD_getter(T, name, Upper)
#define QEL_ATTR_FIELD_ctor(T, name, Upper)
#define QEL_ATTR_FIELD_custom(T, name, Upper)
#define QEL_ATTR_FIELD_handler(T, name, Upper)
#define QEL_ATTR_FIELD_map(T, name, Upper) ::Qel::NotifyingMap<T, k##Upper> name##_;
#define QEL_ATTR_FIELD_mapRo QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_keyedMap QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_keyedMapRw QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_mapOwnWrites QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_mapOwnIs QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_notifieeMap QEL_ATTR_FIELD_map
#define QEL_ATTR_FIELD_childMap(T, name, Upper) \
  ::Qel::NotifyingEntityMapIn<T, k##Upper> name##_{this};
#define QEL_ATTR_FIELD_children(T, name, Upper) \
  QEL_ATTR_FIELD_childMap(QEL_ATTR_CHILD_MAP(T), name, Upper)
#define QEL_ATTR_FIELD_queue(T, name, Upper) ::Qel::NotifyingQueue<T, k##Upper> name##_;
#define QEL_ATTR_FIELD_queueRo QEL_ATTR_FIELD_queue
#define QEL_ATTR_FIELD_recordField(T, name, Upper)
#define QEL_ATTR_FIELD_recordFieldOwnIs(T, name, Upper)
#define QEL_ATTR_FIELD_recordFieldOwnWrites(T, name, Upper)
// The record map the recordField kinds share.
#define QEL_ATTR_RECORDS(Records) Records qelRecords_;

// --- the typed notifiee

#define QEL_ATTR_KEY_value(T) T
#define QEL_ATTR_KEY_valueRo(T) T
#define QEL_ATTR_KEY_valueOwnWrites(T) T
#define QEL_ATTR_KEY_valueOwnWritesRw(T) T
#define QEL_ATTR_KEY_getter(T) T
#define QEL_ATTR_KEY_ctor(T) T
#define QEL_ATTR_KEY_custom(T) T
#define QEL_ATTR_KEY_handler(T) T
#define QEL_ATTR_KEY_map(T) ::Qel::NotifiedKey<typename T::key_type>
#define QEL_ATTR_KEY_mapRo QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_keyedMap QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_keyedMapRw QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_mapOwnWrites QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_mapOwnIs QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_notifieeMap QEL_ATTR_KEY_map
#define QEL_ATTR_KEY_children(T) ::Qel::Name
#define QEL_ATTR_KEY_childMap(T) ::Qel::Name
#define QEL_ATTR_KEY_queue(T) ::Qel::U32
#define QEL_ATTR_KEY_queueRo(T) ::Qel::U32
#define QEL_ATTR_KEY_recordField(T) typename T::Key
#define QEL_ATTR_KEY_recordFieldOwnIs(T) typename T::Key
#define QEL_ATTR_KEY_recordFieldOwnWrites(T) typename T::Key

#define QEL_ATTR_NOTIFIEE(LIST)                                                          \
  LIST(QEL_ATTR_ON)                                                                      \
  void qelDispatch(::Qel::AttributeId aid, [[maybe_unused]] ::Qel::NotifyKey const& key) \
      override {                                                                         \
    switch (aid) {                                                                       \
      LIST(QEL_ATTR_CASE)                                                                \
      default:                                                                           \
        return;                                                                          \
    }                                                                                    \
  }

#define QEL_ATTR_ON(kind, style, T, name, Upper, ...) \
  QEL_ATTR_ON_##style(QEL_ATTR_KEY_##kind(T), Upper)
#define QEL_ATTR_ON_none(K, Upper)
#define QEL_ATTR_ON_plain(K, Upper) \
  virtual void on##Upper() {}
#define QEL_ATTR_ON_key(K, Upper) \
  virtual void on##Upper(::Qel::KeyArg<K>) {}
#define QEL_ATTR_ON_keyWhole(K, Upper)        \
  virtual void on##Upper(::Qel::KeyArg<K>) {} \
  virtual void on##Upper() {}
#define QEL_ATTR_ON_keyImmediateWhole(K, Upper) \
  QEL_ATTR_ON_keyWhole(K, Upper) virtual void on##Upper##qelImmediate() {}

#define QEL_ATTR_CASE(kind, style, T, name, Upper, ...) \
  QEL_ATTR_CASE_##style(QEL_ATTR_KEY_##kind(T), Upper)
#define QEL_ATTR_KEY_OF(K) *static_cast<K const*>(key.native)
#define QEL_ATTR_CASE_none(K, Upper)
#define QEL_ATTR_CASE_plain(K, Upper) \
  case k##Upper:                      \
    return on##Upper();
#define QEL_ATTR_CASE_key(K, Upper) \
  case k##Upper:                    \
    return on##Upper(QEL_ATTR_KEY_OF(K));
#define QEL_ATTR_CASE_keyWhole(K, Upper) \
  case k##Upper:                         \
    return this->dispatchInTurn([&] { on##Upper(QEL_ATTR_KEY_OF(K)); }, [&] { on##Upper(); });
#define QEL_ATTR_CASE_keyImmediateWhole(K, Upper)                       \
  case k##Upper:                                                        \
    return this->dispatchInTurn([&] { on##Upper(QEL_ATTR_KEY_OF(K)); }, \
                                [&] { on##Upper##qelImmediate(); }, [&] { on##Upper(); });

// --- reflection: a chain of TypeBuilder calls, one per attribute. Each call is spelled with
// `.template`, so that the chain also follows a TypeBuilder<D>& of a template parameter D (a base
// registering its attributes for the types derived from it).

#define QEL_ATTR_REFLECTION(LIST) LIST(QEL_ATTR_REFLECT)
#define QEL_ATTR_REFLECT(kind, style, T, name, Upper, ...) QEL_ATTR_REFLECT_##kind(T, name, Upper)

#define QEL_ATTR_REFLECT_value(T, name, Upper) \
  .template value<T>(                          \
      #name, [](auto const& e) { return e.name(); }, [](auto& e, T const& v) { e.name##Is(v); })
#define QEL_ATTR_REFLECT_valueRo(T, name, Upper) \
  .template value<T>(#name, [](auto const& e) { return e.name(); })
#define QEL_ATTR_REFLECT_getter QEL_ATTR_REFLECT_valueRo
#define QEL_ATTR_REFLECT_valueOwnWrites QEL_ATTR_REFLECT_valueRo
#define QEL_ATTR_REFLECT_valueOwnWritesRw QEL_ATTR_REFLECT_value
#define QEL_ATTR_REFLECT_ctor(T, name, Upper) QEL_ATTR_REFLECT_valueRo(T, name, Upper).constructor()
#define QEL_ATTR_REFLECT_custom(T, name, Upper) .with(&qelReflect##Upper)
#define QEL_ATTR_REFLECT_handler(T, name, Upper)

#define QEL_ATTR_REFLECT_COLLECTION(K, V, name)                   \
  .template collection<K, V>(                                                                 \
      #name, [](auto const& e, K const& k) { return e.name(k); },                    \
      [](auto const& e) { return e.name().size(); }
#define QEL_ATTR_REFLECT_mapRo(T, name, Upper) \
  QEL_ATTR_REFLECT_COLLECTION(typename T::key_type, typename T::mapped_type, name))
#define QEL_ATTR_REFLECT_keyedMap QEL_ATTR_REFLECT_mapRo
#define QEL_ATTR_REFLECT_mapOwnWrites QEL_ATTR_REFLECT_mapRo
#define QEL_ATTR_REFLECT_mapOwnIs QEL_ATTR_REFLECT_mapRo
#define QEL_ATTR_REFLECT_notifieeMap(T, name, Upper)                                         \
  .template collection<typename T::key_type, ::Qel::NotifierOf<typename T::mapped_type>>(    \
      #name,                                                                                 \
      [](auto const& e, typename T::key_type const& k) {                                     \
        auto const watcher = e.name(k);                                                      \
        return watcher ? watcher->notifier() : ::Qel::NotifierOf<typename T::mapped_type>(); \
      },                                                                                     \
      [](auto const& e) { return e.name().size(); })
#define QEL_ATTR_REFLECT_map(T, name, Upper)                                               \
  QEL_ATTR_REFLECT_COLLECTION(typename T::key_type, typename T::mapped_type, name),      \
      [](auto& e, typename T::key_type const& k, ::Qel::GenericIf::PtrConst const& v) {  \
        if (!v) return e.name##Del(k);                                                   \
        e.name##Is(k, ::Qel::ValueTraits<typename T::mapped_type>::unbox(v));            \
      })
#define QEL_ATTR_REFLECT_keyedMapRw(T, name, Upper)                                        \
  QEL_ATTR_REFLECT_COLLECTION(typename T::key_type, typename T::mapped_type, name),      \
      [](auto& e, typename T::key_type const& k, ::Qel::GenericIf::PtrConst const& v) {  \
        if (!v) return e.name##Del(k);                                                   \
        auto const element = ::Qel::ValueTraits<typename T::mapped_type>::unbox(v);      \
        if (qelKey(element) != k) throw ::Qel::RangeException(qelKeyMismatch(element));  \
        e.name##Is(element);                                                             \
      })
#define QEL_ATTR_REFLECT_childMap(T, name, Upper) \
  QEL_ATTR_REFLECT_COLLECTION(::Qel::Name, typename T::mapped_type, name))
#define QEL_ATTR_REFLECT_children(T, name, Upper) \
  QEL_ATTR_REFLECT_childMap(QEL_ATTR_CHILD_MAP(T), name, Upper)
#define QEL_ATTR_REFLECT_recordField(T, name, Upper)                                \
  .template collection<typename T::Key, typename T::Element>(                       \
      #name, [](auto const& e, typename T::Key const& k) { return e.name##Of(k); }, \
      [](auto const& e) { return e.qelRecords_.template size<T::kIndex>(); })
#define QEL_ATTR_REFLECT_recordFieldOwnIs QEL_ATTR_REFLECT_recordField
#define QEL_ATTR_REFLECT_recordFieldOwnWrites QEL_ATTR_REFLECT_recordField
#define QEL_ATTR_REFLECT_queueRo(T, name, Upper) QEL_ATTR_REFLECT_COLLECTION(::Qel::U32, T, name))
#define QEL_ATTR_REFLECT_queue(T, name, Upper)                                   \
  QEL_ATTR_REFLECT_COLLECTION(::Qel::U32, T, name),                            \
      [](auto& e, ::Qel::U32 i, ::Qel::GenericIf::PtrConst const& v) {         \
        if (!v) return e.name##Del(i);                                         \
        e.name##Is(i, ::Qel::ValueTraits<T>::unbox(v));                        \
      })
