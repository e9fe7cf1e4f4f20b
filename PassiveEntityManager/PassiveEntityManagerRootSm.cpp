#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Check/Check.h"
#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "PassiveEntityManager/AgentProfileChoice.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"
#include "Qel/Core/Exception.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

namespace {

// The timer wheel shared by the engines: 1 ms ticks, 255 first-level ticks, 1024 per bucket.
constexpr Qel::Time kWheelTick = 0.001;
constexpr std::uint32_t kWheelTicks = 255;
constexpr std::uint32_t kWheelBucketSize = 1024;

char const* roleText(bool active) {
  return active ? "an active" : "a backup";
}

// A pointer as it appears in name-in-use messages: an entity by its full name and address,
// anything else by its address.
template <class T>
std::string pointerText(T const* p) {
  if (!p) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  if constexpr (std::is_base_of_v<Qel::Entity, T>) return p->fullName() + "@" + buf;
  return buf;
}

template <class T>
void requireSame(char const* attribute, T const* requested, T const* current) {
  if (requested == current) return;
  throw Qel::NameInUseException(
      std::string("Reinstantiating the pointer interface where constructor parameter attribute ") +
      attribute + " has a different value of " + pointerText(requested) +
      " than the current value of " + pointerText(current) + " not allowed");
}

}  // namespace

PassiveEntityManagerRootSm::Ptr PassiveEntityManagerRootSm::passiveEntityManagerRootSmNew(
    PassiveAgentProfileDir::Ptr const& agentProfileDir,
    PassiveAgentStatusDir::Ptr const& agentStatusDir, EntityManager::PtrConst const& entMgr,
    Qel::Name const& name) {
  auto refuseNull = [](char const* attribute) {
    throw Qel::RangeException(std::string("null ") + attribute +
                              " parameter to Ledra::PassiveEntityManagerRootSm not allowed");
  };
  if (!agentProfileDir) refuseNull("_agentProfileDir");
  if (!agentStatusDir) refuseNull("_agentStatusDir");
  if (!entMgr) refuseNull("_entMgr");
  // Initialized once counted, so that a handler that throws releases everything built so far.
  Ptr root(new PassiveEntityManagerRootSm(name, agentProfileDir, agentStatusDir, entMgr));
  root->handleInitialized();
  return root;
}

PassiveEntityManagerRootSm::PassiveEntityManagerRootSm(Qel::Name name,
                                                       PassiveAgentProfileDir::Ptr agentProfileDir,
                                                       PassiveAgentStatusDir::Ptr agentStatusDir,
                                                       EntityManager::PtrConst entMgr)
    : Entity(std::move(name)),
      agentProfileDir_(std::move(agentProfileDir)),
      agentStatusDir_(std::move(agentStatusDir)),
      entMgr_(std::move(entMgr)) {
  qelAgentProfileDir_ = QelAgentProfileDir::reactorNew(this, agentProfileDir_);
  qelEntMgr_ = QelEntMgr::reactorNew(this, entMgr_);
}

PassiveEntityManagerRootSm::~PassiveEntityManagerRootSm() {
  // Nothing watched reaches the root while it is being taken apart.
  qelDoZombieReactorsIs(true);
  passiveEntityManagerSmDelAll();
  connStatusDelAll();
  forEachReactor([](auto& r) { r.ownerIs(nullptr); });
  qelAgentProfileDir_ = nullptr;
  qelEntMgr_ = nullptr;
  qelConnectionStatusDir_ = nullptr;
  timerWheel_ = nullptr;
  connectionConfigDir_ = nullptr;
  connectionStatusDir_ = nullptr;
}

template <class F>
void PassiveEntityManagerRootSm::forEachReactor(F f) {
  if (qelAgentProfileDir_) f(*qelAgentProfileDir_);
  if (qelEntMgr_) f(*qelEntMgr_);
  if (qelConnectionStatusDir_) f(*qelConnectionStatusDir_);
  for (auto const& [name, reactor] : connStatus_)
    f(*reactor);
}

void PassiveEntityManagerRootSm::initializedIs(bool v) {
  if (initialized_ == v) return;
  initialized_ = v;
  notify(kInitialized);
}

void PassiveEntityManagerRootSm::connectionConfigDirIs(ConnectionConfigDir::Ptr const& d) {
  if (connectionConfigDir_ == d) return;
  connectionConfigDir_ = d;
  notify(kConnectionConfigDir);
}

void PassiveEntityManagerRootSm::connectionStatusDirIs(ConnectionStatusDir::PtrConst const& d) {
  if (connectionStatusDir_ == d) return;
  connectionStatusDir_ = d;
  if (!qelConnectionStatusDir_) {
    qelConnectionStatusDir_ = QelConnectionStatusDir::reactorNew(this, d);
    qelConnectionStatusDir_->hasNotificationActiveIs(notificationActive_);
    qelConnectionStatusDir_->qelDoZombieReactorsIs(zombie_);
  } else {
    qelConnectionStatusDir_->notifierIs(d);
  }
  notify(kConnectionStatusDir);
}

Qel::Ptr<PassiveEntityManagerRootSm::QelConnStatus> PassiveEntityManagerRootSm::connStatus(
    Qel::Name const& name) const {
  auto it = connStatus_.find(name);
  return it == connStatus_.end() ? nullptr : it->second;
}

Qel::Ptr<PassiveEntityManagerRootSm::QelConnStatus> PassiveEntityManagerRootSm::connStatusIs(
    PassiveConnectionStatus::PtrConst const& record) {
  if (!record) {
    throw Qel::RangeException(
        "null _connStatus parameter to mutator for Ledra::PassiveEntityManagerRootSm::connStatus "
        "not allowed\"");
  }
  if (auto existing = connStatus(record->name())) {
    existing->notifierIs(record);
    return existing;
  }
  Qel::Ptr<QelConnStatus> reactor = QelConnStatus::reactorNew(this, record);
  reactor->hasNotificationActiveIs(notificationActive_);
  reactor->qelDoZombieReactorsIs(zombie_);
  connStatus_.emplace(record->name(), reactor);
  notifyKey(kConnStatus, record->name());
  return reactor;
}

void PassiveEntityManagerRootSm::connStatusDel(Qel::Name const& name) {
  auto it = connStatus_.find(name);
  if (it == connStatus_.end()) return;
  Qel::Ptr<QelConnStatus> const reactor = std::move(it->second);
  connStatus_.erase(it);
  reactor->ownerIs(nullptr);
  notifyKey(kConnStatus, name);
  doCleanup(reactor->agentName().empty() ? name : reactor->agentName());
}

void PassiveEntityManagerRootSm::connStatusDelAll() {
  while (!connStatus_.empty())
    connStatusDel(Qel::Name(connStatus_.begin()->first));
}

PassiveEntityManagerSm::Ptr PassiveEntityManagerRootSm::passiveEntityManagerSm(
    Qel::Name const& agentName) const {
  auto it = passiveEntityManagerSm_.find(agentName);
  return it == passiveEntityManagerSm_.end() ? nullptr : it->second;
}

PassiveEntityManagerSm::Ptr PassiveEntityManagerRootSm::passiveEntityManagerSmIs(
    PassiveAgentProfile::PtrConst const& agentProfile, PassiveAgentStatus::Ptr const& agentStatus,
    Qel::NboAttrLog::Demuxer::Ptr const& demuxer, Qel::MountTable::Ptr const& peerMountTable,
    EntityManager::PtrConst const& entMgr, Orn::TimerWheel::PtrConst const& timerWheel) {
  if (!agentStatus) {
    throw Qel::RangeException(
        "null _agentStatus parameter to mutator for "
        "Ledra::PassiveEntityManagerRootSm::passiveEntityManagerSm not allowed");
  }
  Qel::Name const key = agentStatus->name();
  if (PassiveEntityManagerSm::Ptr existing = passiveEntityManagerSm(key)) {
    requireSame("_agentProfile", agentProfile.ptr(), existing->agentProfile().ptr());
    requireSame("_agentStatus", agentStatus.ptr(), existing->agentStatus().ptr());
    requireSame("_demuxer", demuxer.ptr(), existing->demuxer().ptr());
    requireSame("_peerMountTable", peerMountTable.ptr(), existing->peerMountTable().ptr());
    requireSame("_entMgr", entMgr.ptr(), existing->entMgr().ptr());
    requireSame("_timerWheel", timerWheel.ptr(), existing->timerWheel().ptr());
    return existing;
  }
  PassiveEntityManagerSm::Ptr engine = passiveEntityManagerSmFactory(
      agentProfile, agentStatus, demuxer, peerMountTable, entMgr, timerWheel);
  passiveEntityManagerSm_.emplace(key, engine);
  notifyKey(kPassiveEntityManagerSm, key);
  return engine;
}

void PassiveEntityManagerRootSm::passiveEntityManagerSmDel(Qel::Name const& agentName) {
  auto it = passiveEntityManagerSm_.find(agentName);
  if (it == passiveEntityManagerSm_.end()) return;
  // The engine is destroyed after it has left the collection, once nobody else holds it.
  PassiveEntityManagerSm::Ptr const engine = std::move(it->second);
  passiveEntityManagerSm_.erase(it);
  notifyKey(kPassiveEntityManagerSm, agentName);
}

void PassiveEntityManagerRootSm::passiveEntityManagerSmDelAll() {
  while (!passiveEntityManagerSm_.empty())
    passiveEntityManagerSmDel(Qel::Name(passiveEntityManagerSm_.begin()->first));
}

PassiveAgentProfile::Ptr PassiveEntityManagerRootSm::agentProfileFor(
    Qel::Name const& agentName) const {
  return agentProfileChoice(*agentProfileDir_, agentName).profile;
}

void PassiveEntityManagerRootSm::fillReservedTemplateKeys() {
  int const cell = Cell::cellId();
  int const peerCell = 3 - cell;
  ReservedTemplateKeyDict& dict = globalReservedTemplateKeyDict();
  dict["%cellId"] = std::to_string(cell);
  dict["%cellPath"] = "cell/" + std::to_string(cell);
  dict["%peerCellId"] = std::to_string(peerCell);
  dict["%peerCellPath"] = "cell/" + std::to_string(peerCell);
  dict["%sysname"] = Qel::ActivityManagerConfig::instance()->systemName();
}

void PassiveEntityManagerRootSm::handleInitialized() {
  TRACE(PassiveEntityManager, kTraceEntry, "PassiveEntityManagerRootSm::handleInitialized()");
  if (initialized_) return;
  connectionConfigDirIs(ConnMgrHelper::connectionConfigDir());
  connectionStatusDirIs(ConnMgrHelper::connectionStatusDir());
  fillReservedTemplateKeys();
  timerWheel_ = Orn::TimerWheel::timerWheelNew(Qel::ActivityManagerConfig::instance()->clock(),
                                               kWheelTick, kWheelTicks, kWheelBucketSize);
  initializedIs(true);
  TRACE(PassiveEntityManager, kTraceEvent, "PassiveEntityManagerRootSm is initialized on {}",
        roleText(entMgr_->active()));

  // Catch up on what was there before the root watched it.
  std::vector<Qel::Name> profiles;
  for (auto const& [name, profile] : agentProfileDir_->agentProfile())
    profiles.push_back(name);
  for (Qel::Name const& name : profiles)
    handleAgentProfile(name);
  if (!connectionStatusDir_) return;
  std::vector<PassiveConnectionStatus::PtrConst> records;
  for (auto const& [name, record] : connectionStatusDir_->passiveConnectionStatus())
    records.push_back(record);
  for (PassiveConnectionStatus::PtrConst const& record : records) {
    Qel::Ptr<QelConnStatus> reactor = connStatusIs(record);
    if (record->connected()) reactor->handleConnection();
  }
}

void PassiveEntityManagerRootSm::handleAgentProfile(Qel::Name const& name) {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerRootSm::handleAgentProfile(Qel::Name name) name: {}", name);
  if (!initialized_) return;
  if (agentProfileDir_->agentProfile(name)) {
    TRACE(PassiveEntityManager, kTraceDecision, "adding connection config for {}", name);
    if (connectionConfigDir_) connectionConfigDir_->passiveConnectionConfigIs(name);
    return;
  }
  QEL_CHECK(false, "false && \"mount profile being deleted\"");
}

void PassiveEntityManagerRootSm::handleWriteMountsGranted() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerRootSm::handleWriteMountsGranted()");
  if (!initialized_ || !entMgr_->writeMountsGranted()) return;
  // A pass may close an agent and so change the collection: work on a copy.
  std::vector<PassiveEntityManagerSm::Ptr> engines;
  for (auto const& [name, engine] : passiveEntityManagerSm_)
    engines.push_back(engine);
  for (auto const& engine : engines)
    engine->doInitiateMounts();
}

void PassiveEntityManagerRootSm::handleLocal() {
  TRACE(PassiveEntityManager, kTraceEntry, "PassiveEntityManagerRootSm::handleLocal()");
  if (!initialized_) return;
  bool const active = entMgr_->active();
  TRACE(PassiveEntityManager, kTraceEvent, "{} supervisor", roleText(active));
  if (!active) return;
  std::vector<PassiveAgentProfile::Ptr> profiles;
  for (auto const& [name, profile] : agentProfileDir_->agentProfile())
    profiles.push_back(profile);
  for (PassiveAgentProfile::Ptr const& profile : profiles)
    profile->mountGroupDel(kPeerReadyGroup);
  std::vector<PassiveEntityManagerSm::Ptr> engines;
  for (auto const& [name, engine] : passiveEntityManagerSm_)
    engines.push_back(engine);
  for (PassiveEntityManagerSm::Ptr const& engine : engines)
    freePeerReady(engine);
}

// An engine held back by its "peerReady" group no longer waits for it: the group's blocking
// entry and its conditional record go, so does the group if it is still queued, and a scheduling
// pass lets the groups behind it proceed.
void PassiveEntityManagerRootSm::freePeerReady(PassiveEntityManagerSm::Ptr const& engine) {
  Qel::Name const agentName = engine->agentName();
  bool freed = dropQueuedPeerReady(engine);
  if (!engine->blockingConditionals().empty()) {
    TRACE(PassiveEntityManager, kTraceDecision, "Found blocking Conditionals for: {}", agentName);
    if (auto const record = engine->conditionalMountGroup(kPeerReadyGroup)) {
      TRACE(PassiveEntityManager, kTraceDecision,
            "Found peerReady in conditionalMountGroup. Deleting.");
      engine->blockingConditionalsDel(kPeerReadyGroup);
      PassiveMountGroup::PtrConst const& group = record->mountGroup();
      if (group && group->blockingConditional())
        engine->blockingConditionalsDel(group->entireCondition());
      engine->conditionalMountGroupDel(kPeerReadyGroup);
      TRACE(PassiveEntityManager, kTraceDecision, "Finished SA conversion for {}", agentName);
      freed = true;
    }
  }
  if (!freed) return;
  if (engine->state() == PassiveEntityManagerSm::conditionalMountGroupPending)
    engine->stateIs(PassiveEntityManagerSm::readyMountGroupPending);
  engine->doInitiateMounts();
}

// Removes the "peerReady" groups still waiting in the engine's ready queue; true if any was.
bool PassiveEntityManagerRootSm::dropQueuedPeerReady(PassiveEntityManagerSm::Ptr const& engine) {
  std::vector<PassiveEntityManagerSm::ReadyMountGroupCompoundIndex> queued;
  for (auto const entry : engine->readyMountGroup()) {
    if (entry.value && entry.value->name() == kPeerReadyGroup)
      queued.emplace_back(entry.key.index0, static_cast<Qel::U32>(entry.key.index1));
  }
  for (auto const& index : queued) {
    TRACE(PassiveEntityManager, kTraceDecision, "Found peerReady in readyMountGroup. Deleting.");
    engine->readyMountGroupDel(index);
  }
  return !queued.empty();
}

void PassiveEntityManagerRootSm::doCleanup(Qel::Name const& agentName) {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerRootSm::doCleanup(Qel::Name name) agentName: {}", agentName);
  passiveEntityManagerSmDel(agentName);
  agentStatusDir_->agentStatusDel(agentName);
}

void PassiveEntityManagerRootSm::hasNotificationActiveIs(bool on) {
  if (notificationActive_ == on) return;
  notificationActive_ = on;
  forEachReactor([on](auto& r) { r.hasNotificationActiveIs(on); });
}

void PassiveEntityManagerRootSm::qelDoZombieReactorsIs(bool zombie) {
  zombie_ = zombie;
  forEachReactor([zombie](auto& r) { r.qelDoZombieReactorsIs(zombie); });
}

// ---- Reactors ----

void PassiveEntityManagerRootSm::QelAgentProfileDir::onAgentProfile(Qel::Name const& name) {
  if (auto* root = live()) root->handleAgentProfile(name);
}

void PassiveEntityManagerRootSm::QelEntMgr::onLocal() {
  if (auto* root = live()) root->handleLocal();
}

void PassiveEntityManagerRootSm::QelEntMgr::onWriteMountsGranted() {
  if (auto* root = live()) root->handleWriteMountsGranted();
}

void PassiveEntityManagerRootSm::QelConnectionStatusDir::onPassiveConnectionStatus(
    Qel::Name const& name) {
  auto* root = live();
  if (!root || !root->initialized()) return;
  if (PassiveConnectionStatus::Ptr record = notifier()->passiveConnectionStatus(name)) {
    root->connStatusIs(record);
    return;
  }
  root->connStatusDel(name);
}

void PassiveEntityManagerRootSm::QelConnStatus::onConnected() {
  if (live()) handleConnection();
}

void PassiveEntityManagerRootSm::QelConnStatus::handleConnection() {
  PassiveEntityManagerRootSm* const root = live();
  PassiveConnectionStatus::PtrConst const status = notifier();
  if (!root || !status) return;
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerRootSm::QelConnStatus::handleConnection() connection: {}",
        status->name());
  if (!root->initialized()) return;
  Qel::Name const agentName = status->agentName().empty() ? status->name() : status->agentName();
  TRACE(PassiveEntityManager, kTraceDecision, "agent: {} whiteList: {}", agentName,
        status->whiteList());
  if (!status->connected() || !status->established() || status->whiteList() ||
      status->state() != PassiveConnectionStatus::kStateConnected) {
    return;
  }
  PassiveAgentProfile::Ptr const profile = root->agentProfileFor(agentName);
  Qel::NboAttrLog::Demuxer::Ptr const dmux = Qel::NboAttrLog::demuxerMgr()->demuxer(status->name());
  QEL_CHECK(dmux, "dmux");
  if (!profile) {
    TRACE(PassiveEntityManager, kTraceEvent,
          "Closing connection for {} as no agent profile could be found", agentName);
    dmux->close(kNoProfileReason, {.notifyPeer = true, .removeStatus = true});
    return;
  }
  TRACE(PassiveEntityManager, kTraceDecision, "connection succeeded for {}", agentName);
  PassiveAgentStatus::Ptr const agentStatus = root->agentStatusDir()->agentStatusIs(agentName);
  agentStatus->agentStringIs(status->agentString());
  Qel::MountTable::Ptr const peerMountTable = dmux->peer();
  agentName_ = agentName;
  root->passiveEntityManagerSmIs(profile, agentStatus, dmux, peerMountTable, root->entMgr(),
                                 root->timerWheel());
}

// ---- Reflection ----

Qel::QelType const* PassiveEntityManagerRootSm::staticType() {
  using R = PassiveEntityManagerRootSm;
  static Qel::QelType const* t =
      Qel::TypeBuilder<R>("Ledra::PassiveEntityManagerRootSm")
          .value<PassiveAgentProfileDir::Ptr>("agentProfileDir",
                                              [](R const& r) { return r.agentProfileDir(); })
          .constructor()
          .value<PassiveAgentStatusDir::Ptr>("agentStatusDir",
                                             [](R const& r) { return r.agentStatusDir(); })
          .constructor()
          .value<EntityManager::PtrConst>("entMgr", [](R const& r) { return r.entMgr(); })
          .constructor()
          .value<bool>("initialized", [](R const& r) { return r.initialized(); })
          .value<ConnectionConfigDir::Ptr>(
              "connectionConfigDir", [](R const& r) { return r.connectionConfigDir(); },
              [](R& r, ConnectionConfigDir::Ptr const& d) { r.connectionConfigDirIs(d); })
          .value<ConnectionStatusDir::PtrConst>(
              "connectionStatusDir", [](R const& r) { return r.connectionStatusDir(); },
              [](R& r, ConnectionStatusDir::PtrConst const& d) { r.connectionStatusDirIs(d); })
          .collection<Qel::Name, PassiveConnectionStatus::PtrConst>(
              "connStatus",
              [](R const& r, Qel::Name const& n) -> PassiveConnectionStatus::PtrConst {
                auto reactor = r.connStatus(n);
                return reactor ? reactor->notifier() : nullptr;
              },
              [](R const& r) { return r.connStatuses(); })
          .collection<Qel::Name, PassiveEntityManagerSm::Ptr>(
              "passiveEntityManagerSm",
              [](R const& r, Qel::Name const& n) { return r.passiveEntityManagerSm(n); },
              [](R const& r) { return r.passiveEntityManagerSms(); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveEntityManagerRootSm::staticType();
}

}  // namespace Ledra
