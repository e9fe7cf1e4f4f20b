// The engine's nested reactors: one per watched object (its profile, its connection's demuxer and
// peer mount table, the timer wheel), each with a plain back pointer to the engine that the engine
// clears (ownerIs(nullptr)) before it goes away. A reactor forwards nothing while
// it has no engine, is switched off or is a zombie. Internal to the library.
#pragma once

#include "PassiveEntityManager/OwnedReactor.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"

namespace Ledra {

// Self reacts in reactOn(engine): on a change of what it watches (calling react()) and when it is
// bound to a new non-null notifier.
template <class Self, class Base>
class EngineReactor : public OwnedReactor<Self, PassiveEntityManagerSm, Base> {
 protected:
  using OwnedReactor<Self, PassiveEntityManagerSm, Base>::OwnedReactor;

  void react() {
    if (PassiveEntityManagerSm* engine = this->live()) static_cast<Self*>(this)->reactOn(*engine);
  }
  void onNotifierIs() override {
    if (this->notifier()) react();
  }
};

// Keeps the profile referenced and follows the engine's switches; reacts to nothing.
class PassiveEntityManagerSm::QelAgentProfile
    : public EngineReactor<QelAgentProfile, PassiveAgentProfile::NotifieeConst> {
 public:
  void reactOn(PassiveEntityManagerSm&) {}

 private:
  friend OwnedReactor;
  using EngineReactor::EngineReactor;
};

// A change of the count of unanswered mount requests runs a scheduling pass; so does binding to
// a demuxer.
class PassiveEntityManagerSm::QelDemuxer
    : public EngineReactor<QelDemuxer, Qel::NboAttrLog::Demuxer::Notifiee> {
 public:
  void onFlowOutMountRequests() override { react(); }
  void reactOn(PassiveEntityManagerSm& e) { e.doInitiateMounts(); }

 private:
  friend OwnedReactor;
  using EngineReactor::EngineReactor;
};

// A change of the peer's protocol version (or binding to a table) re-checks it.
class PassiveEntityManagerSm::QelPeerMountTable
    : public EngineReactor<QelPeerMountTable, Qel::MountTable::Notifiee> {
 public:
  void onCurrentVersion() override { react(); }
  void reactOn(PassiveEntityManagerSm& e) { e.handleInputProtocolVersion(); }

 private:
  friend OwnedReactor;
  using EngineReactor::EngineReactor;
};

// A timer notifiee with the zombie switch the other reactors get from their notifiee base.
class TimerWheelReactorBase : public Orn::TimerWheel::Notifiee {
 public:
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie) { zombie_ = zombie; }

 private:
  bool zombie_ = false;
};

// The engine's retry timer: each wake-up (and binding to a wheel) runs a scheduling pass.
class PassiveEntityManagerSm::QelTimerWheel
    : public EngineReactor<QelTimerWheel, TimerWheelReactorBase> {
 public:
  void onTime() override { react(); }
  void reactOn(PassiveEntityManagerSm& e) { e.doInitiateMounts(); }

 private:
  friend OwnedReactor;
  using EngineReactor::EngineReactor;
};

// Watches the ConditionRes of one conditional group: a change of `enabled` reaches the record.
class PassiveEntityManagerSm::QelConditionalMountGroup::QelConditionRes
    : public OwnedReactor<QelConditionRes, QelConditionalMountGroup, ConditionRes::Notifiee> {
 public:
  void onEnabled() override {
    if (QelConditionalMountGroup* record = owner()) record->handleEnabled();
  }

 private:
  friend OwnedReactor;
  using OwnedReactor::OwnedReactor;
};

}  // namespace Ledra
