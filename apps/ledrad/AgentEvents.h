// Ledrad::AgentEvents: turns what happens to agent connections into one readable line each, for
// ledrad's standard output:
//   "agent NAME connected (connection N)"     a connection of the agent is registered
//   "agent NAME served by profile PROFILE"    the root manager made the agent's engine
//   "agent NAME waits for group G: CONDITION" only conditional groups are left (one line each)
//   "agent NAME waits for blocking group G: CONDITION"
//                                             a blocking group holds back every later group
//                                             (once per condition)
//   "All mounts complete for NAME"            the engine has mounted everything
//   "agent NAME: mount of PATH failed: TEXT"  the agent answered a mount request with a failure
//   "agent NAME: directory mounter of PATH still waits for ENTRY after 5 tries"
//                                             an entry of a directory mounted entry by entry is
//                                             still missing, or not a directory, after as many
//                                             tries (one a second); once per entry
//   "agent NAME speaks mount protocol version V, not 5: it waits in init"
//                                             the agent reported an older (or unknown) version
//   "agent NAME closed: REASON"               the connection was closed (by either side)
//   "agent NAME disconnected"                 the connection is gone
// Every name and text in a line is in its printable form (Qel::NboAttrLog::printableText), so
// whatever bytes an agent chose, each event is exactly one line and cannot pass for another.
//
// With a Metrics, it also counts what it sees there: connections, closes by reason, mount
// requests and their answers, completions with the time since the agent connected (Qel::now()),
// and the time an engine spends on each group it takes from its ready queue.
//
// It watches the demuxer manager (connections), each demuxer (its close) and its peer mount table
// (requests, answers, the protocol version), the root manager (its engines) and each engine (its
// state, its ready queue) with weak notifiees, so it never keeps any of them alive. Destroy it
// before the root manager. Single-threaded: the event loop's thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "PassiveEntityManager/PassiveEntityManagerRootSm.h"
#include "apps/ledrad/Metrics.h"

namespace Ledrad {

class AgentEvents {
 public:
  static constexpr Qel::U32 kDirMounterTries = 5;
  using Sink = std::function<void(std::string const& line)>;
  // Told of a connection being closed, with its reason, before its line and before the agent's
  // records go.
  using Closing = std::function<void(std::string const& agent, std::string const& reason)>;

  // `metrics` (may be null) must outlive this.
  AgentEvents(Ledra::PassiveEntityManagerRootSm::Ptr const& root, Sink sink,
              Metrics* metrics = nullptr, Closing closing = {});
  ~AgentEvents();
  AgentEvents(AgentEvents const&) = delete;
  AgentEvents& operator=(AgentEvents const&) = delete;

 private:
  class DemuxerMgrWatcher;
  class DemuxerWatcher;
  class PeerTableWatcher;
  class RootWatcher;
  class EngineWatcher;
  class DirMounterWatcher;

  void demuxer(Qel::Name const& name);
  void engine(Qel::Name const& agentName);
  void line(std::string const& text) const;
  // When the connection of `agentName` was registered; now when it is not known.
  Qel::Time connectedAt(Qel::Name const& agentName) const;

  Ledra::PassiveEntityManagerRootSm* const root_;
  Sink const sink_;
  Metrics* const metrics_;
  Closing const closing_;
  std::unique_ptr<DemuxerMgrWatcher> demuxerMgrWatcher_;
  std::unique_ptr<RootWatcher> rootWatcher_;
  std::map<Qel::Name, std::unique_ptr<DemuxerWatcher>> demuxers_;
  std::map<Qel::Name, std::unique_ptr<EngineWatcher>> engines_;
};

}  // namespace Ledrad
