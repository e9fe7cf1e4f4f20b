// LedraAgent::AgentSession: one agent's connection to the database, on an event loop.
//
// start() sends the hello (name, agent string, protocol version of the options), prints
// "connected as NAME" and watches the socket. Each mount request prints
// "mount SEQNO PATH flags=LETTERS type=TYPE"; when the request says the entity's state follows,
// the answer waits for that state (the next message). The mount is then failed with the text of
// a matching --fail, left unanswered for a --hold path, or applied to the local tree and answered
// as mounted, complete, synchronised and a mount point. A request whose URI does not parse is
// failed with the parse error.
//
// The session ends (ended() true, the socket closed, the loop stopped) when:
//   - the database sends a Close: prints "closed: REASON", exit status 0;
//   - the stream ends or fails without one: prints "lost connection", exit status 1. When a
//     write fails, what the database sent before is still read and handled: a Close among it is
//     reported as above;
//   - the database breaks the protocol (a malformed frame, a state nobody announced): the agent
//     sends a Close with the reason, prints "protocol error: REASON", exit status 1;
//   - stop() (the program's SIGTERM/SIGINT): prints "holds:" and one line per held path, sorted,
//     sends a Close "agent stopped", exit status 0.
// Every line is flushed at once. Writes never block: what the socket does not take waits for it.
// Single-threaded, on the loop's thread; the loop must outlive the session.
#pragma once

#include <map>
#include <optional>
#include <ostream>
#include <string>

#include "AgentOptions.h"
#include "LocalTree.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/NboAttrLog/WireMessage.h"

namespace LedraAgent {

class AgentSession {
 public:
  // A session over the connected socket `fd` (owned from now on).
  AgentSession(Qel::EventLoop::Ptr loop, int fd, AgentOptions options, std::ostream& out);
  ~AgentSession();
  AgentSession(AgentSession const&) = delete;
  AgentSession& operator=(AgentSession const&) = delete;

  void start();
  void stop();

  bool ended() const { return ended_; }
  int exitStatus() const { return exitStatus_; }
  LocalTree const& tree() const { return tree_; }
  // Mounts received but not answered (held paths), by sequence number.
  std::map<Qel::U32, std::string> const& unanswered() const { return unanswered_; }

 private:
  void onReady(unsigned ready);
  // Reads up to `chunks` chunks into the decoder; true at the end of the stream or a read error.
  bool read(int chunks);
  // Handles every decoded message; false when the session ended.
  bool handleDecoded();
  // A write failed: reads what the database wrote before, then ends the session.
  void connectionLost();
  // False when the session ended.
  bool handle(Qel::NboAttrLog::WireMessage const& m);
  void request(Qel::NboAttrLog::WireMountRequest const& r,
               Qel::NboAttrLog::WireEntityState const* state);
  // Queues and writes `m`; false when the socket failed.
  bool send(Qel::NboAttrLog::WireMessage const& m);
  bool flush();
  void watchFor(bool writable);
  void protocolError(std::string const& reason);
  void finish(std::string const& line, int status);
  // With --show: every path held, its type, its flags explained and its attribute values.
  void show();
  void line(std::string const& text);

  Qel::EventLoop::Ptr const loop_;
  int fd_;
  AgentOptions const options_;
  std::ostream& out_;
  Qel::NboAttrLog::WireDecoder decoder_;
  std::string output_;
  LocalTree tree_;
  // A request whose state is announced and not yet here.
  std::optional<Qel::NboAttrLog::WireMountRequest> awaitingState_;
  std::map<Qel::U32, std::string> unanswered_;
  bool watchingWritable_ = false;
  bool draining_ = false;
  bool ended_ = false;
  int exitStatus_ = 0;
};

}  // namespace LedraAgent
