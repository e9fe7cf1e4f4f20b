// Ledra::PassiveConnectionConfig: the database's permission to accept an agent's attribute-log
// connection passively (the agent connects, the database mounts for it). One per agent name, or
// per family of agents (a name ending in "-"); held by the ConnectionConfigDir. It has no
// attributes beyond its name.
#pragma once

#include "Qel/Core/Api.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"

namespace Ledra {

class QEL_API PassiveConnectionConfig : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveConnectionConfig>;
  using PtrConst = Qel::Ptr<PassiveConnectionConfig const>;

  static Ptr passiveConnectionConfigNew(Qel::Name const& agentName) {
    return Ptr(new PassiveConnectionConfig(agentName));
  }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveConnectionConfig(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveConnectionConfig() override = default;
};

}  // namespace Ledra
