// Orn::CountedNotifiee: a generic notifiee of one entity that is itself reference counted.
//
// The framework's generic notifiee (Qel::GenericIf::NotifieeConst) is a plain object, so nothing
// can hold it through a Qel::Ptr. Condition reactors are shared between their creator and the
// state machine that keeps the one being waited for, and are released by dropping the last
// reference; this class adds the count. Holders keep a Qel::Ptr<Orn::CountedNotifiee> (or a Ptr
// to a subclass). Dropping the last reference destroys the notifiee, which stops its
// notifications and releases the watched entity.
//
// It counts as a live instance of Qel::RefCounted. Single-threaded, like every notifiee.
#pragma once

#include "Qel/Core/Ptr.h"
#include "Qel/Reflection/GenericIf.h"

namespace Orn {

class CountedNotifiee : public Qel::GenericIf::NotifieeConst, public Qel::RefCounted {
 public:
  using Ptr = Qel::Ptr<CountedNotifiee>;

 protected:
  CountedNotifiee() = default;
  ~CountedNotifiee() override = default;
};

}  // namespace Orn
