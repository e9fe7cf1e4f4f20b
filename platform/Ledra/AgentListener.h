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
// first, or whose hello names no agent, a name longer than maxAgentName() bytes, a name or agent
// string that is not valid UTF-8 or holds a control character (Qel::NboAttrLog::wireTextFault),
// a name with '/', or a protocol version other than 1 to Qel::MountTable::kProtocolVersion, is
// closed with the reason (any text of the agent's in it in printable form); so is a second
// connection under a name whose connection is live ("agent <name> is already connected").
// Otherwise, as LoopbackAgent::connect does: the peer MountTable is made with currentVersion from
// the hello, the Demuxer (named after the agent; epoch: see below) over a SocketTransport is
// registered in Qel::NboAttrLog::demuxerMgr(), and the PassiveConnectionStatus (agentName,
// agentString, whiteList false) enters ConnMgrHelper::connectionStatusDir() (a stale record of the
// name, left by a close that kept it, leaves first); then it is marked established, state
// kStateConnected, and connected.
//
// When a connection goes (either side closes, the stream ends, or the agent breaks the protocol)
// its teardown runs on a later loop turn: the status record is marked closed (state kStateClosed,
// not established, not connected) and leaves the directory unless the close asked to keep it,
// and the demuxer leaves demuxerMgr(). An agent that connects again under the same name is served
// again with the next epoch.
//
// Epochs. Every connection of a name gets a higher epoch than every earlier connection of that
// name, so that an incarnation is never mistaken for an earlier one. The listener remembers the
// latest epoch of at most maxRememberedNames() names, forgetting the name connected least
// recently first; the highest epoch it has forgotten is kept, and a name it does not remember
// starts above it. Until names are forgotten the epoch counts the connections of the name
// (1, 2, ...); memory stays bounded however many names agents invent.
//
// Output. Each connection may hold at most maxOutput() bytes not taken by its agent (then it is
// closed by its transport). All connections together may hold at most maxOutputTotal() bytes:
// as soon as they hold more, the connections with the most bytes waiting are given up, largest
// first, until the rest fit: their output is freed at once and they close on a later turn
// ("output to all agents exceeds <limit> bytes; this agent has the most waiting (<n> bytes)").
// The loop never waits for an agent.
//
// Accepting pauses while the process is out of descriptors (Qel::NboAttrLog::SocketAcceptor) and
// resumes after a delay or as soon as a connection of the listener is torn down.
//
// Destroying the listener stops listening, removes its socket file, and closes every connection
// at once with the reason "database shutting down". The loop must outlive the listener.
// Single-threaded, on the loop's thread.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Ledra/PassiveConnectionStatus.h"
#include "Qel/Core/Api.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/NboAttrLog/SocketAcceptor.h"
#include "Qel/NboAttrLog/SocketTransport.h"

namespace Ledra {

class QEL_API AgentListener : public Qel::RefCounted,
                              private Qel::NboAttrLog::SocketTransport::Owner {
 public:
  using Ptr = Qel::Ptr<AgentListener>;
  static constexpr Qel::Time kDefaultHelloTimeout = 10.0;
  static constexpr std::size_t kDefaultMaxAgentName = 255;
  static constexpr std::size_t kDefaultMaxOutput =
      Qel::NboAttrLog::SocketTransport::kDefaultMaxOutput;
  static constexpr std::size_t kDefaultMaxOutputTotal = std::size_t(64) << 20;
  static constexpr std::size_t kDefaultMaxRememberedNames = 4096;

  // Listens on `path`; see the header comment.
  static Ptr agentListenerNew(Qel::EventLoop::Ptr const& loop, std::string const& path);

  std::string const& socketPath() const { return path_; }
  // Agent connections whose hello was accepted and which are not closed.
  std::size_t connections() const;
  // Accepted sockets still waiting for their hello.
  std::size_t pendingConnections() const;
  // The epoch of the latest connection of `agentName`; 0 when the name is not remembered.
  Qel::U32 epoch(Qel::Name const& agentName) const;
  // Names whose epoch is remembered.
  std::size_t rememberedNames() const { return epochs_.size(); }
  std::size_t maxRememberedNames() const { return maxRememberedNames_; }
  // At least 1; forgets the oldest names beyond it at once.
  void maxRememberedNamesIs(std::size_t names);
  // The transport of the connection of `agentName` (null when it has none).
  Qel::NboAttrLog::SocketTransport::Ptr transport(Qel::Name const& agentName) const;

  // Until its hello is admitted a connection's frames may be at most this long (or maxFrame(),
  // when that is less): a hello is a name of at most maxAgentName() bytes and an agent string,
  // so a socket that never says hello holds no more than this until its hello timeout.
  static constexpr std::size_t kMaxHelloFrame = 64 * 1024;
  std::size_t maxFrame() const { return maxFrame_; }
  // The largest frame body taken from or sent to an agent; applies to every connection.
  void maxFrameIs(std::size_t bytes);
  Qel::Time helloTimeout() const { return helloTimeout_; }
  // Applies to sockets accepted afterwards.
  void helloTimeoutIs(Qel::Time seconds);
  std::size_t maxAgentName() const { return maxAgentName_; }
  // The longest agent name, in bytes (at least 1); applies to hellos received afterwards.
  void maxAgentNameIs(std::size_t bytes);
  std::size_t maxOutput() const { return maxOutput_; }
  // Bytes one connection may hold for its agent; applies to every connection.
  void maxOutputIs(std::size_t bytes);
  std::size_t maxOutputTotal() const { return maxOutputTotal_; }
  // Bytes all connections together may hold; applies at once.
  void maxOutputTotalIs(std::size_t bytes);
  // Bytes waiting for all agents.
  std::size_t outputTotal() const { return outputTotal_; }
  // Whether accepting is paused for want of descriptors.
  bool acceptPaused() const { return acceptor_ && acceptor_->paused(); }

 private:
  class HelloTimer;
  struct Connection {
    Qel::NboAttrLog::SocketTransport::Ptr transport;
    std::unique_ptr<HelloTimer> helloTimer;
    Qel::NboAttrLog::Demuxer::Ptr demuxer;
    PassiveConnectionStatus::Ptr status;
  };

  AgentListener(Qel::EventLoop::Ptr loop, std::string path);
  ~AgentListener() override;

  void listen();
  void accepted(int fd);
  void helloExpired(Qel::NboAttrLog::SocketTransport* t);
  // Gives up on the connections with the most output until the rest fit in maxOutputTotal().
  void shedOutput();
  // The epoch of a new connection of `name`, remembered as its latest.
  Qel::U32 nextEpoch(Qel::Name const& name);
  void forgetOldNames();

  // SocketTransport::Owner.
  void onHello(Qel::NboAttrLog::SocketTransport& t,
               Qel::NboAttrLog::WireHello const& hello) override;
  void onGone(Qel::NboAttrLog::SocketTransport& t, bool removeStatus) override;
  void onOutputBuffered(Qel::NboAttrLog::SocketTransport& t, std::size_t before) override;

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
  std::size_t maxAgentName_ = kDefaultMaxAgentName;
  std::size_t maxOutput_ = kDefaultMaxOutput;
  std::size_t maxOutputTotal_ = kDefaultMaxOutputTotal;
  std::size_t outputTotal_ = 0;
  std::map<Qel::NboAttrLog::SocketTransport*, Connection> conns_;
  // Per remembered name its latest epoch and when it was given (a count of connections).
  struct Remembered {
    Qel::U32 epoch;
    Qel::U64 given;
  };
  std::map<Qel::Name, Remembered> epochs_;
  std::map<Qel::U64, Qel::Name> namesByAge_;
  Qel::U64 epochsGiven_ = 0;
  // The highest epoch of a forgotten name.
  Qel::U32 forgottenEpoch_ = 0;
  std::size_t maxRememberedNames_ = kDefaultMaxRememberedNames;
  bool shedding_ = false;
  std::unique_ptr<Qel::NboAttrLog::SocketAcceptor> acceptor_;
};

}  // namespace Ledra
