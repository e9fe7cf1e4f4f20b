// Qel::NamedEntityDir<D, Child, childNew>: the base of a directory D that owns child entities of
// one type, keyed by their names. childNew makes a fresh Child from a name.
//
// entryIs(name) returns the child of that name, or creates, inserts and notifies a new one.
// entryIs(child) inserts a child made elsewhere: the same child again does nothing; another
// child under a name in use, or a child that already has a parent, is refused with
// NameInUseException. entryDel(name) removes and notifies, and does nothing for an absent name;
// the removed child stays alive until every notifiee has been told. entryDelAll() removes the
// children one by one, each notified. Entries iterate in ascending name order. An inserted child
// has the directory as its parent; removing it, or the directory's end, clears that.
//
// Each change is told to the typed notifiee three ways, in turn: onEntry(name),
// onEntryqelImmediate(), onEntry(); a notifiee destroyed by one of them gets none of the rest.
// D's own Notifiee gives these callbacks the names of its collection.
//
// D declares kNames (what it is called) and staticType(), which builds its reflection once with
// typeNew(): the collection, readable and writable by name (an empty value deletes), and a
// factory by type name. D's constructor is protected, with this base as a friend.
// Single-threaded.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "Qel/Core/Api.h"
#include "Qel/Core/Exception.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Entity/EntityMap.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

// What a directory is called: its registered type name, the name of its collection attribute, and
// the noun by which errors refer to one of its entries.
struct NamedEntityDirNames {
  char const* typeName;
  char const* collection;
  char const* entryNoun;
};

template <class D, class Child, Ptr<Child> (*childNew)(Name const&)>
class QEL_API NamedEntityDir : public Entity {
 public:
  using Ptr = Qel::Ptr<D>;
  using PtrConst = Qel::Ptr<D const>;
  using ChildPtr = Qel::Ptr<Child>;
  using EntryMap = std::map<Name, ChildPtr>;
  static constexpr AttributeId kEntry = 1;

  template <class N>
  class EntryNotifieeT;

  static Ptr dirNew(Name const& name) { return Ptr(new D(name)); }

  EntryMap const& entryMap() const { return entries_.map(); }
  ChildPtr entry(Name const& name) const { return entries_.find(name); }
  std::size_t entries() const { return entries_.size(); }

  ChildPtr entryIs(Name const& name) {
    if (ChildPtr existing = entry(name)) return existing;
    ChildPtr created = childNew(name);
    insert(created);
    return created;
  }
  void entryIs(ChildPtr const& child) {
    if (ChildPtr existing = entry(child->name())) {
      if (existing == child) return;
      throw NameInUseException(std::string("Reinstantiating the ") + D::kNames.entryNoun +
                               " with name " + child->name() + " not allowed");
    }
    if (child->parent()) {
      throw NameInUseException("entity " + child->fullName() + " already has a parent");
    }
    insert(child);
  }
  void entryDel(Name const& name) {
    ChildPtr const gone = entries_.erase(name);
    if (!gone) return;
    notifyKey(kEntry, name);
  }
  void entryDelAll() {
    while (!entries_.empty())
      entryDel(Name(entries_.anyName()));
  }

  Entity::Ptr child(Name const& name) const override { return entry(name); }
  QelType const* fwkType() const override { return D::staticType(); }

 protected:
  explicit NamedEntityDir(Name name) : Entity(std::move(name)), entries_(this) {}
  ~NamedEntityDir() override = default;

  // D's reflection; D::staticType() calls it once and keeps the result.
  static QelType const* typeNew() {
    return TypeBuilder<D>(D::kNames.typeName)
        .template collection<Name, ChildPtr>(
            D::kNames.collection, [](D const& d, Name const& n) { return d.entry(n); },
            [](D const& d) { return d.entries(); },
            [](D& d, Name const& n, GenericIf::PtrConst const& v) {
              if (!v) return d.entryDel(n);
              d.entryIs(n);
            })
        .factory([](Name const& n) { return Entity::Ptr(dirNew(n)); })
        .done();
  }

 private:
  void insert(ChildPtr const& child) {
    entries_.insert(child);
    notifyKey(kEntry, child->name());
  }

  EntityMap<Child, EntryMap> entries_;
};

template <class D, class Child, Ptr<Child> (*childNew)(Name const&)>
template <class N>
class NamedEntityDir<D, Child, childNew>::EntryNotifieeT : public BasicNotifiee<N> {
 public:
  using BasicNotifiee<N>::BasicNotifiee;
  void qelDispatch(AttributeId aid, NotifyKey const& key) final {
    if (aid != kEntry) return;
    this->dispatchInTurn([&] { onEntry(*static_cast<Name const*>(key.native)); },
                         [&] { onEntryqelImmediate(); }, [&] { onEntry(); });
  }
  virtual void onEntry(Name const& /*name*/) {}
  virtual void onEntryqelImmediate() {}
  virtual void onEntry() {}
};

}  // namespace Qel
