#include "apps/ledrad/AgentEvents.h"

#include <set>

#include "PassiveEntityManager/PassiveDirMounter.h"
#include "Qel/Loop/Clock.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledrad/OwnerWatcher.h"

namespace Ledrad {

namespace {

// A name or text as one line may show it, whatever bytes it holds.
std::string shown(std::string const& text) {
  return Qel::NboAttrLog::printableText(text);
}

}  // namespace

class AgentEvents::DemuxerMgrWatcher
    : public OwnerWatcher<Qel::NboAttrLog::DemuxerMgr::NotifieeConst, AgentEvents> {
 public:
  explicit DemuxerMgrWatcher(AgentEvents& owner)
      : OwnerWatcher(owner, Qel::NboAttrLog::demuxerMgr()) {}
  void onDemuxer(Qel::Name const& name) override { owner_.demuxer(name); }
};

// The requests, answers and protocol version of one connection, as its peer mount table has them.
class AgentEvents::PeerTableWatcher
    : public OwnerWatcher<Qel::MountTable::NotifieeConst, AgentEvents> {
 public:
  PeerTableWatcher(AgentEvents& owner, Qel::Name name, Qel::MountTable::Ptr const& table)
      : OwnerWatcher(owner, table), name_(std::move(name)) {
    onCurrentVersion();
  }

  void onCurrentVersion() override {
    auto const table = notifier();
    if (!table) return;
    Qel::U32 const v = table->currentVersion();
    if (v == 0 || v == Qel::MountTable::kProtocolVersion || v == toldVersion_) return;
    toldVersion_ = v;
    owner_.line("agent " + shown(name_) + " speaks mount protocol version " + std::to_string(v) +
                ", not " + std::to_string(Qel::MountTable::kProtocolVersion) +
                ": it waits in init");
  }

  void onStatus(Qel::ConnectDesc const& cd) override {
    auto const table = notifier();
    if (!table) return;
    Qel::MountTable::Stat const stat = table->stat(cd);
    Metrics* const m = owner_.metrics_;
    switch (stat.status()) {
      case Qel::MountTable::inProgress_:
        if (m) m->requestSent();
        return;
      case Qel::MountTable::complete_:
        if (m) m->requestAnswered(false);
        return;
      case Qel::MountTable::failed_:
        if (m) m->requestAnswered(true);
        owner_.line(
            "agent " + shown(name_) + ": mount of " + shown(cd.path()) + " failed" +
            (stat.exceptionDesc().empty() ? std::string() : ": " + shown(stat.exceptionDesc())));
        return;
      case Qel::MountTable::none_:
        return;
    }
  }

 private:
  Qel::Name const name_;
  Qel::U32 toldVersion_ = 0;
};

class AgentEvents::DemuxerWatcher
    : public OwnerWatcher<Qel::NboAttrLog::Demuxer::NotifieeConst, AgentEvents> {
 public:
  DemuxerWatcher(AgentEvents& owner, Qel::NboAttrLog::Demuxer::Ptr const& d)
      : OwnerWatcher(owner, d),
        name_(d->name()),
        connectedAt_(Qel::now()),
        peer_(owner, d->name(), d->peer()) {}
  void onClosed() override {
    auto const d = notifier();
    if (!d || !d->closed()) return;
    if (owner_.metrics_) owner_.metrics_->closed(d->closeReason());
    if (owner_.closing_) owner_.closing_(std::string(name_), d->closeReason());
    owner_.line("agent " + shown(name_) + " closed" +
                (d->closeReason().empty() ? std::string() : ": " + shown(d->closeReason())));
  }
  Qel::Time connectedAt() const { return connectedAt_; }

 private:
  Qel::Name const name_;
  Qel::Time const connectedAt_;
  PeerTableWatcher peer_;
};

class AgentEvents::RootWatcher
    : public OwnerWatcher<Ledra::PassiveEntityManagerRootSm::NotifieeConst, AgentEvents> {
 public:
  using OwnerWatcher::OwnerWatcher;
  void onPassiveEntityManagerSm(Qel::Name const& agentName) override { owner_.engine(agentName); }
};

// One directory mounter of an engine: tells once per entry that it still waits after
// kDirMounterTries tries.
class AgentEvents::DirMounterWatcher
    : public OwnerWatcher<Ledra::DirMounter::NotifieeConst, AgentEvents> {
 public:
  DirMounterWatcher(AgentEvents& owner, Qel::Name const& agentName,
                    Ledra::PassiveDirMounter::Ptr const& mounter)
      : OwnerWatcher(owner, mounter), agentName_(agentName) {}

  void onHeadWaits() override {
    auto const m = notifier();
    if (!m || m->headWaits() != kDirMounterTries) return;
    owner_.line("agent " + shown(agentName_) + ": directory mounter of " + shown(m->mountPath()) +
                " still waits for " + shown(m->deferredMountFront().entryName()) + " after " +
                std::to_string(kDirMounterTries) + " tries");
  }

 private:
  Qel::Name const agentName_;
};

class AgentEvents::EngineWatcher
    : public OwnerWatcher<Ledra::PassiveEntityManagerSm::NotifieeConst, AgentEvents> {
 public:
  EngineWatcher(AgentEvents& owner, Qel::Name agentName,
                Ledra::PassiveEntityManagerSm::Ptr const& engine)
      : OwnerWatcher(owner, engine), agentName_(std::move(agentName)) {
    queued_ = engine->readyMountGroups();
    for (auto const& [path, mounter] : engine->passiveDirMounterCol())
      onPassiveDirMounterCol(path);
    onState();
  }

  // A group leaves the queue one at a time while the engine mounts; a cleanup empties it at once.
  void onReadyMountGroup() override {
    auto const e = notifier();
    if (!e) return;
    std::size_t const now = e->readyMountGroups();
    bool const taken = e->mountsInProgress() && now + 1 == queued_;
    queued_ = now;
    if (!taken) return;
    groupDone();
    groupSince_ = Qel::now();
  }

  // A conditional group joins the engine's records once its conditions were first checked: a
  // blocking one that still waits then holds back every later group.
  void onConditionalMountGroup(Qel::Name const&) override {
    if (auto const e = notifier()) blockingWaits(*e);
  }

  void onPassiveDirMounterCol(Qel::String const& path) override {
    auto const e = notifier();
    auto const mounter = e ? e->passiveDirMounterCol(path) : nullptr;
    if (!mounter) {
      dirMounters_.erase(path);
      return;
    }
    dirMounters_[path] = std::make_unique<DirMounterWatcher>(owner_, agentName_, mounter);
  }

  void onState() override {
    auto const e = notifier();
    if (!e) return;
    if (e->state() == Ledra::PassiveEntityManagerSm::conditionalMountGroupPending) {
      std::map<Qel::Name, std::string> waiting;
      for (auto const& [name, record] : e->conditionalMountGroup()) {
        if (record && record->mountGroup()) waiting[name] = record->mountGroup()->entireCondition();
      }
      for (auto const& [name, condition] : waiting) {
        owner_.line("agent " + shown(agentName_) + " waits for group " + shown(name) + ": " +
                    shown(condition));
      }
      return;
    }
    if (e->state() != Ledra::PassiveEntityManagerSm::mountComplete || reported_) return;
    reported_ = true;
    groupDone();
    if (owner_.metrics_) owner_.metrics_->completed(Qel::now() - owner_.connectedAt(agentName_));
    owner_.line("All mounts complete for " + shown(agentName_));
  }

 private:
  // Each blocking condition the engine waits for, told once.
  void blockingWaits(Ledra::PassiveEntityManagerSm const& e) {
    for (auto const& [condition, on] : e.blockingConditionals()) {
      if (!on || !toldBlocking_.insert(condition).second) continue;
      std::string group = "?";
      for (auto const& [name, record] : e.conditionalMountGroup()) {
        if (record && record->mountGroup() && record->mountGroup()->entireCondition() == condition)
          group = shown(name);
      }
      owner_.line("agent " + shown(agentName_) + " waits for blocking group " + group + ": " +
                  shown(condition));
    }
  }

  // The group the engine was on, if any, is done.
  void groupDone() {
    if (groupSince_ == Qel::kNever) return;
    if (owner_.metrics_) owner_.metrics_->groupTaken(Qel::now() - groupSince_);
    groupSince_ = Qel::kNever;
  }

  Qel::Name const agentName_;
  bool reported_ = false;
  std::set<std::string> toldBlocking_;
  std::size_t queued_ = 0;
  Qel::Time groupSince_ = Qel::kNever;  // when the engine took the group it is on
  std::map<Qel::String, std::unique_ptr<DirMounterWatcher>> dirMounters_;
};

AgentEvents::AgentEvents(Ledra::PassiveEntityManagerRootSm::Ptr const& root, Sink sink,
                         Metrics* metrics, Closing closing)
    : root_(root.ptr()), sink_(std::move(sink)), metrics_(metrics), closing_(std::move(closing)) {
  demuxerMgrWatcher_ = std::make_unique<DemuxerMgrWatcher>(*this);
  rootWatcher_ = std::make_unique<RootWatcher>(*this, root);
  for (auto const& [name, d] : Qel::NboAttrLog::demuxerMgr()->demuxer()) {
    if (d) demuxers_.emplace(name, std::make_unique<DemuxerWatcher>(*this, d));
  }
  for (auto const& [name, e] : root->passiveEntityManagerSm()) {
    if (e) engines_.emplace(name, std::make_unique<EngineWatcher>(*this, name, e));
  }
}

AgentEvents::~AgentEvents() = default;

void AgentEvents::line(std::string const& text) const {
  if (sink_) sink_(text);
}

void AgentEvents::demuxer(Qel::Name const& name) {
  auto const d = Qel::NboAttrLog::demuxerMgr()->demuxer(name);
  if (!d) {
    if (demuxers_.erase(name)) line("agent " + shown(name) + " disconnected");
    return;
  }
  if (metrics_) metrics_->connected();
  line("agent " + shown(name) + " connected (connection " + std::to_string(d->epoch()) + ")");
  demuxers_[name] = std::make_unique<DemuxerWatcher>(*this, d);
}

Qel::Time AgentEvents::connectedAt(Qel::Name const& agentName) const {
  auto it = demuxers_.find(agentName);
  return it == demuxers_.end() ? Qel::now() : it->second->connectedAt();
}

void AgentEvents::engine(Qel::Name const& agentName) {
  auto const e = root_->passiveEntityManagerSm(agentName);
  if (!e) {
    engines_.erase(agentName);
    return;
  }
  auto const& profile = e->agentProfile();
  line("agent " + shown(agentName) + " served by profile " +
       (profile ? shown(profile->name()) : std::string("?")));
  engines_[agentName] = std::make_unique<EngineWatcher>(*this, agentName, e);
}

}  // namespace Ledrad
