// Ledra::PassiveConnectionStatus: the status record of one agent's attribute-log connection,
// named after the connection (which is the agent's name) and held by the ConnectionStatusDir
// while the connection exists.
//
// The connection fills in agentName, agentString (the text the agent announced when it connected)
// and whiteList (a connection the database serves without passive mounting) before the record
// appears in the directory; then it marks the record established, sets state to kStateConnected (2)
// and finally connected to true, so that a watcher of onConnected() finds every other field set.
// When the connection goes away the record is marked not connected (state kStateClosed) and leaves
// the directory. Each change notifies once; storing an equal value notifies nobody.
// Single-threaded.
#pragma once

#include "Qel/Api.h"
#include "Qel/Entity.h"
#include "Qel/Notifiee.h"

namespace Ledra {

class QEL_API PassiveConnectionStatus : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveConnectionStatus>;
  using PtrConst = Qel::Ptr<PassiveConnectionStatus const>;
  enum : Qel::AttributeId {
    kAgentName = 1,
    kAgentString,
    kWhiteList,
    kEstablished,
    kState,
    kConnected,
  };
  // Values of state.
  enum : Qel::U32 { kStateIdle = 0, kStateConnecting = 1, kStateConnected = 2, kStateClosed = 3 };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveConnectionStatus>;
  using NotifieeConst = NotifieeT<PassiveConnectionStatus const>;

  static Ptr passiveConnectionStatusNew(Qel::Name const& name) {
    return Ptr(new PassiveConnectionStatus(name));
  }

  Qel::Name const& agentName() const { return agentName_; }
  void agentNameIs(Qel::Name const& v) { store(agentName_, v, kAgentName); }
  Qel::String const& agentString() const { return agentString_; }
  void agentStringIs(Qel::String const& v) { store(agentString_, v, kAgentString); }
  bool whiteList() const { return whiteList_; }
  void whiteListIs(bool v) { store(whiteList_, v, kWhiteList); }
  bool established() const { return established_; }
  void establishedIs(bool v) { store(established_, v, kEstablished); }
  Qel::U32 state() const { return state_; }
  void stateIs(Qel::U32 v) { store(state_, v, kState); }
  bool connected() const { return connected_; }
  void connectedIs(bool v) { store(connected_, v, kConnected); }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveConnectionStatus(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveConnectionStatus() override = default;

 private:
  template <class T>
  void store(T& field, T const& v, Qel::AttributeId aid) {
    if (field == v) return;
    field = v;
    notify(aid);
  }

  Qel::Name agentName_;
  Qel::String agentString_;
  bool whiteList_ = false;
  bool established_ = false;
  Qel::U32 state_ = kStateIdle;
  bool connected_ = false;
};

template <class N>
class PassiveConnectionStatus::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  virtual void onAgentName() {}
  virtual void onAgentString() {}
  virtual void onWhiteList() {}
  virtual void onEstablished() {}
  virtual void onState() {}
  virtual void onConnected() {}
  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const&) override {
    switch (aid) {
      case kAgentName:
        return onAgentName();
      case kAgentString:
        return onAgentString();
      case kWhiteList:
        return onWhiteList();
      case kEstablished:
        return onEstablished();
      case kState:
        return onState();
      case kConnected:
        return onConnected();
      default:
        return;
    }
  }
};

}  // namespace Ledra
