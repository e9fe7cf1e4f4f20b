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

#include "Qel/Core/Api.h"
#include "Qel/Entity/AttrList.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES(X)    \
  X(value, plain, Qel::Name, agentName, AgentName)       \
  X(value, plain, Qel::String, agentString, AgentString) \
  X(value, plain, bool, whiteList, WhiteList)            \
  X(value, plain, bool, established, Established)        \
  X(value, plain, Qel::U32, state, State)                \
  X(value, plain, bool, connected, Connected)

class QEL_API PassiveConnectionStatus : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveConnectionStatus>;
  using PtrConst = Qel::Ptr<PassiveConnectionStatus const>;
  QEL_ATTR_IDS(LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES);
  // Values of state.
  enum : Qel::U32 { kStateIdle = 0, kStateConnecting = 1, kStateConnected = 2, kStateClosed = 3 };

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveConnectionStatus>;
  using NotifieeConst = NotifieeT<PassiveConnectionStatus const>;

  static Ptr passiveConnectionStatusNew(Qel::Name const& name) {
    return Ptr(new PassiveConnectionStatus(name));
  }

  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES)

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  explicit PassiveConnectionStatus(Qel::Name name) : Entity(std::move(name)) {}
  ~PassiveConnectionStatus() override = default;

 private:
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES)
};

template <class N>
class PassiveConnectionStatus::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_CONNECTION_STATUS_ATTRIBUTES)
};

}  // namespace Ledra
