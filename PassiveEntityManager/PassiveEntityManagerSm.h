// Ledra::PassiveEntityManagerSm: the passive mount engine of one connected agent.
//
// Given the agent's profile, its status record, its connection (the Demuxer and the peer
// MountTable), the entity manager and the process's timer wheel, the engine mounts, group by
// group, every path of the profile into the agent's view:
//   1. Start-up (passiveEntityManagerSmFactory): find the database root "/<system name>/Ledra",
//      fill the agent's template values, expand every mount path of the profile, apply the
//      profile's low mount priority, and, once the peer speaks protocol version 5, mount the root.
//   2. Scheduling (doInitiateMounts): run on every change of the connection's count of unanswered
//      mount requests and on every tick of the retry timer. The first pass after the root mount
//      queues the profile's groups by priority; each later pass, once every earlier request has
//      been answered, mounts the next group. Groups with attribute conditions wait in a
//      ConditionalMountGroupSm until their conditions hold; mounts whose parent is not ready wait
//      in pendingMountProfile and are retried each tick.
//   3. Completion: nothing queued, waiting, pending, directory-mounting or to convert: the engine
//      traces "All mounts complete for <agent>", enters mountComplete and drops the connection.
//      A profile whose every group is skipped for this agent completes after the root mount.
//
// Teardown: handleClose (an invalid profile entry: the connection is closed with the reason),
// doCloseConnection (the agent refused its root mount: closed with "root mount failed: <text>")
// and handleDeletion (the engine is destroyed) all run doCleanup, which empties the transient
// collections and clears `initialized`, after which every handler does nothing until
// handleInitialized runs again and sets the engine up anew.
//
// Re-entrance: a conditional group may settle inside a scheduling pass (while it is created);
// its handler runs a nested pass, which the mountsInProgress gate ends at once. Destruction first
// silences every nested reactor, so nothing reaches a half-destroyed engine.
//
// Single-threaded: everything runs on the process's event loop.
#pragma once

#include <compare>
#include <map>
#include <string_view>
#include <unordered_map>

#include "Ledra/EntityManager.h"
#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/Mount.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "Qel/Containers/BucketQueue.h"
#include "Qel/Containers/KeyedFlatMap.h"
#include "Qel/Containers/LinkQueue.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/Demuxer.h"
#include "Qel/Reflection/GenericValue.h"
#include "Timer/TimerWheel.h"

namespace Ledra {

class ConditionalMountGroupSm;

// The attributes, in id order (see Qel/Entity/AttrList.h): the constructor attributes, the plain
// attributes and the collections, then the handlers reachable by name.
#define LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES(X)                                              \
  X(ctor, none, PassiveAgentProfile::PtrConst, agentProfile, AgentProfile)                         \
  X(ctor, none, PassiveAgentStatus::Ptr, agentStatus, AgentStatus)                                 \
  X(ctor, none, Qel::NboAttrLog::Demuxer::Ptr, demuxer, Demuxer)                                   \
  X(ctor, none, Qel::MountTable::Ptr, peerMountTable, PeerMountTable)                              \
  X(ctor, none, EntityManager::PtrConst, entMgr, EntMgr)                                           \
  X(ctor, none, Orn::TimerWheel::PtrConst, timerWheel, TimerWheel)                                 \
  X(getter, none, Qel::Dir::Ptr, ledraRoot, LedraRoot)                                             \
  X(value, plain, bool, initialized, Initialized)                                                  \
  X(value, plain, bool, deletion, Deletion)                                                        \
  X(value, plain, State, state, State)                                                             \
  X(valueRo, plain, bool, mountsInProgress, MountsInProgress)                                      \
  X(getter, none, ConvertableMountsMetadata, convertableMountsMetadata, ConvertableMountsMetadata) \
  X(keyedMap, key, PendingMountProfileCol, pendingMountProfile, PendingMountProfile,               \
    pendingMountProfiles)                                                                          \
  X(queueRo, key, Mount, convertableMounts, ConvertableMounts, convertableMountsCount)             \
  X(mapOwnWrites, key, PassiveDirMounterCol, passiveDirMounterCol, PassiveDirMounterCol)           \
  X(custom, plain, ReadyMountGroupCompoundIndex, readyMountGroup, ReadyMountGroup)                 \
  X(mapOwnWrites, key, ConditionalMountGroupCol, conditionalMountGroup, ConditionalMountGroup)     \
  X(map, key, StringBoolMap, blockingConditionals, BlockingConditionals)                           \
  X(mapRo, none, TemplateCacheMap, templateCache, TemplateCache)                                   \
  X(keyedMap, key, MountMap, allMountPaths, AllMountPaths)                                         \
  X(handler, none, void, handleInitialized, HandleInitialized)                                     \
  X(handler, none, void, handleInputProtocolVersion, HandleInputProtocolVersion)                   \
  X(handler, none, void, doSetDemuxerProperty, DoSetDemuxerProperty)                               \
  X(handler, none, void, doRootMount, DoRootMount)                                                 \
  X(handler, none, void, doInitiateMounts, DoInitiateMounts)                                       \
  X(handler, none, void, handleClose, HandleClose)                                                 \
  X(handler, none, void, handleDeletion, HandleDeletion)                                           \
  X(handler, none, void, doCleanup, DoCleanup)                                                     \
  X(handler, none, void, handleMountProfile, HandleMountProfile)                                   \
  X(handler, none, void, doPendingMounts, DoPendingMounts)                                         \
  X(handler, none, void, evaluateTemplateCondition, EvaluateTemplateCondition)                     \
  X(handler, none, void, doPassiveMount, DoPassiveMount)                                           \
  X(handler, none, void, doNestedPassiveMount, DoNestedPassiveMount)                               \
  X(handler, none, void, doPopulateMountPaths, DoPopulateMountPaths)                               \
  X(handler, none, void, doInitTemplateDict, DoInitTemplateDict)

class LEDRA_PEM_EXPORT PassiveEntityManagerSm : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<PassiveEntityManagerSm>;
  using PtrConst = Qel::Ptr<PassiveEntityManagerSm const>;

  // The scheduling state, stored as a signed 32-bit value.
  enum State : Qel::S32 {
    init = 0,
    readyMountGroupPending = 1,
    conditionalMountGroupPending = 2,
    mountComplete = 3,
  };

  // The key of a ready mount group: index0 is the group's priority, index1 its arrival sequence
  // in the ready queue. Ordered by index0, then index1. A value of the reflection, read and
  // printed in its text form (PassiveEntityManagerSmText.h).
  struct LEDRA_PEM_EXPORT ReadyMountGroupCompoundIndex {
    static constexpr bool kQelValueType = true;

    Qel::U32 index0 = 0;
    Qel::U32 index1 = 0;

    ReadyMountGroupCompoundIndex() = default;
    ReadyMountGroupCompoundIndex(Qel::U32 i0, Qel::U32 i1) : index0(i0), index1(i1) {}
    // Reads the text form (see PassiveEntityManagerSmText.h) from [it, end), advancing `it` past
    // it; throws Qel::ParseException.
    ReadyMountGroupCompoundIndex(char const*& it, char const* end);

    friend bool operator==(ReadyMountGroupCompoundIndex const&,
                           ReadyMountGroupCompoundIndex const&) = default;
    friend std::strong_ordering operator<=>(ReadyMountGroupCompoundIndex const&,
                                            ReadyMountGroupCompoundIndex const&) = default;
    Qel::String text() const;
    static Qel::QelType const* staticType();
  };

  using ConvertableMountsMetadata = Qel::LinkQueueMetadata;
  using PendingMountProfileCol = std::map<Qel::String, Mount>;
  using ConvertableMountsCol = Qel::LinkQueue<Mount>;
  using PassiveDirMounterCol = std::unordered_map<Qel::String, Qel::Ptr<PassiveDirMounter>>;
  using ReadyMountGroupCol = Qel::BucketQueue<Qel::U32, PassiveMountGroup::PtrConst>;
  using StringBoolMap = std::unordered_map<Qel::String, bool>;
  using TemplateCacheMap = PassiveAgentStatus::TemplateCacheMap;
  using MountMap = Qel::KeyedFlatMap<Mount, Qel::InternedText::Hash, Qel::InternedText::Equal>;

  class QelConditionalMountGroup;
  using ConditionalMountGroupCol =
      std::unordered_map<Qel::Name, Qel::Ptr<QelConditionalMountGroup>>;
  QEL_ATTR_IDS(LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES);

  class QelAgentProfile;
  class QelDemuxer;
  class QelPeerMountTable;
  class QelTimerWheel;

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<PassiveEntityManagerSm>;
  using NotifieeConst = NotifieeT<PassiveEntityManagerSm const>;

  // Creates and starts an engine (see the header comment); never null. Whatever was built is
  // released when a step throws, and the exception propagates.
  static Ptr passiveEntityManagerSmNew(PassiveAgentProfile::PtrConst const& agentProfile,
                                       PassiveAgentStatus::Ptr const& agentStatus,
                                       Qel::NboAttrLog::Demuxer::Ptr const& demuxer,
                                       Qel::MountTable::Ptr const& peerMountTable,
                                       EntityManager::PtrConst const& entMgr,
                                       Orn::TimerWheel::PtrConst const& timerWheel);

  // Constructor attributes. demuxer and peerMountTable are dropped (null) at mount completion.
  PassiveAgentProfile::PtrConst const& agentProfile() const { return agentProfile_; }
  PassiveAgentStatus::Ptr const& agentStatus() const { return agentStatus_; }
  Qel::NboAttrLog::Demuxer::Ptr demuxer() const;
  Qel::MountTable::Ptr peerMountTable() const;
  EntityManager::PtrConst const& entMgr() const { return entMgr_; }
  Orn::TimerWheel::PtrConst timerWheel() const;
  // The agent's name (its status record's name; empty without one).
  Qel::Name agentName() const;

  Qel::Dir::Ptr const& ledraRoot() const { return ledraRoot_; }
  // When the retry timer fires next; Qel::kNever when it is not armed.
  Qel::Time retryTime() const;

  // The plain attributes and the collections (see the list above):
  //   pendingMountProfile    mounts deferred until their parent (or their blocking directory
  //                          mounter) is ready, by path
  //   convertableMounts      mounts made "C" (not yet writable), to mount again with "w" once
  //                          writing is granted; Deq gives an empty Mount when none is queued
  //   blockingConditionals   conditions of blocking conditional groups not yet settled; while
  //                          any exists the ready queue stands still
  //   templateCache          the engine's copy of substituted template paths
  //   allMountPaths          every mount path of the profile after template expansion, with
  //                          parents added on its behalf; held flat, with room made once for
  //                          the profile's paths
  QEL_ATTR_ACCESSORS(LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES)

  // Directory mounters in progress, by directory path. Storing null removes; a removed mounter
  // is released after its notification (it may be the caller, removing itself when complete).
  void passiveDirMounterColIs(Qel::String const& path, Qel::Ptr<PassiveDirMounter> const& m);
  void passiveDirMounterColDel(Qel::String const& path);
  void passiveDirMounterColDelAll();

  // Groups waiting to be mounted: ascending priority, arrival order within a priority.
  ReadyMountGroupCol const& readyMountGroup() const { return readyMountGroup_; }
  PassiveMountGroup::PtrConst readyMountGroup(ReadyMountGroupCompoundIndex const& index) const;
  std::size_t readyMountGroups() const { return readyMountGroup_.size(); }
  ReadyMountGroupCompoundIndex readyMountGroupEnq(PassiveMountGroup::PtrConst const& group);
  // The first group of the lowest priority, removed; null when the queue is empty.
  PassiveMountGroup::PtrConst readyMountGroupDeq();
  // Queues `group` under an explicit priority, which must be the group's own.
  ReadyMountGroupCompoundIndex readyMountGroupIs(Qel::U32 priority,
                                                 PassiveMountGroup::PtrConst const& group);
  void readyMountGroupDel(ReadyMountGroupCompoundIndex const& index);
  void readyMountGroupDelAll();

  // Conditional groups waiting for their conditions, by group name.
  // The record of `group`'s name: the existing one, or a new one (which starts at once).
  Qel::Ptr<QelConditionalMountGroup> conditionalMountGroupIs(
      PassiveMountGroup::PtrConst const& group);
  void conditionalMountGroupDel(Qel::Name const& name);
  void conditionalMountGroupDelAll();

  // Start-up.
  void handleInitialized();
  void handleInputProtocolVersion();
  void doSetDemuxerProperty();
  void doRootMount();
  void doInitTemplateDict();

  // Scheduling.
  void doInitiateMounts();
  void handleMountProfile(PassiveMountGroup::PtrConst const& group);
  void doPendingMounts();
  bool evaluateTemplateCondition(Qel::String const& cond);

  // Mount execution.
  void doPassiveMount(Qel::String const& mountPath, Qel::String const& userFlags,
                      Qel::String const& typeName);
  void doNestedPassiveMount(Mount const& mount);
  void doPopulateMountPaths();
  void maybeAddParentMountProfile(Mount const& mount);

  // Teardown. handleClose reports an invalid profile entry and closes the connection with it;
  // doCloseConnection closes the agent's connection with `reason` (the peer is told it, and the
  // connection's status record leaves its directory, so the root deletes the engine) and cleans
  // the engine up.
  void handleClose(Qel::String const& reason);
  void doCloseConnection(Qel::String const& reason);
  void handleDeletion();
  void doCleanup();

  // Notification control, passed on to every nested reactor.
  bool notificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool on);
  bool qelZombie() const { return zombie_; }
  void qelDoZombieReactorsIs(bool zombie);

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();
  static Qel::QelType const* stateType();

 protected:
  PassiveEntityManagerSm(PassiveAgentProfile::PtrConst const& agentProfile,
                         PassiveAgentStatus::Ptr const& agentStatus,
                         Qel::NboAttrLog::Demuxer::Ptr const& demuxer,
                         Qel::MountTable::Ptr const& peerMountTable,
                         EntityManager::PtrConst const& entMgr,
                         Orn::TimerWheel::PtrConst const& timerWheel);
  ~PassiveEntityManagerSm() override;

 private:
  enum class ParentSaState { synchronised, waiting, absent };

  void start();
  // Steps of a scheduling pass. queueProfileGroups returns false when it ended the pass.
  bool queueProfileGroups();
  void serveReadyGroups();
  void takeReadyGroups();
  void convertMounts();
  void retryLater();
  void armRetryTimer();
  void completionTest();
  // The peer's state of `parent`: synchronised (mount the child), waiting, or no mount at all.
  ParentSaState parentSaState(std::string_view parent);
  void autoMountParent(Mount const& mount, Qel::String const& parent);
  void mountWholePath(Mount const& mount);
  void demuxerIs(Qel::NboAttrLog::Demuxer::Ptr const& d);
  void peerMountTableIs(Qel::MountTable::Ptr const& t);
  // `path` with its template keys substituted (noted in templateCache).
  Qel::InternedText canonicalPath(Qel::InternedText const& path);
  // doPassiveMount for a path and type name already interned and letters already read.
  void doPassiveMount(Qel::InternedText const& path, UserFlags const& userFlags,
                      Qel::InternedText const& typeName);
  // Whether the mount of `path` for this agent has completed (orphans traced and refused).
  bool isMountComplete(Qel::InternedText const& path) const;
  template <class F>
  void forEachReactor(F f);
  static void qelReflectReadyMountGroup(Qel::TypeBuilder<PassiveEntityManagerSm>& b);

  PassiveAgentProfile::PtrConst const agentProfile_;
  PassiveAgentStatus::Ptr const agentStatus_;
  EntityManager::PtrConst const entMgr_;
  Qel::Ptr<QelAgentProfile> qelAgentProfile_;
  Qel::Ptr<QelDemuxer> qelDemuxer_;
  Qel::Ptr<QelPeerMountTable> qelPeerMountTable_;
  Qel::Ptr<QelTimerWheel> qelTimerWheel_;

  // Notified on each start-up, changed or not.
  Qel::Dir::Ptr ledraRoot_;
  bool notificationActive_ = false;
  bool zombie_ = false;
  // handleClose ran since handleInitialized last started: the agent's connection is closed for an
  // invalid profile entry, and that run of handleInitialized sets nothing further up.
  bool closed_ = false;

  ReadyMountGroupCol readyMountGroup_;
  QEL_ATTR_STORAGE(LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES)
};

// Creates and starts the engine of one agent; never null.
LEDRA_PEM_EXPORT PassiveEntityManagerSm::Ptr passiveEntityManagerSmFactory(
    PassiveAgentProfile::PtrConst const& agentProfile, PassiveAgentStatus::Ptr const& agentStatus,
    Qel::NboAttrLog::Demuxer::Ptr const& demuxer, Qel::MountTable::Ptr const& peerMountTable,
    EntityManager::PtrConst const& entMgr, Orn::TimerWheel::PtrConst const& timerWheel);

// The engine side of one conditional mount group: holds the group, the ConditionRes its state
// machine writes (watched through QelConditionRes) and the state machine itself. `initialized` is
// true from handleInit until the group's conditions succeed (handleEnabled). In the generic view
// (an element of the engine's conditionalMountGroup) it shows what it holds: mountGroup,
// conditionRes, conditionalMountGroupSm and initialized; its text is the group's name.
class LEDRA_PEM_EXPORT PassiveEntityManagerSm::QelConditionalMountGroup : public Qel::RefCounted {
 public:
  using Ptr = Qel::Ptr<QelConditionalMountGroup>;
  class QelConditionRes;

  static Ptr conditionalMountGroupNew(PassiveMountGroup::PtrConst const& group,
                                      PassiveEntityManagerSm* engine);

  PassiveMountGroup::PtrConst const& mountGroup() const { return group_; }
  Qel::Name name() const { return group_->name(); }
  PassiveEntityManagerSm* passiveEntityManagerSm() const { return engine_; }
  void passiveEntityManagerSmIs(PassiveEntityManagerSm* e) { engine_ = e; }
  ConditionRes::Ptr conditionRes() const;
  void conditionResIs(ConditionRes::Ptr const& r);
  Qel::Ptr<ConditionalMountGroupSm> const& conditionalMountGroupSm() const { return sm_; }
  void conditionalMountGroupSmDel();
  bool initialized() const { return initialized_; }

  void handleInit();
  void handleEnabled();

  void hasNotificationActiveIs(bool on);
  void qelDoZombieReactorsIs(bool zombie);

  Qel::String text() const { return Qel::String(name()); }
  static Qel::QelType const* staticType();

 private:
  QelConditionalMountGroup(PassiveMountGroup::PtrConst group, PassiveEntityManagerSm* engine);
  ~QelConditionalMountGroup() override;

  PassiveMountGroup::PtrConst const group_;
  PassiveEntityManagerSm* engine_;
  Qel::Ptr<QelConditionRes> qelConditionRes_;
  Qel::Ptr<ConditionalMountGroupSm> sm_;
  bool initialized_ = false;
};

template <class N>
class PassiveEntityManagerSm::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_PASSIVE_ENTITY_MANAGER_SM_ATTRIBUTES)
};

}  // namespace Ledra

// The engine's state in the reflection ("Ledra::PassiveEntityManagerSm::State").
template <>
struct Qel::ValueTraits<Ledra::PassiveEntityManagerSm::State> {
  using State = Ledra::PassiveEntityManagerSm::State;
  static QelType const* type() { return Ledra::PassiveEntityManagerSm::stateType(); }
  static GenericIf::PtrConst box(State s) {
    return GenericValue::make(type(), Value(static_cast<std::int64_t>(s)));
  }
  static State unbox(GenericIf::PtrConst const& g) {
    return g ? static_cast<State>(g->valueAs<std::int64_t>()) : Ledra::PassiveEntityManagerSm::init;
  }
};
