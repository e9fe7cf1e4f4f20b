// Ledra::LoopbackAgent: an agent peer inside the database process, for tests, benchmarks and
// demonstrations. The database cannot tell it from an agent process: it connects like one
// (a Demuxer in demuxerMgr(), its peer MountTable, a PassiveConnectionStatus in the connection
// status directory) and answers the mount requests it receives.
//
// It runs on a Qel::EventLoop (on a SimulatedClock in tests): nothing happens inside the calls of
// the database except recording; answers and the teardown of a closed connection come on later
// turns of the loop.
//
// Connecting (connect()), in this order: the peer table is made with currentVersion() (5 by
// default), the Demuxer (epoch: the number of this connection of the agent, 1, 2, ...) is
// registered in demuxerMgr(), the status record (name: connectionName(), by default the agent
// name; agentName, agentString, whiteList filled in) appears in the status directory, and then it
// is marked established, state kStateConnected and connected, so that the database reacts to the
// connection once every field is set. A stale record of the same name left by an earlier close
// without status removal leaves the directory first.
//
// Answering. Each mount request is recorded (mountRequests(): path, flag letters as sent, type,
// sequence number, epoch) and answered answerTurns() loop turns later (default 1), or, when
// answerDelay() > 0, on the first turn at or after that many seconds of the loop's clock. With
// holdAnswers() the answers are held instead, until answerRelease(path) (one, chosen: out of
// order) or answersRelease() (all, in request order) gives them at once. Whether a mount fails is
// decided when the answer is given: a path given mountFailureIs(path, text) fails with that
// exception text. A successful answer first sets the path's state in the peer table (by default
// mounted, complete, mount point and synchronised; pathStateOnAnswerIs(path, state) chooses
// another, e.g. not yet synchronised or still monitoring) and then answers the demuxer, so that a
// watcher of the answer already sees the path's new state. pathStateIs(path, state) sets a state
// at once, e.g. to synchronise a held path later.
//
// Closing. The database closes the connection with Demuxer::close; the agent drops it with
// disconnect(reason). Either way the connection goes away on a later loop turn: the status
// record is marked not connected (state kStateClosed) and leaves the status directory (unless the
// close asked to keep it), the demuxer leaves demuxerMgr(), and connected() is false. No handler
// destroys the object whose handler is running. closeReasons() lists the reasons the database
// gave (empty when it gave none). connect() may then be called again.
//
// Destroying the agent tears a remaining connection down at once. Single-threaded: the loop's
// thread. answerRelease, answersRelease, disconnect and connect must not be called from inside a
// notification of the connection's own objects.
#pragma once

#include <map>
#include <vector>

#include "Ledra/PassiveConnectionStatus.h"
#include "Qel/Core/Api.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/Demuxer.h"

namespace Ledra {

class QEL_API LoopbackAgent : public Qel::RefCounted {
 public:
  using Ptr = Qel::Ptr<LoopbackAgent>;

  struct MountRequest {
    Qel::String path;
    Qel::String flags;  // the letters after "flags=", as sent
    Qel::String type;
    Qel::U32 seqno = 0;
    Qel::U32 epoch = 0;
    bool operator==(MountRequest const&) const = default;
  };

  static Ptr loopbackAgentNew(Qel::EventLoop::Ptr const& loop, Qel::Name const& agentName,
                              Qel::String const& agentString = {});

  Qel::Name const& agentName() const { return agentName_; }
  Qel::String const& agentString() const { return agentString_; }
  void agentStringIs(Qel::String const& s) { agentString_ = s; }
  Qel::Name const& connectionName() const { return connectionName_; }
  void connectionNameIs(Qel::Name const& n) { connectionName_ = n; }
  bool whiteList() const { return whiteList_; }
  void whiteListIs(bool v) { whiteList_ = v; }
  // The protocol version announced at connect; while connected, setting it also changes the
  // peer table's currentVersion at once.
  Qel::U32 currentVersion() const { return currentVersion_; }
  void currentVersionIs(Qel::U32 v);

  unsigned answerTurns() const { return answerTurns_; }
  // At least 1: answers never come inside the request.
  void answerTurnsIs(unsigned turns);
  Qel::Time answerDelay() const { return answerDelay_; }
  void answerDelayIs(Qel::Time seconds);
  bool holdAnswers() const { return holdAnswers_; }
  void holdAnswersIs(bool v) { holdAnswers_ = v; }
  // Every mount of `path` fails with `exceptionText`; an empty text lets it succeed again.
  void mountFailureIs(Qel::String const& path, Qel::String const& exceptionText);
  // The state a successful mount of `path` gives it.
  void pathStateOnAnswerIs(Qel::String const& path, Qel::MountTable::PathState const& s);
  void pathStateOnAnswerDel(Qel::String const& path);
  Qel::MountTable::PathState pathStateOnAnswer(Qel::String const& path) const;
  // Sets the peer table's state of `path` now (connected only).
  void pathStateIs(Qel::String const& path, Qel::MountTable::PathState const& s);

  // The paths of the held answers, in request order.
  std::vector<Qel::String> heldAnswers() const;
  // Gives the oldest held answer for `path` now; false when none is held.
  bool answerRelease(Qel::String const& path);
  // Gives every held answer now, in request order; returns how many.
  std::size_t answersRelease();
  // Answers scheduled (not held) and not yet given.
  std::size_t answersScheduled() const;

  // Connects (see the header comment); returns the connection's demuxer. While a connection is
  // live this returns it; a connection still waiting for its teardown is torn down first.
  Qel::NboAttrLog::Demuxer::Ptr connect();
  // The agent drops the connection.
  void disconnect(Qel::String const& reason);
  // A connection exists and is not closed.
  bool connected() const;
  // The present connection's objects (null when there is none; a closed connection's until its
  // teardown).
  Qel::NboAttrLog::Demuxer::Ptr demuxer() const;
  Qel::MountTable::Ptr peerMountTable() const;
  PassiveConnectionStatus::Ptr connectionStatus() const;
  // The number of connections made so far (the epoch of the latest).
  Qel::U32 epoch() const { return epoch_; }

  std::vector<MountRequest> const& mountRequests() const { return mountRequests_; }
  void mountRequestsDelAll() { mountRequests_.clear(); }
  // Every mount request received over all connections, recorded or not.
  std::size_t mountRequestCount() const { return mountRequestCount_; }
  // Whether requests and served paths are recorded (default: yes). A benchmark turns recording
  // off so that the agent's own bookkeeping does not count as the database's memory.
  bool recording() const { return recording_; }
  void recordingIs(bool v) { recording_ = v; }
  std::vector<Qel::String> const& closeReasons() const { return closeReasons_; }
  std::vector<std::pair<Qel::String, bool>> const& servedPaths() const { return servedPaths_; }

 private:
  class Connection;
  friend class Connection;

  LoopbackAgent(Qel::EventLoop::Ptr loop, Qel::Name agentName, Qel::String agentString);
  ~LoopbackAgent() override;

  Qel::EventLoop::Ptr const loop_;
  Qel::Name const agentName_;
  Qel::String agentString_;
  Qel::Name connectionName_;
  bool whiteList_ = false;
  Qel::U32 currentVersion_ = Qel::MountTable::kProtocolVersion;
  unsigned answerTurns_ = 1;
  Qel::Time answerDelay_ = 0;
  bool holdAnswers_ = false;
  bool recording_ = true;
  std::size_t mountRequestCount_ = 0;
  std::map<Qel::String, Qel::String> mountFailure_;
  std::map<Qel::String, Qel::MountTable::PathState> pathStateOnAnswer_;
  Qel::U32 epoch_ = 0;
  Qel::Ptr<Connection> conn_;
  std::vector<MountRequest> mountRequests_;
  std::vector<Qel::String> closeReasons_;
  std::vector<std::pair<Qel::String, bool>> servedPaths_;
};

}  // namespace Ledra
