// Ledra::PassiveAgentProfileDir: the directory of agent profiles, one per agent name (or per
// family: a name ending in "-"). It owns the profiles. agentProfileIs(name) returns the existing
// profile or creates, inserts and notifies onAgentProfile(name); agentProfileDel(name) removes
// and notifies. Single-threaded.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "Qel/EntityMap.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentProfileDir : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentProfileDir>;
  using PtrConst = Qel::Ptr<PassiveAgentProfileDir const>;
  using AgentProfileCol = Qel::EntityMap<PassiveAgentProfile>::Map;
  static constexpr Qel::AttributeId kAgentProfile = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onAgentProfile(Qel::Name const& name) {}
    virtual void onAgentProfileqelImmediate() {}
    virtual void onAgentProfile() {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
      if (aid != kAgentProfile) return;
      return this->dispatchInTurn(
          [&] { onAgentProfile(*static_cast<Qel::Name const*>(key.native)); },
          [&] { onAgentProfileqelImmediate(); }, [&] { onAgentProfile(); });
    }
  };
  using Notifiee = NotifieeT<PassiveAgentProfileDir>;
  using NotifieeConst = NotifieeT<PassiveAgentProfileDir const>;

  static Ptr agentProfileDirNew(Qel::Name const& name) {
    return Ptr(new PassiveAgentProfileDir(name));
  }

  AgentProfileCol const& agentProfile() const { return agentProfile_.map(); }
  PassiveAgentProfile::Ptr agentProfile(Qel::Name const& name) const {
    return agentProfile_.find(name);
  }
  std::size_t agentProfiles() const { return agentProfile_.size(); }
  PassiveAgentProfile::Ptr agentProfileIs(Qel::Name const& name);
  void agentProfileDel(Qel::Name const& name);
  void agentProfileDelAll();

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return agentProfile(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentProfileDir(Qel::Name name) : Entity(std::move(name)), agentProfile_(this) {}
  ~PassiveAgentProfileDir() override = default;

 private:
  Qel::EntityMap<PassiveAgentProfile> agentProfile_;
};

}  // namespace Ledra
