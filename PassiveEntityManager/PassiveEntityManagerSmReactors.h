// The engine's nested reactors: one per watched object (its profile, its connection's demuxer and
// peer mount table, the timer wheel), each with a plain back pointer to the engine that the engine
// clears (passiveEntityManagerSmIs(nullptr)) before it goes away. A reactor forwards nothing while
// it has no engine, is switched off or is a zombie. Internal to the library.
#pragma once

#include "PassiveEntityManager/PassiveEntityManagerSm.h"

namespace Ledra {

// The back pointer and the switches every reactor of the engine shares.
template <class Base>
class EngineReactor : public Qel::RefCounted, public Base {
 public:
  PassiveEntityManagerSm* passiveEntityManagerSm() const { return engine_; }
  void passiveEntityManagerSmIs(PassiveEntityManagerSm* e) { engine_ = e; }

 protected:
  explicit EngineReactor(PassiveEntityManagerSm* engine) : engine_(engine) {}
  ~EngineReactor() override = default;

  // The engine, when this reactor may call it now; null otherwise.
  PassiveEntityManagerSm* live() const {
    if (!engine_ || !this->notificationActive() || this->qelZombie()) return nullptr;
    return engine_;
  }

 private:
  PassiveEntityManagerSm* engine_;
};

// Keeps the profile referenced and follows the engine's switches; reacts to nothing.
class PassiveEntityManagerSm::QelAgentProfile
    : public EngineReactor<PassiveAgentProfile::NotifieeConst> {
 public:
  static Qel::Ptr<QelAgentProfile> reactorNew(PassiveEntityManagerSm* engine,
                                              PassiveAgentProfile::PtrConst const& profile) {
    Qel::Ptr<QelAgentProfile> r(new QelAgentProfile(engine));
    r->notifierIs(profile);
    return r;
  }

 private:
  using EngineReactor::EngineReactor;
};

// A change of the count of unanswered mount requests runs a scheduling pass; so does binding to
// a demuxer.
class PassiveEntityManagerSm::QelDemuxer
    : public EngineReactor<Qel::NboAttrLog::Demuxer::Notifiee> {
 public:
  static Qel::Ptr<QelDemuxer> reactorNew(PassiveEntityManagerSm* engine,
                                         Qel::NboAttrLog::Demuxer::Ptr const& demuxer) {
    Qel::Ptr<QelDemuxer> r(new QelDemuxer(engine));
    r->notifierIs(demuxer);
    return r;
  }
  void onFlowOutMountRequests() override {
    if (auto* e = live()) e->doInitiateMounts();
  }

 private:
  using EngineReactor::EngineReactor;
  void onNotifierIs() override {
    if (!notifier()) return;
    if (auto* e = live()) e->doInitiateMounts();
  }
};

// A change of the peer's protocol version (or binding to a table) re-checks it.
class PassiveEntityManagerSm::QelPeerMountTable : public EngineReactor<Qel::MountTable::Notifiee> {
 public:
  static Qel::Ptr<QelPeerMountTable> reactorNew(PassiveEntityManagerSm* engine,
                                                Qel::MountTable::Ptr const& table) {
    Qel::Ptr<QelPeerMountTable> r(new QelPeerMountTable(engine));
    r->notifierIs(table);
    return r;
  }
  void onCurrentVersion() override {
    if (auto* e = live()) e->handleInputProtocolVersion();
  }

 private:
  using EngineReactor::EngineReactor;
  void onNotifierIs() override {
    if (!notifier()) return;
    if (auto* e = live()) e->handleInputProtocolVersion();
  }
};

// The engine's retry timer: each wake-up (and binding to a wheel) runs a scheduling pass.
class TimerWheelReactorBase : public Orn::TimerWheel::Notifiee {
 public:
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie) { zombie_ = zombie; }

 private:
  bool zombie_ = false;
};

class PassiveEntityManagerSm::QelTimerWheel : public EngineReactor<TimerWheelReactorBase> {
 public:
  static Qel::Ptr<QelTimerWheel> reactorNew(PassiveEntityManagerSm* engine,
                                            Orn::TimerWheel::PtrConst const& wheel) {
    Qel::Ptr<QelTimerWheel> r(new QelTimerWheel(engine));
    r->notifierIs(wheel);
    return r;
  }
  void onTime() override {
    if (auto* e = live()) e->doInitiateMounts();
  }

 private:
  using EngineReactor::EngineReactor;
  void onNotifierIs() override {
    if (!notifier()) return;
    if (auto* e = live()) e->doInitiateMounts();
  }
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
