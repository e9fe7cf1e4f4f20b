// The engine's construction, start-up, collections, nested reactors, teardown and reflection.
// Scheduling is in PassiveEntityManagerSmScheduling.cpp, mount execution in
// PassiveEntityManagerSmMounting.cpp, the template dictionary in
// PassiveEntityManagerSmTemplates.cpp.
#include "PassiveEntityManager/PassiveEntityManagerSm.h"

#include <iostream>

#include "Check/Backtrace.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerSmReactors.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "PassiveEntityManager/TraceFacility.h"
#include "Qel/ActivityManagerConfig.h"
#include "Qel/Exception.h"
#include "Qel/KeyedStore.h"
#include "Qel/TypeBuilder.h"

namespace Ledra {

PassiveEntityManagerSm::Ptr PassiveEntityManagerSm::passiveEntityManagerSmNew(
    PassiveAgentProfile::PtrConst const& agentProfile, PassiveAgentStatus::Ptr const& agentStatus,
    Qel::NboAttrLog::Demuxer::Ptr const& demuxer, Qel::MountTable::Ptr const& peerMountTable,
    EntityManager::PtrConst const& entMgr, Orn::TimerWheel::PtrConst const& timerWheel) {
  Ptr engine(new PassiveEntityManagerSm(agentProfile, agentStatus, demuxer, peerMountTable, entMgr,
                                        timerWheel));
  engine->start();
  if (!engine) throw Qel::RangeException(Qel::kNullValidPtr);
  return engine;
}

PassiveEntityManagerSm::Ptr passiveEntityManagerSmFactory(
    PassiveAgentProfile::PtrConst const& agentProfile, PassiveAgentStatus::Ptr const& agentStatus,
    Qel::NboAttrLog::Demuxer::Ptr const& demuxer, Qel::MountTable::Ptr const& peerMountTable,
    EntityManager::PtrConst const& entMgr, Orn::TimerWheel::PtrConst const& timerWheel) {
  return PassiveEntityManagerSm::passiveEntityManagerSmNew(agentProfile, agentStatus, demuxer,
                                                           peerMountTable, entMgr, timerWheel);
}

PassiveEntityManagerSm::PassiveEntityManagerSm(PassiveAgentProfile::PtrConst const& agentProfile,
                                               PassiveAgentStatus::Ptr const& agentStatus,
                                               Qel::NboAttrLog::Demuxer::Ptr const& demuxer,
                                               Qel::MountTable::Ptr const& peerMountTable,
                                               EntityManager::PtrConst const& entMgr,
                                               Orn::TimerWheel::PtrConst const& timerWheel)
    : Entity(Qel::Name(agentStatus ? agentStatus->name() : Qel::Name())),
      agentProfile_(agentProfile),
      agentStatus_(agentStatus),
      entMgr_(entMgr) {
  // Binding a reactor may call back into the engine; every handler returns at once while the
  // engine is not initialized, so none takes a reference to the engine under construction.
  if (agentProfile_) qelAgentProfile_ = QelAgentProfile::reactorNew(this, agentProfile_);
  if (demuxer) qelDemuxer_ = QelDemuxer::reactorNew(this, demuxer);
  if (peerMountTable) qelPeerMountTable_ = QelPeerMountTable::reactorNew(this, peerMountTable);
  if (timerWheel) qelTimerWheel_ = QelTimerWheel::reactorNew(this, timerWheel);
}

void PassiveEntityManagerSm::start() {
  handleInputProtocolVersion();
  handleInitialized();
  hasNotificationActiveIs(true);
}

PassiveEntityManagerSm::~PassiveEntityManagerSm() {
  qelDoZombieReactorsIs(true);
  forEachReactor([](auto& r) { r.ownerIs(nullptr); });
  for (auto& [name, record] : conditionalMountGroup_)
    record->passiveEntityManagerSmIs(nullptr);
  handleDeletion();
}

Qel::Name PassiveEntityManagerSm::agentName() const {
  return agentStatus_ ? agentStatus_->name() : Qel::Name();
}

Qel::NboAttrLog::Demuxer::Ptr PassiveEntityManagerSm::demuxer() const {
  return qelDemuxer_ ? qelDemuxer_->notifier() : nullptr;
}

Qel::MountTable::Ptr PassiveEntityManagerSm::peerMountTable() const {
  return qelPeerMountTable_ ? qelPeerMountTable_->notifier() : nullptr;
}

Orn::TimerWheel::PtrConst PassiveEntityManagerSm::timerWheel() const {
  return qelTimerWheel_ ? qelTimerWheel_->notifier() : nullptr;
}

void PassiveEntityManagerSm::demuxerIs(Qel::NboAttrLog::Demuxer::Ptr const& d) {
  if (d == demuxer()) return;
  if (!qelDemuxer_) {
    qelDemuxer_ = QelDemuxer::reactorNew(this, d);
  } else {
    qelDemuxer_->notifierIs(d);
  }
  notify(kDemuxer);
}

void PassiveEntityManagerSm::peerMountTableIs(Qel::MountTable::Ptr const& t) {
  if (t == peerMountTable()) return;
  if (!qelPeerMountTable_) {
    qelPeerMountTable_ = QelPeerMountTable::reactorNew(this, t);
  } else {
    qelPeerMountTable_->notifierIs(t);
  }
  notify(kPeerMountTable);
}

void PassiveEntityManagerSm::initializedIs(bool v) {
  store(initialized_, v, kInitialized);
}
void PassiveEntityManagerSm::deletionIs(bool v) {
  store(deletion_, v, kDeletion);
}
void PassiveEntityManagerSm::stateIs(State s) {
  store(state_, s, kState);
}
void PassiveEntityManagerSm::mountsInProgressIs(bool v) {
  store(mountsInProgress_, v, kMountsInProgress);
}

// --- pendingMountProfile

Mount const* PassiveEntityManagerSm::pendingMountProfile(Qel::String const& path) const {
  auto it = pendingMountProfile_.find(path);
  return it == pendingMountProfile_.end() ? nullptr : &it->second;
}

void PassiveEntityManagerSm::pendingMountProfileIs(Mount const& m) {
  Qel::String const path = m.path();
  if (!Qel::storeIfChanged(pendingMountProfile_, path, m)) return;
  notifyKey(kPendingMountProfile, path);
}

void PassiveEntityManagerSm::pendingMountProfileDel(Qel::String const& path) {
  if (pendingMountProfile_.erase(path) == 0) return;
  notifyKey(kPendingMountProfile, path);
}

void PassiveEntityManagerSm::pendingMountProfileDelAll() {
  while (!pendingMountProfile_.empty())
    pendingMountProfileDel(Qel::String(pendingMountProfile_.begin()->first));
}

// --- convertableMounts

Qel::U32 PassiveEntityManagerSm::convertableMountsEnq(Mount const& m) {
  Qel::U32 const index = convertableMounts_.enqueue(m);
  notifyKey(kConvertableMounts, index);
  return index;
}

Mount PassiveEntityManagerSm::convertableMountsDeq() {
  if (convertableMounts_.empty()) return Mount();
  Qel::U32 const index = convertableMounts_.metadata().head;
  Mount m = *convertableMounts_.dequeue();
  notifyKey(kConvertableMounts, index);
  return m;
}

void PassiveEntityManagerSm::convertableMountsDel(Qel::U32 index) {
  if (!convertableMounts_.erase(index)) return;
  notifyKey(kConvertableMounts, index);
}

void PassiveEntityManagerSm::convertableMountsDelAll() {
  while (!convertableMounts_.empty())
    convertableMountsDeq();
}

// --- passiveDirMounterCol

PassiveDirMounter::Ptr PassiveEntityManagerSm::passiveDirMounterCol(Qel::String const& path) const {
  auto it = passiveDirMounterCol_.find(path);
  return it == passiveDirMounterCol_.end() ? nullptr : it->second;
}

void PassiveEntityManagerSm::passiveDirMounterColIs(Qel::String const& path,
                                                    PassiveDirMounter::Ptr const& m) {
  if (!m) return passiveDirMounterColDel(path);
  auto [it, inserted] = passiveDirMounterCol_.try_emplace(path, m);
  if (!inserted) {
    if (it->second == m) return;
    // Release the replaced mounter only after the map holds the new one.
    PassiveDirMounter::Ptr old = std::exchange(it->second, m);
  }
  notifyKey(kPassiveDirMounterCol, path);
}

void PassiveEntityManagerSm::passiveDirMounterColDel(Qel::String const& path) {
  auto it = passiveDirMounterCol_.find(path);
  if (it == passiveDirMounterCol_.end()) return;
  // The mounter may be the caller (it removes itself when complete): it dies after the
  // notification, when this frame's reference goes.
  PassiveDirMounter::Ptr mounter = std::move(it->second);
  passiveDirMounterCol_.erase(it);
  notifyKey(kPassiveDirMounterCol, path);
  // A finished mounter may have been the last thing the agent waited for, with no mount request
  // left whose answer would run the next pass: run one at the next tick.
  if (initialized_ && state_ != mountComplete) armRetryTimer();
}

void PassiveEntityManagerSm::passiveDirMounterColDelAll() {
  while (!passiveDirMounterCol_.empty())
    passiveDirMounterColDel(Qel::String(passiveDirMounterCol_.begin()->first));
}

// --- readyMountGroup

namespace {
PassiveEntityManagerSm::ReadyMountGroupCompoundIndex indexOf(
    PassiveEntityManagerSm::ReadyMountGroupCol::Key const& key) {
  return {key.index0, static_cast<Qel::U32>(key.index1)};
}
}  // namespace

PassiveMountGroup::PtrConst PassiveEntityManagerSm::readyMountGroup(
    ReadyMountGroupCompoundIndex const& index) const {
  auto const* g = readyMountGroup_.at({index.index0, index.index1});
  return g ? *g : nullptr;
}

PassiveEntityManagerSm::ReadyMountGroupCompoundIndex PassiveEntityManagerSm::readyMountGroupEnq(
    PassiveMountGroup::PtrConst const& group) {
  QEL_CHECK(group, "group && \"readyMountGroupEnq of a null group\"");
  auto const key = readyMountGroup_.enqueue(group->priority(), group);
  notify(kReadyMountGroup);
  return indexOf(key);
}

PassiveMountGroup::PtrConst PassiveEntityManagerSm::readyMountGroupDeq() {
  auto group = readyMountGroup_.dequeue();
  if (!group) return nullptr;
  notify(kReadyMountGroup);
  return *group;
}

PassiveEntityManagerSm::ReadyMountGroupCompoundIndex PassiveEntityManagerSm::readyMountGroupIs(
    Qel::U32 priority, PassiveMountGroup::PtrConst const& group) {
  QEL_CHECK(group, "group && \"readyMountGroupIs of a null group\"");
  QEL_CHECK(group->priority() == priority, "rv->priority() == prio");
  return readyMountGroupEnq(group);
}

void PassiveEntityManagerSm::readyMountGroupDel(ReadyMountGroupCompoundIndex const& index) {
  if (!readyMountGroup_.erase({index.index0, index.index1})) return;
  notify(kReadyMountGroup);
}

void PassiveEntityManagerSm::readyMountGroupDelAll() {
  if (readyMountGroup_.empty()) return;
  readyMountGroup_.clear();
  notify(kReadyMountGroup);
}

// --- conditionalMountGroup

PassiveEntityManagerSm::QelConditionalMountGroup::Ptr PassiveEntityManagerSm::conditionalMountGroup(
    Qel::Name const& name) const {
  auto it = conditionalMountGroup_.find(name);
  return it == conditionalMountGroup_.end() ? nullptr : it->second;
}

PassiveEntityManagerSm::QelConditionalMountGroup::Ptr
PassiveEntityManagerSm::conditionalMountGroupIs(PassiveMountGroup::PtrConst const& group) {
  QEL_CHECK(group, "group && \"conditionalMountGroupIs of a null group\"");
  Qel::Name const name = group->name();
  if (auto existing = conditionalMountGroup(name)) return existing;
  auto record = QelConditionalMountGroup::conditionalMountGroupNew(group, this);
  record->hasNotificationActiveIs(notificationActive_);
  record->qelDoZombieReactorsIs(zombie_);
  // The record starts before it joins the collection: conditions that hold at once settle the
  // group inside handleInit, and the caller finds the record settled (initialized false).
  record->handleInit();
  conditionalMountGroup_.emplace(name, record);
  notifyKey(kConditionalMountGroup, name);
  return record;
}

void PassiveEntityManagerSm::conditionalMountGroupDel(Qel::Name const& name) {
  auto it = conditionalMountGroup_.find(name);
  if (it == conditionalMountGroup_.end()) return;
  QelConditionalMountGroup::Ptr record = std::move(it->second);
  conditionalMountGroup_.erase(it);
  record->passiveEntityManagerSmIs(nullptr);
  notifyKey(kConditionalMountGroup, name);
}

void PassiveEntityManagerSm::conditionalMountGroupDelAll() {
  while (!conditionalMountGroup_.empty())
    conditionalMountGroupDel(Qel::Name(conditionalMountGroup_.begin()->first));
}

// --- blockingConditionals, templateCache, allMountPaths

std::optional<bool> PassiveEntityManagerSm::blockingConditionals(
    Qel::String const& condition) const {
  auto it = blockingConditionals_.find(condition);
  if (it == blockingConditionals_.end()) return std::nullopt;
  return it->second;
}

void PassiveEntityManagerSm::blockingConditionalsIs(Qel::String const& condition, bool v) {
  if (!Qel::storeIfChanged(blockingConditionals_, condition, v)) return;
  notifyKey(kBlockingConditionals, condition);
}

void PassiveEntityManagerSm::blockingConditionalsDel(Qel::String const& condition) {
  if (blockingConditionals_.erase(condition) == 0) return;
  notifyKey(kBlockingConditionals, condition);
}

void PassiveEntityManagerSm::blockingConditionalsDelAll() {
  while (!blockingConditionals_.empty())
    blockingConditionalsDel(Qel::String(blockingConditionals_.begin()->first));
}

Qel::String const* PassiveEntityManagerSm::templateCache(Qel::String const& key) const {
  auto it = templateCache_.find(key);
  return it == templateCache_.end() ? nullptr : &it->second;
}

void PassiveEntityManagerSm::templateCacheIs(Qel::String const& key, Qel::String const& value) {
  if (!Qel::storeIfChanged(templateCache_, key, value)) return;
  notifyKey(kTemplateCache, key);
}

void PassiveEntityManagerSm::templateCacheDel(Qel::String const& key) {
  if (templateCache_.erase(key) == 0) return;
  notifyKey(kTemplateCache, key);
}

void PassiveEntityManagerSm::templateCacheDelAll() {
  while (!templateCache_.empty())
    templateCacheDel(Qel::String(templateCache_.begin()->first));
}

Mount PassiveEntityManagerSm::allMountPaths(Qel::String const& path) const {
  auto it = allMountPaths_.find(path);
  return it == allMountPaths_.end() ? Mount() : it->second;
}

void PassiveEntityManagerSm::allMountPathsIs(Mount const& m) {
  Qel::String const path = m.path();
  if (!Qel::storeIfChanged(allMountPaths_, path, m)) return;
  notifyKey(kAllMountPaths, path);
}

void PassiveEntityManagerSm::allMountPathsDel(Qel::String const& path) {
  if (allMountPaths_.erase(path) == 0) return;
  notifyKey(kAllMountPaths, path);
}

void PassiveEntityManagerSm::allMountPathsDelAll() {
  while (!allMountPaths_.empty())
    allMountPathsDel(Qel::String(allMountPaths_.begin()->first));
}

// --- start-up

void PassiveEntityManagerSm::handleInitialized() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleInitialized():  agentName: {}", agentName());
  if (initialized_) return;
  auto config = Qel::ActivityManagerConfig::instance();
  Qel::String const rootPath = "/" + config->systemName() + "/Ledra";
  Qel::Entity::Ptr root = Qel::globalDir()->entity(rootPath);
  ledraRoot_ = Qel::Dir::Ptr(dynamic_cast<Qel::Dir*>(root.ptr()));
  notify(kLedraRoot);
  closed_ = false;
  doInitTemplateDict();
  // An agent closed for a template key without value is not set up further.
  if (closed_) return;
  doPopulateMountPaths();
  doSetDemuxerProperty();
  initializedIs(true);
  handleInputProtocolVersion();
}

void PassiveEntityManagerSm::doSetDemuxerProperty() {
  if (!agentProfile_ || !agentProfile_->lowMountPrio()) return;
  TRACE(PassiveEntityManager, kTraceDecision, " setting low prio for agentName: {}", agentName());
  if (auto d = demuxer()) d->lowMountPrioIs(true);
}

void PassiveEntityManagerSm::handleInputProtocolVersion() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleInputProtocolVersion():  agentName: {}", agentName());
  if (!initialized_) return;
  auto table = peerMountTable();
  if (!table) return;
  if (table->currentVersion() != Qel::MountTable::kProtocolVersion) {
    TRACE(PassiveEntityManager, kTraceDecision, "peer mount table is talking older version");
    return;
  }
  TRACE(PassiveEntityManager, kTraceDecision, "initiating loading mount profiles");
  doRootMount();
}

void PassiveEntityManagerSm::doRootMount() {
  TRACE(PassiveEntityManager, kTraceEntry, "PassiveEntityManagerSm::doRootMount():  agentName: {}",
        agentName());
  if (!initialized_) return;
  doPassiveMount(ledraRoot_ ? Qel::String(ledraRoot_->fullName()) : Qel::String(),
                 agentProfile_ ? agentProfile_->rootFlags() : Qel::String(), Qel::String());
}

// --- teardown

void PassiveEntityManagerSm::handleClose(Qel::String const& reason) {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleClose( Qel::String8 reason ):  agentName: {}", agentName());
  Qel::String const text = "Processed an invalid mount profile. " + reason;
  std::cerr << text << std::endl;
  std::cerr << Check::Backtrace().text() << std::endl;
  closed_ = true;
  doCloseConnection(text);
}

void PassiveEntityManagerSm::doCloseConnection(Qel::String const& reason) {
  TRACE(PassiveEntityManager, kTraceEvent, "Closing connection for {}: {}", agentName(), reason);
  if (auto d = demuxer()) d->close(reason, {.notifyPeer = true, .removeStatus = true});
  doCleanup();
}

void PassiveEntityManagerSm::handleDeletion() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleDeletion():  agentName: {}", agentName());
  doCleanup();
}

void PassiveEntityManagerSm::doCleanup() {
  TRACE(PassiveEntityManager, kTraceEntry, "PassiveEntityManagerSm::doCleanup():  agentName: {}",
        agentName());
  pendingMountProfileDelAll();
  passiveDirMounterColDelAll();
  readyMountGroupDelAll();
  conditionalMountGroupDelAll();
  convertableMountsDelAll();
  initializedIs(false);
}

// --- notification control

template <class F>
void PassiveEntityManagerSm::forEachReactor(F f) {
  if (qelAgentProfile_) f(*qelAgentProfile_);
  if (qelDemuxer_) f(*qelDemuxer_);
  if (qelPeerMountTable_) f(*qelPeerMountTable_);
  if (qelTimerWheel_) f(*qelTimerWheel_);
}

void PassiveEntityManagerSm::hasNotificationActiveIs(bool on) {
  if (notificationActive_ == on) return;
  notificationActive_ = on;
  forEachReactor([on](auto& r) { r.hasNotificationActiveIs(on); });
  for (auto& [name, record] : conditionalMountGroup_)
    record->hasNotificationActiveIs(on);
}

void PassiveEntityManagerSm::qelDoZombieReactorsIs(bool zombie) {
  if (zombie_ == zombie) return;
  zombie_ = zombie;
  forEachReactor([zombie](auto& r) { r.qelDoZombieReactorsIs(zombie); });
  for (auto& [name, record] : conditionalMountGroup_)
    record->qelDoZombieReactorsIs(zombie);
}

// --- reflection

Qel::QelType const* PassiveEntityManagerSm::staticType() {
  using E = PassiveEntityManagerSm;
  using GPtr = Qel::GenericIf::PtrConst;
  using Index = ReadyMountGroupCompoundIndex;
  auto mountLookup = [](auto all) {
    return [all](E const& e, Qel::String const& k) -> std::optional<Mount> {
      auto const& col = all(e);
      auto it = col.find(k);
      if (it == col.end()) return std::nullopt;
      return it->second;
    };
  };
  static Qel::QelType const* t =
      Qel::TypeBuilder<E>("Ledra::PassiveEntityManagerSm")
          .value<PassiveAgentProfile::PtrConst>("agentProfile",
                                                [](E const& e) { return e.agentProfile(); })
          .constructor()
          .value<PassiveAgentStatus::Ptr>("agentStatus", [](E const& e) { return e.agentStatus(); })
          .constructor()
          .value<Qel::NboAttrLog::Demuxer::Ptr>("demuxer", [](E const& e) { return e.demuxer(); })
          .constructor()
          .value<Qel::MountTable::Ptr>("peerMountTable",
                                       [](E const& e) { return e.peerMountTable(); })
          .constructor()
          .value<EntityManager::PtrConst>("entMgr", [](E const& e) { return e.entMgr(); })
          .constructor()
          .value<Orn::TimerWheel::PtrConst>("timerWheel", [](E const& e) { return e.timerWheel(); })
          .constructor()
          .value<Qel::Dir::Ptr>("ledraRoot", [](E const& e) { return e.ledraRoot(); })
          .value<bool>(
              "initialized", [](E const& e) { return e.initialized(); },
              [](E& e, bool v) { e.initializedIs(v); })
          .value<bool>(
              "deletion", [](E const& e) { return e.deletion(); },
              [](E& e, bool v) { e.deletionIs(v); })
          .value<State>(
              "state", [](E const& e) { return e.state(); }, [](E& e, State v) { e.stateIs(v); })
          .value<bool>("mountsInProgress", [](E const& e) { return e.mountsInProgress(); })
          .value<ConvertableMountsMetadata>(
              "convertableMountsMetadata", [](E const& e) { return e.convertableMountsMetadata(); })
          .collection<Qel::String, Mount>(
              "pendingMountProfile",
              mountLookup([](E const& e) -> auto const& { return e.pendingMountProfile(); }),
              [](E const& e) { return e.pendingMountProfiles(); })
          .collection<Qel::U32, Mount>(
              "convertableMounts",
              [](E const& e, Qel::U32 i) -> std::optional<Mount> {
                Mount const* m = e.convertableMounts(i);
                return m ? std::optional<Mount>(*m) : std::nullopt;
              },
              [](E const& e) { return e.convertableMountsCount(); })
          .collection<Qel::String, Qel::Ptr<PassiveDirMounter>>(
              "passiveDirMounterCol",
              [](E const& e, Qel::String const& k) { return e.passiveDirMounterCol(k); },
              [](E const& e) { return e.passiveDirMounterCol().size(); })
          .collection<Index, PassiveMountGroup::PtrConst>(
              "readyMountGroup", [](E const& e, Index const& k) { return e.readyMountGroup(k); },
              [](E const& e) { return e.readyMountGroups(); })
          .collection<Qel::Name, QelConditionalMountGroup::Ptr>(
              "conditionalMountGroup",
              [](E const& e, Qel::Name const& k) { return e.conditionalMountGroup(k); },
              [](E const& e) { return e.conditionalMountGroup().size(); })
          .collection<Qel::String, bool>(
              "blockingConditionals",
              [](E const& e, Qel::String const& k) { return e.blockingConditionals(k); },
              [](E const& e) { return e.blockingConditionals().size(); },
              [](E& e, Qel::String const& k, GPtr const& v) {
                if (!v) return e.blockingConditionalsDel(k);
                e.blockingConditionalsIs(k, v->valueAs<bool>());
              })
          .collection<Qel::String, Qel::String>(
              "templateCache",
              [](E const& e, Qel::String const& k) -> std::optional<Qel::String> {
                Qel::String const* v = e.templateCache(k);
                return v ? std::optional<Qel::String>(*v) : std::nullopt;
              },
              [](E const& e) { return e.templateCache().size(); })
          .collection<Qel::String, Mount>(
              "allMountPaths",
              mountLookup([](E const& e) -> auto const& { return e.allMountPaths(); }),
              [](E const& e) { return e.allMountPaths().size(); })
          .handler("handleInitialized", [](E& e) { e.handleInitialized(); })
          .handler("handleInputProtocolVersion", [](E& e) { e.handleInputProtocolVersion(); })
          .handler("doSetDemuxerProperty", [](E& e) { e.doSetDemuxerProperty(); })
          .handler("doRootMount", [](E& e) { e.doRootMount(); })
          .handler("doInitiateMounts", [](E& e) { e.doInitiateMounts(); })
          .handler("handleClose", {"reason"},
                   [](E& e, Qel::String const& reason) { e.handleClose(reason); })
          .handler("handleDeletion", [](E& e) { e.handleDeletion(); })
          .handler("doCleanup", [](E& e) { e.doCleanup(); })
          .handler(
              "handleMountProfile", {"group"},
              [](E& e, PassiveMountGroup::PtrConst const& group) { e.handleMountProfile(group); })
          .handler("doPendingMounts", [](E& e) { e.doPendingMounts(); })
          .handler("evaluateTemplateCondition", {"cond"},
                   [](E& e, Qel::String const& cond) { return e.evaluateTemplateCondition(cond); })
          .handler("doPassiveMount", {"path", "flags", "typeName"},
                   [](E& e, Qel::String const& path, Qel::String const& flags,
                      Qel::String const& typeName) { e.doPassiveMount(path, flags, typeName); })
          .handler("doNestedPassiveMount", {"mount"},
                   [](E& e, Mount const& mount) { e.doNestedPassiveMount(mount); })
          .handler("doPopulateMountPaths", [](E& e) { e.doPopulateMountPaths(); })
          .handler("doInitTemplateDict", [](E& e) { e.doInitTemplateDict(); })
          .factory([](Qel::Name const&) -> Qel::Entity::Ptr {
            throw Qel::TypeException(
                "an engine is created by passiveEntityManagerSmFactory, with its connection");
          })
          .done();
  return t;
}

Qel::String PassiveEntityManagerSm::ReadyMountGroupCompoundIndex::text() const {
  return valueToStrep(*this);
}

Qel::QelType const* PassiveEntityManagerSm::ReadyMountGroupCompoundIndex::staticType() {
  using Boxed = Qel::BoxedValue<ReadyMountGroupCompoundIndex>;
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<Boxed> b("Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex",
                              Qel::QelType::Kind::value);
    b.value<Qel::U32>("index0", [](Boxed const& i) {
       return i.value().index0;
     }).value<Qel::U32>("index1", [](Boxed const& i) { return i.value().index1; });
    // Keys given as text (a keyed read or write by name) are read in the value's text form.
    b.type().readerIs([](Qel::String const& text) {
      return Qel::ValueTraits<ReadyMountGroupCompoundIndex>::box(
          strepToValue<ReadyMountGroupCompoundIndex>(text));
    });
    return b.done();
  }();
  return t;
}

Qel::QelType const* PassiveEntityManagerSm::QelConditionalMountGroup::staticType() {
  using Boxed = Qel::BoxedPtr<QelConditionalMountGroup>;
  static Qel::QelType const* t =
      Qel::TypeBuilder<Boxed>("Ledra::PassiveEntityManagerSm::QelConditionalMountGroup",
                              Qel::QelType::Kind::value)
          .value<PassiveMountGroup::PtrConst>(
              "mountGroup", [](Boxed const& b) { return b.target()->mountGroup(); })
          .value<ConditionRes::Ptr>("conditionRes",
                                    [](Boxed const& b) { return b.target()->conditionRes(); })
          .value<Qel::Ptr<ConditionalMountGroupSm>>(
              "conditionalMountGroupSm",
              [](Boxed const& b) { return b.target()->conditionalMountGroupSm(); })
          .value<bool>("initialized", [](Boxed const& b) { return b.target()->initialized(); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveEntityManagerSm::staticType();
}  // namespace

Qel::QelType const* PassiveEntityManagerSm::stateType() {
  static Qel::QelType const* t = [] {
    auto& e = Qel::QelType::typeNew("Ledra::PassiveEntityManagerSm::State",
                                    Qel::QelType::Kind::enumeration);
    e.enumeratorIs("init", init);
    e.enumeratorIs("readyMountGroupPending", readyMountGroupPending);
    e.enumeratorIs("conditionalMountGroupPending", conditionalMountGroupPending);
    e.enumeratorIs("mountComplete", mountComplete);
    return &e;
  }();
  return t;
}

}  // namespace Ledra
