// Ledrad::WatchFeed: the records of the `watch` subscriptions (WatchRecord), one per agent, kept
// current from what ledrad observes and handed to `publish` when they change.
//
// It watches, with weak notifiees, everything an agent's record is taken from: the connections
// (the demuxer manager, each demuxer and its peer mount table), the root manager's engines and the
// agent status directory with each status record. Any change marks its agent dirty. The dirty
// agents are taken together on a task posted to the loop, once per turn in which something
// changed, so a turn that mounts a thousand paths yields one record per agent. Their records are
// rebuilt from Database::status, and each one that differs from the last one given goes to
// publish(agent name, line); an agent the status no longer reports goes as a "gone" line.
// While `listening()` is false nothing is rebuilt: the records are taken afresh for the next
// subscriber, so ledrad pays nothing for the feed while nobody watches.
//
// subscribe() answers a `watch` request: the current record of every agent asked for (all when
// none is named; names ledrad does not know yet simply have none), the "synced" line, and a
// subscription to those agents' records, so that what publish() gives from then on are changes.
//
// Destroy it before the Database and its root manager. Single-threaded: the loop's thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Qel/Loop/EventLoop.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/Database.h"

namespace Ledrad {

class WatchFeed {
 public:
  using Publish = std::function<void(std::string const& agent, std::string const& line)>;
  using Listening = std::function<bool()>;

  WatchFeed(Qel::EventLoop::Ptr loop, Database const& db, Publish publish, Listening listening);
  ~WatchFeed();
  WatchFeed(WatchFeed const&) = delete;
  WatchFeed& operator=(WatchFeed const&) = delete;

  // `agents`: the words after "watch".
  ControlReply subscribe(std::vector<std::string> const& agents);

  // Rebuilds the dirty agents' records now and publishes those that changed.
  void flush();

 private:
  class Poke;
  class DemuxerMgrWatcher;
  class RootWatcher;
  class StatusDirWatcher;
  struct Agent {
    bool dirty = false;
    std::unique_ptr<Poke> demuxer;
    std::unique_ptr<Poke> peer;
    std::unique_ptr<Poke> engine;
    std::unique_ptr<Poke> status;
    Agent();
    Agent(Agent&&) noexcept;
    ~Agent();
  };

  Agent& agent(std::string const& name);
  void dirty(std::string const& name);
  void demuxerChanged(std::string const& name);
  void engineChanged(std::string const& name);
  void statusChanged(std::string const& name);
  // Drops the entry of an agent whose connection, engine and status record are all gone and
  // whose record is not being rebuilt.
  void forgetIfGone(std::string const& name);
  // Rebuilds the records of `names` and publishes the changes; or, when `all`, rebuilds every
  // record and publishes nothing.
  void rebuild(std::vector<std::string> const& names, bool all);

  Qel::EventLoop::Ptr const loop_;
  Database const& db_;
  Publish const publish_;
  Listening const listening_;
  std::map<std::string, Agent> agents_;
  std::vector<std::string> dirty_;
  // Whether records_ is out of date as a whole (nobody listened while something changed).
  bool stale_ = true;
  bool posted_ = false;
  std::map<std::string, std::string> records_;  // by agent name: the line last given
  std::unique_ptr<DemuxerMgrWatcher> demuxerMgrWatcher_;
  std::unique_ptr<RootWatcher> rootWatcher_;
  std::unique_ptr<StatusDirWatcher> statusDirWatcher_;
  // Tells a posted flush whether the feed still stands.
  std::shared_ptr<WatchFeed*> self_;
};

}  // namespace Ledrad
