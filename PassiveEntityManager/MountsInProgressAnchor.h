// Ledra::MountsInProgressAnchor: the guard with which the engine flags a scheduling pass. Making
// one sets the engine's mountsInProgress, destroying it (on every way out of the pass, exceptions
// included) clears it. It holds a plain pointer: the engine always outlives its own pass.
// Registered with the reflection as "Ledra::MountsInProgressAnchor"; its text form is the engine's
// address, "0x..." ("0x0" for none).
#pragma once

#include "PassiveEntityManager/Export.h"
#include "Qel/Core/Types.h"
#include "Qel/Reflection/QelType.h"

namespace Ledra {

class PassiveEntityManagerSm;

class LEDRA_PEM_EXPORT MountsInProgressAnchor {
 public:
  explicit MountsInProgressAnchor(PassiveEntityManagerSm* pEmSm);
  // An anchor read back from its text form is detached: it names an engine but does not guard it.
  explicit MountsInProgressAnchor(Qel::String const& text);
  ~MountsInProgressAnchor();
  MountsInProgressAnchor(MountsInProgressAnchor const&) = delete;
  MountsInProgressAnchor& operator=(MountsInProgressAnchor const&) = delete;

  PassiveEntityManagerSm* pEmSm() const { return pEmSm_; }
  Qel::String text() const;
  static Qel::QelType const* staticType();

 private:
  void handleInit();
  void handleDestruct();

  PassiveEntityManagerSm* const pEmSm_;
  bool const guarding_;
};

}  // namespace Ledra
