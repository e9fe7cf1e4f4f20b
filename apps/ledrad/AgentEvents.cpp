#include "apps/ledrad/AgentEvents.h"

#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/NboAttrLog/WireText.h"

namespace Ledrad {

using Weak = Qel::NotifieeBase::Reference;

namespace {

// A name or text as one line may show it, whatever bytes it holds.
std::string shown(std::string const& text) {
  return Qel::NboAttrLog::printableText(text);
}

}  // namespace

class AgentEvents::DemuxerMgrWatcher : public Qel::NboAttrLog::DemuxerMgr::NotifieeConst {
  using NotifieeConst = Qel::NboAttrLog::DemuxerMgr::NotifieeConst;

 public:
  explicit DemuxerMgrWatcher(AgentEvents& owner) : NotifieeConst(Weak::weak), owner_(owner) {
    notifierIs(Qel::NboAttrLog::demuxerMgr());
  }
  ~DemuxerMgrWatcher() override { notifierIs(nullptr); }
  void onDemuxer(Qel::Name const& name) override { owner_.demuxer(name); }

 private:
  AgentEvents& owner_;
};

class AgentEvents::DemuxerWatcher : public Qel::NboAttrLog::Demuxer::NotifieeConst {
  using NotifieeConst = Qel::NboAttrLog::Demuxer::NotifieeConst;

 public:
  DemuxerWatcher(AgentEvents& owner, Qel::NboAttrLog::Demuxer::Ptr const& d)
      : NotifieeConst(Weak::weak), owner_(owner), name_(d->name()) {
    notifierIs(d);
  }
  ~DemuxerWatcher() override { notifierIs(nullptr); }
  void onClosed() override {
    auto const d = notifier();
    if (!d || !d->closed()) return;
    owner_.line("agent " + shown(name_) + " closed" +
                (d->closeReason().empty() ? std::string() : ": " + shown(d->closeReason())));
  }

 private:
  AgentEvents& owner_;
  Qel::Name const name_;
};

class AgentEvents::RootWatcher : public Ledra::PassiveEntityManagerRootSm::NotifieeConst {
  using NotifieeConst = Ledra::PassiveEntityManagerRootSm::NotifieeConst;

 public:
  RootWatcher(AgentEvents& owner, Ledra::PassiveEntityManagerRootSm::Ptr const& root)
      : NotifieeConst(Weak::weak), owner_(owner) {
    notifierIs(root);
  }
  ~RootWatcher() override { notifierIs(nullptr); }
  void onPassiveEntityManagerSm(Qel::Name const& agentName) override { owner_.engine(agentName); }

 private:
  AgentEvents& owner_;
};

class AgentEvents::EngineWatcher : public Ledra::PassiveEntityManagerSm::NotifieeConst {
  using NotifieeConst = Ledra::PassiveEntityManagerSm::NotifieeConst;

 public:
  EngineWatcher(AgentEvents& owner, Qel::Name agentName,
                Ledra::PassiveEntityManagerSm::Ptr const& engine)
      : NotifieeConst(Weak::weak), owner_(owner), agentName_(std::move(agentName)) {
    notifierIs(engine);
    onState();
  }
  ~EngineWatcher() override { notifierIs(nullptr); }
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
    owner_.line("All mounts complete for " + shown(agentName_));
  }

 private:
  AgentEvents& owner_;
  Qel::Name const agentName_;
  bool reported_ = false;
};

AgentEvents::AgentEvents(Ledra::PassiveEntityManagerRootSm::Ptr const& root, Sink sink)
    : root_(root.ptr()), sink_(std::move(sink)) {
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
  demuxers_[name] = std::make_unique<DemuxerWatcher>(*this, d);
  line("agent " + shown(name) + " connected (connection " + std::to_string(d->epoch()) + ")");
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
