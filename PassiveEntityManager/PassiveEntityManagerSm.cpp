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
#include "Qel/Core/Exception.h"
#include "Qel/Entity/KeyedStore.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Reflection/TypeBuilder.h"

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
  for (auto const& [name, record] : conditionalMountGroup_.map())
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

// --- passiveDirMounterCol

void PassiveEntityManagerSm::passiveDirMounterColIs(Qel::String const& path,
                                                    PassiveDirMounter::Ptr const& m) {
  if (!m) return passiveDirMounterColDel(path);
  passiveDirMounterCol_.set(*this, path, m);
}

void PassiveEntityManagerSm::passiveDirMounterColDel(Qel::String const& path) {
  if (!passiveDirMounterCol_.del(*this, path)) return;
  // A finished mounter may have been the last thing the agent waited for, with no mount request
  // left whose answer would run the next pass: run one at the next tick.
  if (initialized() && state() != mountComplete) armRetryTimer();
}

void PassiveEntityManagerSm::passiveDirMounterColDelAll() {
  while (!passiveDirMounterCol_.empty())
    passiveDirMounterColDel(Qel::String(passiveDirMounterCol_.map().begin()->first));
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
  conditionalMountGroup_.set(*this, name, record);
  return record;
}

void PassiveEntityManagerSm::conditionalMountGroupDel(Qel::Name const& name) {
  QelConditionalMountGroup::Ptr const record = conditionalMountGroup(name);
  if (!record) return;
  record->passiveEntityManagerSmIs(nullptr);
  conditionalMountGroup_.del(*this, name);
}

void PassiveEntityManagerSm::conditionalMountGroupDelAll() {
  while (!conditionalMountGroup_.empty())
    conditionalMountGroupDel(Qel::Name(conditionalMountGroup_.map().begin()->first));
}

// --- start-up

void PassiveEntityManagerSm::handleInitialized() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::handleInitialized():  agentName: {}", agentName());
  if (initialized()) return;
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
  if (!initialized()) return;
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
  if (!initialized()) return;
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
  for (auto const& [name, record] : conditionalMountGroup_.map())
    record->hasNotificationActiveIs(on);
}

void PassiveEntityManagerSm::qelDoZombieReactorsIs(bool zombie) {
  if (zombie_ == zombie) return;
  zombie_ = zombie;
  forEachReactor([zombie](auto& r) { r.qelDoZombieReactorsIs(zombie); });
  for (auto const& [name, record] : conditionalMountGroup_.map())
    record->qelDoZombieReactorsIs(zombie);
}

// --- reflection

void PassiveEntityManagerSm::qelReflectReadyMountGroup(
    Qel::TypeBuilder<PassiveEntityManagerSm>& b) {
  using E = PassiveEntityManagerSm;
  using Index = ReadyMountGroupCompoundIndex;
  b.collection<Index, PassiveMountGroup::PtrConst>(
      "readyMountGroup", [](E const& e, Index const& k) { return e.readyMountGroup(k); },
      [](E const& e) { return e.readyMountGroups(); });
}

Qel::QelType const* PassiveEntityManagerSm::staticType() {
  using E = PassiveEntityManagerSm;
  static Qel::QelType const* t =
      Qel::TypeBuilder<E>("Ledra::PassiveEntityManagerSm") QEL_ATTR_REFLECTION(
          LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES)
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
