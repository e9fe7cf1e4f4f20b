// The engine's nested reactors: one per watched object (its profile, its connection's demuxer and
// peer mount table, the timer wheel), each with a plain back pointer to the engine that the engine
// clears (passiveEntityManagerSmIs(nullptr)) before it goes away. A reactor forwards nothing while
// it has no engine, is switched off or is a zombie. Internal to the library.
#pragma once

#include "PassiveEntityManager/PassiveEntityManagerSm.h"

namespace Ledra {

// The back pointer, the switches and the making of every reactor of the engine. Self reacts in
// reactOn(engine): on a change of what it watches (calling react()) and when it is bound to a new
// non-null notifier.
template <class Self, class Base>
class EngineReactor : public Qel::RefCounted, public Base {
 public:
  template <class NotifierPtr>
  static Qel::Ptr<Self> reactorNew(PassiveEntityManagerSm* engine, NotifierPtr const& notifier) {
    Qel::Ptr<Self> r(new Self(engine));
    r->notifierIs(notifier);
    return r;
  }

  PassiveEntityManagerSm* passiveEntityManagerSm() const { return engine_; }
  void passiveEntityManagerSmIs(PassiveEntityManagerSm* e) { engine_ = e; }

 protected:
  explicit EngineReactor(PassiveEntityManagerSm* engine) : engine_(engine) {}
  ~EngineReactor() override = default;

  // Runs Self's reaction when the engine may be called now: it is set, and this reactor is
  // switched on and not a zombie.
  void react() {
    if (!engine_ || !this->notificationActive() || this->qelZombie()) return;
    static_cast<Self*>(this)->reactOn(*engine_);
  }
  void onNotifierIs() override {
    if (this->notifier()) react();
  }

 private:
  PassiveEntityManagerSm* engine_;
};

// Keeps the profile referenced and follows the engine's switches; reacts to nothing.
class PassiveEntityManagerSm::QelAgentProfile
    : public EngineReactor<QelAgentProfile, PassiveAgentProfile::NotifieeConst> {
 public:
  void reactOn(PassiveEntityManagerSm&) {}

 private:
  friend EngineReactor;
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
  friend EngineReactor;
  using EngineReactor::EngineReactor;
};

// A change of the peer's protocol version (or binding to a table) re-checks it.
class PassiveEntityManagerSm::QelPeerMountTable
    : public EngineReactor<QelPeerMountTable, Qel::MountTable::Notifiee> {
 public:
  void onCurrentVersion() override { react(); }
  void reactOn(PassiveEntityManagerSm& e) { e.handleInputProtocolVersion(); }

 private:
  friend EngineReactor;
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
  friend EngineReactor;
  using EngineReactor::EngineReactor;
};

// Watches the ConditionRes of one conditional group: a change of `enabled` reaches the record.
class PassiveEntityManagerSm::QelConditionalMountGroup::QelConditionRes
    : public Qel::RefCounted,
      public ConditionRes::Notifiee {
 public:
  static Qel::Ptr<QelConditionRes> reactorNew(QelConditionalMountGroup* record,
                                              ConditionRes::Ptr const& res) {
    Qel::Ptr<QelConditionRes> r(new QelConditionRes(record));
    r->notifierIs(res);
    return r;
  }
  void recordIs(QelConditionalMountGroup* record) { record_ = record; }
  void onEnabled() override {
    if (record_) record_->handleEnabled();
  }

 private:
  explicit QelConditionRes(QelConditionalMountGroup* record) : record_(record) {}
  ~QelConditionRes() override = default;

  QelConditionalMountGroup* record_;
};

}  // namespace Ledra
