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
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES(X)                                                \
  X(ctor, none, Qel::U32, priority, Priority)                                                  \
  X(value, plain, Qel::String, entireCondition, EntireCondition)                               \
  X(queue, keyImmediateWhole, Qel::String, conditionCol, ConditionCol, conditionCols)          \
  X(map, keyImmediateWhole, TemplateConditionCol, templateConditionCol, TemplateConditionCol)  \
  X(value, plain, bool, blockingConditional, BlockingConditional)                              \
  X(keyedMapRw, keyImmediateWhole, MountProfileCol, mountProfile, MountProfile, mountProfiles) \
  X(custom, none, void, addProfile, AddProfile)                                                \
  X(getter, plain, ConditionColMetadata, conditionColMetadata, ConditionColMetadata)

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
  QEL_ATTR_IDS(LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveMountGroup>;
  using NotifieeConst = NotifieeT<PassiveMountGroup const>;

  // Throws Qel::RangeException "PassiveMountGroup::priority < 1 or > 99 not allowed".
  static Ptr mountGroupNew(Qel::Name const& name, Qel::U32 priority);

  Qel::U32 priority() const { return priority_; }

  // Attribute conditions are a queue in enqueue order (conditionColEnq throws "linkqueue index
  // space full"); mount profiles are keyed by their path.
  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES)
  // Only on an empty queue (to resume numbering elsewhere in the index space).
  void conditionColMetadataIs(ConditionColMetadata const& m);
  MountProfileIteratorConst mountProfileDel(MountProfileIteratorConst it) {
    return mountProfile_.del(*this, it);
  }
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
  static void qelReflectAddProfile(Qel::TypeBuilder<PassiveMountGroup>& b);

  Qel::U32 const priority_;
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES)
};

template <class N>
class PassiveMountGroup::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_MOUNT_GROUP_ATTRIBUTES)
};

}  // namespace Ledra
