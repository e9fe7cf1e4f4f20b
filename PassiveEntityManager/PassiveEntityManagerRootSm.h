// Ledra::PassiveEntityManagerRootSm: the one object per database process that ties agent
// connections to agent profiles.
//
// Contract
//   - Construction stores the agent profile directory, the agent status directory and the entity
//     manager (fixed for the root's life), starts watching the profile directory and the entity
//     manager, and runs handleInitialized().
//   - handleInitialized() (once; later calls change nothing) binds the process's connection
//     configuration and status directories (ConnMgrHelper), fills the reserved template values
//     (globalReservedTemplateKeyDict: %cellId, %cellPath, %peerCellId, %peerCellPath, %sysname),
//     creates the timer wheel shared by every engine (process clock, 1 ms ticks, 255 ticks, 1024
//     per bucket) and traces the process's role. It then catches up on what existed before it:
//     each profile already present gets its connection configuration, and each connection
//     already connected is handled as if it had just connected.
//   - A profile added (or changed) registers a passive connection configuration for its name. A
//     profile deleted while the process runs is a fatal assertion: profiles outlive the process.
//   - A connection status record appearing gets a QelConnStatus reactor (connStatus, keyed by the
//     record's name). When it reports an established, non-white-listed connection in the connected
//     state, the agent's profile is looked up (its own name, then each shorter prefix ending in
//     "-": a-b-c, a-b-, a-), and either the connection is closed with "no agent profile", or the
//     agent's status record and engine (passiveEntityManagerSm, keyed by agent name) are created.
//   - A record leaving the directory removes its reactor, which deletes the agent's engine and
//     status record (doCleanup).
//   - The entity manager's `local` notification (a role change) on an active process removes every
//     "peerReady" mount group from the profiles and frees every engine that waits on one (its
//     blocking entry and conditional record go, so does a "peerReady" group still queued, and a
//     scheduling pass runs).
//   - Every handler but handleInitialized does nothing until the root is initialized.
//
// Ownership: the root owns its engines and reactors; each reactor holds a plain back pointer to
// the root, cleared before the root goes away. Destruction deletes every engine and connection
// reactor (with the agents' status records) and releases the timer wheel and the directories.
//
// Threading: the database process's single event loop; handlers run inside notifications and may
// create or delete engines. Nothing is locked.
#pragma once

#include <map>

#include "Ledra/ConnectionConfigDir.h"
#include "Ledra/ConnectionStatusDir.h"
#include "Ledra/EntityManager.h"
#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/OwnedReactor.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "Timer/TimerWheel.h"

namespace Ledra {

class LEDRA_PEM_EXPORT PassiveEntityManagerRootSm : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveEntityManagerRootSm>;
  using PtrConst = Qel::Ptr<PassiveEntityManagerRootSm const>;

  static constexpr char const* kDefaultName = "passiveEntityManagerRootSm";
  // The mount group that holds agents back until the peer process is ready.
  static constexpr char const* kPeerReadyGroup = "peerReady";
  // The reason given to a connection whose agent has no profile.
  static constexpr char const* kNoProfileReason = "no agent profile";

  enum : Qel::AttributeId {
    kAgentProfileDir = 1,
    kAgentStatusDir,
    kEntMgr,
    kInitialized,
    kConnectionConfigDir,
    kConnectionStatusDir,
    kConnStatus,
    kPassiveEntityManagerSm,
  };

  class QelAgentProfileDir;
  class QelEntMgr;
  class QelConnectionStatusDir;
  class QelConnStatus;
  using ConnStatusCol = std::map<Qel::Name, Qel::Ptr<QelConnStatus>>;
  using PassiveEntityManagerSmCol = std::map<Qel::Name, PassiveEntityManagerSm::Ptr>;

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveEntityManagerRootSm>;
  using NotifieeConst = NotifieeT<PassiveEntityManagerRootSm const>;

  // A root over the given directories and entity manager, initialized; throws
  // Qel::RangeException when one of them is null.
  static Ptr passiveEntityManagerRootSmNew(PassiveAgentProfileDir::Ptr const& agentProfileDir,
                                           PassiveAgentStatusDir::Ptr const& agentStatusDir,
                                           EntityManager::PtrConst const& entMgr,
                                           Qel::Name const& name = kDefaultName);

  // Constructor attributes.
  PassiveAgentProfileDir::Ptr const& agentProfileDir() const { return agentProfileDir_; }
  PassiveAgentStatusDir::Ptr const& agentStatusDir() const { return agentStatusDir_; }
  EntityManager::PtrConst const& entMgr() const { return entMgr_; }

  bool initialized() const { return initialized_; }
  ConnectionConfigDir::Ptr const& connectionConfigDir() const { return connectionConfigDir_; }
  void connectionConfigDirIs(ConnectionConfigDir::Ptr const& d);
  ConnectionStatusDir::PtrConst const& connectionStatusDir() const { return connectionStatusDir_; }
  // Binds the QelConnectionStatusDir reactor to `d` (null: to nothing).
  void connectionStatusDirIs(ConnectionStatusDir::PtrConst const& d);
  // Null until handleInitialized has run.
  Orn::TimerWheel::Ptr const& timerWheel() const { return timerWheel_; }

  // One reactor per connection status record, by the record's name.
  ConnStatusCol const& connStatus() const { return connStatus_; }
  Qel::Ptr<QelConnStatus> connStatus(Qel::Name const& name) const;
  std::size_t connStatuses() const { return connStatus_.size(); }
  // The reactor of the record's name, bound to `record` (created when absent). A null record
  // throws Qel::RangeException.
  Qel::Ptr<QelConnStatus> connStatusIs(PassiveConnectionStatus::PtrConst const& record);
  // Removes the reactor (if any) and runs doCleanup for its agent.
  void connStatusDel(Qel::Name const& name);
  void connStatusDelAll();

  // One engine per connected agent, by agent name.
  PassiveEntityManagerSmCol const& passiveEntityManagerSm() const {
    return passiveEntityManagerSm_;
  }
  PassiveEntityManagerSm::Ptr passiveEntityManagerSm(Qel::Name const& agentName) const;
  std::size_t passiveEntityManagerSms() const { return passiveEntityManagerSm_.size(); }
  // The engine of agentStatus's name: the existing one when every argument equals its constructor
  // attributes, else a new one (passiveEntityManagerSmFactory). An existing engine with another
  // attribute throws Qel::NameInUseException ("Reinstantiating the pointer interface where
  // constructor parameter attribute _<attr> has a different value of ..."); a null agentStatus
  // throws Qel::RangeException.
  PassiveEntityManagerSm::Ptr passiveEntityManagerSmIs(
      PassiveAgentProfile::PtrConst const& agentProfile, PassiveAgentStatus::Ptr const& agentStatus,
      Qel::NboAttrLog::Demuxer::Ptr const& demuxer, Qel::MountTable::Ptr const& peerMountTable,
      EntityManager::PtrConst const& entMgr, Orn::TimerWheel::PtrConst const& timerWheel);
  void passiveEntityManagerSmDel(Qel::Name const& agentName);
  void passiveEntityManagerSmDelAll();

  // The profile that serves `agentName` (agentProfileChoice): its own, else the longest prefix
  // ending in "-"; null.
  PassiveAgentProfile::Ptr agentProfileFor(Qel::Name const& agentName) const;

  // Handlers (see the header comment).
  void handleInitialized();
  void handleAgentProfile(Qel::Name const& name);
  void handleLocal();
  // Write mounts were granted: every engine runs a scheduling pass, so that mounts made "C"
  // are converted to "w" without waiting for another event.
  void handleWriteMountsGranted();
  // Deletes the engine and the status record of `agentName`.
  void doCleanup(Qel::Name const& agentName);

  // Notification control, passed on to every nested and connection reactor.
  bool notificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool on);
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  PassiveEntityManagerRootSm(Qel::Name name, PassiveAgentProfileDir::Ptr agentProfileDir,
                             PassiveAgentStatusDir::Ptr agentStatusDir,
                             EntityManager::PtrConst entMgr);
  ~PassiveEntityManagerRootSm() override;

 private:
  void initializedIs(bool v);
  void fillReservedTemplateKeys();
  void freePeerReady(PassiveEntityManagerSm::Ptr const& engine);
  bool dropQueuedPeerReady(PassiveEntityManagerSm::Ptr const& engine);
  template <class F>
  void forEachReactor(F f);

  PassiveAgentProfileDir::Ptr const agentProfileDir_;
  PassiveAgentStatusDir::Ptr const agentStatusDir_;
  EntityManager::PtrConst const entMgr_;
  Qel::Ptr<QelAgentProfileDir> qelAgentProfileDir_;
  Qel::Ptr<QelEntMgr> qelEntMgr_;
  Qel::Ptr<QelConnectionStatusDir> qelConnectionStatusDir_;

  bool initialized_ = false;
  bool notificationActive_ = true;
  bool zombie_ = false;
  ConnectionConfigDir::Ptr connectionConfigDir_;
  ConnectionStatusDir::PtrConst connectionStatusDir_;
  Orn::TimerWheel::Ptr timerWheel_;
  ConnStatusCol connStatus_;
  PassiveEntityManagerSmCol passiveEntityManagerSm_;
};

// A profile added, changed or removed reaches handleAgentProfile.
class LEDRA_PEM_EXPORT PassiveEntityManagerRootSm::QelAgentProfileDir
    : public OwnedReactor<QelAgentProfileDir, PassiveEntityManagerRootSm,
                          PassiveAgentProfileDir::NotifieeConst> {
 public:
  void onAgentProfile(Qel::Name const& name) override;

 private:
  friend OwnedReactor;
  using OwnedReactor::OwnedReactor;
};

// A role change of the process reaches handleLocal; write mounts being granted reach
// handleWriteMountsGranted.
class LEDRA_PEM_EXPORT PassiveEntityManagerRootSm::QelEntMgr
    : public OwnedReactor<QelEntMgr, PassiveEntityManagerRootSm, EntityManager::NotifieeConst> {
 public:
  void onLocal() override;
  void onWriteMountsGranted() override;

 private:
  friend OwnedReactor;
  using OwnedReactor::OwnedReactor;
};

// A record appearing in the connection status directory gets its QelConnStatus; a record leaving
// it has its reactor removed.
class LEDRA_PEM_EXPORT PassiveEntityManagerRootSm::QelConnectionStatusDir
    : public OwnedReactor<QelConnectionStatusDir, PassiveEntityManagerRootSm,
                          ConnectionStatusDir::NotifieeConst> {
 public:
  void onPassiveConnectionStatus(Qel::Name const& name) override;

 private:
  friend OwnedReactor;
  using OwnedReactor::OwnedReactor;
};

// Watches one connection status record: its connected notification runs handleConnection.
// agentName() is the agent whose engine it created ("" while none).
class LEDRA_PEM_EXPORT PassiveEntityManagerRootSm::QelConnStatus
    : public OwnedReactor<QelConnStatus, PassiveEntityManagerRootSm,
                          PassiveConnectionStatus::NotifieeConst> {
 public:
  void onConnected() override;
  void handleConnection();
  Qel::Name const& agentName() const { return agentName_; }

 private:
  friend OwnedReactor;
  using OwnedReactor::OwnedReactor;
  Qel::Name agentName_;
};

template <class N>
class PassiveEntityManagerRootSm::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  virtual void onInitialized() {}
  virtual void onConnectionConfigDir() {}
  virtual void onConnectionStatusDir() {}
  virtual void onConnStatus(Qel::Name const& name) {}
  virtual void onPassiveEntityManagerSm(Qel::Name const& agentName) {}
  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
    auto name = [&key] { return *static_cast<Qel::Name const*>(key.native); };
    switch (aid) {
      case kInitialized:
        return onInitialized();
      case kConnectionConfigDir:
        return onConnectionConfigDir();
      case kConnectionStatusDir:
        return onConnectionStatusDir();
      case kConnStatus:
        return onConnStatus(name());
      case kPassiveEntityManagerSm:
        return onPassiveEntityManagerSm(name());
      default:
        return;
    }
  }
};

}  // namespace Ledra
