// Ledra::AgentListener: serves agent processes on a Unix domain socket. The database cannot tell
// an agent connected here from a Ledra::LoopbackAgent: each connection gets the same objects, in
// the same order.
//
// Listening. agentListenerNew binds a stream socket at `path` and listens on the loop. A socket
// file left there by a process that is gone (nothing accepts on it) is removed first; a path held
// by a live listener, a path that is not a socket, or any failure to bind throws Qel::Exception
// with the path and the reason ("cannot listen for agents on <path>: <reason>").
//
// One connection. Accepted sockets wait for the agent's Hello (at most helloTimeout() seconds of
// the loop's clock, then "no hello within <n> seconds"). A connection that sends anything else
// first, or whose hello names no agent, a name with '/', or a protocol version other than 1 to
// Qel::MountTable::kProtocolVersion, is closed with the reason; so is a second connection under a
// name whose connection is live ("agent <name> is already connected"). Otherwise, as
// LoopbackAgent::connect does: the peer MountTable is made with currentVersion from the hello, the
// Demuxer (named after the agent; epoch: the number of this connection of the name, 1, 2, ...)
// over a SocketTransport is registered in Qel::NboAttrLog::demuxerMgr(), and the
// PassiveConnectionStatus (agentName, agentString, whiteList false) enters
// ConnMgrHelper::connectionStatusDir() (a stale record of the name, left by a close that kept it,
// leaves first); then it is marked established, state kStateConnected, and connected.
//
// When a connection goes (either side closes, the stream ends, or the agent breaks the protocol)
// its teardown runs on a later loop turn: the status record is marked closed (state kStateClosed,
// not established, not connected) and leaves the directory unless the close asked to keep it,
// and the demuxer leaves demuxerMgr(). An agent that connects again under the same name is served
// again with the next epoch.
//
// Destroying the listener stops listening, removes its socket file, and closes every connection
// at once with the reason "database shutting down". The loop must outlive the listener.
// Single-threaded, on the loop's thread.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Ledra/PassiveConnectionStatus.h"
#include "Qel/Api.h"
#include "Qel/EventLoop.h"
#include "Qel/NboAttrLog/SocketTransport.h"

namespace Ledra {

class QEL_API AgentListener : public Qel::RefCounted,
                              private Qel::NboAttrLog::SocketTransport::Owner {
 public:
  using Ptr = Qel::Ptr<AgentListener>;
  static constexpr Qel::Time kDefaultHelloTimeout = 10.0;

  // Listens on `path`; see the header comment.
  static Ptr agentListenerNew(Qel::EventLoop::Ptr const& loop, std::string const& path);

  std::string const& socketPath() const { return path_; }
  // Agent connections whose hello was accepted and which are not closed.
  std::size_t connections() const;
  // Accepted sockets still waiting for their hello.
  std::size_t pendingConnections() const;
  // The connections made so far under `agentName` (the epoch of its latest).
  Qel::U32 epoch(Qel::Name const& agentName) const;
  // The transport of the connection of `agentName` (null when it has none).
  Qel::NboAttrLog::SocketTransport::Ptr transport(Qel::Name const& agentName) const;

  std::size_t maxFrame() const { return maxFrame_; }
  // The largest frame body taken from or sent to an agent; applies to every connection.
  void maxFrameIs(std::size_t bytes);
  Qel::Time helloTimeout() const { return helloTimeout_; }
  // Applies to sockets accepted afterwards.
  void helloTimeoutIs(Qel::Time seconds);

 private:
  class HelloTimer;
  class RetryTimer;
  struct Connection {
    Qel::NboAttrLog::SocketTransport::Ptr transport;
    std::unique_ptr<HelloTimer> helloTimer;
    Qel::NboAttrLog::Demuxer::Ptr demuxer;
    PassiveConnectionStatus::Ptr status;
  };

  AgentListener(Qel::EventLoop::Ptr loop, std::string path);
  ~AgentListener() override;

  void listen();
  void acceptReady();
  void pauseAccepting();
  void resumeAccepting();
  void helloExpired(Qel::NboAttrLog::SocketTransport* t);

  // SocketTransport::Owner.
  void onHello(Qel::NboAttrLog::SocketTransport& t,
               Qel::NboAttrLog::WireHello const& hello) override;
  void onGone(Qel::NboAttrLog::SocketTransport& t, bool removeStatus) override;

  // Makes room for the agent of `hello` (tears down its closed connection, drops a record kept by
  // an earlier close) and returns the reason to refuse it; empty when it is admitted.
  std::string admit(Qel::NboAttrLog::WireHello const& hello);

  Qel::EventLoop::Ptr const loop_;
  std::string const path_;
  int fd_ = -1;
  // The socket file as bound, so that only our own file is removed at the end.
  unsigned long long fileDevice_ = 0;
  unsigned long long fileInode_ = 0;
  std::size_t maxFrame_ = Qel::NboAttrLog::WireDecoder::kDefaultMaxFrame;
  Qel::Time helloTimeout_ = kDefaultHelloTimeout;
  std::map<Qel::NboAttrLog::SocketTransport*, Connection> conns_;
  std::map<Qel::Name, Qel::U32> epochs_;
  std::unique_ptr<RetryTimer> retry_;
  bool accepting_ = false;
};

}  // namespace Ledra
