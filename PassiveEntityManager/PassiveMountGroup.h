// Ledra::PassiveMountGroup: a named group of mount profiles with a priority from 1 to 99 (lower is
// mounted earlier), optionally guarded by attribute conditions (a queue of condition texts, and the
// whole condition as one text) and template conditions (condition text to a flag).
//
// The priority is a constructor attribute: fixed for the group's life, so a group's priority is
// changed only by deleting and re-creating it. Every mutator that changes something notifies the
// group's notifiees after the change, with the key for keyed collections; storing a value equal to
// the present one changes nothing and notifies nobody. Mount profiles are keyed and ordered by
// path (ascending byte order). Single-threaded.
#pragma once

#include <map>
#include <unordered_map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/Mount.h"
#include "Qel/Entity.h"
#include "Qel/LinkQueue.h"
#include "Qel/Notifiee.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveMountGroup : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveMountGroup>;
  using PtrConst = Qel::Ptr<PassiveMountGroup const>;
  using ConditionCol = Qel::LinkQueue<Qel::String>;
  using ConditionColMetadata = Qel::LinkQueueMetadata;
  using TemplateConditionCol = std::unordered_map<Qel::String, bool>;
  using MountProfileCol = std::map<Qel::String, Mount>;
  using MountProfileIteratorConst = MountProfileCol::const_iterator;
  using TemplateConditionColIteratorConst = TemplateConditionCol::const_iterator;

  enum : Qel::AttributeId {
    kPriority = 1,
    kEntireCondition,
    kConditionCol,
    kTemplateConditionCol,
    kBlockingConditional,
    kMountProfile,
    kAddProfile,
    kConditionColMetadata,
  };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveMountGroup>;
  using NotifieeConst = NotifieeT<PassiveMountGroup const>;

  // Throws Qel::RangeException "PassiveMountGroup::priority < 1 or > 99 not allowed".
  static Ptr mountGroupNew(Qel::Name const& name, Qel::U32 priority);

  Qel::U32 priority() const { return priority_; }

  Qel::String entireCondition() const { return entireCondition_; }
  void entireConditionIs(Qel::String const& v);

  // Attribute conditions, in enqueue order.
  ConditionCol const& conditionCol() const { return conditionCol_; }
  std::size_t conditionCols() const { return conditionCol_.size(); }
  Qel::String const* conditionCol(Qel::U32 index) const { return conditionCol_.at(index); }
  // Returns the new entry's index; throws "linkqueue index space full".
  Qel::U32 conditionColEnq(Qel::String const& v);
  void conditionColDeq();
  void conditionColIs(Qel::U32 index, Qel::String const& v);
  void conditionColDel(Qel::U32 index);
  void conditionColDelAll();
  ConditionColMetadata conditionColMetadata() const { return conditionCol_.metadata(); }
  // Only on an empty queue (to resume numbering elsewhere in the index space).
  void conditionColMetadataIs(ConditionColMetadata const& m);

  TemplateConditionCol const& templateConditionCol() const { return templateConditionCol_; }
  std::optional<bool> templateConditionCol(Qel::String const& cond) const;
  void templateConditionColIs(Qel::String const& cond, bool flag);
  void templateConditionColDel(Qel::String const& cond);
  void templateConditionColDelAll();

  bool blockingConditional() const { return blockingConditional_; }
  void blockingConditionalIs(bool v);

  MountProfileCol const& mountProfile() const { return mountProfile_; }
  // The mount profile for `path`, or null.
  Mount const* mountProfile(Qel::String const& path) const;
  std::size_t mountProfiles() const { return mountProfile_.size(); }
  void mountProfileIs(Mount const& m);
  void mountProfileDel(Qel::String const& path);
  MountProfileIteratorConst mountProfileDel(MountProfileIteratorConst it);
  void mountProfileDelAll();
  // Mount(path, qelType, flags) stored with mountProfileIs.
  void addProfile(Qel::String const& path, Qel::String const& qelType, Qel::String const& flags) {
    mountProfileIs(Mount(path, qelType, flags));
  }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  PassiveMountGroup(Qel::Name name, Qel::U32 priority);
  ~PassiveMountGroup() override = default;

 private:
  Qel::U32 const priority_;
  Qel::String entireCondition_;
  ConditionCol conditionCol_;
  TemplateConditionCol templateConditionCol_;
  bool blockingConditional_ = false;
  MountProfileCol mountProfile_;
};

template <class N>
class PassiveMountGroup::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;

  virtual void onEntireCondition() {}
  virtual void onConditionColMetadata() {}
  virtual void onConditionCol(unsigned index) {}
  virtual void onConditionColqelImmediate() {}
  virtual void onConditionCol() {}
  virtual void onTemplateConditionCol(Qel::String const& key) {}
  virtual void onTemplateConditionColqelImmediate() {}
  virtual void onTemplateConditionCol() {}
  virtual void onBlockingConditional() {}
  virtual void onMountProfile(Qel::String const& path) {}
  virtual void onMountProfileqelImmediate() {}
  virtual void onMountProfile() {}

  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
    switch (aid) {
      case kEntireCondition:
        return onEntireCondition();
      case kConditionColMetadata:
        return onConditionColMetadata();
      case kConditionCol:
        return this->dispatchInTurn(
            [&] { onConditionCol(*static_cast<Qel::U32 const*>(key.native)); },
            [&] { onConditionColqelImmediate(); }, [&] { onConditionCol(); });
      case kTemplateConditionCol:
        return this->dispatchInTurn(
            [&] { onTemplateConditionCol(*static_cast<Qel::String const*>(key.native)); },
            [&] { onTemplateConditionColqelImmediate(); }, [&] { onTemplateConditionCol(); });
      case kBlockingConditional:
        return onBlockingConditional();
      case kMountProfile:
        return this->dispatchInTurn(
            [&] { onMountProfile(*static_cast<Qel::String const*>(key.native)); },
            [&] { onMountProfileqelImmediate(); }, [&] { onMountProfile(); });
      default:
        return;
    }
  }
};

}  // namespace Ledra
