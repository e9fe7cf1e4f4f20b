// Ledra::PassiveAgentStatusDir: the directory of agent status records, one per connected agent,
// written by the system. agentStatusIs(name) returns the existing record or creates, inserts and
// notifies onAgentStatus(name); agentStatusDel(name) removes and notifies. Single-threaded.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "Qel/EntityMap.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveAgentStatusDir : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveAgentStatusDir>;
  using PtrConst = Qel::Ptr<PassiveAgentStatusDir const>;
  using AgentStatusCol = Qel::EntityMap<PassiveAgentStatus>::Map;
  static constexpr Qel::AttributeId kAgentStatus = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onAgentStatus(Qel::Name const& name) {}
    virtual void onAgentStatusqelImmediate() {}
    virtual void onAgentStatus() {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
      if (aid != kAgentStatus) return;
      return this->dispatchInTurn(
          [&] { onAgentStatus(*static_cast<Qel::Name const*>(key.native)); },
          [&] { onAgentStatusqelImmediate(); }, [&] { onAgentStatus(); });
    }
  };
  using Notifiee = NotifieeT<PassiveAgentStatusDir>;
  using NotifieeConst = NotifieeT<PassiveAgentStatusDir const>;

  static Ptr agentStatusDirNew(Qel::Name const& name) {
    return Ptr(new PassiveAgentStatusDir(name));
  }

  AgentStatusCol const& agentStatus() const { return agentStatus_.map(); }
  PassiveAgentStatus::Ptr agentStatus(Qel::Name const& name) const {
    return agentStatus_.find(name);
  }
  std::size_t agentStatuses() const { return agentStatus_.size(); }
  PassiveAgentStatus::Ptr agentStatusIs(Qel::Name const& name);
  void agentStatusDel(Qel::Name const& name);
  void agentStatusDelAll();

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return agentStatus(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveAgentStatusDir(Qel::Name name) : Entity(std::move(name)), agentStatus_(this) {}
  ~PassiveAgentStatusDir() override = default;

 private:
  Qel::EntityMap<PassiveAgentStatus> agentStatus_;
};

}  // namespace Ledra
