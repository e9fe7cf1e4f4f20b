#include "apps/ledrad/WatchFeed.h"

#include <algorithm>
#include <set>

#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/NboAttrLog/WireText.h"
#include "Qel/Reflection/GenericIf.h"
#include "apps/ledrad/OwnerWatcher.h"
#include "apps/ledrad/WatchRecord.h"

namespace Ledrad {

using Weak = Qel::NotifieeBase::Reference;

// Marks its agent dirty on any change of the entity it watches, and when that entity dies.
class WatchFeed::Poke : public Qel::GenericIf::NotifieeConst {
  using NotifieeConst = Qel::GenericIf::NotifieeConst;

 public:
  Poke(WatchFeed& feed, std::string agent)
      : NotifieeConst(Weak::weak), feed_(feed), agent_(std::move(agent)) {}
  ~Poke() override { notifierIs(nullptr); }
  // Any change marks the agent; the key is not read, so it is not boxed either.
  void qelDispatch(Qel::AttributeId, Qel::NotifyKey const&) override { feed_.dirty(agent_); }

 private:
  void onNotifierDeleted() override {
    NotifieeConst::onNotifierDeleted();
    feed_.dirty(agent_);
  }

  WatchFeed& feed_;
  std::string const agent_;
};

class WatchFeed::DemuxerMgrWatcher
    : public OwnerWatcher<Qel::NboAttrLog::DemuxerMgr::NotifieeConst, WatchFeed> {
 public:
  explicit DemuxerMgrWatcher(WatchFeed& feed) : OwnerWatcher(feed, Qel::NboAttrLog::demuxerMgr()) {}
  void onDemuxer(Qel::Name const& name) override { owner_.demuxerChanged(name); }
};

class WatchFeed::RootWatcher
    : public OwnerWatcher<Ledra::PassiveEntityManagerRootSm::NotifieeConst, WatchFeed> {
 public:
  using OwnerWatcher::OwnerWatcher;
  void onPassiveEntityManagerSm(Qel::Name const& name) override { owner_.engineChanged(name); }
};

class WatchFeed::StatusDirWatcher
    : public OwnerWatcher<Ledra::PassiveAgentStatusDir::NotifieeConst, WatchFeed> {
 public:
  using OwnerWatcher::OwnerWatcher;
  void onAgentStatus(Qel::Name const& name) override { owner_.statusChanged(name); }
};

WatchFeed::Agent::Agent() = default;
WatchFeed::Agent::Agent(Agent&&) noexcept = default;
WatchFeed::Agent::~Agent() = default;

WatchFeed::WatchFeed(Qel::EventLoop::Ptr loop, Database const& db, Publish publish,
                     Listening listening)
    : loop_(std::move(loop)),
      db_(db),
      publish_(std::move(publish)),
      listening_(std::move(listening)),
      self_(std::make_shared<WatchFeed*>(this)) {
  demuxerMgrWatcher_ = std::make_unique<DemuxerMgrWatcher>(*this);
  auto const root = db_.root();
  rootWatcher_ = std::make_unique<RootWatcher>(*this, root);
  statusDirWatcher_ = std::make_unique<StatusDirWatcher>(*this, db_.statusDir());
  for (auto const& [name, d] : Qel::NboAttrLog::demuxerMgr()->demuxer())
    demuxerChanged(d->name());
  if (root) {
    for (auto const& [name, e] : root->passiveEntityManagerSm())
      engineChanged(name);
  }
  for (auto const& [name, s] : db_.statusDir()->agentStatus())
    statusChanged(name);
}

WatchFeed::~WatchFeed() = default;

WatchFeed::Agent& WatchFeed::agent(std::string const& name) {
  auto it = agents_.find(name);
  if (it != agents_.end()) return it->second;
  Agent& a = agents_[name];
  a.demuxer = std::make_unique<Poke>(*this, name);
  a.peer = std::make_unique<Poke>(*this, name);
  a.engine = std::make_unique<Poke>(*this, name);
  a.status = std::make_unique<Poke>(*this, name);
  return a;
}

void WatchFeed::dirty(std::string const& name) {
  if (!listening_()) {
    stale_ = true;
    return;
  }
  Agent& a = agent(name);
  if (a.dirty) return;
  a.dirty = true;
  dirty_.push_back(name);
  if (posted_) return;
  posted_ = true;
  loop_->post([self = std::weak_ptr<WatchFeed*>(self_)] {
    auto const feed = self.lock();
    if (!feed) return;
    WatchFeed& f = **feed;
    f.posted_ = false;
    if (f.listening_()) {
      f.flush();
      return;
    }
    // The watchers left before the turn ended: the next subscriber takes every record afresh.
    for (auto const& name : f.dirty_) {
      auto it = f.agents_.find(name);
      if (it != f.agents_.end()) it->second.dirty = false;
    }
    f.dirty_.clear();
    f.stale_ = true;
  });
}

void WatchFeed::demuxerChanged(std::string const& name) {
  auto const d = Qel::NboAttrLog::demuxerMgr()->demuxer(Qel::Name(name));
  Agent& a = agent(name);
  a.demuxer->notifierIs(d);
  a.peer->notifierIs(d ? Qel::MountTable::PtrConst(d->peer()) : nullptr);
  dirty(name);
  forgetIfGone(name);
}

void WatchFeed::engineChanged(std::string const& name) {
  auto const root = db_.root();
  Agent& a = agent(name);
  a.engine->notifierIs(root ? root->passiveEntityManagerSm(Qel::Name(name)) : nullptr);
  dirty(name);
  forgetIfGone(name);
}

void WatchFeed::statusChanged(std::string const& name) {
  Agent& a = agent(name);
  a.status->notifierIs(db_.statusDir()->agentStatus(Qel::Name(name)));
  dirty(name);
  forgetIfGone(name);
}

void WatchFeed::forgetIfGone(std::string const& name) {
  auto it = agents_.find(name);
  if (it == agents_.end()) return;
  Agent const& a = it->second;
  if (a.dirty || a.demuxer->notifierBase() || a.peer->notifierBase() || a.engine->notifierBase() ||
      a.status->notifierBase())
    return;
  agents_.erase(it);
}

void WatchFeed::flush() {
  std::vector<std::string> names;
  names.swap(dirty_);
  for (auto const& name : names) {
    auto it = agents_.find(name);
    if (it != agents_.end()) it->second.dirty = false;
  }
  bool const all = stale_;
  stale_ = false;
  rebuild(names, all);
}

// A rebuild of every record follows a time when nobody listened: it is told to nobody.
void WatchFeed::rebuild(std::vector<std::string> const& names, bool all) {
  if (!all && names.empty()) return;
  auto const tell = [&](std::string const& agent, std::string const& line) {
    if (!all) publish_(agent, line);
  };
  StatusReport const report = db_.status(all ? std::vector<std::string>{} : names);
  std::set<std::string> reported;
  for (auto const& a : report.agents) {
    reported.insert(a.name);
    std::string const line = watchLine(watchRecord(a));
    std::string& last = records_[a.name];
    if (last == line) continue;
    last = line;
    tell(a.name, line);
  }
  std::vector<std::string> gone;
  if (all) {
    for (auto const& [name, line] : records_) {
      if (!reported.count(name)) gone.push_back(name);
    }
  } else {
    for (auto const& name : names) {
      if (!reported.count(name) && records_.count(name)) gone.push_back(name);
    }
  }
  for (auto const& name : gone) {
    if (records_.erase(name)) tell(name, goneLine(name));
  }
  for (auto const& name : names)
    forgetIfGone(name);
}

ControlReply WatchFeed::subscribe(std::vector<std::string> const& agents) {
  for (auto const& a : agents) {
    if (!a.empty() && a.front() == '-')
      return {false, "watch: unknown option '" + Qel::NboAttrLog::printableText(a) + "'\n"};
  }
  flush();
  std::string text;
  if (agents.empty()) {
    for (auto const& [name, line] : records_)
      text += line;
  } else {
    std::set<std::string> const named(agents.begin(), agents.end());
    for (auto const& name : named) {
      auto it = records_.find(name);
      if (it != records_.end()) text += it->second;
    }
  }
  return {true, text + kSyncedLine, agents};
}

}  // namespace Ledrad
